// Each way in which a connection can end up, brought about by a real cause.
#include "Eventually.h"
#include "LdapMessages.h"
#include "Process.h"
#include "ScriptedServer.h"
#include "Slapd.h"
#include "TemporaryDirectory.h"

#include <solvane/lookup/DirectorySession.h>

#include <solvane/ldap/impl.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <memory>

using namespace Solvane;
using namespace Solvane::Lookup;
using std::chrono::milliseconds;
using testing::AllOf;
using testing::AnyOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

constexpr char readerDn[] = "cn=reader,dc=corp,dc=test";
constexpr char readerPassword[] = "reader-pw";
constexpr char people[] = "ou=people,dc=corp,dc=test";

Clock::time_point in(milliseconds time) { return Clock::now() + time; }
Clock::time_point soon() { return in(std::chrono::seconds(15)); }

LDAPConnection::RefServer serverAt(unsigned int port, bool secure, unsigned int networkTimeout = 10,
                                   LDAPConnection::Protocol version = LDAPConnection::V3)
{
    return LDAPConnection::RefServer("127.0.0.1", port, version, secure, networkTimeout, false,
                                     false);
}

TlsPolicy policy(TlsVerify verify, std::string const& caFile = std::string())
{
    TlsPolicy tls;
    tls.verify = verify;
    tls.caFile = caFile;
    return tls;
}

DirectorySession plainSession(unsigned int port, unsigned int networkTimeout = 10)
{
    return DirectorySession(serverAt(port, false, networkTimeout), "127.0.0.1", TlsPolicy());
}

DirectorySession secureSession(unsigned int port, TlsPolicy const& tls,
                               std::string const& host = "127.0.0.1",
                               unsigned int networkTimeout = 10)
{
    return DirectorySession(serverAt(port, true, networkTimeout), host, tls);
}

LDAPSearch::Parameter searchFor(std::string const& filter)
{
    LDAPSearch::Parameter parameter(people);
    parameter.filter = filter;
    return parameter;
}

/// The verdict in one text: outcome, code, words.
std::string shown(Verdict const& verdict)
{
    constexpr char const* names[] = {"Found",    "NotFound", "Skipped",      "BadKey",
                                     "TryLater", "Refused",  "Misconfigured"};
    return std::string(names[static_cast<int>(verdict.outcome)]) + ' ' +
           std::to_string(verdict.code) + ' ' + verdict.text;
}

/// An extended response (RFC 4511 section 4.12); the value is left out where it is null.
std::string extendedResponse(int messageId, int code, char const* value)
{
    std::string content = std::string("\x0a\x01") + static_cast<char>(code);
    content += berElement(0x04, "") + berElement(0x04, "because");
    if (value != nullptr) {
        content += berElement(0x8b, value);
    }
    return ldapMessage(messageId, berElement(0x78, content));
}

/// A server that grants the bind and answers the question who we are.
ScriptedServer::Script answeringIdentity(int code, char const* value)
{
    return [code, value](Peer& peer) {
        peer.grantBind();
        std::string const question = peer.receiveMessage();
        if (!question.empty()) {
            peer.send(extendedResponse(messageIdOf(question), code, value));
        }
        peer.receiveUntilClosed();
    };
}

/// A session on a scripted server that granted the bind.
class GrantedSession {
public:
    explicit GrantedSession(ScriptedServer::Script const& script)
        : server(script), session(plainSession(server.port(), 1))
    {
        EXPECT_EQ(shown(session.connect(soon())), "Found 0 ");
        EXPECT_EQ(shown(session.bind(readerDn, readerPassword, soon())), "Found 0 ");
    }

    ScriptedServer server;
    DirectorySession session;
};

/// The types of the messages that arrive for `id`, up to the final one.
std::vector<int> typesFor(DirectorySession& session, int id)
{
    std::vector<int> types;
    LDAPMessageBuffer message;
    while (types.empty() || types.back() != 4) {
        if (session.receive(message, milliseconds(10000)) != id) {
            return {};
        }
        LDAPResult result(session.connection());
        result.impl()->parseMessage(message);
        types.push_back(result.resultType());
    }
    return types;
}

} // namespace

// Connect

