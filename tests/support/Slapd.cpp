// Starts and stops through testbed/slapd-start, slapd-run and stop; counts through
// cn=Monitor.
#include "Slapd.h"

#include "Descriptor.h"
#include "Eventually.h"
#include "Process.h"

#include <ldap.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace SolvaneTest {

namespace {

/// Runs a script of the test bed.
std::string testbed(std::string const& script, std::vector<std::string> const& arguments)
{
    std::vector<std::string> command = {std::string(SOLVANE_TESTBED "/") + script};
    command.insert(command.end(), arguments.begin(), arguments.end());
    ProgramOutcome const outcome = run(command);
    if (outcome.exitStatus != 0) {
        throw std::runtime_error(script + " failed: " + outcome.output);
    }
    return outcome.output;
}

/// The value of a variable in shell syntax; only for values that need no quoting.
std::string variable(std::string const& environment, std::string const& name)
{
    std::istringstream lines(environment);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, name.size() + 1, name + '=') == 0) {
            return line.substr(name.size() + 1);
        }
    }
    throw std::runtime_error("no " + name + " in: " + environment);
}

/// The state letter of a process (man 5 proc); 'X' when it is gone.
char stateOf(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string const text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    std::size_t const nameEnd = text.rfind(')');
    return nameEnd == std::string::npos ? 'X' : text.at(nameEnd + 2);
}

/// A descriptor of any process; readable when the process has ended with all its threads and
/// sockets.
int openProcess(pid_t pid) { return static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); }

bool endsInTime(Descriptor const& process)
{
    constexpr int tenSeconds = 10000;
    pollfd waited = {process.number(), POLLIN, 0};
    return poll(&waited, 1, tenSeconds) == 1;
}

void require(bool condition, char const* what)
{
    if (!condition) {
        throw std::runtime_error(what);
    }
}

LDAP* monitorSession(std::string const& uri)
{
    LDAP* session = nullptr;
    require(ldap_initialize(&session, uri.c_str()) == LDAP_SUCCESS, "ldap_initialize");
    std::string password = "secret";
    berval credentials = {password.size(), password.data()};
    int const rc = ldap_sasl_bind_s(session, "cn=admin,dc=corp,dc=test", LDAP_SASL_SIMPLE,
                                    &credentials, nullptr, nullptr, nullptr);
    if (rc != LDAP_SUCCESS) {
        ldap_unbind_ext(session, nullptr, nullptr);
        throw std::runtime_error(std::string("monitor: ") + ldap_err2string(rc));
    }
    return session;
}

long currentConnections(LDAP* monitor)
{
    std::string counter = "monitorCounter";
    char* attributes[] = {counter.data(), nullptr};
    LDAPMessage* found = nullptr;
    int const rc =
        ldap_search_ext_s(monitor, "cn=Current,cn=Connections,cn=Monitor", LDAP_SCOPE_BASE, nullptr,
                          attributes, 0, nullptr, nullptr, nullptr, 1, &found);
    LDAPMessage* const entry = found == nullptr ? nullptr : ldap_first_entry(monitor, found);
    berval** const values =
        entry == nullptr ? nullptr : ldap_get_values_len(monitor, entry, attributes[0]);
    std::string const text = values == nullptr ? std::string() : values[0]->bv_val;
    ldap_value_free_len(values);
    ldap_msgfree(found);
    require(rc == LDAP_SUCCESS && !text.empty(), "the server does not tell its connections");
    return std::stol(text);
}

} // namespace

Slapd::Slapd(std::vector<std::string> const& options)
    : m_directory(m_folder.path() / "slapd"), m_port(0), m_tlsPort(0), m_pid(-1), m_monitor(nullptr)
{
    std::vector<std::string> arguments = {m_directory, "--owner", std::to_string(getpid())};
    arguments.insert(arguments.end(), options.begin(), options.end());
    takeAddress(testbed("slapd-start", arguments));
}

Slapd::~Slapd()
{
    closeMonitor();
    try {
        testbed("stop", {m_directory});
    } catch (std::exception const& failure) {
        ADD_FAILURE() << failure.what();
    }
}

bool Slapd::isInstalled()
{
    // sbin is not in every user's PATH.
    return run({"/bin/sh", "-c", "PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin; command -v slapd"})
               .exitStatus == 0;
}

void Slapd::reportMissing()
{
    char const* const ci = std::getenv("CI");
    if (ci != nullptr && std::string(ci) == "true") {
        FAIL() << "slapd is not installed";
    }
    GTEST_SKIP() << "slapd is not installed";
}

std::string Slapd::uri() const { return "ldap://" + host() + ':' + std::to_string(m_port) + '/'; }

void Slapd::takeAddress(std::string const& environment)
{
    m_port = static_cast<unsigned int>(std::stoul(variable(environment, "LDAP_PORT")));
    m_tlsPort = static_cast<unsigned int>(std::stoul(variable(environment, "LDAPS_PORT")));
    m_pid = std::stoi(variable(environment, "SERVER_PID"));
}

bool Slapd::isRunning() const
{
    char const state = stateOf(m_pid);
    return state != 'X' && state != 'Z';
}

void Slapd::signal(int number) const { checked(::kill(m_pid, number), "kill"); }

void Slapd::kill()
{
    closeMonitor(); // while the server runs: an unbind to a dead server raises SIGPIPE
    Descriptor const process(checked(openProcess(m_pid), "pidfd_open"));
    signal(SIGKILL);
    require(endsInTime(process), "slapd does not end");
}

void Slapd::restart() { takeAddress(testbed("slapd-run", {m_directory})); }

void Slapd::pause()
{
    signal(SIGSTOP);
    require(eventually([this] { return stateOf(m_pid) == 'T'; }), "slapd does not stop");
}

void Slapd::resume() { signal(SIGCONT); }

long Slapd::connectionCount()
{
    if (m_monitor == nullptr) {
        m_monitor = monitorSession(uri());
    }
    return currentConnections(m_monitor) - 1;
}

void Slapd::closeMonitor()
{
    if (m_monitor != nullptr) {
        ldap_unbind_ext(m_monitor, nullptr, nullptr);
        m_monitor = nullptr;
    }
}

} // namespace SolvaneTest
