// The "add" command: its options, the choice of a server, and its output.
#include "Commands.h"

#include "AddRun.h"
#include "Json.h"
#include "Ldif.h"
#include "OpenLDAP.h"
#include "OptionList.h"
#include "Options.h"
#include "Outcome.h"
#include "Progress.h"
#include "Secret.h"
#include "Sessions.h"
#include "Text.h"

#include <fmt/format.h>

#include <array>
#include <chrono>

namespace Solvane::Tool {

namespace {

constexpr char footer[] =
    "Records are entries, or changes of type add. Each entry gets one line, in the order of the\n"
    "file: added DN, exists DN, refused CODE DN: TEXT, or unknown DN: TEXT if no answer came;\n"
    "such an entry may have been added, and is not sent again. Several entries are in flight at\n"
    "once, but each is sent only after its parent entry has been answered.\n\n"
    "Exit status, the worst of all entries:\n"
    "   0  added\n"
    "  64  usage error\n"
    "  65  invalid LDIF, or an entry that violates the schema\n"
    "  69  refused permanently, or referred to another server\n"
    "  73  already exists\n"
    "  74  cannot write to standard output\n"
    "  75  try later: server down, no answer in time, busy\n"
    "  77  credentials, access or certificate refused\n"
    "  78  parent entry missing, or an unusable file or password\n"
    "Precedence, worst first: 64, 78, 77, 75, 69, 65, 73, 0.";

constexpr std::array<char const*, 4> statusNames = {"added", "exists", "refused", "unknown"};

char const* nameOf(AddReport::Status status)
{
    // cppcheck-suppress CastIntegerToAddressAtReturn ; the integer is an index into texts
    return statusNames[static_cast<std::size_t>(status)];
}

// Reports

std::string textOf(AddReport const& report)
{
    std::string const dn = oneLine(report.dn);
    switch (report.status) {
    case AddReport::Status::added:
    case AddReport::Status::exists:
        return fmt::format("{} {}", nameOf(report.status), dn);
    case AddReport::Status::refused:
        return fmt::format("refused {} {}: {}", report.code, dn, report.text);
    case AddReport::Status::unknown:
        break;
    }
    return fmt::format("unknown {}: {}", dn, report.text);
}

std::string jsonTextOf(AddReport const& report)
{
    std::string text;
    Json json(text);
    json->StartObject();
    json.key("dn").value(report.dn);
    json.key("status").string(nameOf(report.status));
    json.key("line")->Uint64(report.line);
    json.key("code")->Int(report.code);
    json.key("text").string(report.text);
    json.key("server").string(report.server);
    json->EndObject();
    return text;
}

/// Prints the reports and counts them.
class Reporter {
public:
    Reporter(CommonOptions const& common, Output& output, Diagnostics& diagnostics)
        : m_common(common), m_output(output), m_diagnostics(diagnostics),
          m_progress(diagnostics, std::nullopt), m_start(std::chrono::steady_clock::now())
    {
    }

    void take(AddReport const& report);
    void printFigures();

private:
    void complain(AddReport const& report) const;

