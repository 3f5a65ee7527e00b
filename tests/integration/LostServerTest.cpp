// A server that crashes, restarts, closes a connection or stops reading in the middle of a request.
// A bound session must never continue as another identity, and nothing may end the process.
#include "Descriptor.h"
#include "Directory.h"
#include "Eventually.h"
#include "Faults.h"
#include "LdapMessages.h"
#include "ScriptedServer.h"
#include "Slapd.h"

#include <ldap.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>

using namespace Solvane;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;

namespace SolvaneTest {

namespace {

/// That of a search that cannot be sent, or that gets no answer.
auto isSearchFault()
{
    return AnyOf(IsFault("Search.cpp", 270, 4, 4), IsFault("Search.cpp", 332, 4, 4));
}

int socketOf(LDAPConnection& connection)
{
    constexpr int descriptorOption = 1;
    int descriptor = -1;
    connection.impl()->getOption(descriptorOption, &descriptor);
    return descriptor;
}

constexpr char newDn[] = "cn=half,ou=new,dc=corp,dc=test";

/// Gives the connection a socket that takes little of a large request.
void narrow(LDAPConnection& connection)
{
    int descriptor = -1;
    connection.impl()->getOption(LDAP_OPT_DESC, &descriptor);
    int const bytes = 16384;
    setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
}

/// An add of an entry with a password of three million characters, which a directory would take.
LDAPAdd largeAdd(LDAPConnection& connection)
{
    std::string dn = newDn;
    LDAPAdd add(connection, dn);
    add.attributes(LDAPAttributeContainer(
        {attributeOf("objectClass", "person"), attributeOf("cn", "half"), attributeOf("sn", "half"),
         attributeOf("userPassword", std::string(3000000, 'x'))}));
    return add;
}

} // namespace

class LostServer : public SuiteWithSlapd<LostServer> {
public:
    static std::vector<std::string> options() { return {"--users", "20", "--retcode"}; }

protected:
    LostServer() : secret(searchFor("ou=private,dc=corp,dc=test", "(cn=secret)")) {}

    void TearDown() override
    {
        if (hasSlapd() && !slapd().isRunning()) {
            slapd().restart();
        }
    }

    static void crash() { slapd().kill(); }
    static void comeBack() { slapd().restart(); }
    /// Runs a search to its end, lets the server crash, and waits once more. OpenLDAP notices the
    /// crash while nothing is outstanding, and drops the dead connection: the next operation would
    /// make a new one.
    static void answerAndCrash(LDAPSearch& search)
    {
        answerTo(search);
        crash();
        thrownBy([&] { search.wait(10); });
    }
    static bool hasNoConnections()
    {
        return eventually([] { return slapd().connectionCount() == 0; });
    }

    LDAPSearch::Parameter const secret; ///< finds something for bound sessions only
};

TEST_F(LostServer, FailsTheSearch)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    crash();

    auto const thrown = thrownBy([&] { answerTo(connection, secret); });

    EXPECT_THAT(thrown, isSearchFault());
    EXPECT_EQ(connection.openldapErrorCode(), -1);
    EXPECT_FALSE(connection.impl()->isValid());
}

TEST_F(LostServer, FailsTheSearchOverTls)
{
    LDAPConnection connection = boundTo(secureServer(slapd().tlsPort()));
    crash();

    auto const thrown = thrownBy([&] { answerTo(connection, secret); });

    EXPECT_THAT(thrown, isSearchFault());
}

TEST_F(LostServer, FailsAnOutstandingSearch)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    LDAPSearch search(connection, lookupOf("cn=sleep10,ou=codes,dc=corp,dc=test"));
    search.send();
    crash();

    EXPECT_THAT(thrownBy([&] { search.wait(10); }), IsFault("Search.cpp", 332, 4, 4));
}

TEST_F(LostServer, ThatHangsUpInsteadOfAnsweringFailsTheSearch)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    LDAPSearch search(connection, lookupOf("cn=pre,ou=codes,dc=corp,dc=test"));
    search.send();

    EXPECT_THAT(thrownBy([&] { search.wait(10); }), IsFault("Search.cpp", 332, 4, 4));
}