TEST(ConnectTo, APortWhereNobodyListensIsTriedLater)
{
    RefusingPort const port;
    DirectorySession session = plainSession(port.number());

    Verdict const verdict = session.connect(soon());

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("TryLater -1 ldap://127.0.0.1:"),
                                      HasSubstr("cannot be reached: nobody listens there")));
    EXPECT_TRUE(session.connection().isNull());
}

TEST(ConnectTo, ASecurePortWhereNobodyListensIsTriedLater)
{
    RefusingPort const port;
    DirectorySession session = secureSession(port.number(), policy(TlsVerify::none));

    Verdict const verdict = session.connect(soon());

    EXPECT_THAT(shown(verdict), StartsWith("TryLater -1 ldaps://127.0.0.1:"));
}

TEST(ConnectTo, AnyServerAfterTheDeadlineIsNotTried)
{
    ScriptedServer const server([](Peer& peer) { peer.ignore(); });
    DirectorySession session = plainSession(server.port());

    Verdict const verdict = session.connect(Clock::now());

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("TryLater -5 "), HasSubstr("no time was left")));
    EXPECT_EQ(server.connectionCount(), 0U);
}

TEST(ConnectTo, ASilentTlsPeerEndsWithTheDeadline)
{
    ScriptedServer const server([](Peer& peer) { peer.ignore(); });
    DirectorySession session = secureSession(server.port(), policy(TlsVerify::none));
    auto const start = Clock::now();

    Verdict const verdict = session.connect(in(milliseconds(700)));

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("TryLater -5 "), HasSubstr("no connection")));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5)); // the network timeout is ten
}

TEST(ConnectTo, APeerThatSpeaksNoTlsIsTriedLater)
{
    ScriptedServer const server([](Peer& peer) {
        peer.send("HTTP/1.1 400 Bad Request\r\n\r\n");
        peer.receiveUntilClosed();
    });
    DirectorySession session = secureSession(server.port(), policy(TlsVerify::none));

    Verdict const verdict = session.connect(soon());

    EXPECT_THAT(shown(verdict), StartsWith("TryLater -1 "));
}

TEST(ConnectTo, APeerThatSpeaksNoTlsIsNoMatterOfItsCertificate)
{
    ScriptedServer const server([](Peer& peer) {
        peer.send("HTTP/1.1 400 Bad Request\r\n\r\n");
        peer.receiveUntilClosed();
    });
    TemporaryDirectory const folder;
    run({SOLVANE_MKCERTS, folder.path()});
    DirectorySession session =
        secureSession(server.port(), policy(TlsVerify::full, folder.path() / "ca.pem"));

    Verdict const verdict = session.connect(soon());

    EXPECT_THAT(shown(verdict), StartsWith("TryLater -1 "));
}

TEST(UriOfASession, HoldsTheHostAsTheUserNamedIt)
{
    auto const server = serverAt(636, true);

    DirectorySession const named(server, "LDAP.Example.test", TlsPolicy());
    DirectorySession const numbered(server, "::1", TlsPolicy());

    EXPECT_EQ(named.uri(), "ldaps://LDAP.Example.test:636");
    EXPECT_EQ(numbered.uri(), "ldaps://[::1]:636");
}

TEST(SessionBeforeItsConnect, HasNothing)
{
    DirectorySession session(serverAt(636, true), "127.0.0.1", TlsPolicy());
    int id = 0;

    session.limits(1, 1);
    session.abandon(1);
    Verdict const sent = session.send(searchFor("(cn=x)"), id);
    Verdict const bound = session.bind(readerDn, readerPassword, soon());
    Verdict const confirmed = session.confirmIdentity(soon());

    EXPECT_FALSE(session.isFresh());
    EXPECT_EQ(session.descriptor(), -1);
    EXPECT_EQ(session.tlsVersion(), "");
    EXPECT_THAT(shown(sent), StartsWith("TryLater -1 "));
    EXPECT_THAT(shown(bound), StartsWith("TryLater -1 "));
    EXPECT_THAT(shown(confirmed), StartsWith("TryLater -1 "));
}

// Certificates

class GoodCertificate : public SuiteWithSlapd<GoodCertificate> {
public:
    static std::vector<std::string> options() { return {"--users", "5"}; }

protected:
    std::string folder() const { return slapd().caFile().parent_path(); }
};

