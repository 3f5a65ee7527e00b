// The server under test, and its expected behaviour.
#ifndef SOLVANE_TESTS_SERVERS_TESTED_SERVER_H
#define SOLVANE_TESTS_SERVERS_TESTED_SERVER_H

#include "NameServer.h"
#include "ProcessMemory.h"

#include <solvane/ldap.h>
#include <solvane/lookup/LDAPLookup.h>

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

namespace SolvaneTest {

/// A server of testbed/, described by its server.env and by what tests/servers/profiles says of its
/// kind.
class TestedServer {
public:
    /// The servers of tests/servers/with-servers: same data, same names.
    /// @throws std::runtime_error  the program was not started by it
    static TestedServer& first();
    static TestedServer& second();

    /// Writes the certificates of the authorities of both.
    static void writeAuthorities(std::string const& file);

    /// A value of server.env or the profiles.
    /// @throws std::out_of_range  there is no value of this name
    std::string const& operator[](std::string const& name) const { return m_values.at(name); }
    int number(std::string const& name) const { return std::stoi(m_values.at(name)); }
    bool has(std::string const& name) const { return !m_values.at(name).empty(); }

    std::string host() const;
    /// The DN of the n-th user.
    std::string personDn(int user) const;
    /// The server accepts passwords only over TLS.
    bool needsTls() const { return number("PLAIN_BIND") != 0; }

    // With TLS if the server requires it for binds.
    Solvane::LDAPConnection::RefServer
    description(Solvane::LDAPConnection::Protocol version = Solvane::LDAPConnection::V3) const;
    Solvane::LDAPConnection::RefServer plainDescription() const;
    /// A new connection, bound as the reader.
    Solvane::LDAPConnection bound() const;

    /// An entry of a lookup's list of servers.
    Solvane::LDAPLookup::Server entry() const;
    /// Settings for lookups of the people on this server alone, with its authority.
    Solvane::LDAPLookup::Settings settings() const;

    bool isRunning() const;
    /// Kills the process, as in a crash, and waits until it is gone.
    void kill();
    /// Restarts it with the same ports and data.
    void restart();
    /// Pauses the process: the kernel still accepts connections, but there are no answers.
    void pause() const;
    void resume() const;

private:
    explicit TestedServer(char const* variable);
    void readValues();
    pid_t pid() const { return number("SERVER_PID"); }
    void signal(int number) const;
    Solvane::LDAPConnection::RefServer description(Solvane::LDAPConnection::Protocol version,
                                                   bool secure) const;

    std::string m_environment; ///< its server.env
    std::map<std::string, std::string> m_values;
};

/// Base of all suites. Restarts the server after a test that stopped it.
class ServerTest : public testing::Test {
protected:
    static TestedServer& server() { return TestedServer::first(); }
    void TearDown() override;

    /// Records a measurement for the table of the guide.
    static void measured(std::string const& what, std::string const& value)
    {
        RecordProperty(what, value);
    }
    static void measured(std::string const& what, int value) { RecordProperty(what, value); }
    /// The server's own words in a text of the library, behind its result code; empty if there are
    /// none.
    static std::string wordsOfServer(std::string const& text, int code);
};

/// How lookups reach a server, and as whom.
struct Way {
    std::string name;
    bool startsTls = false;
    bool usesKerberos = false;
};
void PrintTo(Way const& way, std::ostream* out);

/// Base of suites with several ways.
class ServerTestByWay : public ServerTest, public testing::WithParamInterface<Way> {
protected:
    /// Those of the server, by the way of the test.
    Solvane::LDAPLookup::Settings settings();

private:
    NameServer m_names;         ///< knows the name for which the server has a principal
    ToleratedLeak const m_leak; ///< of GSSAPI over TLS
};

std::string nameOf(testing::TestParamInfo<Way> const& way);

} // namespace SolvaneTest

#endif
