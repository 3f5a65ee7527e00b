// solvane_faults [--tool PATH --preload PATH] [--fault NAME] [--operation NAME] [--quick]
// solvane_faults --list
// solvane_faults --rows NAME,NAME...
//
// Tries every operation against every fault, or those named, and prints a line of JSON for each cell:
// fault, operation, how many cases were tried, how many passed, how many showed a known limit of
// OpenLDAP, milliseconds, and what failed. Ends with 1 where a case failed. Standard error says the same
// for people. --quick tries a part of the cases. --list prints what the faults are; --rows ends with 1
// unless these are their names.
#include "CellRunner.h"
#include "Descriptor.h"
#include "FaultyServer.h"
#include "Resources.h"

#include <solvane/session/PlainText.h>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <stdexcept>

#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace SolvaneTest;

namespace {

// Options

struct Options {
    std::string fault;
    std::string operation;
    std::string tool;
    std::string preload;
    bool isQuick = false;
    bool lists = false;
    std::string rows;
};

Options optionsFrom(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string const name = argv[i];
        if (name == "--quick") {
            options.isQuick = true;
            continue;
        }
        if (name == "--list") {
            options.lists = true;
            continue;
        }
        std::string* const value = name == "--fault"       ? &options.fault
                                   : name == "--operation" ? &options.operation
                                   : name == "--tool"      ? &options.tool
                                   : name == "--preload"   ? &options.preload
                                   : name == "--rows"      ? &options.rows
                                                           : nullptr;
        if (value == nullptr || i + 1 == argc) {
            throw std::invalid_argument("unknown or incomplete option " + name);
        }
        *value = argv[++i];
    }
    return options;
}

// The healthy server, in a process of its own: what is done to this one must not harm it.

class HealthyProcess {
public:
    HealthyProcess() : m_port(0), m_pid(-1)
    {
        std::array<int, 2> ends;
        checked(pipe2(ends.data(), O_CLOEXEC), "pipe2");
        m_pid = checked(fork(), "fork");
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            FaultyServer const server(serveWell);
            unsigned int const port = server.port();
            checked(write(ends[1], &port, sizeof port), "write");
            for (;;) {
                pause();
            }
        }
        ::close(ends[1]);
        checked(read(ends[0], &m_port, sizeof m_port), "read");
        ::close(ends[0]);
    }
    HealthyProcess(HealthyProcess const&) = delete;
    HealthyProcess& operator=(HealthyProcess const&) = delete;
    ~HealthyProcess()
    {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    unsigned int port() const { return m_port; }

private:
    unsigned int m_port;
    pid_t m_pid;
};

// Output

/// A line of JSON, of texts and numbers by name.
class Line {
public:
    Line() : m_json(m_text) { m_json.StartObject(); }

    Line& add(char const* name, std::string const& text)
    {
        m_json.Key(name);
        std::string const utf8 =
            Solvane::Lookup::isUtf8(text) ? text : Solvane::Lookup::oneLine(text);
        m_json.String(utf8.c_str());
        return *this;
    }
    Line& add(char const* name, std::uint64_t number)
    {
        m_json.Key(name);
        m_json.Uint64(number);
        return *this;
    }
    template <typename Number>
    Line& add(char const* name, std::map<std::string, Number> const& numbers)
    {
        m_json.Key(name);
        m_json.StartObject();
        for (auto const& [each, number] : numbers) {
            add(each.c_str(), std::uint64_t{number});
        }
        m_json.EndObject();
        return *this;
    }
    void print()
    {
        m_json.EndObject();
        std::cout << m_text.GetString() << std::endl;
    }

private:
    rapidjson::StringBuffer m_text;
    rapidjson::Writer<rapidjson::StringBuffer> m_json;
};

