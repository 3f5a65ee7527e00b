// Sessions with misbehaving peers.
#include "Eventually.h"
#include "LdapMessages.h"
#include "ScriptedServer.h"
#include "Sessions.h"

#include <solvane/session/EntryReader.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ldap.h>
#include <sys/ioctl.h>

#include <future>

using namespace Solvane;
using namespace Solvane::Lookup;
using std::chrono::milliseconds;
using testing::AllOf;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;
using Received = Session::Received;

constexpr unsigned char extendedResponseTag = 0x78;

/// An extended response (RFC 4511 section 4.12); the value is left out where it is null.
std::string extendedResponse(int messageId, int code, char const* value)
{
    std::string content = std::string("\x0a\x01") + static_cast<char>(code);
    content += berElement(0x04, "") + berElement(0x04, "because");
    if (value != nullptr) {
        content += berElement(0x8b, value);
    }
    return ldapMessage(messageId, berElement(extendedResponseTag, content));
}

/// A server that accepts the bind and answers "Who am I?".
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

/// A bound session with a scripted server; `rest` is the script after the bind.
class GrantedSession {
public:
    explicit GrantedSession(ScriptedServer::Script const& rest, int receiveBuffer = 0)
        : server(
              [rest](Peer& peer) {
                  peer.grantBind();
                  rest(peer);
              },
              receiveBuffer)
    {
        open();
    }

    void open(std::size_t messageBytes = 1UL << 26,
              milliseconds networkTimeout = std::chrono::seconds(10))
    {
        SessionOptions options = boundOptions(server.port());
        options.messageBytes = messageBytes;
        options.networkTimeout = networkTimeout;
        session = std::make_unique<Session>(options);
        EXPECT_EQ(shown(session->reach(Step::bind, soon())), "Found 0 ");
    }
    int search()
    {
        int id = 0;
        EXPECT_EQ(shown(session->send(peopleSearch(), "(cn=x)", id)), "Found 0 ");
        session->flush();
        return id;
    }

    ScriptedServer server;
    std::unique_ptr<Session> session;
};

/// A server's part of one search: bytes made from the message id of the request.
ScriptedServer::Script answering(std::function<std::string(int)> const& answer)
{
    return [answer](Peer& peer) {
        std::string const request = peer.receiveMessage();
        if (!request.empty()) {
            peer.send(answer(messageIdOf(request)));
        }
        peer.receiveUntilClosed();
    };
}

} // namespace

// Bind

TEST(BindOnAPeer, ThatIsSilentRunsOut)
{
    ScriptedServer const server([](Peer& peer) { peer.receiveUntilClosed(); });
    Session session(boundOptions(server.port()));
    session.reach(Step::connect, soon());

    Verdict const verdict = session.reach(Step::bind, in(milliseconds(300)));

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("TryLater -5 "), HasSubstr("did not answer the bind within 0.")));
}

// RFC 4511 section 4.1.10: a referral is no part of a success.
TEST(BindOnAPeer, ThatGrantsItAndRefersUsElsewhereIsNotBelieved)
{
    ScriptedServer const server([](Peer& peer) {
        constexpr unsigned char bindResponseTag = 0x61;
        constexpr unsigned char referralTag = 0xa3;
        std::string const success("\x0a\x01\x00\x04\x00\x04\x00", 7);
        peer.send(ldapMessage(
            messageIdOf(peer.receiveMessage()),
            berElement(bindResponseTag,
                       success + berElement(referralTag, berElement(0x04, "ldap://b/")))));
        peer.receiveUntilClosed();
    });
    Session session(boundOptions(server.port()));

    EXPECT_THAT(shown(session.reach(Step::bind, soon())),
                AllOf(StartsWith("TryLater -4 "), HasSubstr("invalid response to the bind")));
}

