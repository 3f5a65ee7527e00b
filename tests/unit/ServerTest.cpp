// Server descriptions: host, URI, failure to resolve, and the pointer that shares them.
#include <solvane/ldap/LDAPConnection.h>

#include "Faults.h"

#include <gmock/gmock.h>

#include <climits>
#include <cstdio>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <netdb.h>
#include <unistd.h>

using namespace Solvane;
using SolvaneTest::IsFault;
using SolvaneTest::thrownBy;
using testing::HasSubstr;

namespace {

using Server = LDAPConnection::Server;
using RefServer = LDAPConnection::RefServer;

/// A name with a label longer than DNS allows (RFC 1035 section 2.3.4): no query is sent.
std::string const unresolvable = std::string(64, 'x') + ".test";

Server serverAt(std::string const& host, unsigned int port = 389, bool secure = false)
{
    return Server(host, port, LDAPConnection::V3, secure, 5, false, false);
}

std::string uriOf(std::string const& host, unsigned int port = 389, bool secure = false)
{
    return serverAt(host, port, secure).uri.asString();
}

/// The address that the system's resolver puts first for a name.
std::string firstAddressOf(char const* name)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(name, nullptr, &hints, &found) != 0) {
        return "";
    }
    char text[NI_MAXHOST] = "";
    ::getnameinfo(found->ai_addr, found->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
    ::freeaddrinfo(found);
    return text;
}

/// Collects what the process writes to standard error meanwhile.
class StandardError {
public:
    StandardError() : m_file(std::tmpfile()), m_original(::dup(STDERR_FILENO))
    {
        ::dup2(::fileno(m_file), STDERR_FILENO);
    }
    StandardError(StandardError const&) = delete;
    StandardError& operator=(StandardError const&) = delete;
    ~StandardError()
    {
        ::dup2(m_original, STDERR_FILENO);
        ::close(m_original);
        std::fclose(m_file);
    }

    std::vector<std::string> lines()
    {
        std::vector<std::string> all(1);
        std::rewind(m_file);
        for (int next = std::fgetc(m_file); next != EOF; next = std::fgetc(m_file)) {
            if (next == '\n') {
                all.emplace_back();
            } else {
                all.back() += static_cast<char>(next);
            }
        }
        all.pop_back(); // behind the last newline
        return all;
    }

private:
    std::FILE* m_file;
    int m_original;
};

} // namespace

TEST(AServer, StoresItsArguments)
{
    Server const server("192.0.2.10", 636, LDAPConnection::V2, true, 17, true, false);

    EXPECT_EQ(server.host, "192.0.2.10");
    EXPECT_EQ(server.port, 636U);
    EXPECT_EQ(server.protocol, LDAPConnection::V2);
    EXPECT_TRUE(server.secure);
    EXPECT_EQ(server.networkTimeout, 17U);
    EXPECT_TRUE(server.firstFlag);
    EXPECT_FALSE(server.secondFlag);
}

TEST(AServer, StoresItsTwoFlagsInTheirOrder)
{
    Server const server("192.0.2.10", 389, LDAPConnection::V3, false, 5, false, true);

    EXPECT_FALSE(server.firstFlag);
    EXPECT_TRUE(server.secondFlag);
}

TEST(AServer, TakesAnyPortProtocolAndTimeout)
{
    Server const server("192.0.2.10", UINT_MAX, static_cast<LDAPConnection::Protocol>(9), false,
                        UINT_MAX, false, false);

    EXPECT_EQ(server.uri.asString(), "ldap://[192.0.2.10]:4294967295/");
    EXPECT_EQ(static_cast<int>(server.protocol), 9);
    EXPECT_EQ(server.networkTimeout, UINT_MAX);
}

TEST(AServer, HasAUriOfItsAddressInBrackets)
{
    EXPECT_EQ(uriOf("192.0.2.1"), "ldap://[192.0.2.1]:389/");
    EXPECT_EQ(uriOf("192.0.2.10", 0), "ldap://[192.0.2.10]:0/");
    EXPECT_EQ(uriOf("192.0.2.10", 636, true), "ldaps://[192.0.2.10]:636/") << "secure";
    EXPECT_EQ(uriOf("2001:db8::1", 389), "ldap://[2001:db8::1]:389/");
    EXPECT_EQ(uriOf("::1", 1389, true), "ldaps://[::1]:1389/");
    EXPECT_EQ(uriOf("2001:DB8:0:0::1"), "ldap://[2001:db8:0:0::1]:389/")
        << "its spelling stays but for its case";
}

TEST(AServer, DropsBlanksRoundItsHost)
{
    Server const server = serverAt(" \t\r\n192.0.2.1\v\f ");

    EXPECT_EQ(server.host, "192.0.2.1");
    EXPECT_EQ(server.uri.asString(), "ldap://[192.0.2.1]:389/");
}

