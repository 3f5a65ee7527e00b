// Searches whose entries come one after the other, on a real directory and with peers that fail in the
// middle.
#include "Directory.h"
#include "Eventually.h"
#include "Faults.h"
#include "LdapMessages.h"
#include "ProcessMemory.h"
#include "ScriptedServer.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <set>

#include <ldap.h>

using namespace Solvane;
using testing::AnyOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace SolvaneTest {

namespace {

constexpr char everything[] = "dc=corp,dc=test";
constexpr unsigned int patience = 10; // seconds

LDAPSearchStream::Parameter streamOf(std::string const& base, std::string const& filter,
                                     int pageSize = 0)
{
    LDAPSearchStream::Parameter parameter(base);
    parameter.filter = filter;
    parameter.attributes = {std::string("cn")};
    parameter.pageSize = pageSize;
    return parameter;
}

/// A search for all people, or so many.
LDAPSearchStream sentWithLimit(int most, LDAPConnection const& connection, int pageSize)
{
    auto parameter = streamOf(people, "(cn=*)", pageSize);
    parameter.sizeLimit = most;
    LDAPSearchStream stream(connection, parameter);
    stream.send();
    return stream;
}

/// What a stream gives up to its end.
struct Taken {
    explicit Taken(LDAPSearchStream& stream)
    {
        while ((last = stream.next(patience)) == LDAPSearchStream::ItemEntry ||
               last == LDAPSearchStream::ItemReference) {
            if (last == LDAPSearchStream::ItemEntry) {
                names.push_back(stream.entry().entryName());
            } else {
                references.insert(references.end(), stream.references().begin(),
                                  stream.references().end());
            }
        }
    }

    std::vector<std::string> names;
    std::vector<std::string> references;
    LDAPSearchStream::Item last = LDAPSearchStream::ItemTimeout;
};

/// Whether OpenLDAP has stored nothing for this session, and nothing has arrived.
bool hasNothingLeft(LDAPConnection& connection)
{
    timeval none{};
    LDAPMessageBuffer left;
    return ldap_result(connection.impl()->session(), LDAP_RES_ANY, LDAP_MSG_ONE, &none,
                       left.address()) == 0;
}

} // namespace

class AStreamOnADirectory : public SuiteWithSlapd<AStreamOnADirectory> {
public:
    static std::vector<std::string> options() { return {"--users", "100"}; }

protected:
    void SetUp() override
    {
        SuiteWithSlapd<AStreamOnADirectory>::SetUp();
        if (hasSlapd()) {
            connection = boundTo(plainServer(slapd().port()));
        }
    }
    void TearDown() override
    {
        if (hasSlapd() && !slapd().isRunning()) {
            slapd().restart();
        }
    }

    LDAPConnection connection;
};

/// With pages of this size; 0: without pages.
class StreamOnADirectory : public AStreamOnADirectory, public testing::WithParamInterface<int> {};

TEST_P(StreamOnADirectory, GivesWhatASearchFindsInTheSameOrder)
{
    auto search = searchFor(people, "(cn=*)");
    LDAPSearchStream stream(connection, streamOf(people, "(cn=*)", GetParam()));
    stream.send();

    Taken const taken(stream);

    EXPECT_EQ(taken.last, LDAPSearchStream::ItemEnd);
    EXPECT_THAT(taken.names, SizeIs(100));
    EXPECT_EQ(taken.names, namesIn(answerTo(connection, search)));
    EXPECT_EQ(stream.result().resultCode(), 0);
    EXPECT_THAT(taken.references, IsEmpty());
    EXPECT_TRUE(hasNothingLeft(connection));
    EXPECT_TRUE(connection.impl()->isValid());
}

TEST_P(StreamOnADirectory, GivesReferencesBesidesTheEntries)
{
    LDAPSearchStream stream(connection, streamOf(everything, "(objectClass=*)", GetParam()));
    stream.send();
    Taken const taken(stream);
    LDAPSearchStream managed(stream.connection(), stream.parameter());
    managed.controls().push_back(LDAPControls::manageDsaIT());
    managed.send();

    Taken const withReferrals(managed);

    EXPECT_EQ(taken.last, LDAPSearchStream::ItemEnd);
    EXPECT_THAT(taken.references, testing::Not(IsEmpty()));
    EXPECT_THAT(taken.references, Each(StartsWith("ldap")));
    EXPECT_THAT(withReferrals.references, IsEmpty());
    EXPECT_GT(withReferrals.names.size(), taken.names.size());
}

TEST_P(StreamOnADirectory, EndsAtItsOwnSizeLimit)
{
    auto stream = sentWithLimit(3, connection, GetParam());

    Taken const taken(stream);

    EXPECT_THAT(taken.names, SizeIs(3));
    EXPECT_EQ(stream.result().resultCode(), LDAP_SIZELIMIT_EXCEEDED);
}

// The server ignores the control if a page may have as many entries as the limit.
TEST_P(StreamOnADirectory, EndsWithSuccessIfItFindsNoMoreThanItsSizeLimit)
{
    auto stream = sentWithLimit(100, connection, GetParam());

    Taken const taken(stream);

    EXPECT_THAT(taken.names, SizeIs(100));
    EXPECT_EQ(stream.result().resultCode(), 0);
    EXPECT_TRUE(connection.impl()->isValid());
}

TEST_P(StreamOnADirectory, IsCanceledAnywhereAndLeavesTheConnectionUsable)
{
    LDAPSearchStream stream(connection, streamOf(people, "(cn=*)", GetParam()));
    stream.send();
    for (int i = 0; i != 10; ++i) {
        ASSERT_EQ(stream.next(patience), LDAPSearchStream::ItemEntry);
    }

    stream.cancel();

    LDAPExtended who = LDAPExtended::whoAmI(connection);
    who.send();
    EXPECT_FALSE(who.wait(patience));
    EXPECT_TRUE(hasNothingLeft(connection));
    stream.send();
    EXPECT_THAT(Taken(stream).names, SizeIs(100));
}

TEST_P(StreamOnADirectory, IsUsedOverTls)
{
    LDAPConnection secure = boundTo(secureServer(slapd().tlsPort()));
    LDAPSearchStream stream(secure, streamOf(people, "(cn=*)", GetParam()));
    stream.send();

    EXPECT_THAT(Taken(stream).names, SizeIs(100));
}

INSTANTIATE_TEST_SUITE_P(WithPages, StreamOnADirectory, testing::Values(0, 1, 7, 100, 1000));

TEST_F(AStreamOnADirectory, GivesAnErrorOfTheServerAsItsResult)
{
    LDAPSearchStream stream(connection, streamOf("ou=nowhere,dc=corp,dc=test", "(cn=*)", 5));
    stream.send();

    Taken const taken(stream);

    EXPECT_EQ(taken.last, LDAPSearchStream::ItemEnd);
    EXPECT_EQ(stream.result().resultCode(), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(stream.result().matchedDN(), "dc=corp,dc=test");
}

TEST_F(AStreamOnADirectory, FailsInTheMiddleWhenTheServerIsKilled)
{
    LDAPSearchStream stream(connection, streamOf(people, "(cn=*)", 7));
    stream.send();
    std::set<std::string> names;
    for (int i = 0; i != 10; ++i) {
        ASSERT_EQ(stream.next(patience), LDAPSearchStream::ItemEntry);
        names.insert(stream.entry().entryName());
    }
    slapd().kill();
    std::size_t taken = 10;

    auto const thrown = thrownBy([&] {
        while (stream.next(patience) == LDAPSearchStream::ItemEntry) {
            names.insert(stream.entry().entryName());
            ++taken;
        }
    });

    EXPECT_THAT(thrown, AnyOf(IsFault("SearchStream.cpp", 84, 4, 4),
                              IsFault("SearchStream.cpp", 91, 4, 4)));
    EXPECT_THAT(names, SizeIs(taken)); // nothing twice
    EXPECT_LE(taken, 14U);             // the pages that were sent
    EXPECT_TRUE(stream.result().isNull());
    EXPECT_FALSE(connection.impl()->isValid());
    EXPECT_THAT(thrownBy([&] { stream.next(1); }), IsFault("Operation.cpp", 92, 2, 0));
}

// Peers

namespace {

using Peer = ScriptedServer::Peer;

/// Answers the search, which is not preceded by a bind, with what `answer` makes of its message id.
template <typename Answer> ScriptedServer::Script answering(Answer answer)
{
    return [answer](Peer& peer) {
        peer.send(answer(messageIdOf(peer.receiveMessage())));
        peer.receiveUntilClosed();
    };
}

/// A stream on a new connection, whose search was sent.
struct SentStream {
    explicit SentStream(ScriptedServer const& server, int pageSize = 0)
        : connection(plainServer(server.port()), true),
          stream(connection, streamOf("dc=x", "(cn=*)", pageSize))
    {
        stream.send();
    }

    LDAPConnection connection;
    LDAPSearchStream stream;
};

std::string twoEntries(int id) { return searchEntry(id, "cn=a", {}) + searchEntry(id, "cn=b", {}); }

} // namespace

// The peer sends as fast as the connection takes it.
TEST(StreamOfManyEntries, HoldsThePeerBackAndKeepsNothing)
{
    constexpr int entriesOfAPiece = 1000;
    constexpr int pieces = 100;
    std::atomic<int> sent{0};
    ScriptedServer const server([&](Peer& peer) {
        int const id = messageIdOf(peer.receiveMessage());
        std::string piece;
        for (int i = 0; i != entriesOfAPiece; ++i) {
            piece += searchEntry(id, "cn=" + std::string(100, 'x') + ",dc=x",
                                 {{"cn", {std::string(100, 'x')}}, {"mail", {"x@example.com"}}});
        }
        for (; sent != pieces; ++sent) {
            peer.send(piece);
        }
        peer.send(searchDone(id));
        peer.receiveUntilClosed();
    });
    SentStream client(server);
    ResidentMemory const memory;
    int taken = 0;
    long most = 0;

    while (client.stream.next(patience) == LDAPSearchStream::ItemEntry) {
        if (++taken % entriesOfAPiece == 0) {
            most = std::max(most, memory.growth());
            // Of what both sockets can hold, about 10 MB, each piece is a quarter of a megabyte.
            ASSERT_LT(sent - taken / entriesOfAPiece, 60);
        }
    }

    EXPECT_EQ(taken, pieces * entriesOfAPiece);
    EXPECT_EQ(client.stream.result().resultCode(), 0);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // those keep what is freed
    EXPECT_LT(most, 20);
#endif
}

TEST(StreamBesideAnotherRequest, LosesNothingOfWhatArrivesMeanwhile)
{
    ScriptedServer const server([](Peer& peer) {
        int const search = messageIdOf(peer.receiveMessage());
        int const compare = messageIdOf(peer.receiveMessage());
        peer.send(twoEntries(search) +
                  ldapMessage(compare, berElement(LDAP_RES_COMPARE,
                                                  std::string("\x0a\x01\x06\x04\0\x04\0", 7))) +
                  searchDone(search));
        peer.receiveUntilClosed();
    });
    SentStream client(server);
    LDAPCompare compare(client.connection, "cn=x", "cn", "x");
    compare.send();

    EXPECT_FALSE(compare.wait(patience));

    EXPECT_THAT(Taken(client.stream).names, ElementsAre("cn=a", "cn=b"));
}

TEST(StreamThatIsCanceled, IsAbandonedAtTheServer)
{
    ScriptedServer const server(answering(twoEntries));
    SentStream client(server);
    ASSERT_EQ(client.stream.next(patience), LDAPSearchStream::ItemEntry);

    client.stream.cancel();

    ASSERT_TRUE(eventually([&] { return server.receivedCount() == 2; }));
    EXPECT_EQ(operationOf(server.received().back()), AbandonRequest);
    EXPECT_TRUE(hasNothingLeft(client.connection));
}

TEST(StreamThatIsDestroyed, IsAbandonedAtTheServer)
{
    ScriptedServer const server(answering(twoEntries));
    LDAPConnection connection;
    {
        SentStream client(server);
        connection = client.connection;
        ASSERT_EQ(client.stream.next(patience), LDAPSearchStream::ItemEntry);
    }

    ASSERT_TRUE(eventually([&] { return server.receivedCount() == 2; }));
    EXPECT_EQ(operationOf(server.received().back()), AbandonRequest);
    EXPECT_TRUE(hasNothingLeft(connection));
}

// The message id of the third message has five bytes, which OpenLDAP cannot decode. The connection lives.
TEST(StreamThatReceivesAMessageThatCannotBeDecoded, IsAbandonedAtTheServer)
{
    ScriptedServer const server(answering([](int id) {
        return twoEntries(id) +
               berElement(LBER_SEQUENCE, berElement(LBER_INTEGER, "\x01\x01\x01\x01\x01") +
                                             berElement(LDAP_RES_SEARCH_ENTRY, ""));
    }));
    SentStream client(server);
    ASSERT_EQ(client.stream.next(patience), LDAPSearchStream::ItemEntry);
    ASSERT_EQ(client.stream.next(patience), LDAPSearchStream::ItemEntry);

    EXPECT_THAT(thrownBy([&] { client.stream.next(patience); }),
                IsFault("SearchStream.cpp", 91, 4, 4));

    ASSERT_TRUE(eventually([&] { return server.receivedCount() == 2; }));
    EXPECT_EQ(operationOf(server.received().back()), AbandonRequest);
}

TEST(StreamThatIsSentAgain, GivesNothingOfTheFirstSearchThatArrivesLate)
{
    ScriptedServer const server([](Peer& peer) {
        int const first = messageIdOf(peer.receiveMessage());
        peer.send(twoEntries(first));
        peer.receiveMessage(); // the abandon
        int const second = messageIdOf(peer.receiveMessage());
        peer.send(twoEntries(first) + searchEntry(second, "cn=c", {}) + searchDone(first) +
                  searchDone(second));
        peer.receiveUntilClosed();
    });
    SentStream client(server);
    ASSERT_EQ(client.stream.next(patience), LDAPSearchStream::ItemEntry);

    client.stream.send();

    EXPECT_THAT(Taken(client.stream).names, ElementsAre("cn=c"));
    EXPECT_EQ(client.stream.result().resultCode(), 0);
    EXPECT_TRUE(hasNothingLeft(client.connection));
}

TEST(TwoStreamsOfOneConnection, GiveTheirOwnEntriesEach)
{
    ScriptedServer const server([](Peer& peer) {
        int const first = messageIdOf(peer.receiveMessage());
        int const second = messageIdOf(peer.receiveMessage());
        peer.send(searchEntry(second, "cn=c", {}) + searchEntry(first, "cn=a", {}) +
                  searchEntry(second, "cn=d", {}) + searchDone(second) +
                  searchEntry(first, "cn=b", {}) + searchDone(first));
        peer.receiveUntilClosed();
    });
    SentStream client(server);
    LDAPSearchStream other(client.connection, client.stream.parameter());
    other.send();

    EXPECT_THAT(Taken(client.stream).names, ElementsAre("cn=a", "cn=b"));
    EXPECT_THAT(Taken(other).names, ElementsAre("cn=c", "cn=d"));
    EXPECT_EQ(other.result().resultCode(), 0);
}

TEST(StreamOfAPeerThatNeverPauses, IsAwaitedNoLongerThanTheTimeout)
{
    std::atomic<bool> isOver{false};
    ScriptedServer const server([&](Peer& peer) {
        int const id = messageIdOf(peer.receiveMessage());
        while (!isOver) {
            peer.send(twoEntries(id));
        }
    });
    SentStream client(server);

    EXPECT_TRUE(client.stream.wait(1));

    EXPECT_EQ(client.stream.next(patience), LDAPSearchStream::ItemEntry);
    isOver = true;
}

TEST(StreamOfASilentPeer, IsStillInFlightWhenTheTimeRunsOut)
{
    // OpenLDAP reads the beginning of a message, and keeps it.
    ScriptedServer server([](Peer& peer) {
        int const id = messageIdOf(peer.receiveMessage());
        std::string const entry = searchEntry(id, "cn=a", {});
        peer.send(entry.substr(0, 9));
        peer.awaitCue();
        peer.send(entry.substr(9) + searchDone(id));
        peer.receiveUntilClosed();
    });
    SentStream client(server);

    EXPECT_EQ(client.stream.next(0), LDAPSearchStream::ItemTimeout);
    EXPECT_EQ(client.stream.next(1), LDAPSearchStream::ItemTimeout);
    server.giveCue();

    EXPECT_THAT(Taken(client.stream).names, ElementsAre("cn=a"));
    EXPECT_EQ(client.stream.result().resultCode(), 0);
}

/// What comes after two entries, and what is reported for it.
struct Trouble {
    char const* name;
    std::string (*bytes)(int id);
    char const* unit;
    int line;
    int code;
    int type;
};

class StreamInTrouble : public testing::TestWithParam<Trouble> {};

TEST_P(StreamInTrouble, GivesWhatCameBeforeAndOneClearException)
{
    Trouble const& trouble = GetParam();
    ScriptedServer const server([&](Peer& peer) {
        int const id = messageIdOf(peer.receiveMessage());
        peer.send(twoEntries(id) + trouble.bytes(id));
    });
    SentStream client(server);
    std::vector<std::string> names;
    ToleratedLeak const scope; // OpenLDAP 2.5 never frees a notice of disconnection

    auto const thrown = thrownBy([&] {
        while (client.stream.next(patience) == LDAPSearchStream::ItemEntry) {
            names.push_back(client.stream.entry().entryName());
        }
    });

    EXPECT_THAT(thrown, IsFault(trouble.unit, trouble.line, trouble.code, trouble.type));
    EXPECT_THAT(names, ElementsAre("cn=a", "cn=b"));
    EXPECT_TRUE(client.stream.result().isNull());
    EXPECT_FALSE(client.connection.impl()->isValid()); // the pool drops it
    EXPECT_NE(client.connection.openldapErrorCode(), 0);
    EXPECT_THAT(thrownBy([&] { client.stream.next(1); }), IsFault("Operation.cpp", 92, 2, 0));
    client.stream.cancel();
}

INSTANTIATE_TEST_SUITE_P(
    Of, StreamInTrouble,
    testing::Values(
        Trouble{"TheEndOfTheConnection", [](int) { return std::string(); }, "SearchStream.cpp", 91,
                4, 4},
        Trouble{"HalfAMessage", [](int id) { return searchEntry(id, "cn=c", {}).substr(0, 9); },
                "SearchStream.cpp", 91, 4, 4},
        Trouble{"NoLdap", [](int) { return std::string("HTTP/1.1 400 Bad Request\r\n\r\n"); },
                "SearchStream.cpp", 91, 4, 4},
        Trouble{"AMessageThatIsTooLarge", [](int) { return hugeMessageHeader(); },
                "SearchStream.cpp", 91, 4, 4},
        Trouble{"ANoticeOfDisconnection", [](int) { return noticeOfDisconnection(); },
                "SearchStream.cpp", 91, 4, 4},
        Trouble{
            "ADamagedEntry",
            [](int id) { return ldapMessage(id, berElement(LDAP_RES_SEARCH_ENTRY, "\x04\x20x")); },
            "SearchStream.cpp", 102, 4, 6},
        Trouble{"ADamagedReference",
                [](int id) {
                    return ldapMessage(id, berElement(LDAP_RES_SEARCH_REFERENCE, "\x04\x20x"));
                },
                "SearchStream.cpp", 111, 4, 6},
        Trouble{"AMessageOfType0",
                [](int id) {
                    return ldapMessage(id, berElement(0, std::string("\x0a\x01\0\x04\0\x04\0", 7)));
                },
                "Operation.cpp", 103, 4, 6},
        Trouble{
            "ADamagedResult",
            [](int id) { return ldapMessage(id, berElement(LDAP_RES_SEARCH_RESULT, "\x04\x01x")); },
            "Operation.cpp", 112, 1, 6}),
    [](auto const& tested) { return tested.param.name; });

TEST(StreamWithPages, EndsWithCode12AtAServerWithoutThem)
{
    ScriptedServer const server(
        answering([](int id) { return searchDone(id, LDAP_UNAVAILABLE_CRITICAL_EXTENSION); }));
    SentStream client(server, 2);

    Taken const taken(client.stream);

    EXPECT_EQ(taken.last, LDAPSearchStream::ItemEnd);
    EXPECT_EQ(client.stream.result().resultCode(), 12);
    EXPECT_THAT(server.received().front(), testing::HasSubstr(LDAP_CONTROL_PAGEDRESULTS));
}

} // namespace SolvaneTest