TEST(BindOnAPeer, ThatFloodsUsGetsNoMoreThanItsShareOfACall)
{
    constexpr unsigned char intermediateTag = 0x79; // RFC 4511 section 4.13
    std::string flood;                              // of the first request, whose id is 1
    for (int i = 0; i < 200; ++i) {
        flood += ldapMessage(1, berElement(intermediateTag, ""));
    }
    flood += bindResponse(1);
    std::promise<void> begun; // begin() may read as well
    ScriptedServer const server([&](Peer& peer) {
        peer.receiveMessage();
        begun.get_future().wait();
        peer.send(flood);
        peer.receiveUntilClosed();
    });
    Session session(boundOptions(server.port()));
    session.reach(Step::connect, soon());
    session.begin(Step::bind, soon());
    begun.set_value();
    int socket = -1;
    ldap_get_option(session.handle(), LDAP_OPT_DESC, &socket);
    ASSERT_TRUE(eventually([&] {
        int available = 0;
        return ioctl(socket, FIONREAD, &available) == 0 &&
               available == static_cast<int>(flood.size());
    }));

    session.advance();

    EXPECT_FALSE(session.isSettled());
    Waits waits;
    session.waits(waits);
    EXPECT_LE(waits.moment(), Clock::now()); // there is more in the buffer
    EXPECT_EQ(shown(session.reach(Step::bind, soon())), "Found 0 ");
}

TEST(BindOnAPeer, ThatHangsUpIsTriedLater)
{
    ScriptedServer const server([](Peer& peer) { peer.receiveMessage(); });
    Session session(boundOptions(server.port()));

    Verdict const verdict = session.reach(Step::bind, soon());

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("TryLater -1 "),
                      HasSubstr("the connection broke during the bind: the server closed")));
}

TEST(BindOnAPeer, ThatResetsTheConnectionIsTriedLater)
{
    ScriptedServer const server([](Peer& peer) {
        peer.receiveMessage();
        peer.reset();
    });
    Session session(boundOptions(server.port()));

    Verdict const verdict = session.reach(Step::bind, soon());

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("TryLater -1 "), HasSubstr("reset by peer")));
}

TEST(BindOnAPeer, ThatAnswersWithSomethingElseIsTriedLater)
{
    ScriptedServer const server(answering([](int id) { return searchDone(id); }));
    Session session(boundOptions(server.port()));

    Verdict const verdict = session.reach(Step::bind, soon());

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("TryLater -4 "), HasSubstr("invalid response to the bind")));
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
        ScriptedServer const server(
            answering([&](int id) { return bindResponse(id, expected.code); }));
        Session session(boundOptions(server.port()));

        Verdict const verdict = session.reach(Step::bind, soon());

        EXPECT_THAT(shown(verdict), StartsWith(expected.outcome));
    }
}

TEST(BindOnAPeer, SaysWhereToGoInstead)
{
    constexpr char elsewhere[] = "ldap://other.example.test/";
    ScriptedServer const server(answering([&](int id) {
        std::string const code("\x0a\x01\x0a", 3);
        return ldapMessage(id, berElement(0x61, code + berElement(0x04, "dc=test") +
                                                    berElement(0x04, "") +
                                                    berElement(0xa3, berElement(0x04, elsewhere))));
    }));
    Session session(boundOptions(server.port()));

    Verdict const verdict = session.reach(Step::bind, soon());

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("Refused 10 "), HasSubstr("'dc=test'"),
                                      HasSubstr(std::string("see ") + elsewhere)));
}

TEST(BindOnAPeer, IsNotSentOnAConnectionOfItsOwn)
{
    // OpenLDAP would connect on its own and send the password to any server that accepts.
    ScriptedServer server([](Peer&) {});
    Session session(boundOptions(server.port()));
    session.reach(Step::connect, soon());
    ASSERT_TRUE(server.awaitEndedScripts(1));

    Verdict const verdict = session.reach(Step::bind, soon());

    EXPECT_THAT(shown(verdict), StartsWith("TryLater -1 "));
    EXPECT_EQ(server.connectionCount(), 1U);
}

// Who am I?

TEST(IdentityOnAPeer, ThatSaysAnonymousIsRefused)
{
    for (char const* const value : {"", "dn:", static_cast<char const*>(nullptr)}) {
        ScriptedServer const server(answeringIdentity(0, value));
        Session session(boundOptions(server.port()));

        Verdict const verdict = session.reach(Step::identify, soon());

        EXPECT_THAT(shown(verdict), AllOf(StartsWith("Refused 48 "), HasSubstr("anonymous")));
        EXPECT_EQ(session.identity(), Identity::Unconfirmed);
    }
}

