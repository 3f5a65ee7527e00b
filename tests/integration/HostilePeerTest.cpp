// Peers that no directory server is on purpose: silent, half-spoken, cut off, sending nonsense, or
// what OpenLDAP does not take and then more.
#include "Directory.h"
#include "Eventually.h"
#include "Faults.h"
#include "LdapMessages.h"
#include "ProcessMemory.h"
#include "ScriptedServer.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

#include <ldap.h>

using namespace Solvane;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

extern "C" {
// Defined if the leak sanitizer is present.
void __lsan_disable() __attribute__((weak));
void __lsan_enable() __attribute__((weak));
}

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

/// Grants the bind and answers the search that follows with what `answer` makes of its message id.
template <typename Answer> ScriptedServer::Script answeringSearch(Answer answer)
{
    return [answer](Peer& peer) {
        peer.grantBind();
        std::string const request = peer.receiveMessage();
        if (!request.empty()) {
            peer.send(answer(messageIdOf(request)));
        }
        peer.receiveUntilClosed();
    };
}

/// A search that was sent over a new, bound connection.
struct SentSearch {
    explicit SentSearch(ScriptedServer const& server)
        : connection(boundTo(plainServer(server.port()))), search(connection, lookupOf("cn=x"))
    {
        search.send();
    }

    LDAPConnection connection;
    LDAPSearch search;
};

/// During its lifetime, allocations need not be freed.
class LeaksAllowed {
public:
    LeaksAllowed()
    {
        if (__lsan_disable != nullptr) {
            __lsan_disable();
        }
    }
    ~LeaksAllowed()
    {
        if (__lsan_enable != nullptr) {
            __lsan_enable();
        }
    }
};

/// Milliseconds of processor time that this thread has used.
long processorTime()
{
    timespec used = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return used.tv_sec * 1000 + used.tv_nsec / 1000000;
}

/// Awaits a search again whose first wait failed, after what makes OpenLDAP forget that it did. That it
/// ends is what counts; it may fail at once or run out.
void waitAgain(LDAPConnection& connection, LDAPSearch& search)
{
    LDAPSearch malformed(connection, searchFor(people, "(cn="));
    thrownBy([&] { malformed.send(); });
    ldap_abandon_ext(static_cast<LDAP*>(connection.context()), search.id() + 1000, nullptr,
                     nullptr);
    long const before = processorTime();

    try {
        EXPECT_TRUE(search.wait(2));
    } catch (LDAPException const& thrown) {
        EXPECT_THAT(thrown, IsFault("Search.cpp", 332, 4, 4));
    }

    EXPECT_LT(processorTime() - before, 1000); // it waited, and did not spin
}

} // namespace

TEST(SilentPeer, LetsTheWaitForTheBindRunOut)
{
    ScriptedServer const server([](Peer& peer) { peer.receiveUntilClosed(); });
    LDAPConnection connection(plainServer(server.port()), false);
    connection.bind(readerDn, readerPassword, LDAPConnection::Asynchronous);

    bool const isDone = connection.bindWait(1);

    EXPECT_TRUE(isDone);
    EXPECT_TRUE(connection.impl()->m_bindResult.isNull());
    EXPECT_EQ(connection.openldapErrorCode(), 0);
}

TEST(SilentPeer, EndsTheTlsHandshakeWithTheNetworkTimeout)
{
    ScriptedServer const server([](Peer& peer) { peer.ignore(); });
    LDAPConnection connection(secureServer(server.port(), 1), false);
    long const before = processorTime();

    EXPECT_THAT(
        thrownBy([&] { connection.bind(readerDn, readerPassword, LDAPConnection::Asynchronous); }),
        IsFault("Connection.cpp", 241, 4, 1));
    EXPECT_EQ(connection.openldapErrorCode(), -1);
    EXPECT_LT(processorTime() - before, 300); // a second of waiting, not of spinning
}

