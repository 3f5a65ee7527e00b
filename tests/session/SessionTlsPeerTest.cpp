// TLS peers that are silent, disconnect or send invalid data; and session resumption.
#include "Eventually.h"
#include "LdapMessages.h"
#include "ScriptedServer.h"
#include "ServerTls.h"
#include "Sessions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ldap.h>

#include <atomic>
#include <ctime>
#include <memory>
#include <thread>
#include <vector>

using namespace Solvane;
using namespace Solvane::Lookup;
using std::chrono::milliseconds;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

constexpr char tls12[] = "NORMAL:-VERS-ALL:+VERS-TLS1.2";
constexpr char tls13[] = "NORMAL:-VERS-ALL:+VERS-TLS1.3";

/// Answers each request with success.
void answerAll(Peer& peer)
{
    for (std::string request = peer.receiveMessage(); !request.empty();
         request = peer.receiveMessage()) {
        peer.send(operationOf(request) == BindRequest ? bindResponse(messageIdOf(request))
                                                      : searchDone(messageIdOf(request)));
    }
}

class TlsPeer : public testing::Test {
protected:
    TlsPolicy good() const { return policy(TlsVerify::full, m_authority.file()); }

    Authority m_authority;
    ServerTls m_tls{m_authority.issue()};
};

} // namespace

TEST_F(TlsPeer, ThatIsNotThereIsTriedLater)
{
    RefusingPort const port;
    Session session(secureOptions(port.number(), good()));

    Verdict const verdict = session.reach(Step::handshake, soon());

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("TryLater -1 ldaps://127.0.0.1:"),
                                      HasSubstr("Connection refused")));
    EXPECT_EQ(session.step(), Step::connect);
}

TEST_F(TlsPeer, ThatIsSilentEndsWithTheTimeout)
{
    ScriptedServer const server([](Peer& peer) { peer.ignore(); });
    SessionOptions options = secureOptions(server.port(), good());
    options.networkTimeout = milliseconds(300);
    Session session(options);

    Verdict const verdict = session.reach(Step::identify, soon());

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("TryLater -5 ldaps://127.0.0.1:"),
                      HasSubstr("the TLS handshake was not finished within 0.300 s")));
    EXPECT_EQ(session.step(), Step::handshake);
}

TEST_F(TlsPeer, ThatIsSilentEndsWithTheDeadline)
{
    ScriptedServer const server([](Peer& peer) { peer.ignore(); });
    Session session(secureOptions(server.port(), policy(TlsVerify::none)));

    Verdict const verdict = session.reach(Step::identify, in(milliseconds(300)));

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("TryLater -5 "), HasSubstr("the TLS handshake was not finished")));
    EXPECT_LT(session.step(), Step::bind); // ended long before the network timeout of ten seconds
}

TEST_F(TlsPeer, ThatSpeaksNoTlsIsTriedLater)
{
    ScriptedServer const server([](Peer& peer) {
        peer.send("HTTP/1.1 400 Bad Request\r\n\r\n");
        peer.receiveUntilClosed();
    });
    Session session(secureOptions(server.port(), good()));

    Verdict const verdict = session.reach(Step::handshake, soon());

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("TryLater -1 "), HasSubstr("the server does not speak TLS")));
}

// RFC 6066 section 3: the name is sent without the dot that makes it absolute.
TEST_F(TlsPeer, IsAskedForItsNameWithoutATrailingDot)
{
    ServerTls const tls(m_authority.issue(), tls12);
    for (std::string const host : {"localhost", "localhost."}) {
        std::string name;
        ScriptedServer server([&](Peer& peer) {
            if (peer.startTls(tls)) {
                name = peer.askedName();
                answerAll(peer);
            }
        });
        SessionOptions options = secureOptions(server.port(), good(), host);
        options.addresses = {*Address::parse("127.0.0.1", server.port())};
        Session session(options);

        Verdict const verdict = session.reach(Step::identify, soon());

        EXPECT_EQ(shown(verdict), "Found 0 ");
        EXPECT_EQ(name, "localhost") << host;
    }
}