TEST(IdentityOnAPeer, ThatDoesNotKnowTheQuestionStaysUnconfirmed)
{
    for (int const code : {1, 2, 12, 50, 53}) {
        ScriptedServer const server(answeringIdentity(code, nullptr));
        Session session(boundOptions(server.port()));

        Verdict const verdict = session.reach(Step::identify, soon());

        EXPECT_EQ(shown(verdict), "Found 0 ");
        EXPECT_EQ(session.identity(), Identity::Unconfirmed);
    }
}

TEST(IdentityOnAPeer, ThatIsBusyIsTriedLater)
{
    for (int const code : {51, 52, 80}) {
        ScriptedServer const server(answeringIdentity(code, nullptr));
        Session session(boundOptions(server.port()));

        Verdict const verdict = session.reach(Step::identify, soon());

        EXPECT_THAT(shown(verdict), AllOf(StartsWith("TryLater " + std::to_string(code) + ' '),
                                          HasSubstr(": because")));
    }
}

TEST(IdentityOnAPeer, ThatAnswersWithSomethingElseIsTriedLater)
{
    ScriptedServer const server([](Peer& peer) {
        peer.grantBind();
        peer.send(bindResponse(messageIdOf(peer.receiveMessage())));
        peer.receiveUntilClosed();
    });
    Session session(boundOptions(server.port()));

    EXPECT_THAT(shown(session.reach(Step::identify, soon())), StartsWith("TryLater -4 "));
}

TEST(IdentityOnAPeer, ThatHangsUpIsTriedLater)
{
    ScriptedServer const server([](Peer& peer) {
        peer.grantBind();
        peer.receiveMessage();
    });
    Session session(boundOptions(server.port()));

    Verdict const verdict = session.reach(Step::identify, soon());

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("TryLater -1 "), HasSubstr("the connection broke during the")));
    EXPECT_EQ(session.step(), Step::identify);
    EXPECT_EQ(session.identity(), Identity::Unconfirmed);
}

// Texts

TEST(TextOfAServer, StaysOnItsLine)
{
    ScriptedServer const server(answering([](int id) {
        std::string const code("\x0a\x01\x35", 3);
        return ldapMessage(id, berElement(0x61, code + berElement(0x04, "") +
                                                    berElement(0x04, "two\nlines\x1b[2J")));
    }));
    Session session(boundOptions(server.port()));

    Verdict const verdict = session.reach(Step::bind, soon());

    EXPECT_THAT(verdict.text, HasSubstr("(53): two\\x0Alines\\x1B[2J"));
}

TEST(NoticeOfDisconnection, BreaksASession)
{
    GrantedSession granted(answering([](int) { return noticeOfDisconnection(); }));
    granted.search();

    auto const received = next(*granted.session)->received;

    EXPECT_EQ(received, Received::broken);
    EXPECT_THAT(
        shown(granted.session->verdict()),
        AllOf(StartsWith("TryLater -1 "),
              HasSubstr("the server is closing the connection: Server is unavailable (52)")));
}

TEST(NoticeOfDisconnection, IsToldAlsoIfWritingFailedFirst)
{
    GrantedSession granted([](Peer& peer) {
        peer.awaitCue();
        peer.send(noticeOfDisconnection());
    });
    granted.server.giveCue();
    ASSERT_TRUE(granted.server.awaitEndedScripts(1));

    // The first write after the close causes a reset; the second one fails.
    for (int i = 0; i < 3; ++i) {
        int id = 0;
        granted.session->send(peopleSearch(), "(cn=x)", id);
        granted.session->flush();
    }
    auto const received = next(*granted.session)->received;

    EXPECT_EQ(received, Received::broken);
    EXPECT_THAT(shown(granted.session->verdict()),
                HasSubstr("the server is closing the connection"));
}

TEST(NoticeOfDisconnection, MakesAnIdleSessionStale)
{
    GrantedSession granted([](Peer& peer) {
        peer.awaitCue();
        peer.send(noticeOfDisconnection());
        peer.receiveUntilClosed();
    });
    bool const wasFresh = granted.session->isFresh();

    granted.server.giveCue();

    EXPECT_TRUE(wasFresh);
    EXPECT_TRUE(eventually([&] { return !granted.session->isFresh(); }));
}

// Messages