TEST_F(LostServer, IsNotAskedAgainByASessionThatWasBound)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    LDAPSearch search(connection, secret);
    answerAndCrash(search);
    comeBack();

    EXPECT_THAT(thrownBy([&] { answerTo(connection, secret); }), IsFault("Search.cpp", 270, 4, 4));
    EXPECT_EQ(connection.openldapErrorCode(), -1);
    EXPECT_TRUE(hasNoConnections());
}

TEST_F(LostServer, IsNotAskedAgainByASecureSessionThatWasBound)
{
    LDAPConnection connection = boundTo(secureServer(slapd().tlsPort()));
    LDAPSearch search(connection, secret);
    answerAndCrash(search);
    comeBack();

    EXPECT_THAT(thrownBy([&] { answerTo(connection, secret); }), IsFault("Search.cpp", 270, 4, 4));
    EXPECT_TRUE(hasNoConnections());
}

TEST_F(LostServer, IsNotAskedAgainHoweverOftenThatIsTried)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    LDAPSearch search(connection, secret);
    answerAndCrash(search);
    comeBack();

    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(thrownBy([&] { search.wait(1); }), IsFault("Search.cpp", 332, 4, 4));
        EXPECT_THAT(thrownBy([&] { answerTo(search); }), IsFault("Search.cpp", 270, 4, 4));
    }

    EXPECT_THAT(namesIn(search.result()), ElementsAre("cn=secret,ou=private,dc=corp,dc=test"));
    EXPECT_TRUE(hasNoConnections());
}

TEST_F(LostServer, ThatCameBackWhileTheSessionWasIdleIsNotAskedEither)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    crash();
    comeBack();

    auto const first = thrownBy([&] { answerTo(connection, secret); });
    auto const second = thrownBy([&] { answerTo(connection, secret); });

    EXPECT_THAT(first, isSearchFault());
    EXPECT_THAT(second, isSearchFault());
    EXPECT_TRUE(hasNoConnections());
}

TEST_F(LostServer, IsReachedAgainByANewBind)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    int const oldSocket = socketOf(connection);
    LDAPSearch search(connection, secret);
    answerAndCrash(search);
    comeBack();
    // As happens in a program with other files: the new socket gets another number. The old one
    // must not be polled any more.
    Descriptor inTheWay(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, oldSocket));
    connection.bind(readerDn, readerPassword, LDAPConnection::Asynchronous);
    inTheWay.close();

    connection.bindWait(10);

    EXPECT_NE(socketOf(connection), oldSocket);
    EXPECT_THAT(namesIn(answerTo(connection, secret)),
                ElementsAre("cn=secret,ou=private,dc=corp,dc=test"));
}

TEST_F(LostServer, IsReachedAgainByANewBindAfterASearchThatWasNotSent)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    LDAPSearch search(connection, secret);
    answerAndCrash(search);
    comeBack();
    thrownBy([&] { search.send(); });

    bindAsReader(connection);

    EXPECT_THAT(namesIn(answerTo(connection, secret)),
                ElementsAre("cn=secret,ou=private,dc=corp,dc=test"));
}

TEST_F(LostServer, IsReachedAgainByASessionThatWasNeverBound)
{
    LDAPConnection connection = anonymousTo(plainServer(slapd().port()));
    auto const person = lookupOf("uid=user0000001,ou=people,dc=corp,dc=test");
    LDAPSearch search(connection, person);
    answerAndCrash(search);
    comeBack();

    LDAPResult const result = answerTo(connection, person);

    EXPECT_THAT(namesIn(result), ElementsAre("uid=user0000001,ou=people,dc=corp,dc=test"));
}

TEST_F(LostServer, LetsAConnectionGoInPeace)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    crash();
    thrownBy([&] { answerTo(connection, secret); });

    int const rc = connection.unbind();

    EXPECT_EQ(rc, 0);
}

// Requests that a server stopped reading in the middle: half of each has been sent.