void print(Fault const& fault, Column column, CellReport const& report)
{
    unsigned int limited = 0;
    for (auto const& limit : report.limits) {
        limited += limit.second;
    }
    std::string text;
    for (std::string const& failure : report.failures) {
        text += (text.empty() ? "" : "\n") + failure;
    }
    Line()
        .add("fault", fault.name)
        .add("operation", nameOf(column))
        .add("cases", report.tried)
        .add("passed", report.passed)
        .add("limited", limited)
        .add("limits", report.limits)
        .add("failed", report.failures.size())
        .add("milliseconds", static_cast<std::uint64_t>(report.milliseconds))
        .add("text", text)
        .print();
    std::cerr << fault.name << " / " << nameOf(column) << ": " << report.passed << " of "
              << report.tried << " passed, " << limited << " known limits, " << report.milliseconds
              << " ms\n";
    if (!text.empty()) {
        std::cerr << text << '\n';
    }
}

void printNotApplicable(Fault const& fault, Column column, std::string const& why)
{
    Line()
        .add("fault", fault.name)
        .add("operation", nameOf(column))
        .add("notApplicable", why)
        .print();
}

/// The maximum number of cases of a cell; 0: all. The tool's are a process each; what is left out of the
/// other cells by a quick run is code that they share.
unsigned int mostCases(Column column, bool isQuick)
{
    switch (column) {
    case Column::tool:
        return isQuick ? 4 : 60;
    case Column::modify:
    case Column::remove:
    case Column::compare:
        return isQuick ? 12 : 0;
    case Column::stream:
        return isQuick ? 60 : 0;
    default:
        return 0;
    }
}

void printList(std::vector<Fault> const& faults)
{
    for (Fault const& fault : faults) {
        Line()
            .add("fault", fault.name)
            .add("meaning", fault.meaning)
            .add("limit", fault.limit)
            .print();
    }
}

// The matrix

std::vector<Fault> allFaults()
{
    std::vector<Fault> all;
    for (auto const& kind : {connectionFaults(), securityFaults(), serverFaults(), byteFaults(),
                             messageFaults(), hostFaults(), interruptionFaults(), memoryFaults()}) {
        all.insert(all.end(), kind.begin(), kind.end());
    }
    return all;
}

std::string namesOf(std::vector<Fault> const& faults)
{
    std::string names;
    for (Fault const& fault : faults) {
        names += (names.empty() ? "" : ",") + fault.name;
    }
    return names;
}

bool isWanted(std::string const& asked, std::string const& name)
{
    return asked.empty() || asked == name;
}

int run(Options const& options)
{
    std::vector<Fault> const faults = allFaults();
    if (options.lists) {
        printList(faults);
        return EXIT_SUCCESS;
    }
    if (!options.rows.empty()) {
        std::string const names = namesOf(faults);
        std::cerr << names << '\n';
        return names == options.rows ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    setenv("LDAPNOINIT", "1", 1); // the host's ldap.conf stays out
    HealthyProcess const healthy;
    constexpr unsigned int everySeventh = 7;
    Extent extent;
    extent.stride = options.isQuick ? everySeventh : 1;
    extent.healthyPort = healthy.port();
    extent.tool = options.tool;
    extent.preload = options.preload;

    bool isGood = true;
    unsigned int cells = 0;
    for (Fault const& fault : faults) {
        for (Column const column : allColumns) {
            if (!isWanted(options.fault, fault.name) ||
                !isWanted(options.operation, nameOf(column))) {
                continue;
            }
            ++cells;
            bool const isThere = column != Column::tool || !options.tool.empty();
            std::string const why = isThere ? fault.notApplicable(column) : "there is no tool";
            if (!why.empty()) {
                printNotApplicable(fault, column, why);
                continue;
            }
            extent.most = mostCases(column, options.isQuick);
            CellReport const report = runCell(fault, column, extent);
            print(fault, column, report);
            isGood = isGood && report.failures.empty();
        }
    }
    if (cells == 0) {
        throw std::invalid_argument("no such fault or operation");
    }
    return isGood ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return run(optionsFrom(argc, argv));
    } catch (std::exception const& fault) {
        std::cerr << argv[0] << ": " << fault.what() << '\n';
        return 2;
    }
}