TEST(AnswerOfAPeer, ThatComesByteByByteIsWhole)
{
    GrantedSession granted([](Peer& peer) {
        int const id = messageIdOf(peer.receiveMessage());
        peer.drip(searchEntry(id, "cn=x", {{"cn", {"x"}}}) + searchDone(id));
        peer.receiveUntilClosed();
    });
    int const id = granted.search();

    EXPECT_THAT(typesFor(*granted.session, id),
                ElementsAre(LDAP_RES_SEARCH_ENTRY, LDAP_RES_SEARCH_RESULT));
}

TEST(AnswerOfAPeer, ThatIsHalfThereIsNotGivenOut)
{
    GrantedSession granted([](Peer& peer) {
        int const id = messageIdOf(peer.receiveMessage());
        std::string const answer = searchEntry(id, "cn=x", {{"cn", {"x"}}}) + searchDone(id);
        peer.send(answer.substr(0, 10));
        peer.awaitCue();
        peer.send(answer.substr(10));
        peer.receiveUntilClosed();
    });
    auto const before = granted.session->heardAt();
    std::uint64_t const bytesBefore = granted.session->receivedBytes();
    int const id = granted.search();
    LDAPMessageBuffer message;
    int received = 0;
    ASSERT_TRUE(eventually([&] {
        EXPECT_EQ(granted.session->receive(message, received), Received::nothing);
        return granted.session->receivedBytes() > bytesBefore;
    }));
    EXPECT_GT(granted.session->heardAt(), before);
    EXPECT_FALSE(granted.session->isFresh());

    granted.server.giveCue();

    EXPECT_EQ(next(*granted.session)->id, id);
    EXPECT_EQ(granted.session->messageSize(), searchEntry(id, "cn=x", {{"cn", {"x"}}}).size());
    EXPECT_EQ(next(*granted.session)->id, id);
    EXPECT_EQ(granted.session->messageSize(), searchDone(id).size());
    EXPECT_TRUE(granted.session->isFresh());
}

TEST(AnswerOfAPeer, ThatIsLargeIsWhole)
{
    std::string const photo(5000000, 'x');
    GrantedSession granted(answering([&](int id) {
        return searchEntry(id, "cn=x", {{"jpegPhoto", {photo}}}) + searchDone(id);
    }));
    int const id = granted.search();

    EXPECT_THAT(typesFor(*granted.session, id),
                ElementsAre(LDAP_RES_SEARCH_ENTRY, LDAP_RES_SEARCH_RESULT));
}

// A large buffer goes once it is empty; the entry stays until the next call.
TEST(AnswerOfAPeer, IsLeftInTheBufferWhateverItsSize)
{
    std::string const photo(5000000, 'x');
    GrantedSession granted(answering([&](int id) {
        return searchEntry(id, "cn=first", {{"jpegPhoto", {photo}}}) +
               searchEntry(id, "cn=second", {}) + searchDone(id);
    }));
    int const id = granted.search();
    std::list<LDAPSearchResultEntry> entries;
    Session::Message message;

    for (int i = 0; i != 2; ++i) {
        ASSERT_EQ(next(*granted.session, message), Received::message);
        EXPECT_EQ(message.id, id);
        EXPECT_EQ(message.type, LDAP_RES_SEARCH_ENTRY);
        EXPECT_EQ(message.parsed.get(), nullptr);
        ASSERT_TRUE(readEntry(message.content, entries));
    }
    ASSERT_EQ(next(*granted.session, message), Received::message);

    EXPECT_EQ(entries.front().entryName(), "cn=first");
    EXPECT_EQ(entries.front().attributes().attributes().front().binaryValue().front().length(),
              photo.size());
    EXPECT_EQ(entries.back().entryName(), "cn=second");
    EXPECT_EQ(message.type, LDAP_RES_SEARCH_RESULT);
    EXPECT_NE(message.parsed.get(), nullptr);
    EXPECT_TRUE(message.content.empty());
    EXPECT_TRUE(granted.session->isFresh());
}