TEST_F(GoodCertificate, IsAcceptedForItsAddress)
{
    auto session = secureSession(slapd().tlsPort(), policy(TlsVerify::full, slapd().caFile()));

    Verdict const verdict = session.connect(soon());

    EXPECT_EQ(shown(verdict), "Found 0 ");
    EXPECT_THAT(session.tlsVersion(), StartsWith("TLS1."));
    EXPECT_THAT(session.tlsCipher(), Not(IsEmpty()));
    ASSERT_TRUE(session.certificate());
    EXPECT_EQ(session.certificate()->subject(), "CN=localhost");
}

TEST_F(GoodCertificate, IsAcceptedForItsName)
{
    auto session =
        secureSession(slapd().tlsPort(), policy(TlsVerify::full, slapd().caFile()), "localhost");

    Verdict const verdict = session.connect(soon());

    EXPECT_EQ(shown(verdict), "Found 0 ");
}

TEST_F(GoodCertificate, IsRefusedForAnotherName)
{
    auto session = secureSession(slapd().tlsPort(), policy(TlsVerify::full, slapd().caFile()),
                                 "ldap.example.test");

    Verdict const verdict = session.connect(soon());

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("Refused -11 ldaps://ldap.example.test:"),
                      HasSubstr("not for 'ldap.example.test', but for localhost, ")));
    EXPECT_TRUE(session.connection().isNull());
    EXPECT_TRUE(session.certificate());
}

TEST_F(GoodCertificate, IsAcceptedForAnotherNameWhereTheChainIsAll)
{
    auto session = secureSession(slapd().tlsPort(), policy(TlsVerify::chain, slapd().caFile()),
                                 "ldap.example.test");

    Verdict const verdict = session.connect(soon());

    EXPECT_EQ(shown(verdict), "Found 0 ");
}

TEST_F(GoodCertificate, IsRefusedWithoutItsAuthority)
{
    auto session =
        secureSession(slapd().tlsPort(), policy(TlsVerify::chain, folder() + "/bad.pem"));

    Verdict const verdict = session.connect(soon());

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("Refused -11 ldaps://127.0.0.1:"),
                                      HasSubstr("signed by an unknown authority: "
                                                "CN=Throwaway test authority")));
    EXPECT_TRUE(session.connection().isNull());
    EXPECT_TRUE(session.certificate());
}

TEST_F(GoodCertificate, IsJudgedBySessionsOfOneProcessEachForItself)
{
    auto const verdictOf = [](TlsPolicy const& tls) {
        return secureSession(slapd().tlsPort(), tls).connect(soon()).outcome;
    };
    auto const right = policy(TlsVerify::full, slapd().caFile());
    auto const wrong = policy(TlsVerify::full, folder() + "/bad.pem");
    auto const none = policy(TlsVerify::none);

    std::vector<Lookup::Outcome> const outcomes = {verdictOf(right), verdictOf(wrong),
                                                   verdictOf(none),  verdictOf(right),
                                                   verdictOf(none),  verdictOf(wrong)};

    EXPECT_THAT(outcomes, testing::ElementsAre(Lookup::Outcome::Found, Lookup::Outcome::Refused,
                                               Lookup::Outcome::Found, Lookup::Outcome::Found,
                                               Lookup::Outcome::Found, Lookup::Outcome::Refused));
}

TEST_F(GoodCertificate, IsNotAskedForWhereTheAuthoritiesAreMissing)
{
    auto session = secureSession(slapd().tlsPort(), policy(TlsVerify::full, "/nonexistent/ca.pem"));

    Verdict const verdict = session.connect(soon());

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("Misconfigured -9 "), HasSubstr("'/nonexistent/ca.pem'"),
                      HasSubstr("No such file or directory")));
}

TEST_F(GoodCertificate, IsNoMatterWhereTheAuthoritiesAreNone)
{
    TemporaryDirectory const own;
    std::string const file = own.path() / "none.pem";
    std::ofstream(file) << "no certificates here\n";
    auto session = secureSession(slapd().tlsPort(), policy(TlsVerify::chain, file));

    Verdict const verdict = session.connect(soon());

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("Misconfigured -9 "),
                                      HasSubstr("none.pem' holds no certificate")));
}