TEST(AServer, KeepsItsNameInLowerCaseAndItsAddressInTheUri)
{
    std::string const address = firstAddressOf("localhost");
    ASSERT_NE(address, "");

    Server const server = serverAt("  LocalHost\t");

    EXPECT_EQ(server.host, "localhost");
    EXPECT_EQ(server.uri.asString(), "ldap://[" + address + "]:389/");
}

TEST(AServer, LeavesTheCallersHostAsItIs)
{
    std::string const host = "  LOCALHOST ";

    serverAt(host);

    EXPECT_EQ(host, "  LOCALHOST ");
}

TEST(AServerThatCannotBeResolved, IsReportedWithTheFailureAsItsCause)
{
    auto const thrown = thrownBy([&] { serverAt(unresolvable); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 63, 4, 0, ""));
    ASSERT_TRUE(thrown.hasCause());
    auto const& cause = dynamic_cast<LDAPException const&>(thrown.cause());
    EXPECT_EQ(typeid(cause), typeid(LDAPException));
    EXPECT_THAT(cause, IsFault("Connection.cpp", 51, 4, 0, "Invalid hostname: " + unresolvable));
    EXPECT_FALSE(cause.hasCause());
}

TEST(AServerThatCannotBeResolved, IsLoggedTwice)
{
    StandardError log;

    thrownBy([&] { serverAt(unresolvable); });

    std::vector<std::string> const lines = log.lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_THAT(lines[0], HasSubstr("Invalid hostname: " + unresolvable));
    EXPECT_THAT(lines[0], testing::Not(HasSubstr("Caught: ")));
    EXPECT_THAT(lines[1], HasSubstr("Caught: LDAPException"));
    EXPECT_THAT(lines[1], HasSubstr("Invalid hostname: " + unresolvable));
}

TEST(AServerThatCannotBeResolved, IsNamedTrimmedAndInLowerCase)
{
    std::vector<std::pair<std::string, std::string>> const names{
        {"  " + std::string(64, 'X') + ".Test ", unresolvable},
        {"", ""},
        {" \t ", ""},
        {"[::1]", "[::1]"}}; // an address in brackets is none
    for (auto const& [host, shown] : names) {
        auto const thrown = thrownBy([&, &text = host] { serverAt(text); });

        EXPECT_THAT(thrown, IsFault("Connection.cpp", 63, 4, 0));
        EXPECT_EQ(thrown.cause().stringParameter(), "Invalid hostname: " + shown);
    }
}

TEST(ASharedServer, HoldsNothingByDefault)
{
    RefServer const none;

    EXPECT_EQ(none.get(), nullptr);
}

TEST(ASharedServer, OwnsTheServerItIsGiven)
{
    Server* const server = new Server("192.0.2.1", 389, LDAPConnection::V3, false, 5, false, false);

    RefServer const shared(server);

    EXPECT_EQ(shared.get(), server);
    EXPECT_EQ(shared.use_count(), 1);
}

TEST(ASharedServer, IsMadeFromTheArgumentsOfAServer)
{
    RefServer const shared("192.0.2.1", 636, LDAPConnection::V2, true, 17, true, false);

    EXPECT_EQ(shared->host, "192.0.2.1");
    EXPECT_EQ(shared->port, 636U);
    EXPECT_EQ(shared->protocol, LDAPConnection::V2);
    EXPECT_TRUE(shared->secure);
    EXPECT_EQ(shared->networkTimeout, 17U);
    EXPECT_TRUE(shared->firstFlag);
    EXPECT_FALSE(shared->secondFlag);
    EXPECT_EQ(shared->uri.asString(), "ldaps://[192.0.2.1]:636/");
}

TEST(ASharedServer, SharesItWithItsCopies)
{
    RefServer const first("192.0.2.1", 389, LDAPConnection::V3, false, 5, false, false);

    RefServer const second(first);

    EXPECT_EQ(second.get(), first.get());
    EXPECT_EQ(first.use_count(), 2);
}

TEST(ASharedServer, IsNotMadeWhereTheHostDoesNotResolve)
{
    EXPECT_THAT(thrownBy([&] {
                    RefServer const shared(unresolvable, 389, LDAPConnection::V3, false, 5, false,
                                           false);
                }),
                IsFault("Connection.cpp", 63, 4, 0));
}

TEST(AProtocolVersion, IsTwoOnlyForTwo)
{
    EXPECT_EQ(LDAPConnection::toProtocol(2), LDAPConnection::V2);
    EXPECT_EQ(LDAPConnection::fromProtocol(LDAPConnection::V2), 2);
}

TEST(AProtocolVersion, IsThreeForEveryOtherNumber)
{
    for (int const number : {INT_MIN, -2, -1, 0, 1, 3, 4, 7, 258, INT_MAX}) {
        EXPECT_EQ(LDAPConnection::toProtocol(number), LDAPConnection::V3) << number;
        EXPECT_EQ(LDAPConnection::fromProtocol(static_cast<LDAPConnection::Protocol>(number)), 3)
            << number;
    }
}