    CommonOptions const& m_common;
    Output& m_output;
    Diagnostics& m_diagnostics;
    Progress m_progress;
    std::chrono::steady_clock::time_point m_start;
    std::array<unsigned long, statusNames.size()> m_counts{};
    unsigned long m_total = 0;
};

void Reporter::take(AddReport const& report)
{
    ++m_counts[static_cast<std::size_t>(report.status)];
    std::string line = m_common.format() == "json" ? jsonTextOf(report) : textOf(report);
    line += m_common.recordEnd();
    m_output.write(line);
    complain(report);
    m_progress.update(++m_total);
}

void Reporter::complain(AddReport const& report) const
{
    if (report.status == AddReport::Status::added) {
        return;
    }
    if (report.status == AddReport::Status::unknown) {
        m_diagnostics.error(
            fmt::format("{}: {}; check whether the entry exists before you add it again", report.dn,
                        report.text));
        return;
    }
    std::string const cause = report.status == AddReport::Status::exists
                                  ? std::string("already exists")
                                  : fmt::format("{} ({})", report.text, report.code);
    m_diagnostics.error(
        fmt::format("{}: {}; {}", report.dn, cause,
                    report.remedy.empty() ? remedyForAdd(report.code) : report.remedy));
}

void Reporter::printFigures()
{
    m_progress.finish();
    printCounts(m_diagnostics, m_common.stats(),
                {{statusNames[0], "added", m_counts[0]},
                 {statusNames[1], "exist", m_counts[1]},
                 {statusNames[2], "refused", m_counts[2]},
                 {statusNames[3], "unknown", m_counts[3]}},
                m_start);
}

// What -n shows

/// The change record that adds an entry, ended by `end` instead of an empty line.
std::string recordOf(LdifEntry const& entry, char end)
{
    std::string text;
    LDAPLdif::appendLine(text, "dn", entry.dn);
    LDAPLdif::appendLine(text, "changetype", "add");
    for (LDAPAttribute const& attribute : entry.attributes) {
        for (std::string const& value : attribute.value()) {
            LDAPLdif::appendLine(text, attribute.type().asString(), value);
        }
    }
    return text + end;
}

std::string jsonRecordOf(LdifEntry const& entry, char end)
{
    std::string text;
    Json json(text);
    json->StartObject();
    json.key("dn").value(entry.dn);
    json.key("line")->Uint64(entry.line);
    json.key("attrs")->StartObject();
    for (LDAPAttribute const& attribute : entry.attributes) {
        json.key(attribute.type().asString())->StartArray();
        for (std::string const& value : attribute.value()) {
            json.value(value);
        }
        json->EndArray();
    }
    json->EndObject();
    json->EndObject();
    return text + end;
}

/// Reads all records: calls `use` for each entry and `refuse` for each invalid record, until one of
/// them returns false.
/// @param awaitInput  is called while the input has no whole line
template <typename Use, typename Refuse>
void forEachEntry(std::string const& path, LdifReader::AwaitInput const& awaitInput, Use const& use,
                  Refuse const& refuse)
{
    LdifReader reader(path);
    for (bool goesOn = true; goesOn;) {
        LdifEntry entry;
        try {
            if (!reader.next(entry, awaitInput)) {
                return;
            }
            goesOn = use(entry);
        } catch (LdifFault const& fault) {
            goesOn = refuse(fault);
        }
    }
}

} // namespace

void AddCommand::declareOn(OptionList& options)
{
    options.value("-f,--file", m_file, "FILE", "LDIF file, '-' for standard input").showsDefault();
    options.flag("-c,--continue", m_goesOn, "Continue after a failure");
    options.flag("-n,--dry-run", m_onlyShows, "Print what would be sent; contact no server");
    m_settings.declareOn(options, *settingOfFile("window"), "Maximum number of adds in flight");
    options.footer(footer);
}

int AddCommand::run(CommonOptions const& common, Output& output, Diagnostics& diagnostics)
{
    common.requireTextOrJson(name());
    return exitStatusOf(m_onlyShows ? show(common, output, diagnostics)
                                    : add(common, output, diagnostics));
}

Outcome AddCommand::show(CommonOptions const& common, Output& output,
                         Diagnostics& diagnostics) const
{
    Outcome worst = Outcome::found;
    forEachEntry(
        m_file, waitForInput,
        [&](LdifEntry const& entry) {
            output.write(common.format() == "json" ? jsonRecordOf(entry, common.recordEnd())
                                                   : recordOf(entry, common.recordEnd()));
            return true;
        },
        [&](LdifFault const& fault) {
            diagnostics.error(fault.what());
            worst = fault.outcome();
            return m_goesOn;
        });
    return worst;
}

Outcome AddCommand::add(CommonOptions const& common, Output& output, Diagnostics& diagnostics) const
{
    if (m_file == "-" && common.readsStandardInput()) {
        throw Failure(Outcome::usage, "entries and password are both read from standard input",
                      "pass one of them another way, as in --password-fd 3 3<FILE");
    }
    Secret password;
    Draft draft = common.draft();
    m_settings.applyTo(draft);
    LDAPLookup::Settings const settings = common.settings(draft, password);
    AddRun::Limits limits;
    limits.window = settings.window;
    limits.silence = std::chrono::seconds(settings.networkTimeout);
    limits.answer = settings.deadline;
    limits.goesOn = m_goesOn;

    Reporter reporter(common, output, diagnostics);
    auto const tls = std::make_shared<Lookup::TlsContext>(settings.tls);
    auto const lastStep = settings.isAnonymous() ? Lookup::Step::bind : Lookup::Step::identify;
    AddRun adds(
        limits,
        [&] {
            auto session = openFirst(settings, tls, lastStep, diagnostics);
            diagnostics.note(fmt::format("adding to {}", session->uri()));
            return session;
        },
        [&](AddReport const& report) { reporter.take(report); });
    Outcome worst = Outcome::found;
    forEachEntry(
        m_file, [&](int descriptor) { return adds.awaitInput(descriptor); },
        [&](LdifEntry const& entry) {
            adds.add(entry);
            return adds.mayGoOn();
        },
        [&](LdifFault const& fault) {
            worst = fault.outcome();
            if (!fault.entry().dn.empty()) {
                adds.refuse(fault.entry(), LDAP_PARAM_ERROR, fault.cause(), fault.remedy());
                return m_goesOn;
            }
            adds.finish(); // reports the entries before it first
            diagnostics.error(fault.what());
            return m_goesOn;
        });
    adds.finish();
    reporter.printFigures();
    return worse(worst, adds.worst());
}

} // namespace Solvane::Tool
