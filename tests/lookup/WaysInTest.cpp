// Ways in of lookups: every way with every identity, Kerberos, and how few binds a wrong password
// costs.
#include "Eventually.h"
#include "Kdc.h"
#include "LdapMessages.h"
#include "Lookups.h"
#include "NameServer.h"
#include "Process.h"
#include "ProcessMemory.h"
#include "ScriptedServer.h"
#include "ServerTls.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <list>
#include <memory>
#include <thread>

using namespace Solvane;
using Lookup::Identity;
using Lookup::Outcome;
using std::chrono::milliseconds;
using testing::AllOf;
using testing::Each;
using testing::Field;
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

constexpr int users = 30;

/// Refuses binds, until told otherwise.
class RefusingServer {
public:
    std::size_t binds() const { return countOf(BindRequest, m_server.received()); }
    unsigned int port() const { return m_server.port(); }
    void accept() { m_accepts = true; }
    void giveCue() { m_server.giveCue(); }

private:
    void play(Peer& peer)
    {
        if (m_accepts) {
            return serving(answerFound)(peer);
        }
        std::string const bind = peer.receiveMessage();
        if (!bind.empty()) {
            peer.awaitCue();
            peer.send(bindResponse(messageIdOf(bind), 49));
            peer.receiveUntilClosed();
        }
    }

    std::atomic<bool> m_accepts{false};
    ScriptedServer m_server{[this](Peer& peer) { play(peer); }};
};

std::vector<LDAPLookup::Answer> findOnThreads(
    LDAPLookup& lookup, std::size_t threads, std::function<void()> const& meanwhile = [] {})
{
    std::vector<LDAPLookup::Answer> answers(threads);
    std::vector<std::thread> running;
    for (LDAPLookup::Answer& answer : answers) {
        running.emplace_back([&] { answer = lookup.find(addressOf(1)); });
    }
    meanwhile();
    for (std::thread& thread : running) {
        thread.join();
    }
    return answers;
}

auto const isRefused = testing::AllOf(Field(&LDAPLookup::Answer::outcome, Outcome::Refused),
                                      Field(&LDAPLookup::Answer::code, 49));

LDAPLookup::Settings settingsForThreads(std::vector<unsigned int> const& ports)
{
    auto settings = settingsFor(ports);
    settings.connections = 16;
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

// SASL EXTERNAL

namespace {

void authenticateBy(TlsIdentity const& identity, LDAPLookup::Settings& settings)
{
    settings.bindDn.clear();
    settings.password.clear();
    settings.mechanism = Lookup::Mechanism::external;
    settings.tls.certificateFile = identity.certificateFile;
    settings.tls.keyFile = identity.keyFile;
}

/// A server with TLS that answers binds with a code, and lookups with SASL EXTERNAL on it.
class ExternalLookup : public testing::Test {
protected:
    LDAPLookup::Settings settings()
    {
        CertificateWish wish;
        wish.isForClients = true;
        auto settings = settingsFor({m_server.port()});
        settings.servers.front().secure = true;
        settings.tls.caFile = m_authority.file();
        authenticateBy(m_authority.issue(wish), settings);
        return settings;
    }

    Authority m_authority;
    ServerTls m_tls{m_authority.issue()};
    int m_code = 0;
    std::string m_identity = "dn:cn=somebody";
    ScriptedServer m_server{[this](Peer& peer) {
        if (!peer.startTls(m_tls)) {
            return;
        }
        if (m_code != 0) {
            peer.send(bindResponse(messageIdOf(peer.receiveMessage()), m_code));
        }
        serving(answerFound, m_identity)(peer);
    }};
};

} // namespace

TEST_F(ExternalLookup, IsConfirmedByTheServer)
{
    LDAPLookup lookup(settings());

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(answer.identity, Identity::Confirmed);
    EXPECT_EQ(countOf(BindRequest, m_server.received()), 1U);
    EXPECT_EQ(countOf(ExtendedRequest, m_server.received()), 1U);
}

TEST_F(ExternalLookup, IsRefusedIfTheServerKnowsNobody)
{
    m_identity.clear();
    LDAPLookup lookup(settings());

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Refused);
    EXPECT_EQ(answer.code, 48);
    EXPECT_EQ(countOf(SearchRequest, m_server.received()), 0U);
}

TEST_F(ExternalLookup, ThatIsRefusedIsNotTriedAgainAtOnce)
{
    for (int const code : {48, 49, 50}) {
        m_code = code;
        auto const connections = m_server.connectionCount();
        LDAPLookup lookup(settings());

        auto const first = lookup.find(addressOf(1));
        auto const second = lookup.find(addressOf(1));

        EXPECT_EQ(first.outcome, Outcome::Refused);
        EXPECT_EQ(second.code, code);
        EXPECT_THAT(second.text, HasSubstr("not tried again for"));
        EXPECT_EQ(m_server.connectionCount(), connections + 1);
    }
}