TEST_F(GoodCertificate, CarriesABindAndAnAnswer)
{
    auto session = secureSession(slapd().tlsPort(), policy(TlsVerify::full, slapd().caFile()));
    session.connect(soon());
    Verdict const bound = session.bind(readerDn, readerPassword, soon());
    Verdict const confirmed = session.confirmIdentity(soon());
    int id = 0;

    Verdict const sent = session.send(searchFor("(uid=user0000001)"), id);

    EXPECT_EQ(shown(bound), "Found 0 ");
    EXPECT_EQ(shown(confirmed), "Found 0 ");
    EXPECT_EQ(shown(sent), "Found 0 ");
    EXPECT_THAT(typesFor(session, id), testing::ElementsAre(2, 4));
    EXPECT_TRUE(session.isFresh());
}

/// A server that shows another certificate than the right one.
class WrongCertificate : public testing::Test {
protected:
    void start(std::string const& certificate)
    {
        if (Slapd::isInstalled()) {
            slapd = std::make_unique<Slapd>(
                std::vector<std::string>{"--users", "0", "--cert", certificate});
        } else {
            Slapd::reportMissing();
        }
    }

    std::unique_ptr<Slapd> slapd;
};

TEST_F(WrongCertificate, ThatExpiredIsRefused)
{
    start("expired");
    if (!slapd) {
        return;
    }
    auto session = secureSession(slapd->tlsPort(), policy(TlsVerify::chain, slapd->caFile()));
    auto accepting = secureSession(slapd->tlsPort(), policy(TlsVerify::none));

    Verdict const verdict = session.connect(soon());
    Verdict const accepted = accepting.connect(soon());

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("Refused -11 "),
                                      HasSubstr("not accepted: expired since 2021-01-01")));
    EXPECT_EQ(shown(accepted), "Found 0 ");
}

TEST_F(WrongCertificate, OfAStrangerIsRefused)
{
    start("bad");
    if (!slapd) {
        return;
    }
    auto session = secureSession(slapd->tlsPort(), policy(TlsVerify::chain, slapd->caFile()));

    Verdict const verdict = session.connect(soon());

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("Refused -11 "), HasSubstr("not accepted: signed by itself")));
    ASSERT_TRUE(session.certificate());
    EXPECT_EQ(session.certificate()->subject(), "CN=wrong.example.test");
}

// Bind

class SessionOnSlapd : public SuiteWithSlapd<SessionOnSlapd> {
public:
    static std::vector<std::string> options() { return {"--users", "20"}; }

protected:
    void SetUp() override
    {
        SuiteWithSlapd::SetUp();
        if (hasSlapd()) {
            session = std::make_unique<DirectorySession>(plainSession(slapd().port(), 1));
            ASSERT_EQ(shown(session->connect(soon())), "Found 0 ");
        }
    }
    void bind() { ASSERT_EQ(shown(session->bind(readerDn, readerPassword, soon())), "Found 0 "); }
    int send(std::string const& filter)
    {
        int id = 0;
        EXPECT_EQ(shown(session->send(searchFor(filter), id)), "Found 0 ");
        return id;
    }

    std::unique_ptr<DirectorySession> session;
};

TEST_F(SessionOnSlapd, BindsAndLearnsWhoItIs)
{
    bind();

    Verdict const verdict = session->confirmIdentity(soon());

    EXPECT_EQ(shown(verdict), "Found 0 ");
    EXPECT_EQ(session->identity(), Identity::Confirmed);
    EXPECT_EQ(session->authorizationId(), "dn:cn=reader,dc=corp,dc=test");
}

TEST_F(SessionOnSlapd, IsAnonymousWithoutABind)
{
    EXPECT_EQ(session->identity(), Identity::Anonymous);
}

TEST_F(SessionOnSlapd, RefusesAWrongPassword)
{
    Verdict const verdict = session->bind(readerDn, "wrong", soon());

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("Refused 49 ldap://127.0.0.1:"),
                                      HasSubstr("the bind is refused: Invalid credentials (49)")));
}

TEST_F(SessionOnSlapd, SendsNoPasswordThatServersTakeAsAnonymous)
{
    for (std::string const& password : {std::string(), std::string("\0secret", 7)}) {
        Verdict const verdict = session->bind(readerDn, password, soon());

        EXPECT_THAT(shown(verdict),
                    AllOf(StartsWith("Misconfigured -9 "), Not(HasSubstr("secret"))));
    }
    EXPECT_THAT(shown(session->bind("", "secret", soon())),
                AllOf(StartsWith("Misconfigured -9 "), Not(HasSubstr("secret"))));
}

