// The judge runs in a child, the watchdog in the parent. They communicate by lines through a pipe.
#include "CellRunner.h"

#include "Crash.h"
#include "Descriptor.h"
#include "Expectations.h"
#include "FaultyServer.h"
#include "Resources.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <sstream>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace SolvaneTest {

namespace {

using Clock = std::chrono::steady_clock;

std::string listOf(Accepted const& words)
{
    std::string text;
    for (std::string const& word : words) {
        text += (text.empty() ? "" : ", ") + word;
    }
    return text;
}

// The judge

/// What is wrong with a case; empty if nothing is.
struct Judgement {
    std::string failure;
    std::string limit;
};

void fail(Judgement& judgement, std::string const& why)
{
    judgement.failure += (judgement.failure.empty() ? "" : "; ") + why;
}

void judgeWords(Judgement& judgement, Came const& came, Case const& tried)
{
    for (std::string const& word : came) {
        std::string const crashed = openLdapFunctionIn(word);
        if (tried.acceptedAsLimit.count(word) != 0) {
            judgement.limit = word;
        } else if (tried.mayOpenLdapCrash && !crashed.empty()) { // the tool
            judgement.limit = crashed;
        } else if (tried.accepted.count(word) == 0) {
            fail(judgement, "result \"" + word + "\", expected " + listOf(tried.accepted));
        }
    }
}

void judgeRecovery(Judgement& judgement, Came const& came, Case const& tried, Column column)
{
    // A connection that could not be confirmed is kept as such.
    char const unconfirmed[] = "found unconfirmed";
    bool const mayBeUnconfirmed = tried.accepted.count(unconfirmed) != 0;
    for (std::string const& word : came) {
        bool const isKept = mayBeUnconfirmed && word == unconfirmed;
        if (success(column).count(word) == 0 && !isKept) {
            fail(judgement, "afterwards result \"" + word + "\"");
        }
    }
}

void judgeDescriptors(Judgement& judgement, std::vector<std::string> const& before,
                      Case const& tried)
{
    for (std::string const& each : openDescriptors()) {
        if (std::find(before.begin(), before.end(), each) == before.end()) {
            if (tried.mayOpenLdapLoseDescriptors) {
                judgement.limit = "leaked a descriptor";
            } else {
                fail(judgement, "left open: " + each);
            }
        }
    }
}

void judgeMemory(Judgement& judgement, unsigned long start, Case const& tried)
{
    std::vector<std::size_t> const held = OpenLdapMemory::heldSince(start);
    if (held.empty()) {
        return;
    }
    OpenLdapMemory::forgiveSince(start);
    if (tried.mayOpenLdapLeak) {
        judgement.limit = "leaked memory";
        return;
    }
    std::string sizes;
    for (std::size_t const size : held) {
        sizes += ' ' + std::to_string(size);
    }
    fail(judgement, "OpenLDAP still holds blocks of" + sizes + " bytes");
}

void meetFault(Judgement& judgement, std::string& culprit, Case const& tried, Column column,
               Extent const& extent)
{
    std::unique_ptr<Site> const site = tried.site();
    std::unique_ptr<Action> const operation = makeAction(column, extent.tool);
    auto const start = Clock::now();
    Came const came = site->meet(*operation);
    auto const took = Clock::now() - start;
    judgeWords(judgement, came, tried);
    if (took > std::chrono::seconds(tried.limitSeconds)) {
        fail(judgement, "took longer than " + std::to_string(tried.limitSeconds) + " seconds");
    }
    judgeRecovery(judgement, operation->run(site->mended()), tried, column);
    if (std::string const violation = site->violation(); !violation.empty()) {
        fail(judgement, violation);
    }
    culprit = site->culprit();
}

Judgement judge(Case const& tried, Column column, Extent const& extent)
{
    Judgement judgement;
    std::string culprit;
    std::vector<std::string> const descriptors = openDescriptors();
    unsigned long const memory = OpenLdapMemory::now();
    // Of what the tool starts with. The engine's cell says whether the library itself loses
    // anything.
    setenv("ASAN_OPTIONS", tried.mayOpenLdapLeak ? "detect_leaks=0" : "", 1);
    try {
        meetFault(judgement, culprit, tried, column, extent);
    } catch (NotPermitted const& thrown) {
        judgement.limit = std::string("not permitted here: ") + thrown.what();
    } catch (std::exception const& thrown) {
        fail(judgement, std::string("the test itself failed: ") + thrown.what());
    }
    judgeDescriptors(judgement, descriptors, tried);
    judgeMemory(judgement, memory, tried);
    if (!culprit.empty()) {
        judgement.limit.insert(0, judgement.limit.empty() ? "" : culprit + ": ");
        judgement.failure.insert(0, judgement.failure.empty() ? "" : culprit + ": ");
    }
    return judgement;
}

// The child

void say(int pipe, std::string line)
{
    std::replace(line.begin(), line.end(), '\n', ' ');
    line += '\n';
    checked(write(pipe, line.data(), line.size()), "write");
}

/// One-time allocations of libraries must not look like leaks of the first case.
void warmUp(Column column, Extent const& extent)
{
    Target healthy;
    healthy.port = extent.healthyPort;
    makeAction(column, extent.tool)->run(healthy);
    if (column != Column::tool) {
        healthy.isSecure = true; // which it is not, so this fails; but not before TLS is set up
        makeAction(column, extent.tool)->run(healthy);
    }
}

[[noreturn]] void runChild(std::vector<Case> const& cases, std::size_t first, Column column,
                           Extent const& extent, int pipe, int standardError)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setpgid(0, 0); // what it starts ends with it
    dup2(standardError, STDERR_FILENO);
    std::signal(SIGPIPE, SIG_DFL);
    reportCrashes();
    if (column == Column::verify) {
        FaultyServer::spareReaders();
    }
    warmUp(column, extent);
    for (std::size_t i = first; i < cases.size(); ++i) {
        say(pipe, "start");
        Judgement const judgement = judge(cases[i], column, extent);
        say(pipe, !judgement.failure.empty() ? "failed " + judgement.failure
                  : !judgement.limit.empty() ? "limit " + judgement.limit
                                             : "passed");
    }
    if (hasLostMemory()) {
        say(pipe, "lost");
    }
    say(pipe, "end");
    _exit(0);
}