TEST_F(ExternalLookup, WithoutACertificateIsMisconfigured)
{
    auto bare = settings();
    bare.tls.certificateFile.clear();
    bare.tls.keyFile.clear();
    LDAPLookup lookup(bare);

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Misconfigured);
    EXPECT_EQ(answer.code, -9);
    EXPECT_THAT(answer.text, HasSubstr("SASL EXTERNAL needs a client certificate"));
    EXPECT_EQ(m_server.connectionCount(), 0U);
}

class ExternalLookupByEveryWay : public SuiteWithSlapd<ExternalLookupByEveryWay>,
                                 public testing::WithParamInterface<WayIn> {
public:
    static std::vector<std::string> options() { return {"--users", "5", "--client-certs", "try"}; }

protected:
    static LDAPLookup::Settings settings()
    {
        auto settings = settingsFor(slapd(), GetParam());
        authenticateBy({slapd().tlsFile("client.pem"), slapd().tlsFile("client.key")}, settings);
        return settings;
    }
};

TEST_P(ExternalLookupByEveryWay, FindsWithItsIdentity)
{
    LDAPLookup lookup(settings());

    auto const answers = answersTo(lookup, std::vector<std::string>(20, addressOf(2)));

    for (Answered const& each : answers) {
        EXPECT_EQ(each.answer.outcome, Outcome::Found) << each.answer.text;
        EXPECT_EQ(each.answer.identity, Identity::Confirmed);
    }
}

// Only bound users may read it.
TEST_P(ExternalLookupByEveryWay, ReadsWhatAnonymousUsersCannot)
{
    auto bound = settings();
    bound.base = "ou=private,dc=corp,dc=test";
    bound.queryTemplate = "(cn=$u)";
    auto anonymous = bound;
    anonymous.mechanism = Lookup::Mechanism::simple;

    EXPECT_EQ(LDAPLookup(bound).find("secret@corp.test").outcome, Outcome::Found);
    EXPECT_NE(LDAPLookup(anonymous).find("secret@corp.test").outcome, Outcome::Found);
}

INSTANTIATE_TEST_SUITE_P(ToSlapd, ExternalLookupByEveryWay,
                         testing::Values(WayIn::ldaps, WayIn::startTls, WayIn::ldapi),
                         testing::PrintToStringParamName());

// Lookups by Kerberos: with a keytab, in forked workers, and after the ticket was missing.

class LookupByKerberos : public testing::TestWithParam<WayIn> {
protected:
    static void SetUpTestSuite()
    {
        if (Slapd::isInstalled() && Kdc::isInstalled()) {
            s_kdc = std::make_unique<Kdc>();
            s_slapd = std::make_unique<Slapd>(std::vector<std::string>{
                "--users", std::to_string(users), "--kerberos", s_kdc->folder()});
        }
    }
    static void TearDownTestSuite()
    {
        s_slapd.reset();
        s_kdc.reset();
    }
    void SetUp() override
    {
        if (!s_slapd) {
            Kdc::reportMissing();
            return;
        }
        kdc().useKeytab(kdc().file("reader.keytab"));
    }
    static Kdc& kdc() { return *s_kdc; }

    static LDAPLookup::Settings settings()
    {
        LDAPLookup::Settings settings = settingsFor(*s_slapd, GetParam());
        settings.mechanism = Lookup::Mechanism::gssapi;
        settings.bindDn.clear();
        settings.password.clear();
        settings.servers.front().host = "localhost"; // for which it has a principal
        return settings;
    }
    static std::string wrongWith(LDAPLookup& lookup, int user)
    {
        LDAPLookup::Answer const answer = lookup.find(addressOf(user));
        bool const isRight = answer.outcome == Outcome::Found && answer.entries.size() == 1 &&
                             answer.identity == Lookup::Identity::Confirmed;
        return isRight ? std::string() : testing::PrintToString(answer.outcome) + answer.text;
    }

private:
    ToleratedLeak m_leak; // over TLS
    static std::unique_ptr<Kdc> s_kdc;
    static std::unique_ptr<Slapd> s_slapd;
};

std::unique_ptr<Kdc> LookupByKerberos::s_kdc;
std::unique_ptr<Slapd> LookupByKerberos::s_slapd;