/// A server that is stopped while it is sent an add; with TLS and without.
class AServerThatStopsReading : public SuiteWithSlapd<AServerThatStopsReading>,
                                public testing::WithParamInterface<bool> {
public:
    static std::vector<std::string> options() { return {"--users", "20"}; }

protected:
    void SetUp() override
    {
        SuiteWithSlapd<AServerThatStopsReading>::SetUp();
        if (hasSlapd()) {
            server =
                GetParam() ? secureServer(slapd().tlsPort(), 1) : plainServer(slapd().port(), 1);
            connection = pool.getConnection(server, readerDn, readerPassword);
            narrow(connection);
        }
    }

    /// Sends the add while the server is stopped, and lets the server go on.
    LDAPException sendHalfAnAdd()
    {
        LDAPAdd add = largeAdd(connection);
        slapd().pause();
        auto const resume = std::unique_ptr<Slapd, void (*)(Slapd*)>(
            &slapd(), [](Slapd* paused) { paused->resume(); });
        return thrownBy([&] { add.send(); });
    }
    static bool hasTheEntry()
    {
        LDAPConnection another = boundTo(plainServer(slapd().port()));
        return !namesIn(answerTo(another, lookupOf(newDn))).empty();
    }

    LDAPConnection::RefServer server;
    LDAPConnectionCache pool;
    LDAPConnection connection;
};

// With TLS it did: OpenLDAP took half a record for one that it would send later.
TEST_P(AServerThatStopsReading, FailsTheAdd)
{
    EXPECT_THAT(sendHalfAnAdd(), IsFault("Add.cpp", 83, 1, 7));
}

TEST_P(AServerThatStopsReading, FailsASearch)
{
    LDAPSearch search(connection, searchFor(people, "(cn=" + std::string(3000000, 'x') + ")"));
    slapd().pause();

    auto const thrown = thrownBy([&] { search.send(); });
    slapd().resume();

    EXPECT_THAT(thrown, IsFault("Search.cpp", 270, 4, 4));
    EXPECT_EQ(connection.openldapErrorCode(), -1);
}

TEST_P(AServerThatStopsReading, LeavesAConnectionThatIsInvalidWithoutARecordedError)
{
    sendHalfAnAdd();

    EXPECT_EQ(connection.openldapErrorCode(), 0);
    EXPECT_FALSE(connection.impl()->isValid());
}

// The search of the next user completed the add, with the search's filter in the new entry's
// password.
TEST_P(AServerThatStopsReading, IsNotSentTheNextRequestBehindIt)
{
    sendHalfAnAdd();
    connection.cacheMarkAsAvailable();

    LDAPConnection next = pool.getConnection(server, readerDn, readerPassword);
    auto const found = namesIn(answerTo(next, searchFor(people, "(uid=user0000001)")));

    EXPECT_NE(next.impl(), connection.impl());
    EXPECT_THAT(found, ElementsAre("uid=user0000001,ou=people,dc=corp,dc=test"));
    EXPECT_FALSE(hasTheEntry());
}

TEST_P(AServerThatStopsReading, IsSentNothingMoreByWhoeverKeepsTheConnection)
{
    sendHalfAnAdd();

    auto const search = thrownBy([&] { answerTo(connection, lookupOf(people)); });
    auto const bind = thrownBy([&] { bindAsReader(connection); });

    EXPECT_THAT(search, IsFault("Search.cpp", 270, 4, 4));
    EXPECT_THAT(bind, IsFault("Connection.cpp", 241, 4, 1));
    EXPECT_FALSE(hasTheEntry());
}

// With TLS, GnuTLS used to read memory beyond the unbind and crashed.
TEST_P(AServerThatStopsReading, SeesTheConnectionEndWhenItIsClosed)
{
    sendHalfAnAdd();

    pool.clear();
    connection = LDAPConnection();

    EXPECT_TRUE(eventually([] { return slapd().connectionCount() == 0; }));
    EXPECT_FALSE(hasTheEntry());
}

INSTANTIATE_TEST_SUITE_P(WithTls, AServerThatStopsReading, testing::Bool());

TEST(AStalledAdd, IsFollowedByNoUnbind)
{
    std::promise<std::string> everything;
    ScriptedServer server(
        [&](ScriptedServer::Peer& peer) {
            peer.grantBind();
            peer.awaitCue();
            everything.set_value(peer.receiveRest());
        },
        4096);
    LDAPConnection connection = boundTo(plainServer(server.port(), 1));
    narrow(connection);
    {
        LDAPAdd add = largeAdd(connection);
        EXPECT_THAT(thrownBy([&] { add.send(); }), IsFault("Add.cpp", 83, 1, 7));
    }

    connection = LDAPConnection();
    server.giveCue();

    std::string const received = everything.get_future().get();
    ASSERT_GT(received.size(), 1000U);
    EXPECT_EQ(received.substr(received.size() - 100), std::string(100, 'x'));
}

} // namespace SolvaneTest