// With StartTLS, which a caller asks for on the session itself.
TEST(SilentPeer, EndsATlsHandshakeOnAConnectionInUseWithTheNetworkTimeout)
{
    ScriptedServer const server([](Peer& peer) {
        peer.grantBind();
        int const id = messageIdOf(peer.receiveMessage());
        peer.send(
            ldapMessage(id, berElement(0x78, berElement(0x0a, std::string(1, '\0')) +
                                                 berElement(0x04, "") + berElement(0x04, ""))));
        peer.ignore();
    });
    LDAPConnection connection = boundTo(plainServer(server.port(), 1));
    long const before = processorTime();

    int const rc = ldap_start_tls_s(static_cast<LDAP*>(connection.context()), nullptr, nullptr);

    EXPECT_NE(rc, LDAP_SUCCESS);
    EXPECT_LT(processorTime() - before, 300);
}

TEST(SilentPeer, LetsTheWaitForASearchRunOut)
{
    ScriptedServer const server(answeringSearch([](int) { return std::string(); }));
    SentSearch sent(server);

    bool const isUnanswered = sent.search.wait(1);

    EXPECT_TRUE(isUnanswered);
    EXPECT_TRUE(sent.search.result().isNull());
}

TEST(PeerThatSpeaksNoTls, FailsTheHandshake)
{
    ScriptedServer const server([](Peer& peer) {
        peer.send("HTTP/1.1 400 Bad Request\r\n\r\n");
        peer.receiveUntilClosed();
    });
    LDAPConnection connection(secureServer(server.port(), 2), false);

    EXPECT_THAT(thrownBy([&] { bindAsReader(connection); }), IsFault("Connection.cpp", 241, 4, 1));
}

TEST(HalfAMessage, LetsTheWaitRunOut)
{
    // OpenLDAP reads eight bytes first, and then would wait for the others without looking.
    ScriptedServer const server(answeringSearch([](int id) {
        return searchEntry(id, "cn=x", {{"cn", {"x"}}}).substr(0, 8);
    }));
    SentSearch sent(server);

    bool const isUnanswered = sent.search.wait(1);

    EXPECT_TRUE(isUnanswered);
}

TEST(HalfAMessage, IsTakenUpWhereItStopped)
{
    ScriptedServer server([](Peer& peer) {
        peer.grantBind();
        int const id = messageIdOf(peer.receiveMessage());
        std::string const answer = searchEntry(id, "cn=x", {{"cn", {"x"}}}) + searchDone(id);
        peer.send(answer.substr(0, 10));
        peer.awaitCue();
        peer.send(answer.substr(10));
        peer.receiveUntilClosed();
    });
    SentSearch sent(server);

    bool const isUnanswered = sent.search.wait(0);
    server.giveCue();
    bool const isStillUnanswered = sent.search.wait(10);

    EXPECT_TRUE(isUnanswered);
    EXPECT_FALSE(isStillUnanswered);
    EXPECT_THAT(namesIn(sent.search.result()), ElementsAre("cn=x"));
}

TEST(HalfAMessage, FollowedByTheEndFailsTheSearch)
{
    ScriptedServer const server([](Peer& peer) {
        peer.grantBind();
        int const id = messageIdOf(peer.receiveMessage());
        peer.send(searchEntry(id, "cn=x", {{"cn", {"x"}}}).substr(0, 10));
    });
    SentSearch sent(server);

    EXPECT_THAT(thrownBy([&] { sent.search.wait(10); }), IsFault("Search.cpp", 332, 4, 4));
    EXPECT_EQ(sent.connection.openldapErrorCode(), -1);
}

TEST(MessageInSmallPieces, IsPutTogether)
{
    ScriptedServer const server([](Peer& peer) {
        peer.grantBind();
        int const id = messageIdOf(peer.receiveMessage());
        peer.drip(searchEntry(id, "cn=x", {{"cn", {"x", "y"}}}) + searchDone(id));
        peer.receiveUntilClosed();
    });
    SentSearch sent(server);

    bool const isUnanswered = sent.search.wait(10);

    EXPECT_FALSE(isUnanswered);
    EXPECT_THAT(valuesIn(sent.search.result(), "cn"), ElementsAre("x", "y"));
}