// The parent

/// A child and its output.
class Child {
public:
    Child(std::vector<Case> const& cases, std::size_t first, Column column, Extent const& extent)
        : m_standardError(checked(memfd_create("stderr", MFD_CLOEXEC), "memfd_create")), m_pipe(-1),
          m_pid(-1)
    {
        std::array<int, 2> ends;
        checked(pipe2(ends.data(), O_CLOEXEC), "pipe2");
        std::fflush(nullptr);
        m_pid = checked(fork(), "fork");
        if (m_pid == 0) {
            close(ends[0]);
            runChild(cases, first, column, extent, ends[1], m_standardError.number());
        }
        close(ends[1]);
        m_pipe = ends[0];
    }
    Child(Child const&) = delete;
    Child& operator=(Child const&) = delete;
    ~Child()
    {
        kill(-m_pid, SIGKILL);
        kill(m_pid, SIGKILL);
        int status = 0;
        while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
        }
        close(m_pipe);
    }

    /// The next line; none if the child has ended or writes nothing for so long.
    std::optional<std::string> line(std::chrono::seconds patience)
    {
        m_isLate = false;
        for (;;) {
            std::string::size_type const end = m_pending.find('\n');
            if (end != std::string::npos) {
                std::string const found = m_pending.substr(0, end);
                m_pending.erase(0, end + 1);
                return found;
            }
            pollfd waited = {m_pipe, POLLIN, 0};
            auto const limit = std::chrono::milliseconds(patience);
            if (poll(&waited, 1, static_cast<int>(limit.count())) == 0) {
                m_isLate = true;
                return std::nullopt;
            }
            std::array<char, 4096> bytes;
            ssize_t const count = read(m_pipe, bytes.data(), bytes.size());
            if (count <= 0) {
                return std::nullopt;
            }
            m_pending.append(bytes.data(), static_cast<std::size_t>(count));
        }
    }
    bool isLate() const { return m_isLate; }

    std::string standardError() const
    {
        std::string text;
        std::array<char, 65536> bytes;
        off_t offset = 0;
        for (;;) {
            ssize_t const count =
                pread(m_standardError.number(), bytes.data(), bytes.size(), offset);
            if (count <= 0) {
                return text;
            }
            text.append(bytes.data(), static_cast<std::size_t>(count));
            offset += count;
        }
    }