TEST(AnswerOfAPeer, IsASuccessOnlyIfItSaysNothingElse)
{
    std::string const success("\x0a\x01\x00\x04\x00\x04\x00", 7);
    std::vector<std::string> const others = {
        std::string("\x0a\x01\x03\x04\x00\x04\x00", 7),           // another code
        std::string("\x0a\x01\x00\x04\x01x\x04\x00", 8),          // a matched DN
        std::string("\x0a\x01\x00\x04\x00\x04\x01x", 8),          // a text
        success + berElement(0xa3, berElement(0x04, "ldap://x")), // a referral
    };
    GrantedSession granted([&](Peer& peer) {
        peer.send(ldapMessage(messageIdOf(peer.receiveMessage()), berElement(0x65, success)));
        for (std::string const& other : others) {
            peer.send(ldapMessage(messageIdOf(peer.receiveMessage()), berElement(0x65, other)));
        }
        peer.receiveUntilClosed();
    });
    Session::Message message;

    granted.search();
    ASSERT_EQ(next(*granted.session, message), Received::message);
    EXPECT_TRUE(message.isSuccess);
    for (std::string const& other : others) {
        granted.search();
        ASSERT_EQ(next(*granted.session, message), Received::message);
        EXPECT_FALSE(message.isSuccess) << testing::PrintToString(other);
    }
}

TEST(AnswerOfAPeer, WhoseEntryIsLongerThanItsMessageBreaksTheSession)
{
    for (bool const isLeft : {false, true}) {
        GrantedSession granted(answering([](int id) { return ldapMessage(id, "\x64\x05"); }));
        granted.search();
        Session::Message message;

        EXPECT_EQ(isLeft ? next(*granted.session, message) : next(*granted.session)->received,
                  Received::broken);
        EXPECT_THAT(shown(granted.session->verdict()),
                    AllOf(StartsWith("TryLater -4 "), HasSubstr("an invalid message")));
    }
}

TEST(AnswerOfAPeer, ThatIsLargerThanTheBoundBreaksTheSession)
{
    GrantedSession granted(answering([](int id) {
        return searchEntry(id, "cn=x", {{"jpegPhoto", {std::string(2000, 'x')}}});
    }));
    granted.open(1000);
    granted.search();

    EXPECT_EQ(next(*granted.session)->received, Received::broken);
    EXPECT_THAT(shown(granted.session->verdict()),
                AllOf(StartsWith("TryLater -4 "), HasSubstr("a message larger than 1000 bytes")));
}

TEST(AnswerOfAPeer, ThatIsAsLargeAsTheBoundIsTaken)
{
    auto const entryFor = [](int id) {
        return searchEntry(id, "cn=x", {{"jpegPhoto", {std::string(2000, 'x')}}});
    };
    GrantedSession granted(answering(entryFor));
    granted.open(entryFor(1).size());
    granted.search();

    EXPECT_EQ(next(*granted.session)->received, Received::message);
}

TEST(AnswerOfAPeer, ThatAnnouncesGigabytesBreaksTheSession)
{
    GrantedSession granted(answering([](int) { return hugeMessageHeader(); }));
    granted.search();

    EXPECT_EQ(next(*granted.session)->received, Received::broken);
    EXPECT_THAT(shown(granted.session->verdict()),
                AllOf(StartsWith("TryLater -4 "), HasSubstr("a message larger than")));
}

TEST(AnswerOfAPeer, ThatIsNotLdapBreaksTheSession)
{
    std::string const wrongTag = "HTTP/1.1 200 OK\r\n";
    std::string const wrongId = berElement(0x30, berElement(0x04, "x"));
    std::string const negativeId = berElement(0x30, berElement(0x02, "\xff") + "\x65");
    std::string const longId = berElement(0x30, berElement(0x02, "\x01\x01\x01\x01\x01") + "\x65");
    std::string const noOperation = berElement(0x30, berElement(0x02, "\x01"));
    std::string const empty("\x30\x00", 2);
    std::string const indefinite("\x30\x80\x02\x01\x01", 5);
    std::string const longLength = "\x30\x85\x01\x01\x01\x01\x01";
    for (std::string const& bytes :
         {wrongTag, wrongId, negativeId, longId, noOperation, empty, indefinite, longLength}) {
        GrantedSession granted(answering([&](int) { return bytes; }));
        granted.search();

        EXPECT_EQ(next(*granted.session)->received, Received::broken);
        EXPECT_THAT(
            shown(granted.session->verdict()),
            AllOf(StartsWith("TryLater -4 "), HasSubstr("the server sent data that is not LDAP")));
    }
}