TEST(MessageOfTwoGigabytes, FailsTheSearchWithoutRoomBeingMadeForIt)
{
    ScriptedServer const server(answeringSearch([](int) { return hugeMessageHeader(); }));
    SentSearch sent(server);
    long const before = peakOfMemory();

    EXPECT_THAT(thrownBy([&] { sent.search.wait(10); }), IsFault("Search.cpp", 332, 4, 4));
    EXPECT_LT(peakOfMemory() - before, 1024);
}

TEST(MessageSizeLimit, RefusesALargerMessage)
{
    ScriptedServer const server(answeringSearch([](int id) {
        return searchEntry(id, "cn=x", {{"cn", {std::string(2000, 'x')}}}) + searchDone(id);
    }));
    LDAPConnection connection(plainServer(server.port()), false);
    connection.impl()->maximumMessageSize(1000);
    bindAsReader(connection);

    EXPECT_THAT(thrownBy([&] { answerTo(connection, lookupOf("cn=x")); }),
                IsFault("Search.cpp", 332, 4, 4));
}

TEST(MessageSizeLimit, TakesManySmallerMessages)
{
    ScriptedServer const server(answeringSearch([](int id) {
        std::string entries;
        for (int i = 0; i < 100; ++i) {
            entries += searchEntry(id, "cn=x", {{"cn", {std::string(500, 'x')}}});
        }
        return entries + searchDone(id);
    }));
    LDAPConnection connection(plainServer(server.port()), false);
    connection.impl()->maximumMessageSize(1000);
    bindAsReader(connection);

    LDAPResult const result = answerTo(connection, lookupOf("cn=x"));

    EXPECT_THAT(namesIn(result), testing::SizeIs(100));
}

TEST(PeerThatStopsReading, FailsALargeRequestWithTheNetworkTimeout)
{
    ScriptedServer const server(
        [](Peer& peer) {
            peer.grantBind();
            peer.ignore();
        },
        4096);
    LDAPConnection connection = boundTo(plainServer(server.port(), 1));
    std::string const large(std::size_t{32} << 20, 'x'); // more than both ends' buffers hold
    LDAPSearch search(connection, searchFor("cn=x", "(cn=" + large + ")"));

    EXPECT_THAT(thrownBy([&] { search.send(); }), IsFault("Search.cpp", 270, 4, 4));
    EXPECT_EQ(connection.openldapErrorCode(), -1);
}

TEST(PeerThatResets, FailsTheSearch)
{
    ScriptedServer const server([](Peer& peer) {
        peer.grantBind();
        peer.receiveMessage();
        peer.reset();
    });
    SentSearch sent(server);

    EXPECT_THAT(thrownBy([&] { sent.search.wait(10); }), IsFault("Search.cpp", 332, 4, 4));
    EXPECT_EQ(sent.connection.openldapErrorCode(), -1);
}

/// The first write after a reset takes the socket's pending error away; it is the next one that
/// would raise SIGPIPE. A look at the pending error, as isValid() takes it, has the same effect.
class PeerThatHasReset : public testing::Test {
protected:
    PeerThatHasReset()
        : server([](Peer& peer) {
              peer.grantBind();
              peer.reset();
          }),
          connection(boundTo(plainServer(server.port())))
    {
        hasReset = server.awaitEndedScripts(1);
        connection.impl()->isValid();
    }

    ScriptedServer server;
    LDAPConnection connection;
    bool hasReset;
};

TEST_F(PeerThatHasReset, DoesNotKillTheProcessThatUnbinds)
{
    int const rc = connection.unbind();

    EXPECT_TRUE(hasReset);
    EXPECT_EQ(rc, 0);
}

TEST_F(PeerThatHasReset, DoesNotKillTheProcessThatLetsGo)
{
    connection = LDAPConnection();

    EXPECT_TRUE(hasReset);
    EXPECT_TRUE(connection.isNull());
}

TEST_F(PeerThatHasReset, DoesNotKillTheProcessThatSearches)
{
    auto const thrown = thrownBy([&] { answerTo(connection, lookupOf("cn=x")); });

    EXPECT_TRUE(hasReset);
    EXPECT_THAT(thrown, AnyOf(IsFault("Search.cpp", 270, 4, 4), IsFault("Search.cpp", 332, 4, 4)));
    EXPECT_EQ(server.connectionCount(), 1U);
}

