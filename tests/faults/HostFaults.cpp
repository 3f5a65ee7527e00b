// Faults of the host: no descriptors, a full disk, a fork.
#include "Expectations.h"
#include "Sites.h"

#include <solvane/ldap/DebugLogOpenLDAP.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace SolvaneTest {

namespace {

// Descriptors

/// During its lifetime, no descriptor can be opened.
class NoDescriptors {
public:
    NoDescriptors()
    {
        checked(getrlimit(RLIMIT_NOFILE, &m_before), "getrlimit");
        int const highest = checked(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0), "dup");
        ::close(highest); // the lowest free one
        rlimit none = m_before;
        none.rlim_cur = static_cast<rlim_t>(highest);
        checked(setrlimit(RLIMIT_NOFILE, &none), "setrlimit");
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &m_before); }
    NoDescriptors(NoDescriptors const&) = delete;
    NoDescriptors& operator=(NoDescriptors const&) = delete;

private:
    rlimit m_before = {};
};

class NoDescriptorsSite : public HealthySite {
public:
    NoDescriptorsSite(unsigned int port, bool isConnected)
        : HealthySite(port), m_isConnected(isConnected)
    {
    }
    Came meet(Action& operation) override
    {
        if (m_isConnected) {
            operation.run(m_where);
        }
        NoDescriptors const scope;
        return operation.run(m_where);
    }

private:
    bool m_isConnected;
};

/// A shell that starts the tool under this limit.
class LimitedToolSite : public HealthySite {
public:
    LimitedToolSite(unsigned int port, unsigned int limit) : HealthySite(port), m_limit(limit) {}
    Target target() override
    {
        Target where = m_where;
        where.toolPrefix = {"/bin/sh", "-c",
                            "exec 3<&- 4<&- 5<&- 6<&- 7<&- 8<&- 9<&-; ulimit -n " +
                                std::to_string(m_limit) + " && exec \"$@\"",
                            "sh"};
        return where;
    }

private:
    unsigned int m_limit;
};

std::vector<Case> descriptorCases(Column column, Extent const& extent)
{
    unsigned int const port = extent.healthyPort;
    std::vector<Case> cases;
    if (column == Column::tool) {
        // With less than 6 the sanitizers cannot look for leaks at the end.
        for (unsigned int limit = 6; limit <= 10; ++limit) {
            Case tried;
            tried.name = "limit " + std::to_string(limit);
            tried.site = [=] { return std::make_unique<LimitedToolSite>(port, limit); };
            tried.accepted = exitStatuses({0, 75, 78});
            cases.push_back(tried);
        }
        return cases;
    }
    // The engine tells what this process lacks from a server that is down.
    Accepted const trouble = column == Column::submit
                                 ? Accepted{"system error: epoll_create1: Too many open files"}
                             : usesEngine(column) ? Accepted{"TryLater -2"}
                                                  : connectTrouble(column, Trouble::broken);
    for (bool const isConnected : {false, true}) {
        bool const keepsConnections = column == Column::pool || usesEngine(column);
        Case tried;
        tried.name = isConnected ? "after a run" : "none left";
        tried.site = [=] { return std::make_unique<NoDescriptorsSite>(port, isConnected); };
        tried.accepted = isConnected && keepsConnections ? success(column) : trouble;
        cases.push_back(tried);
    }
    return cases;
}

Fault noDescriptors()
{
    return {"no-descriptors", "No file descriptor is left (RLIMIT_NOFILE).", always,
            descriptorCases};
}

// Disk

/// A mount namespace in which OpenLDAP logs to a full device or to a disk of one page.
void hideLogBehindFullDisk(bool isDevice)
{
    static bool isPrivate = false; // for the rest of this process, which tries nothing else
    if (!isPrivate) {
        if (unshare(CLONE_NEWNS) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
            throw NotPermitted("a mount namespace");
        }
        checked(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "mount /");
        isPrivate = true;
    }
    checked(mount("tmpfs", "/var/spool", "tmpfs", 0, "size=4k"), "mount /var/spool");
    checked(mkdir("/var/spool/crashlog", S_IRWXU), "mkdir");
    if (isDevice) {
        checked(symlink("/dev/full", "/var/spool/crashlog/ldap.log"), "symlink");
    }
}