TEST(AnswerOfAPeer, ToAnUnknownRequestIsDropped)
{
    GrantedSession granted(answering([](int id) {
        std::string const nameless =
            ldapMessage(0, berElement(extendedResponseTag,
                                      std::string("\x0a\x01\x00", 3) + berElement(0x04, "") +
                                          berElement(0x04, "") + berElement(0x8a, "")));
        std::string const damaged = ldapMessage(0, "\x78\x05");
        return searchDone(id + 1000) + nameless + damaged + searchEntry(0, "cn=nobody", {}) +
               searchDone(id) + searchDone(id);
    }));
    int const id = granted.search();

    auto const message = next(*granted.session);
    LDAPMessageBuffer second;
    int other = 0;
    auto const after = granted.session->receive(second, other);

    EXPECT_EQ(message->id, id);
    EXPECT_EQ(ldap_msgtype(message->message.get()), LDAP_RES_SEARCH_RESULT);
    EXPECT_EQ(after, Received::nothing);
    EXPECT_TRUE(granted.session->verdict().isGood());
}

TEST(AnswerOfAPeer, ToUnknownRequestsWithoutEndDoesNotBlockTheSession)
{
    constexpr int many = 100000;
    GrantedSession granted(answering([&](int id) {
        std::string answers;
        for (int i = 0; i < many; ++i) {
            answers += searchDone(id + 1);
        }
        return answers + searchDone(id);
    }));
    int const id = granted.search();
    LDAPMessageBuffer message;
    int received = 0;
    int calls = 0;

    auto const deadline = soon();
    while (granted.session->receive(message, received) != Received::message &&
           Clock::now() < deadline) {
        ++calls;
        Waits waits;
        granted.session->waits(waits);
        waits.until(deadline);
        waits.wait();
    }

    EXPECT_EQ(received, id);
    EXPECT_GT(calls, 100);
}

TEST(AnswersOfAPeer, ThatCameBeforeItClosedAreAllGivenOut)
{
    GrantedSession granted([](Peer& peer) {
        int const first = messageIdOf(peer.receiveMessage());
        int const second = messageIdOf(peer.receiveMessage());
        peer.send(searchDone(first) + searchDone(second));
    });
    int const first = granted.search();
    int const second = granted.search();
    ASSERT_TRUE(granted.server.awaitEndedScripts(1));

    EXPECT_EQ(next(*granted.session)->id, first);
    EXPECT_EQ(next(*granted.session)->id, second);
    EXPECT_EQ(next(*granted.session)->received, Received::broken);
}

TEST(AnswersOfAPeer, AreStillGivenOutAfterAWriteThatFailed)
{
    GrantedSession granted([](Peer& peer) {
        int const id = messageIdOf(peer.receiveMessage());
        peer.send(searchDone(id));
    });
    int const first = granted.search();
    ASSERT_TRUE(granted.server.awaitEndedScripts(1));
    for (int i = 0; i < 3; ++i) {
        int id = 0;
        granted.session->send(peopleSearch(), "(cn=x)", id);
        granted.session->flush();
    }

    EXPECT_EQ(next(*granted.session)->id, first);
    EXPECT_EQ(next(*granted.session)->received, Received::broken);
    EXPECT_THAT(shown(granted.session->verdict()), StartsWith("TryLater -1 "));
}

TEST(AbandonedSearch, IsToldToTheServerAndItsAnswersAreDropped)
{
    GrantedSession granted([](Peer& peer) {
        int const first = messageIdOf(peer.receiveMessage());
        peer.receiveMessage(); // the abandon
        int const second = messageIdOf(peer.receiveMessage());
        peer.send(searchEntry(first, "cn=late", {}) + searchDone(first) + searchDone(second));
        peer.receiveUntilClosed();
    });
    int const first = granted.search();

    granted.session->abandon(first);
    granted.session->abandon(first);
    granted.session->abandon(12345);
    int const second = granted.search();

    EXPECT_EQ(next(*granted.session)->id, second);
    std::vector<int> operations;
    for (std::string const& message : granted.server.received()) {
        operations.push_back(operationOf(message));
    }
    EXPECT_THAT(operations, ElementsAre(BindRequest, SearchRequest, AbandonRequest, SearchRequest));
}

} // namespace SolvaneTest
