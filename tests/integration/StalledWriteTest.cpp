// Requests that a server stopped reading in the middle: half of each has been sent.
#include "Directory.h"
#include "Eventually.h"
#include "Faults.h"
#include "LdapMessages.h"
#include "ScriptedServer.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ldap.h>

#include <future>

#include <sys/socket.h>

using namespace Solvane;
using testing::ElementsAre;
using testing::IsEmpty;

namespace SolvaneTest {

namespace {

constexpr char newDn[] = "cn=half,ou=new,dc=corp,dc=test";

/// Gives the connection a socket that takes little of a large request.
void narrow(LDAPConnection& connection)
{
    int descriptor = -1;
    connection.impl()->getOption(LDAP_OPT_DESC, &descriptor);
    int const bytes = 16384;
    setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
}

LDAPAttribute attributeOf(std::string const& type, std::string const& value)
{
    LDAPAttribute attribute{LDAPAttributeType(type)};
    attribute.value(value);
    return attribute;
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
