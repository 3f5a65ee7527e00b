// Server names that do not resolve, and internationalized domains.
#include "LdapMessages.h"
#include "Lookups.h"
#include "NameServer.h"
#include "ScriptedServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Solvane;
using Lookup::Outcome;
using testing::ElementsAre;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

/// A port on 127.0.0.1 without a name server: queries get no answer.
class DeadNameServer {
public:
    DeadNameServer() : m_socket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        m_address.sin_family = AF_INET;
        m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof m_address;
        auto* const address = reinterpret_cast<sockaddr*>(&m_address);
        EXPECT_EQ(bind(m_socket, address, size), 0);
        EXPECT_EQ(getsockname(m_socket, address, &size), 0);
    }
    ~DeadNameServer() { close(m_socket); }

    std::string text() const { return "127.0.0.1:" + std::to_string(ntohs(m_address.sin_port)); }

private:
    int m_socket;
    sockaddr_in m_address = {};
};

constexpr char unicode[] = "anna@m\xc3\xbcnchen.example";
constexpr char ascii[] = "anna@xn--mnchen-3ya.example";

/// A server that has only one spelling of a domain.
OnSearch finding(std::string const& domain)
{
    return [domain](Peer& peer, std::string const& request) {
        (request.find(domain) != std::string::npos ? answerFound : answerEmpty)(peer, request);
    };
}

} // namespace

class ANameThatDoesNotResolve : public testing::Test {
protected:
    ANameThatDoesNotResolve()
    {
        settings = settingsFor({389, live.port()});
        settings.servers.front().host = "ldap.example.test";
        settings.nameServers = {dead.text()};
        settings.deadline = std::chrono::milliseconds(1000);
    }

    DeadNameServer const dead;
    ScriptedServer const live{serving(answerFound)};
    LDAPLookup::Settings settings;
};

TEST_F(ANameThatDoesNotResolve, CostsAKeyAPartOfItsDeadline)
{
    LDAPLookup lookup(settings);

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(answer.server, "ldap://127.0.0.1:" + std::to_string(live.port()));
    EXPECT_LT(answer.milliseconds, 1000);
}

TEST_F(ANameThatDoesNotResolve, EndsAKeyAtItsDeadlineIfThereIsNoOtherServer)
{
    settings.servers.resize(1);
    LDAPLookup lookup(settings);

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::TryLater);
    EXPECT_LT(answer.milliseconds, 9000); // of a network timeout of 10 s
}

TEST_F(ANameThatDoesNotResolve, HoldsNoOtherKeyBack)
{
    LDAPLookup lookup(settings);

    auto const answers = answersTo(lookup, std::vector<std::string>(100, addressOf(1)));

    for (Answered const& each : answers) {
        EXPECT_EQ(each.answer.outcome, Outcome::Found) << each.answer.text;
    }
}

TEST(ANameWithSeveralAddresses, IsConnectedToTheOneThatListens)
{
    ScriptedServer const server(serving(answerFound)); // on IPv4 alone
    auto settings = settingsFor({server.port()});
    settings.servers.front().host = "localhost";
    LDAPLookup lookup(settings);

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(answer.server, "ldap://localhost:" + std::to_string(server.port()));
}

class ADomainThatNamesItsServers : public testing::Test {
protected:
    ADomainThatNamesItsServers()
    {
        names.add("one.example.test", {"127.0.0.1"});
        names.add("two.example.test", {"127.0.0.1"});
        settings = settingsFor({389});
        settings.servers.front().host.clear();
        settings.servers.front().srvDomain = "example.test";
        settings.nameServers = {names.address()};
    }

    void addServer(std::string const& host, unsigned int priority, unsigned int port)
    {
        names.addService("_ldap._tcp.example.test", priority, 1, port, host + ".example.test");
    }

    NameServer names;
    ScriptedServer first{serving(answerFound)};
    ScriptedServer second{serving(answerFound)};
    LDAPLookup::Settings settings;
};

TEST_F(ADomainThatNamesItsServers, IsAskedForThemInTheirOrder)
{
    addServer("two", 20, second.port());
    addServer("one", 10, first.port());
    LDAPLookup lookup(settings);

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(answer.server, "ldap://one.example.test:" + std::to_string(first.port()));
    EXPECT_EQ(second.connectionCount(), 0U);
}

TEST_F(ADomainThatNamesItsServers, FailsOverToTheNextOfThem)
{
    RefusingPort const down;
    addServer("one", 10, down.number());
    addServer("two", 20, second.port());
    LDAPLookup lookup(settings);

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(answer.server, "ldap://two.example.test:" + std::to_string(second.port()));
}

TEST_F(ADomainThatNamesItsServers, IsResolvedOnceForManyKeys)
{
    addServer("one", 10, first.port());
    LDAPLookup lookup(settings);

    auto const answers = answersTo(lookup, std::vector<std::string>(300, addressOf(1)));

    for (Answered const& each : answers) {
        EXPECT_EQ(each.answer.outcome, Outcome::Found) << each.answer.text;
    }
    auto const asked = names.asked();
    EXPECT_EQ(std::count(asked.begin(), asked.end(), "_ldap._tcp.example.test"), 1);
}

TEST_F(ADomainThatNamesItsServers, IsToBeTriedLaterIfItNamesNone)
{
    LDAPLookup lookup(settings);

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::TryLater);
    EXPECT_THAT(answer.text, testing::HasSubstr("example.test"));
}

TEST_F(ADomainThatNamesItsServers, IsFollowedByTheNextServerIfItDoesNotResolve)
{
    names.fallSilent();
    settings.servers.push_back(settingsFor({second.port()}).servers.front());
    settings.deadline = std::chrono::milliseconds(1000);
    LDAPLookup lookup(settings);

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(answer.server, "ldap://127.0.0.1:" + std::to_string(second.port()));
}

TEST(AnInternationalisedDomain, IsFoundInItsAsciiForm)
{
    ScriptedServer const server(serving(finding("xn--mnchen-3ya")));
    LDAPLookup lookup(settingsFor({server.port()}));

    auto const answer = lookup.find(unicode);

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_THAT(answer.forms, ElementsAre(unicode, ascii));
    EXPECT_EQ(answer.filter, "(mail=anna@xn--mnchen-3ya.example)");
}

TEST(AnInternationalisedDomain, IsFoundInItsUnicodeForm)
{
    ScriptedServer const server(serving(finding("m\xc3\xbcnchen")));
    LDAPLookup lookup(settingsFor({server.port()}));

    auto const answer = lookup.find(ascii);

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_THAT(answer.forms, ElementsAre(ascii, unicode));
}

TEST(AnInternationalisedDomain, IsNotFoundIfNeitherFormIs)
{
    ScriptedServer const server(serving(answerEmpty));
    LDAPLookup lookup(settingsFor({server.port()}));

    auto const answer = lookup.find(unicode);

    EXPECT_EQ(answer.outcome, Outcome::NotFound);
    EXPECT_THAT(answer.forms, ElementsAre(unicode, ascii));
}

TEST(AnOrdinaryDomain, HasNoOtherForm)
{
    ScriptedServer server(serving(answerEmpty));
    LDAPLookup lookup(settingsFor({server.port()}));

    auto const answer = lookup.find(addressOf(1));

    EXPECT_THAT(answer.forms, testing::IsEmpty());
    EXPECT_EQ(countOf(SearchRequest, server.received()), 1U);
}

} // namespace SolvaneTest