// RFC 5246 section 7.4.1.1. The certificate was verified for the first handshake only.
TEST_F(TlsPeer, ThatWantsANewHandshakeIsRefusedItAndGoesOn)
{
    ServerTls const tls(m_authority.issue(), tls12);
    std::atomic<bool> isRefused{false};
    ScriptedServer const server([&](Peer& peer) {
        if (peer.startTls(tls)) {
            std::string const request = peer.receiveMessage();
            isRefused = peer.isRefusedNewHandshake();
            peer.send(searchDone(messageIdOf(request)));
            answerAll(peer);
        }
    });
    Session session(secureOptions(server.port(), good()));

    ASSERT_EQ(shown(session.reach(Step::handshake, soon())), "Found 0 ");
    int id = 0;
    ASSERT_TRUE(session.send(peopleSearch(), "(uid=anna)", id).isGood());
    auto const answer = next(session);

    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->id, id);
    EXPECT_TRUE(isRefused);
}

TEST_F(TlsPeer, ThatSpeaksLdapInsteadIsTriedLater)
{
    ScriptedServer const server([](Peer& peer) {
        peer.send(noticeOfDisconnection());
        peer.receiveUntilClosed();
    });
    Session session(secureOptions(server.port(), good()));

    EXPECT_THAT(shown(session.reach(Step::handshake, soon())),
                AllOf(StartsWith("TryLater -1 "), HasSubstr("the server does not speak TLS")));
}

TEST_F(TlsPeer, ThatDripsItsAnswersIsUnderstood)
{
    ScriptedServer const server([&](Peer& peer) {
        peer.startTls(m_tls);
        std::string const bind = peer.receiveMessage();
        peer.drip(bindResponse(messageIdOf(bind))); // a record for each byte
        peer.receiveUntilClosed();
    });
    SessionOptions options = secureOptions(server.port(), good());
    options.bindDn = readerDn;
    options.password = &readerPassword;
    Session session(options);

    EXPECT_EQ(shown(session.reach(Step::bind, soon())), "Found 0 ");
}

// More than one record, and several messages in one record: no input may stay in the TLS layer
// while the session polls the socket.
TEST_F(TlsPeer, ThatAnswersInRecordsThatDoNotEndWithMessagesLeavesNothingBehind)
{
    std::string const large(100000, 'x');
    ScriptedServer const server([&](Peer& peer) {
        peer.startTls(m_tls);
        int const id = messageIdOf(peer.receiveMessage());
        std::string answers;
        for (int i = 0; i < 20; ++i) {
            answers += searchEntry(id, "cn=small", {{"cn", {"small"}}});
        }
        answers += searchEntry(id, "cn=large", {{"jpegPhoto", {large}}});
        peer.send(answers + searchDone(id));
        peer.receiveUntilClosed();
    });
    Session session(secureOptions(server.port(), good()));
    ASSERT_EQ(shown(session.reach(Step::handshake, soon())), "Found 0 ");
    int id = 0;
    session.send(peopleSearch(), "(cn=x)", id);

    EXPECT_EQ(typesFor(session, id).size(), 22U);
}

// GnuTLS stops after each ticket, when the answer after it has already been read from the socket.
TEST_F(TlsPeer, ThatSendsTicketsBeforeItsAnswerIsUnderstood)
{
    ServerTls const tls(m_authority.issue(), tls13);
    ScriptedServer server([&](Peer& peer) {
        peer.startTls(tls);
        std::string const bind = peer.receiveMessage();
        peer.sendTickets(3);
        peer.send(bindResponse(messageIdOf(bind)));
        peer.receiveMessage();
    });
    SessionOptions options = secureOptions(server.port(), good());
    options.bindDn = readerDn;
    options.password = &readerPassword;
    Session session(options);
    ASSERT_EQ(shown(session.reach(Step::handshake, soon())), "Found 0 ");
    session.begin(Step::bind, soon());
    ASSERT_TRUE(eventually([&] { return server.received().size() == 1; }));

    EXPECT_EQ(shown(session.reach(Step::bind, soon())), "Found 0 ");
}

TEST_F(TlsPeer, IsFreshAfterTheTicketsOfTheHandshake)
{
    ServerTls const tls(m_authority.issue(), tls13);
    ScriptedServer server([&](Peer& peer) {
        peer.startTls(tls);
        peer.awaitCue();
        peer.send(noticeOfDisconnection());
        peer.receiveUntilClosed();
    });
    Session session(secureOptions(server.port(), good()));
    ASSERT_EQ(shown(session.reach(Step::handshake, soon())), "Found 0 ");

    // Tickets arrive at any time; the connection is fresh before, meanwhile and afterwards.
    bool const wasFresh = session.isFresh();
    server.giveCue();

    EXPECT_TRUE(wasFresh);
    EXPECT_TRUE(eventually([&] { return !session.isFresh(); }));
}