TEST_P(LookupByKerberos, FindsInWorkersForkedAfterAFind)
{
    constexpr int workers = 4;
    LDAPLookup lookup(settings());
    ASSERT_EQ(wrongWith(lookup, 1), "");

    for (int round = 0; round < rounds / 10; ++round) {
        Gate gate;
        std::list<ForkedProcess> children;
        for (int i = 0; i < workers; ++i) {
            children.emplace_back([&, i] {
                gate.pass();
                return wrongWith(lookup, i + 2);
            });
        }
        gate.open();
        EXPECT_EQ(wrongWith(lookup, workers + 2), "");
        for (ForkedProcess& child : children) {
            EXPECT_EQ(child.complaint(), "");
        }
    }
}

TEST_P(LookupByKerberos, FindsManyAtOnce)
{
    LDAPLookup lookup(settings());
    std::vector<std::string> keys;
    for (int i = 1; i <= users; ++i) {
        keys.push_back(addressOf(i));
    }

    for (Answered const& answered : answersTo(lookup, keys)) {
        EXPECT_EQ(answered.answer.outcome, Outcome::Found) << answered.answer.text;
    }
}

TEST_P(LookupByKerberos, IsDeferredWithoutATicketAndFindsOnceThereIsOne)
{
    Kdc::useCache(kdc().file("none"));
    LDAPLookup::Settings impatient = settings();
    impatient.backOff = impatient.longestBackOff = std::chrono::milliseconds(1);
    LDAPLookup lookup(impatient);

    LDAPLookup::Answer const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Misconfigured);
    EXPECT_THAT(answer.text, HasSubstr("No Kerberos credentials available"));
    kdc().useTicket("reader");
    EXPECT_TRUE(eventually([&] { return wrongWith(lookup, 1).empty(); }));
}

INSTANTIATE_TEST_SUITE_P(Ways, LookupByKerberos,
                         testing::Values(WayIn::plain, WayIn::ldaps, WayIn::startTls));

// With a wrong password, few binds are sent.

TEST(AWrongPassword, IsSentOnceForManyThreads)
{
    RefusingServer server;
    LDAPLookup lookup(settingsForThreads({server.port()}));

    auto const answers = findOnThreads(lookup, 16, [&] {
        eventually([&] { return server.binds() != 0; });
        server.giveCue();
    });
    auto const later = findOnThreads(lookup, 16);

    EXPECT_THAT(answers, Each(isRefused));
    EXPECT_THAT(later, Each(isRefused));
    EXPECT_THAT(later.front().text, HasSubstr("not tried again for 60 s"));
    EXPECT_THAT(later.front().text, testing::Not(HasSubstr(readerPassword)));
    EXPECT_EQ(server.binds(), 1U);
}

TEST(AWrongPassword, IsSentOnceAgainWhenTheHoldIsOver)
{
    RefusingServer server;
    server.giveCue();
    auto settings = settingsForThreads({server.port()});
    settings.refusedHold = milliseconds(1);
    LDAPLookup lookup(settings);
    lookup.find(addressOf(1));

    bool const wasSent = eventually([&] {
        lookup.find(addressOf(1));
        return server.binds() == 2;
    });

    EXPECT_TRUE(wasSent);
}

TEST(AWrongPassword, IsNotTriedOnTheOtherServersMeanwhile)
{
    RefusingServer first;
    RefusingServer second;
    first.giveCue();
    LDAPLookup lookup(settingsForThreads({first.port(), second.port()}));

    auto const answers = findOnThreads(lookup, 16);

    EXPECT_THAT(answers, Each(isRefused));
    EXPECT_EQ(first.binds(), 1U);
    EXPECT_EQ(second.binds(), 0U);
}

TEST(AWrongPassword, IsTriedOnTheNextServerWhenTheHoldIsOver)
{
    RefusingServer first;
    RefusingServer second;
    first.giveCue();
    second.accept();
    auto settings = settingsForThreads({first.port(), second.port()});
    settings.refusedHold = milliseconds(1);
    LDAPLookup lookup(settings);
    lookup.find(addressOf(1));

    bool const isServed =
        eventually([&] { return lookup.find(addressOf(1)).outcome == Outcome::Found; });

    EXPECT_TRUE(isServed);
    EXPECT_EQ(first.binds(), 1U);
}

TEST(ARightPassword, IsSentByAllThreadsOnceItWasAccepted)
{
    ScriptedServer const server(serving(answerFound));
    LDAPLookup lookup(settingsForThreads({server.port()}));

    auto const answers = findOnThreads(lookup, 16);

    EXPECT_THAT(answers, Each(Field(&LDAPLookup::Answer::outcome, Outcome::Found)));
}

TEST(ANewLookup, TriesItsPasswordAtOnce)
{
    RefusingServer server;
    server.giveCue();
    LDAPLookup wrong(settingsFor({server.port()}));
    wrong.find(addressOf(1));
    server.accept();

    LDAPLookup right(settingsFor({server.port()}));

    EXPECT_EQ(right.find(addressOf(1)).outcome, Outcome::Found);
}

} // namespace SolvaneTest