private:
    Descriptor m_standardError;
    int m_pipe;
    pid_t m_pid;
    std::string m_pending;
    bool m_isLate = false;
};

/// The most informative part of a child's output.
std::string excerptOf(std::string const& standardError)
{
    constexpr std::string::size_type longest = 3000;
    return standardError.substr(0, longest);
}

void noteEnd(CellReport& report, Case const& tried, Child const& child)
{
    std::string const standardError = child.standardError();
    std::string const function = openLdapFunctionIn(standardError);
    if (child.isLate()) {
        report.failures.push_back(tried.name + ": hung");
    } else if (tried.mayOpenLdapCrash && !function.empty()) {
        ++report.limits[function];
    } else {
        report.failures.push_back(tried.name + ": the process ended: " + excerptOf(standardError));
    }
}

void noteVerdict(CellReport& report, Case const& tried, std::string const& line)
{
    std::string::size_type const blank = line.find(' ');
    std::string const verdict = line.substr(0, blank);
    std::string const text = blank == std::string::npos ? std::string() : line.substr(blank + 1);
    if (verdict == "passed") {
        ++report.passed;
    } else if (verdict == "limit") {
        ++report.limits[text];
    } else {
        report.failures.push_back(tried.name + ": " + text);
    }
}

/// Runs cases from `next` on, until the child ends; `next` is then the first one not tried.
void runSome(CellReport& report, std::vector<Case> const& cases, std::size_t& next, Column column,
             Extent const& extent)
{
    constexpr std::chrono::seconds forOwnWork(40);
    Child child(cases, next, column, extent);
    bool isUnderWay = false;
    for (;;) {
        auto const limit = std::chrono::seconds(isUnderWay ? 2 * cases[next].limitSeconds : 0);
        std::optional<std::string> const line = child.line(limit + forOwnWork);
        if (!line) {
            if (next == cases.size()) {
                report.failures.push_back("the end: " + excerptOf(child.standardError()));
            } else {
                noteEnd(report, cases[next], child);
                ++report.tried;
                ++next;
            }
            return;
        }
        if (*line == "end") {
            return;
        }
        if (*line == "lost") {
            report.failures.push_back("memory was lost: " + excerptOf(child.standardError()));
        } else if (*line == "start") {
            isUnderWay = true;
        } else {
            noteVerdict(report, cases[next], *line);
            ++report.tried;
            ++next;
            isUnderWay = false;
        }
    }
}

/// Every n-th of them, so that at most a given number is left.
std::vector<Case> thinnedOut(std::vector<Case> const& cases, std::size_t most)
{
    if (most == 0 || cases.size() <= most) {
        return cases;
    }
    std::vector<Case> left;
    for (std::size_t i = 0; i < most; ++i) {
        left.push_back(cases[i * cases.size() / most]);
    }
    return left;
}

} // namespace

CellReport runCell(Fault const& fault, Column column, Extent const& extent)
{
    CellReport report;
    auto const start = Clock::now();
    std::vector<Case> const cases = thinnedOut(fault.cases(column, extent), extent.most);
    std::size_t next = 0;
    do {
        runSome(report, cases, next, column, extent);
    } while (next < cases.size());
    report.milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    return report;
}

} // namespace SolvaneTest