TEST_F(SessionOnSlapd, KeepsNoCopyOfThePassword)
{
    bind();

    EXPECT_THAT(session->connection().impl()->m_bindPassword, IsEmpty());
}

TEST_F(SessionOnSlapd, WaitsForTheBindNoLongerThanTheNetworkTimeout)
{
    slapd().pause();
    Verdict const verdict = session->bind(readerDn, readerPassword, soon());
    slapd().resume();

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("TryLater -5 "), HasSubstr("did not answer the bind within 1 s")));
}

TEST_F(SessionOnSlapd, WaitsForItsIdentityNoLongerThanTheDeadline)
{
    bind();
    slapd().pause();
    Verdict const verdict = session->confirmIdentity(in(milliseconds(300)));
    slapd().resume();

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("TryLater -5 "), HasSubstr("did not answer")));
    EXPECT_EQ(session->identity(), Identity::Unconfirmed);
}

// Requests

TEST_F(SessionOnSlapd, ReceivesOneMessageAtATime)
{
    bind();
    int const id = send("(|(uid=user0000001)(uid=user0000002))");

    EXPECT_THAT(typesFor(*session, id), testing::ElementsAre(2, 2, 4));
}

TEST_F(SessionOnSlapd, TellsTheAnswersOfTwoSearchesApart)
{
    bind();
    int const first = send("(uid=user0000001)");
    int const second = send("(uid=user0000002)");
    std::map<int, int> messages;

    LDAPMessageBuffer message;
    for (int i = 0; i < 4; ++i) {
        ++messages[session->receive(message, milliseconds(10000))];
    }

    EXPECT_NE(first, second);
    EXPECT_THAT(messages, testing::ElementsAre(testing::Pair(first, 2), testing::Pair(second, 2)));
}

TEST_F(SessionOnSlapd, ReceivesNothingWhereNothingCame)
{
    bind();
    LDAPMessageBuffer message;

    int const id = session->receive(message, milliseconds(0));

    EXPECT_EQ(id, 0);
    EXPECT_EQ(message.get(), nullptr);
}

TEST_F(SessionOnSlapd, IsUsableAfterAFilterThatIsNone)
{
    bind();
    int id = 0;

    Verdict const refused = session->send(searchFor("(uid="), id);

    EXPECT_THAT(shown(refused), AllOf(StartsWith("Misconfigured -7 "), HasSubstr("(uid=")));
    EXPECT_TRUE(session->connection().impl()->isValid());
    EXPECT_THAT(typesFor(*session, send("(uid=user0000001)")), testing::ElementsAre(2, 4));
}

TEST_F(SessionOnSlapd, SendsNoFilterThatFindsOthers)
{
    bind();
    int id = 0;

    for (std::string const& filter :
         {std::string(), std::string(" "), std::string("uid=user0000001\0x", 17)}) {
        Verdict const verdict = session->send(searchFor(filter), id);

        EXPECT_THAT(shown(verdict), StartsWith("Misconfigured -7 "));
    }
}

TEST_F(SessionOnSlapd, AsksForNoMoreEntriesThanItsLimit)
{
    bind();
    session->limits(2, 0);
    int const id = send("(objectClass=person)");
    LDAPMessageBuffer message;
    LDAPResult result(session->connection());

    while (result.resultType() != 4) {
        ASSERT_EQ(session->receive(message, milliseconds(10000)), id);
        result.impl()->parseMessage(message);
    }

    EXPECT_EQ(result.resultCode(), 4);
    EXPECT_EQ(result.searchResultEntries().size(), 2U);
}

TEST_F(SessionOnSlapd, DropsTheAnswersOfAnAbandonedSearch)
{
    bind();
    int const abandoned = send("(objectClass=person)");
    session->abandon(abandoned);
    int const id = send("(uid=user0000001)");

    EXPECT_THAT(typesFor(*session, id), testing::ElementsAre(2, 4));
}

TEST_F(SessionOnSlapd, IsStaleAfterTheServerStartedAgain)
{
    bind();
    bool const wasFresh = session->isFresh();

    slapd().kill();
    slapd().restart();

    EXPECT_TRUE(wasFresh);
    EXPECT_TRUE(eventually([&] { return !session->isFresh(); }));
}