TEST_F(TlsPeer, IsNotFreshOnceItSaidGoodbye)
{
    ScriptedServer server([&](Peer& peer) {
        peer.startTls(m_tls);
        peer.awaitCue();
    });
    Session session(secureOptions(server.port(), good()));
    ASSERT_EQ(shown(session.reach(Step::handshake, soon())), "Found 0 ");

    server.giveCue();

    EXPECT_TRUE(eventually([&] { return !session.isFresh(); }));
}

class TlsPeerThatBreaksOff : public testing::TestWithParam<char const*> {};

TEST_P(TlsPeerThatBreaksOff, AtAnyByteOfTheHandshakeIsTriedLater)
{
    Authority authority;
    ServerTls const tls(authority.issue(), GetParam());
    TlsPolicy const good = policy(TlsVerify::full, authority.file());
    std::atomic<std::size_t> cutAfter{0};
    std::atomic<std::size_t> whole{0};
    ScriptedServer const server([&](Peer& peer) {
        if (cutAfter == 0) {
            peer.startTls(tls);
            whole = peer.tlsBytes();
            answerAll(peer);
        } else {
            peer.startTls(tls, cutAfter);
        }
    });
    ASSERT_TRUE(Session(secureOptions(server.port(), good)).reach(Step::identify, soon()).isGood());
    std::size_t completed = 0;

    for (cutAfter = 1; cutAfter < whole; ++cutAfter) {
        Session session(secureOptions(server.port(), good));
        Verdict const verdict = session.reach(Step::identify, soon());
        completed += session.isDone(Step::handshake) ? 1U : 0U;
        ASSERT_THAT(shown(verdict), StartsWith("TryLater -1 ")) << cutAfter;
    }

    EXPECT_GT(whole, 500U);
    EXPECT_LT(completed, whole / 2); // cut in the tickets that follow in TLS 1.3
}

INSTANTIATE_TEST_SUITE_P(InEachVersion, TlsPeerThatBreaksOff, testing::Values(tls12, tls13));

// Alerts (RFC 8446 section 6.2)

TEST_F(TlsPeer, ThatSendsAnAlertRefusesOnlyIfItRejectsWhatWeOffer)
{
    struct {
        char const* name;
        char number;
        bool isRefusal;
    } const alerts[] = {
        {"unexpected_message", 10, false},
        {"handshake_failure", 40, true},
        {"bad_certificate", 42, true},
        {"unsupported_certificate", 43, true},
        {"certificate_revoked", 44, true},
        {"certificate_expired", 45, true},
        {"certificate_unknown", 46, true},
        {"illegal_parameter", 47, false},
        {"unknown_ca", 48, true},
        {"access_denied", 49, true},
        {"decode_error", 50, false},
        {"protocol_version", 70, true},
        {"insufficient_security", 71, true},
        {"internal_error", 80, false},
        {"unrecognized_name", 112, true},
        {"certificate_required", 116, true},
    };
    for (auto const& alert : alerts) {
        ScriptedServer const server([&](Peer& peer) {
            peer.send(std::string("\x15\x03\x03\x00\x02\x02", 6) + alert.number); // fatal
            peer.receiveUntilClosed();
        });
        Session session(secureOptions(server.port(), good()));

        EXPECT_THAT(shown(session.reach(Step::handshake, soon())),
                    StartsWith(alert.isRefusal ? "Refused -11 " : "TryLater -1 "))
            << alert.name;
    }
}

// Resumption

class ResumedTls : public testing::TestWithParam<char const*> {
protected:
    /// A bound session with the server, with all input received.
    std::unique_ptr<Session> opened(std::string const& host = "localhost")
    {
        return opened(m_server.port(), host);
    }
    std::unique_ptr<Session> opened(unsigned int port, std::string const& host = "localhost")
    {
        SessionOptions options = secureOptions(port, TlsPolicy(), host);
        options.tls = m_context;
        options.bindDn = readerDn;
        options.password = &readerPassword;
        auto session = std::make_unique<Session>(options);
        session->reach(Step::bind, soon());
        return session;
    }

    Authority m_authority;
    ServerTls m_tls{m_authority.issue(), GetParam()};
    std::atomic<int> m_resumed{0};
    ScriptedServer m_server{[this](Peer& peer) {
        if (peer.startTls(m_tls)) {
            m_resumed += peer.isTlsResumed() ? 1 : 0;
            answerAll(peer);
        }
    }};
    std::shared_ptr<TlsContext> m_context =
        std::make_shared<TlsContext>(policy(TlsVerify::full, m_authority.file()));
};

