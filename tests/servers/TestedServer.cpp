// Reads the description with a shell; starts servers with the scripts of testbed/.
#include "TestedServer.h"

#include "Descriptor.h"
#include "Eventually.h"
#include "Lookups.h"
#include "Process.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <ostream>
#include <sstream>
#include <stdexcept>

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace Solvane;

namespace SolvaneTest {

namespace {

std::string fromEnvironment(char const* name)
{
    char const* const value = std::getenv(name);
    if (value == nullptr) {
        throw std::runtime_error(std::string(name) + " is not set; run tests/servers/with-servers");
    }
    return value;
}

std::string outputOf(std::vector<std::string> const& command)
{
    SolvaneTest::ProgramOutcome const outcome = run(command);
    if (outcome.exitStatus != 0) {
        throw std::runtime_error(command.front() + " failed: " + outcome.output);
    }
    return outcome.output;
}

/// The state letter of a process (man 5 proc); 'X' when it is gone.
char stateOf(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.compare(0, 7, "State:\t") == 0) {
            return line.at(7);
        }
    }
    return 'X';
}

/// Readable when the process has ended, with all its threads and sockets.
int openProcess(pid_t pid) { return static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); }

bool endsInTime(Descriptor const& process)
{
    constexpr int tenSeconds = 10000;
    pollfd waited = {process.number(), POLLIN, 0};
    return poll(&waited, 1, tenSeconds) == 1;
}

void require(bool condition, std::string const& what)
{
    if (!condition) {
        throw std::runtime_error(what);
    }
}

} // namespace

TestedServer& TestedServer::first()
{
    static TestedServer server("SOLVANE_SERVER");
    return server;
}

TestedServer& TestedServer::second()
{
    static TestedServer server("SOLVANE_SECOND_SERVER");
    return server;
}

void TestedServer::writeAuthorities(std::string const& file)
{
    std::ofstream(file) << std::ifstream(first()["CA_FILE"]).rdbuf()
                        << std::ifstream(second()["CA_FILE"]).rdbuf();
}

TestedServer::TestedServer(char const* variable) : m_environment(fromEnvironment(variable))
{
    readValues();
}

void TestedServer::readValues()
{
    std::istringstream values(outputOf(
        {"env", "-i", "PATH=/usr/bin:/bin", "KIND=" + fromEnvironment("SOLVANE_SERVER_KIND"),
         "bash", "-c", R"(set -ae; . "$1"; . "$2"; env -0)", "bash", m_environment,
         fromEnvironment("SOLVANE_SERVER_PROFILES")}));
    for (std::string value; std::getline(values, value, '\0');) {
        std::string::size_type const end = value.find('=');
        m_values[value.substr(0, end)] = value.substr(end + 1);
    }
}

std::string TestedServer::host() const
{
    std::string const& hosts = (*this)["LDAP_HOSTS"];
    return hosts.substr(0, hosts.find(' '));
}

std::string TestedServer::personDn(int user) const
{
    std::string const address = addressOf(user);
    return (*this)["NAMING"] + '=' + address.substr(0, address.find('@')) + ',' + (*this)["PEOPLE"];
}

LDAPConnection::RefServer TestedServer::description(LDAPConnection::Protocol version,
                                                    bool secure) const
{
    auto const port = static_cast<unsigned int>(number(secure ? "LDAPS_PORT" : "LDAP_PORT"));
    return LDAPConnection::RefServer(host(), port, version, secure, 10, false, false);
}

LDAPConnection::RefServer TestedServer::description(LDAPConnection::Protocol version) const
{
    return description(version, needsTls());
}

LDAPConnection::RefServer TestedServer::plainDescription() const
{
    return description(LDAPConnection::V3, false);
}

LDAPConnection TestedServer::bound() const
{
    LDAPConnection connection(description(), false);
    connection.bind((*this)["READER_DN"], (*this)["READER_PW"], LDAPConnection::Synchronous);
    return connection;
}

LDAPLookup::Server TestedServer::entry() const
{
    LDAPLookup::Server server;
    server.host = host();
    server.secure = needsTls();
    server.port = static_cast<unsigned int>(number(server.secure ? "LDAPS_PORT" : "LDAP_PORT"));
    return server;
}

LDAPLookup::Settings TestedServer::settings() const
{
    LDAPLookup::Settings settings;
    settings.servers = {entry()};
    settings.bindDn = (*this)["READER_DN"];
    settings.password = (*this)["READER_PW"];
    settings.base = (*this)["PEOPLE"];
    settings.queryTemplate = (*this)["TEMPLATE"];
    settings.tls.caFile = (*this)["CA_FILE"];
    return settings;
}

bool TestedServer::isRunning() const
{
    char const state = stateOf(pid());
    return state != 'X' && state != 'Z';
}

void TestedServer::signal(int number) const { checked(::kill(pid(), number), "kill"); }

void TestedServer::kill()
{
    Descriptor const process(checked(openProcess(pid()), "pidfd_open"));
    signal(SIGKILL);
    require(endsInTime(process), "the server does not end");
}

void TestedServer::restart()
{
    outputOf({SOLVANE_TESTBED "/" + (*this)["SCRIPTS"] + "-run", (*this)["SERVER_DIR"]});
    readValues();
}

void TestedServer::pause() const
{
    signal(SIGSTOP);
    require(eventually([this] { return stateOf(pid()) == 'T'; }), "the server does not stop");
}

void TestedServer::resume() const { signal(SIGCONT); }

void ServerTest::TearDown()
{
    if (server().isRunning()) {
        server().resume();
    } else {
        server().restart();
    }
}

std::string ServerTest::wordsOfServer(std::string const& text, int code)
{
    std::string const afterCode = '(' + std::to_string(code) + "): ";
    auto const position = text.find(afterCode);
    return position == std::string::npos ? std::string() : text.substr(position + afterCode.size());
}

void PrintTo(Way const& way, std::ostream* out) { *out << way.name; }

LDAPLookup::Settings ServerTestByWay::settings()
{
    LDAPLookup::Settings settings = server().settings();
    LDAPLookup::Server& only = settings.servers.front();
    Way const& way = GetParam();
    if (way.startsTls || way.usesKerberos) {
        only.secure = false;
        only.startTls = way.startsTls;
        only.port = static_cast<unsigned int>(server().number("LDAP_PORT"));
    }
    if (way.usesKerberos) {
        only.host = server()["KERBEROS_HOST"];
        m_names.add(only.host, {server().host()});
        settings.nameServers = {m_names.address()};
        settings.mechanism = Lookup::Mechanism::gssapi;
        settings.bindDn.clear();
        settings.password.clear();
    }
    return settings;
}

std::string nameOf(testing::TestParamInfo<Way> const& way) { return way.param.name; }

} // namespace SolvaneTest