TEST_F(SessionOnSlapd, BreaksWhereTheServerStartedAgainAndNeverConnectsAnew)
{
    bind();
    int const id = send("(uid=user0000001)");
    LDAPMessageBuffer message;
    ASSERT_EQ(session->receive(message, milliseconds(10000)), id);
    ASSERT_EQ(session->receive(message, milliseconds(10000)), id);
    slapd().kill();
    slapd().restart();
    int next = 0;

    Verdict const first = session->send(searchFor("(uid=user0000001)"), next);
    int const received = session->receive(message, milliseconds(10000));
    Verdict const second = session->send(searchFor("(uid=user0000001)"), next);
    int const receivedAgain = session->receive(message, milliseconds(10000));

    EXPECT_THAT(shown(first), AnyOf("Found 0 ", StartsWith("TryLater -1 ")));
    EXPECT_EQ(received, -1);
    EXPECT_THAT(shown(second), StartsWith("TryLater -1 "));
    EXPECT_EQ(receivedAgain, -1);
}

TEST_F(SessionOnSlapd, NeverConnectsAnewWhereItIsAnonymous)
{
    slapd().kill();
    slapd().restart();
    LDAPMessageBuffer message;
    int id = 0;
    session->send(searchFor("(uid=user0000001)"), id);

    int const received = session->receive(message, milliseconds(10000));
    Verdict const second = session->send(searchFor("(uid=user0000001)"), id);

    EXPECT_EQ(received, -1);
    EXPECT_THAT(shown(second), StartsWith("TryLater -1 "));
}

TEST(SessionInVersion2, LeavesItsIdentityUnconfirmed)
{
    if (!Slapd::isInstalled()) {
        Slapd::reportMissing();
        return;
    }
    Slapd const slapd({"--users", "0"});
    DirectorySession session(serverAt(slapd.port(), false, 5, LDAPConnection::V2), "127.0.0.1",
                             TlsPolicy());
    session.connect(soon());
    session.bind(readerDn, readerPassword, soon());

    Verdict const verdict = session.confirmIdentity(soon());

    EXPECT_EQ(shown(verdict), "Found 0 ");
    EXPECT_EQ(session.identity(), Identity::Unconfirmed);
}

// What no real server does on request

TEST(BindOnAPeer, ThatIsSilentRunsOut)
{
    ScriptedServer const server([](Peer& peer) { peer.receiveUntilClosed(); });
    DirectorySession session = plainSession(server.port());
    session.connect(soon());

    Verdict const verdict = session.bind(readerDn, readerPassword, in(milliseconds(300)));

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("TryLater -5 "), HasSubstr("did not answer the bind within 0.")));
}

TEST(BindOnAPeer, ThatHangsUpIsTriedLater)
{
    ScriptedServer const server([](Peer& peer) { peer.receiveMessage(); });
    DirectorySession session = plainSession(server.port());
    session.connect(soon());

    Verdict const verdict = session.bind(readerDn, readerPassword, soon());

    EXPECT_THAT(shown(verdict), StartsWith("TryLater -1 "));
}

TEST(BindOnAPeer, ThatAnswersWithSomethingElseIsTriedLater)
{
    ScriptedServer const server([](Peer& peer) {
        peer.send(searchDone(messageIdOf(peer.receiveMessage())));
        peer.receiveUntilClosed();
    });
    DirectorySession session = plainSession(server.port());
    session.connect(soon());

    Verdict const verdict = session.bind(readerDn, readerPassword, soon());

    EXPECT_THAT(shown(verdict), StartsWith("TryLater -1 "));
}

TEST(BindOnAPeer, GivesEachCodeItsOutcome)
{
    struct Case {
        int code;
        char const* outcome;
    };
    for (Case const& expected :
         {Case{1, "TryLater 1 "}, Case{2, "Misconfigured 2 "}, Case{10, "Refused 10 "},
          Case{14, "TryLater 14 "}, Case{32, "Refused 32 "}, Case{34, "Misconfigured 34 "},
          Case{51, "TryLater 51 "}, Case{53, "Refused 53 "}}) {
        ScriptedServer const server([&](Peer& peer) {
            peer.send(bindResponse(messageIdOf(peer.receiveMessage()), expected.code));
            peer.receiveUntilClosed();
        });
        DirectorySession session = plainSession(server.port());
        session.connect(soon());

        Verdict const verdict = session.bind(readerDn, readerPassword, soon());

        EXPECT_THAT(shown(verdict), StartsWith(expected.outcome));
    }
}