TEST_P(ResumedTls, IsTakenUpByTheNextSession)
{
    auto const first = opened();
    auto const second = opened();

    EXPECT_FALSE(first->isTlsResumed());
    EXPECT_EQ(shown(second->verdict()), "Found 0 ");
    EXPECT_TRUE(second->isTlsResumed());
    EXPECT_EQ(m_resumed, 1);
    ASSERT_TRUE(second->certificate());
    EXPECT_EQ(second->certificate()->subject(), "CN=localhost");
}

TEST_P(ResumedTls, IsNotTakenUpForAnotherName)
{
    auto const first = opened();

    auto const second = opened("elsewhere.example.test");

    EXPECT_THAT(
        shown(second->verdict()),
        AllOf(StartsWith("Refused -11 "), HasSubstr("does not match 'elsewhere.example.test'")));
    EXPECT_FALSE(second->isTlsResumed());
}

TEST_P(ResumedTls, IsNotTakenUpInAnotherContext)
{
    auto const first = opened();
    m_context = std::make_shared<TlsContext>(policy(TlsVerify::full, m_authority.file()));

    auto const second = opened();

    EXPECT_EQ(shown(second->verdict()), "Found 0 ");
    EXPECT_FALSE(second->isTlsResumed());
}

TEST_P(ResumedTls, IsTakenUpAgainAndAgain)
{
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(shown(opened()->verdict()), "Found 0 ");
    }

    EXPECT_EQ(m_resumed, 4);
}

TEST_P(ResumedTls, OfACertificateThatWasRefusedIsNotKept)
{
    Authority const other;
    m_context = std::make_shared<TlsContext>(policy(TlsVerify::full, other.file()));
    auto const first = opened();

    auto const second = opened();

    EXPECT_EQ(first->verdict().outcome, Outcome::Refused);
    EXPECT_EQ(second->verdict().outcome, Outcome::Refused);
    EXPECT_EQ(m_resumed, 0);
}

// What was remembered of it may be the cause.
TEST_P(ResumedTls, IsForgottenWhenAHandshakeFails)
{
    std::atomic<int> connections{0};
    ScriptedServer const server([&](Peer& peer) {
        if (++connections == 2) {
            peer.send("no TLS");
        } else if (peer.startTls(m_tls)) {
            answerAll(peer);
        }
    });
    auto const first = opened(server.port());
    auto const second = opened(server.port());

    auto const third = opened(server.port());

    EXPECT_EQ(shown(first->verdict()), "Found 0 ");
    EXPECT_FALSE(second->verdict().isGood());
    EXPECT_EQ(shown(third->verdict()), "Found 0 ");
    EXPECT_FALSE(third->isTlsResumed());
}

TEST_P(ResumedTls, IsVerifiedAnewOnceACertificateOfItsChainHasExpired)
{
    for (bool const isServers : {true, false}) { // or that of the authority between
        Verdict verdict;
        std::time_t end = 0;
        std::unique_ptr<ServerTls> tls;
        std::unique_ptr<ScriptedServer> server;
        for (std::time_t const life : {2, 30}) { // the handshake may take long on a busy machine
            CertificateWish own;
            CertificateWish between;
            between.commonName = "Between";
            between.isAuthority = true;
            end = std::time(nullptr) + life;
            (isServers ? own : between).notAfter = end;
            server.reset();
            tls = std::make_unique<ServerTls>(m_authority.issueThrough(between, own), GetParam());
            server = std::make_unique<ScriptedServer>([&](Peer& peer) {
                if (peer.startTls(*tls)) {
                    answerAll(peer);
                }
            });
            verdict = opened(server->port())->verdict();
            if (verdict.isGood()) {
                break;
            }
        }
        ASSERT_EQ(shown(verdict), "Found 0 ");
        while (std::time(nullptr) <= end) {
            std::this_thread::sleep_for(milliseconds(20));
        }

        EXPECT_THAT(shown(opened(server->port())->verdict()),
                    AllOf(StartsWith("Refused -11 "), HasSubstr("expired on ")));
    }
}

TEST_P(ResumedTls, IsSharedByThreads)
{
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            for (int j = 0; j < 5; ++j) {
                good += opened()->verdict().isGood() ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(good, 40);
    EXPECT_GT(m_resumed, 0);
}

INSTANTIATE_TEST_SUITE_P(InEachVersion, ResumedTls, testing::Values(tls12, tls13));

} // namespace SolvaneTest