TEST_F(PeerThatHasReset, DoesNotKillTheProcessThatBindsAgain)
{
    EXPECT_THROW(bindAsReader(connection), LDAPException);
    EXPECT_TRUE(hasReset);
}

TEST(NoticeOfDisconnection, FailsTheSearch)
{
    ScriptedServer const server(answeringSearch([](int) { return noticeOfDisconnection(); }));
    SentSearch sent(server);
    LeaksAllowed const scope; // OpenLDAP 2.5 never frees the notice

    EXPECT_THAT(thrownBy([&] { sent.search.wait(10); }), IsFault("Search.cpp", 332, 4, 4));
    EXPECT_NE(sent.connection.openldapErrorCode(), 0);
}

TEST(SearchRequestOnTheWire, CarriesNoLimits)
{
    ScriptedServer const server(answeringSearch([](int id) { return searchDone(id); }));
    LDAPConnection connection = boundTo(plainServer(server.port()));
    auto parameter = searchFor("cn=x", "(cn=x)");
    parameter.sizeLimit = 7;
    parameter.timeLimit = 7;

    answerTo(connection, parameter);

    // Scope subtree, aliases never, size limit 0, time limit 0, types only false.
    std::string const fields("\x0a\x01\x02\x0a\x01\x00\x02\x01\x00\x02\x01\x00\x01\x01\x00", 15);
    ASSERT_EQ(server.received().size(), 2U);
    EXPECT_THAT(server.received().back(), HasSubstr(fields));
}

TEST(CancelledSearch, IsNotAbandoned)
{
    ScriptedServer const server(
        answeringSearch([](int id) { return searchEntry(id, "cn=x", {}) + searchDone(id); }));
    {
        SentSearch sent(server);

        sent.search.cancel();

        EXPECT_FALSE(sent.search.wait(10));
        EXPECT_THAT(namesIn(sent.search.result()), ElementsAre("cn=x"));
    }
    ASSERT_TRUE(eventually([&] { return server.received().size() == 3; }));
    EXPECT_EQ(operationOf(server.received().back()), UnbindRequest);
}

// Connections on which the server said what OpenLDAP does not take, and then said more

class AMessageThatIsTooLarge : public SuiteWithSlapd<AMessageThatIsTooLarge>,
                               public testing::WithParamInterface<bool> {
public:
    static std::vector<std::string> options() { return {"--users", "20"}; }
};

TEST_P(AMessageThatIsTooLarge, LeavesAConnectionOnWhichEveryWaitEnds)
{
    LDAPConnection connection(
        GetParam() ? secureServer(slapd().tlsPort()) : plainServer(slapd().port()), false);
    connection.impl()->maximumMessageSize(20000);
    bindAsReader(connection);
    LDAPSearch search(connection, lookupOf("uid=bigphoto,ou=big,dc=corp,dc=test"));
    search.send();
    auto const thrown = thrownBy([&] { search.wait(10); });

    waitAgain(connection, search);

    EXPECT_THAT(thrown, IsFault("Search.cpp", 332, 4, 4));
    EXPECT_FALSE(connection.impl()->isValid());
}

INSTANTIATE_TEST_SUITE_P(WithTls, AMessageThatIsTooLarge, testing::Bool());

TEST(AMessageThatIsTooLargeWithBytesBehindIt, LeavesAConnectionOnWhichEveryWaitEnds)
{
    ScriptedServer const server([](ScriptedServer::Peer& peer) {
        peer.grantBind();
        int const id = messageIdOf(peer.receiveMessage());
        peer.send(hugeMessageHeader() + searchEntry(id, "cn=x", {}) + searchDone(id));
        peer.receiveUntilClosed();
    });
    LDAPConnection connection = boundTo(plainServer(server.port()));
    LDAPSearch search(connection, lookupOf("cn=x"));
    search.send();
    auto const thrown = thrownBy([&] { search.wait(10); });

    waitAgain(connection, search);

    EXPECT_THAT(thrown, IsFault("Search.cpp", 332, 4, 4));
}

} // namespace SolvaneTest
