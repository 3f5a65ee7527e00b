// What one connection makes of peers that do what no real server does on request.
#include "DirectorySessions.h"
#include "Eventually.h"
#include "LdapMessages.h"
#include "ScriptedServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Solvane;
using namespace Solvane::Lookup;
using std::chrono::milliseconds;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

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

} // namespace

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
