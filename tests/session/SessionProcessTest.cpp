// Sessions and forked children, peers that stop reading, and the password in memory.
#include "Eventually.h"
#include "LdapMessages.h"
#include "ProcessMemory.h"
#include "ScriptedServer.h"
#include "ServerTls.h"
#include "Sessions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ldap.h>

#include <sys/wait.h>
#include <unistd.h>

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
using Received = Session::Received;

/// Runs this in a child process; returns its exit status, 0 for true.
template <typename Act> bool holdsInChild(Act const& act)
{
    pid_t const child = fork();
    if (child == 0) {
        bool holds = false;
        try {
            holds = act();
        } catch (...) { // told by the exit status
        }
        _exit(holds ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::vector<int> operationsOf(std::vector<std::string> const& messages)
{
    std::vector<int> operations;
    for (std::string const& message : messages) {
        operations.push_back(operationOf(message));
    }
    return operations;
}

} // namespace

// Fork

class InheritedSession : public testing::TestWithParam<bool> {
protected:
    void SetUp() override
    {
        SessionOptions options = boundOptions(m_server.port());
        if (GetParam()) {
            options = secureOptions(m_server.port(), policy(TlsVerify::full, m_authority.file()));
            options.bindDn = readerDn;
            options.password = &readerPassword;
        }
        m_session = std::make_unique<Session>(options);
        ASSERT_EQ(shown(m_session->reach(Step::bind, soon())), "Found 0 ");
    }

    /// A search and its answer, in the process that connected.
    void expectThatTheSessionWorks()
    {
        int id = 0;
        EXPECT_EQ(shown(m_session->send(peopleSearch(), "(cn=x)", id)), "Found 0 ");
        EXPECT_THAT(typesFor(*m_session, id), ElementsAre(LDAP_RES_SEARCH_RESULT));
        EXPECT_THAT(operationsOf(m_server.received()), ElementsAre(BindRequest, SearchRequest));
    }

    Authority m_authority;
    ServerTls m_tls{m_authority.issue()};
    ScriptedServer m_server{[this](Peer& peer) {
        if (GetParam() && !peer.startTls(m_tls)) {
            return;
        }
        peer.grantBind();
        for (std::string request = peer.receiveMessage(); !request.empty();
             request = peer.receiveMessage()) {
            peer.send(searchDone(messageIdOf(request)));
        }
    }};
    std::unique_ptr<Session> m_session;
};

TEST_P(InheritedSession, IsDestroyedWithoutSendingAByte)
{
    bool const isGone = holdsInChild([&] {
        m_session.reset();
        return true;
    });

    EXPECT_TRUE(isGone);
    expectThatTheSessionWorks();
}

TEST_P(InheritedSession, IsBrokenInTheChild)
{
    bool const isBroken = holdsInChild([&] {
        int id = 0;
        LDAPMessageBuffer message;
        bool const wasFresh = m_session->isFresh();
        Verdict const sent = m_session->send(peopleSearch(), "(cn=x)", id);
        m_session->flush();
        auto const received = m_session->receive(message, id);
        return !wasFresh && sent.outcome == Outcome::TryLater &&
               sent.text.find("another process") != std::string::npos &&
               received == Received::broken;
    });

    EXPECT_TRUE(isBroken);
    expectThatTheSessionWorks();
}

TEST_P(InheritedSession, LeavesWhatWasNotYetWrittenToItsOwner)
{
    int id = 0;
    m_session->send(peopleSearch(), "(cn=x)", id);

    bool const isGone = holdsInChild([&] {
        m_session.reset();
        return true;
    });

    EXPECT_TRUE(isGone);
    EXPECT_THAT(typesFor(*m_session, id), ElementsAre(LDAP_RES_SEARCH_RESULT));
    EXPECT_THAT(operationsOf(m_server.received()), ElementsAre(BindRequest, SearchRequest));
}

INSTANTIATE_TEST_SUITE_P(PlainAndSecure, InheritedSession, testing::Bool());

// Writing

TEST(SessionThatIsDestroyed, SaysUnbind)
{
    ScriptedServer server([](Peer& peer) {
        peer.grantBind();
        peer.receiveUntilClosed();
    });

    {
        Session session(boundOptions(server.port()));
        session.reach(Step::bind, soon());
    }

    ASSERT_TRUE(server.awaitEndedScripts(1));
    EXPECT_THAT(operationsOf(server.received()), ElementsAre(BindRequest, UnbindRequest));
}

TEST(SessionThatIsDestroyed, SaysUnbindAndGoodbyeByTls)
{
    Authority authority;
    // Without the tickets of TLS 1.3: input that the client has not read when it closes causes a
    // reset, and its last output may be lost.
    ServerTls const tls(authority.issue(), "NORMAL:-VERS-ALL:+VERS-TLS1.2");
    std::atomic<bool> wasEndedByGoodbye{false};
    ScriptedServer server([&](Peer& peer) {
        peer.startTls(tls);
        peer.receiveUntilClosed();
        wasEndedByGoodbye = peer.hasHeardGoodbye();
    });

    {
        Session session(secureOptions(server.port(), policy(TlsVerify::full, authority.file())));
        session.reach(Step::handshake, soon());
    }

    ASSERT_TRUE(server.awaitEndedScripts(1));
    EXPECT_THAT(operationsOf(server.received()), ElementsAre(UnbindRequest));
    EXPECT_TRUE(wasEndedByGoodbye);
}

/// A server that accepts the connection and never reads.
class PeerThatDoesNotRead : public testing::TestWithParam<bool> {
protected:
    /// More than the kernel takes for both sides, 100,000 bytes each.
    static constexpr int requests = 100;

    void fillUp(Session& session)
    {
        std::string const filter = "(cn=" + std::string(100000, 'x') + ')';
        for (int i = 0; i < requests; ++i) {
            session.send(peopleSearch(), filter, m_last);
        }
        LDAPMessageBuffer message;
        int id = 0;
        ASSERT_EQ(session.receive(message, id), Received::nothing);
        ASSERT_TRUE(isBlocked(session));
    }
    static bool isBlocked(Session& session)
    {
        Waits waits;
        session.waits(waits);
        return !waits.descriptors().empty() && (waits.descriptors().front().events & POLLOUT) != 0;
    }
    std::unique_ptr<Session> opened(milliseconds networkTimeout)
    {
        SessionOptions options = plainOptions(m_server.port());
        if (GetParam()) {
            options = secureOptions(m_server.port(), policy(TlsVerify::full, m_authority.file()));
        }
        options.networkTimeout = networkTimeout;
        auto session = std::make_unique<Session>(options);
        EXPECT_EQ(shown(session->reach(Step::bind, soon())), "Found 0 ");
        return session;
    }

    Authority m_authority;
    ServerTls m_tls{m_authority.issue()};
    ScriptedServer m_server{[this](Peer& peer) {
                                if (GetParam()) {
                                    peer.startTls(m_tls);
                                }
                                peer.awaitCue();
                                peer.receiveUntilClosed();
                            },
                            4096};
    int m_last = 0; ///< id of the last request
};

TEST_P(PeerThatDoesNotRead, BreaksTheSessionAfterTheNetworkTimeout)
{
    auto const session = opened(milliseconds(300));
    fillUp(*session);

    EXPECT_EQ(next(*session)->received, Received::broken);
    EXPECT_THAT(shown(session->verdict()),
                AllOf(StartsWith("TryLater -5 "), HasSubstr("has read nothing for 0.300 s")));
}

TEST_P(PeerThatDoesNotRead, DoesNotBlockTheDestructor)
{
    auto session = opened(std::chrono::seconds(10));
    fillUp(*session);

    session.reset(); // or the watchdog ends the test
}

TEST_P(PeerThatDoesNotRead, GetsEverythingOnceItReads)
{
    auto const session = opened(std::chrono::seconds(10));
    fillUp(*session);

    m_server.giveCue();
    ASSERT_TRUE(eventually([&] {
        LDAPMessageBuffer message;
        int id = 0;
        EXPECT_EQ(session->receive(message, id), Received::nothing);
        return !isBlocked(*session);
    }));

    EXPECT_TRUE(eventually([&] { return m_server.receivedCount() >= requests; }));
    EXPECT_EQ(messageIdOf(m_server.received().back()), m_last);
}

INSTANTIATE_TEST_SUITE_P(PlainAndSecure, PeerThatDoesNotRead, testing::Bool());

// The password

TEST(PasswordOfASession, StandsNowhereElseInMemoryOnceItIsSent)
{
    std::string password = "correct horse battery staple, number ";
    password += std::to_string(getpid()); // so that the text stands in no constant
    ScriptedServer server([](Peer& peer) {
        peer.discardSome(); // or it would stand in the server's memory
        peer.awaitCue();
    });
    SessionOptions options = plainOptions(server.port());
    options.bindDn = readerDn;
    options.password = &password;
    Session session(options);

    session.begin(Step::bind, soon());
    ASSERT_TRUE(eventually([&] {
        session.advance();
        return session.isDone(Step::connect) && !session.isSettled();
    }));

// The one sanitizer keeps what was freed, as OpenLDAP's own outgrown buffers; to look through the
// other's shadow takes minutes.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_EQ(occurrencesInMemory(password), 1U);
#endif
    server.giveCue();
}

} // namespace SolvaneTest
