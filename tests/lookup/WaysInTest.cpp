// Lookups by every way in and with every identity, on a real server and on scripted ones.
#include "Authority.h"
#include "Eventually.h"
#include "Lookups.h"
#include "NameServer.h"
#include "ServerTls.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Solvane;
using Lookup::Identity;
using Lookup::Outcome;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

/// Refuses StartTLS, but would serve everything without it.
ScriptedServer::Script refusingStartTls(int code = 2)
{
    return [code](Peer& peer) {
        std::string const request = peer.receiveMessage();
        if (!request.empty()) {
            peer.send(startTlsResponse(messageIdOf(request), code, "no TLS here"));
            serving(answerFound)(peer);
        }
    };
}

LDAPLookup::Settings startTlsSettings(std::vector<unsigned int> const& ports,
                                      Authority const& authority)
{
    auto settings = settingsFor(ports);
    for (LDAPLookup::Server& server : settings.servers) {
        server.startTls = true;
    }
    settings.tls.caFile = authority.file();
    return settings;
}

} // namespace

// On slapd

class LookupByEveryWay : public SuiteWithSlapd<LookupByEveryWay>,
                         public testing::WithParamInterface<WayIn> {
public:
    static std::vector<std::string> options() { return {"--users", "5"}; }
};

TEST_P(LookupByEveryWay, FindsAsTheReader)
{
    LDAPLookup lookup(settingsFor(slapd(), GetParam()));

    auto const answer = lookup.find(addressOf(1));
    auto const again = answersTo(lookup, std::vector<std::string>(20, addressOf(2)));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(answer.identity, Identity::Confirmed);
    for (Answered const& each : again) {
        EXPECT_EQ(each.answer.outcome, Outcome::Found) << each.answer.text;
    }
}

TEST_P(LookupByEveryWay, FindsWithoutABind)
{
    auto settings = settingsFor(slapd(), GetParam());
    settings.bindDn.clear();
    settings.password.clear();
    LDAPLookup lookup(settings);

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(answer.identity, Identity::Anonymous);
}

INSTANTIATE_TEST_SUITE_P(ToSlapd, LookupByEveryWay,
                         testing::Values(WayIn::plain, WayIn::ldaps, WayIn::startTls, WayIn::ldapi),
                         testing::PrintToStringParamName());

// StartTLS that is refused

TEST(AServerThatRefusesStartTls, IsSentNoPassword)
{
    Authority const authority;
    ScriptedServer const server(refusingStartTls());
    LDAPLookup lookup(startTlsSettings({server.port()}, authority));

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Refused);
    EXPECT_EQ(answer.code, 2);
    EXPECT_THAT(answer.text, AllOf(StartsWith("ldap://127.0.0.1:"),
                                   HasSubstr("the server refuses StartTLS: Protocol error (2): "
                                             "no TLS here")));
    EXPECT_EQ(server.received().front(), startTlsRequest(1));
    EXPECT_EQ(countOf(BindRequest, server.received()), 0U);
    EXPECT_EQ(countOf(SearchRequest, server.received()), 0U);
}

TEST(AServerThatRefusesStartTls, IsFollowedByTheNext)
{
    Authority authority;
    ServerTls const tls(authority.issue());
    ScriptedServer const first(refusingStartTls());
    ScriptedServer const second([&](Peer& peer) {
        if (peer.grantStartTls(tls)) {
            serving(answerFound)(peer);
        }
    });
    LDAPLookup lookup(startTlsSettings({first.port(), second.port()}, authority));

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(answer.server, "ldap://127.0.0.1:" + std::to_string(second.port()));
    EXPECT_EQ(countOf(BindRequest, first.received()), 0U);
}

// The code of refused credentials, but no credentials were sent.
TEST(AServerThatRefusesStartTls, DoesNotRefuseThePassword)
{
    Authority const authority;
    ScriptedServer const server(refusingStartTls(49));
    auto settings = startTlsSettings({server.port()}, authority);
    settings.backOff = settings.longestBackOff = std::chrono::milliseconds(0);
    LDAPLookup lookup(settings);

    lookup.find(addressOf(1));
    auto const answer = lookup.find(addressOf(1));

    EXPECT_THAT(answer.text, testing::Not(HasSubstr("not tried again")));
    EXPECT_GE(server.connectionCount(), 2U);
}

TEST(AServerThatIsListedTwice, IsAnotherServerWithStartTls)
{
    Authority const authority;
    ScriptedServer const server([](Peer& peer) {
        std::string const request = peer.receiveMessage();
        if (request == startTlsRequest(1)) {
            peer.send(startTlsResponse(1, 52));
            peer.receiveUntilClosed();
        } else if (!request.empty()) {
            peer.send(bindResponse(messageIdOf(request)));
            serving(answerFound)(peer);
        }
    });
    auto settings = startTlsSettings({server.port(), server.port()}, authority);
    settings.servers.back().startTls = false;
    LDAPLookup lookup(settings);

    EXPECT_EQ(lookup.find(addressOf(1)).outcome, Outcome::Found);
    EXPECT_EQ(server.connectionCount(), 2U);
}

// SRV records

TEST(ADomainWithStartTls, IsAskedForItsPlainPorts)
{
    Authority authority;
    CertificateWish wish;
    wish.dnsNames = {"ldap.corp.test"};
    ServerTls const tls(authority.issue(wish));
    ScriptedServer const server([&](Peer& peer) {
        if (peer.grantStartTls(tls)) {
            serving(answerFound)(peer);
        }
    });
    NameServer names;
    names.addService("_ldap._tcp.corp.test", 0, 0, server.port(), "ldap.corp.test");
    names.add("ldap.corp.test", {"127.0.0.1"});
    auto settings = startTlsSettings({0}, authority);
    settings.servers.front().host.clear();
    settings.servers.front().srvDomain = "corp.test";
    settings.nameServers = {names.address()};
    LDAPLookup lookup(settings);

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(server.received().front(), startTlsRequest(1));
}

TEST(ADomainWithStartTls, IsNotBelievedIfItNamesAForeignHost)
{
    Authority const authority;
    NameServer names;
    names.addService("_ldap._tcp.corp.test", 0, 0, 389, "ldap.attacker.test");
    auto settings = startTlsSettings({0}, authority);
    settings.servers.front().host.clear();
    settings.servers.front().srvDomain = "corp.test";
    settings.nameServers = {names.address()};
    LDAPLookup lookup(settings);

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Misconfigured);
    EXPECT_THAT(answer.text, HasSubstr("names only hosts outside of corp.test"));
}

} // namespace SolvaneTest