TEST(BindOnAPeer, IsNotSentOnAConnectionOfItsOwn)
{
    // OpenLDAP would make one, and the password would go where nobody looked at the certificate.
    ScriptedServer server([](Peer&) {});
    DirectorySession session = plainSession(server.port());
    session.connect(soon());
    ASSERT_TRUE(server.awaitEndedScripts(1));
    LDAPMessageBuffer message;
    session.receive(message, milliseconds(10000)); // OpenLDAP notices, and forgets the socket

    Verdict const verdict = session.bind(readerDn, readerPassword, soon());

    EXPECT_THAT(shown(verdict), StartsWith("TryLater -1 "));
    EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(IdentityOnAPeer, ThatSaysAnonymousIsRefused)
{
    for (char const* const value : {"", "dn:", static_cast<char const*>(nullptr)}) {
        GrantedSession granted(answeringIdentity(0, value));

        Verdict const verdict = granted.session.confirmIdentity(soon());

        EXPECT_THAT(shown(verdict), AllOf(StartsWith("Refused 48 "), HasSubstr("anonymous")));
        EXPECT_EQ(granted.session.identity(), Identity::Unconfirmed);
    }
}

TEST(IdentityOnAPeer, ThatDoesNotKnowTheQuestionStaysUnconfirmed)
{
    for (int const code : {1, 2, 12, 50, 53}) {
        GrantedSession granted(answeringIdentity(code, nullptr));

        Verdict const verdict = granted.session.confirmIdentity(soon());

        EXPECT_EQ(shown(verdict), "Found 0 ");
        EXPECT_EQ(granted.session.identity(), Identity::Unconfirmed);
    }
}

TEST(IdentityOnAPeer, ThatIsBusyIsTriedLater)
{
    for (int const code : {51, 52, 80}) {
        GrantedSession granted(answeringIdentity(code, nullptr));

        Verdict const verdict = granted.session.confirmIdentity(soon());

        EXPECT_THAT(shown(verdict), AllOf(StartsWith("TryLater " + std::to_string(code) + ' '),
                                          HasSubstr(": because")));
    }
}

TEST(IdentityOnAPeer, ThatHangsUpIsTriedLater)
{
    GrantedSession granted([](Peer& peer) {
        peer.grantBind();
        peer.receiveMessage();
    });

    Verdict const verdict = granted.session.confirmIdentity(soon());

    EXPECT_THAT(shown(verdict), StartsWith("TryLater -1 "));
}

TEST(TextOfAServer, StaysOnItsLine)
{
    ScriptedServer const server([](Peer& peer) {
        std::string const code("\x0a\x01\x35", 3);
        peer.send(ldapMessage(
            messageIdOf(peer.receiveMessage()),
            berElement(0x61, code + berElement(0x04, "") + berElement(0x04, "two\nlines\x1b[2J"))));
        peer.receiveUntilClosed();
    });
    DirectorySession session = plainSession(server.port());
    session.connect(soon());

    Verdict const verdict = session.bind(readerDn, readerPassword, soon());

    EXPECT_THAT(verdict.text, HasSubstr("(53): two\\x0Alines\\x1B[2J"));
}

TEST(NoticeOfDisconnectionOnASession, BreaksIt)
{
    GrantedSession granted([](Peer& peer) {
        peer.grantBind();
        peer.receiveMessage();
        peer.send(noticeOfDisconnection());
        peer.receiveUntilClosed();
    });
    int id = 0;
    granted.session.send(searchFor("(cn=x)"), id);
    LDAPMessageBuffer message;

    int const received = granted.session.receive(message, milliseconds(10000));

    EXPECT_EQ(received, -1);
}

TEST(NoticeOfDisconnectionOnASession, MakesAnIdleOneStale)
{
    GrantedSession granted([](Peer& peer) {
        peer.grantBind();
        peer.awaitCue();
        peer.send(noticeOfDisconnection());
        peer.receiveUntilClosed();
    });
    bool const wasFresh = granted.session.isFresh();

    granted.server.giveCue();

    EXPECT_TRUE(wasFresh);
    EXPECT_TRUE(eventually([&] { return !granted.session.isFresh(); }));
}

} // namespace SolvaneTest