/// OpenLDAP writes all debug output into a full log.
class FullLogSite : public HealthySite {
public:
    FullLogSite(unsigned int port, bool isDevice) : HealthySite(port)
    {
        hideLogBehindFullDisk(isDevice);
        constexpr int all = 0xffff;
        m_log.level(all, all);
    }
    ~FullLogSite() override
    {
        m_log.level(0, 0);
        umount2("/var/spool", MNT_DETACH);
    }

private:
    Solvane::DebugLogOpenLDAP m_log;
};

/// The tool with a full standard output or error.
class FullOutputSite : public HealthySite {
public:
    FullOutputSite(unsigned int port, bool isError) : HealthySite(port), m_isError(isError) {}
    Target target() override
    {
        Target where = m_where;
        where.toolPrefix = {"/bin/sh", "-c",
                            std::string("exec \"$@\" ") + (m_isError ? "2" : "") + ">/dev/full",
                            "sh"};
        if (m_isError) {
            where.toolOptions = {"-v", "-d", "any"};
        }
        return where;
    }

private:
    bool m_isError;
};

Fault fullDisk()
{
    return {"disk-full", "OpenLDAP's debug log, or the tool's output, is on a full disk.", always,
            [](Column column, Extent const& extent) {
                std::vector<Case> cases;
                for (bool const first : {true, false}) {
                    unsigned int const port = extent.healthyPort;
                    Case tried;
                    if (column == Column::tool) {
                        tried.name = first ? "standard error" : "standard output";
                        tried.site = [=] { return std::make_unique<FullOutputSite>(port, first); };
                        tried.accepted = exitStatuses({first ? 0 : 74});
                    } else {
                        tried.name = first ? "full device" : "disk of one page";
                        tried.site = [=] { return std::make_unique<FullLogSite>(port, first); };
                        tried.accepted = success(column);
                    }
                    cases.push_back(tried);
                }
                return cases;
            }};
}

// Fork

class ForkSite : public HealthySite {
public:
    enum class Child { leaves, looksUp, executes };

    ForkSite(unsigned int port, Column column, Child child, std::string tool)
        : HealthySite(port), m_column(column), m_child(child), m_tool(std::move(tool))
    {
    }

    Came meet(Action& operation) override
    {
        if (requestOf(m_column) == Step::other || isLookup(m_column)) {
            operation.run(m_where);
            forkAndWait();
            return operation.run(m_where);
        }
        Target where = m_where;
        where.afterBind = [this] { forkAndWait(); };
        return operation.run(where);
    }
    std::string violation() override
    {
        return m_status == 0 ? std::string()
                             : "the child ended with status " + std::to_string(m_status);
    }

private:
    void forkAndWait()
    {
        pid_t const pid = checked(fork(), "fork");
        if (pid == 0) {
            beChild();
        }
        checked(waitpid(pid, &m_status, 0), "waitpid");
    }

    [[noreturn]] void beChild() const
    {
        if (m_child == Child::executes) {
            // Of the parent's descriptors, no socket may have come along.
            execl("/bin/sh", "sh", "-c", "! ls -l /proc/self/fd | grep socket:", nullptr);
        }
        if (m_child == Child::looksUp) {
            Came const came = makeAction(m_column, m_tool)->run(m_where);
            _exit(success(m_column).count(came.front()) == 1 ? 0 : 1);
        }
        _exit(0);
    }

    Column m_column;
    Child m_child;
    std::string m_tool;
    int m_status = -1;
};

Fault forks()
{
    return {"fork",
            "The process forks during an operation; the child exits, makes a lookup, or executes "
            "another program.",
            [](Column column) {
                return column == Column::tool
                           ? "applies to the test program, and the tool is a separate process"
                           : std::string();
            },
            [](Column column, Extent const& extent) {
                constexpr char const* names[] = {"the child leaves", "the child looks up",
                                                 "the child executes"};
                std::vector<Case> cases;
                for (auto const child : {ForkSite::Child::leaves, ForkSite::Child::looksUp,
                                         ForkSite::Child::executes}) {
                    Case tried;
                    tried.name = names[static_cast<int>(child)];
                    tried.site = [=, port = extent.healthyPort, tool = extent.tool] {
                        return std::make_unique<ForkSite>(port, column, child, tool);
                    };
                    tried.accepted = success(column);
                    cases.push_back(tried);
                }
                return cases;
            }};
}

} // namespace

std::vector<Fault> hostFaults() { return {noDescriptors(), fullDisk(), forks()}; }

} // namespace SolvaneTest
