// How long the pool keeps a connection: the limits, the sweep and the extension by each use.
#include "PoolTest.h"

namespace SolvaneTest {
namespace {

using Solvane::LDAPConnection;
using Solvane::LDAPConnectionImpl;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

using AnAgeingConnection = PoolTest;
using TheSweep = PoolTest;

TEST_F(AnAgeingConnection, IsReusedInItsLastSecond)
{
    LDAPConnectionImpl const* const body = givenBack(bound());
    now = 1000300;

    LDAPConnection const connection = bound();

    EXPECT_EQ(connection.impl(), body);
    EXPECT_EQ(state(), "hits 1, size 1, pooled 1");
}

TEST_F(AnAgeingConnection, IsSweptOneSecondLater)
{
    givenBackAs("expired", bound());
    now = 1000301;

    LDAPConnection const connection = bound();

    EXPECT_THAT(
        openldap.calls(),
        ElementsAreArray(joined(
            {{"time", "ldap_unbind_ext expired null null"}, opening, sendingBind, awaitingBind})));
    EXPECT_EQ(state(), "hits 0, size 1, pooled 1");
}

TEST_F(AnAgeingConnection, LivesOnForThreeHundredSecondsAfterAReuseAlsoWhenTheClockWasSetBack)
{
    LDAPConnectionImpl const* const body = givenBack(bound());
    LDAPConnectionImpl const* const unboundBody = givenBack(unbound());
    for (time_t const time : {1000200, 500000}) {
        now = time;

        givenBack(bound());
        givenBack(unbound());

        EXPECT_EQ(body->m_expiry, time + 300);
        EXPECT_EQ(unboundBody->m_expiry, time + 300);
    }
}

TEST_F(AnAgeingConnection, LivesLongerByThreeHundredSecondsWhenTheClockShowsZero)
{
    LDAPConnectionImpl const* const body = givenBack(bound());
    LDAPConnectionImpl const* const unboundBody = givenBack(unbound());
    now = 0;

    bound();
    unbound();

    EXPECT_EQ(body->m_expiry, 1000600);
    EXPECT_EQ(unboundBody->m_expiry, 1000600);
}

TEST_F(AnAgeingConnection, IsNotExtendedByALookupThatPassesItOver)
{
    LDAPConnectionImpl const* const free = givenBack(bound());
    LDAPConnection const busy = bound("cn=b", "secret");
    now = 1000200;

    bound("cn=b", "secret");

    EXPECT_EQ(free->m_expiry, 1000300);
    EXPECT_EQ(busy.impl()->m_expiry, 1000300);
}

TEST_F(AnAgeingConnection, IsNotExtendedWhenItComesBack)
{
    LDAPConnection connection = bound();
    now = 1000200;

    connection.cacheMarkAsAvailable();

    EXPECT_EQ(connection.impl()->m_expiry, 1000300);
}

TEST_F(TheSweep, TakesConnectionsInUseWithItAndLeavesThemToTheirUsers)
{
    LDAPConnection used = bound();
    openldap.name(used.context(), "used");
    now = 1000301;

    LDAPConnection const connection = bound();

    EXPECT_NE(connection.impl(), used.impl());
    EXPECT_EQ(state(), "hits 0, size 1, pooled 1");
    EXPECT_TRUE(used.impl()->isValid());
    openldap.forgetCalls();
    used = LDAPConnection();
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_unbind_ext used null null"));
}

TEST_F(TheSweep, DoesNotBringAConnectionBackThatItsUserMarksAsAvailable)
{
    LDAPConnection used = bound();
    now = 1000301;
    LDAPConnection const other = bound();

    used.cacheMarkAsAvailable();

    LDAPConnection const connection = bound();
    EXPECT_NE(connection.impl(), used.impl());
    EXPECT_EQ(state(), "hits 0, size 2, pooled 2");
}

TEST_F(TheSweep, TakesEveryExpiredConnectionWhateverItsServerAndKind)
{
    givenBack(bound("cn=b", "secret"));
    givenBack(unbound());
    givenBack(cache.getConnection(serverAt(390), "cn=a", "secret"));
    now = 1000301;

    bound();

    EXPECT_EQ(state(), "hits 0, size 1, pooled 1");
}

TEST_F(TheSweep, LeavesYoungConnectionsInTheirOrder)
{
    LDAPConnection const old = bound();
    LDAPConnection const oldToo = bound();
    now = 1000001;
    LDAPConnection first = bound();
    LDAPConnection const second = cache.getConnection(serverAt(390), "cn=a", "secret");
    now = 1000301;

    cache.getConnection(serverAt(391), "cn=a", "secret");

    std::list<LDAPConnection::RefServer> servers;
    cache.connections(servers);
    std::vector<unsigned int> ports;
    for (auto const& each : servers) {
        ports.push_back(each->port);
    }
    EXPECT_THAT(ports, ElementsAre(389, 390, 391));
    EXPECT_EQ(state(), "hits 0, size 3, pooled 3");
}

TEST_F(TheSweep, IsNotMadeByALookupWithoutABind)
{
    LDAPConnectionImpl const* const expired = givenBack(unbound());
    givenBack(bound());
    now = 2000000;

    LDAPConnection const connection = unbound();

    EXPECT_EQ(connection.impl(), expired);
    EXPECT_EQ(connection.impl()->m_expiry, 2000300);
    EXPECT_EQ(state(), "hits 1, size 2, pooled 2");
}

TEST_F(TheSweep, LeavesWhatHasAnInvalidConnectionToTheLookup)
{
    LDAPConnection connection = bound();
    connection.openldapErrorCode(-1);

    cache.checkForExpiredConnections(1000300);

    EXPECT_EQ(state(), "hits 0, size 1, pooled 1");
}

TEST_F(TheSweep, CanBeMadeByHandUpToTheExactSecond)
{
    givenBackAs("expired", bound());
    openldap.forgetCalls();

    cache.checkForExpiredConnections(1000300);
    EXPECT_EQ(state(), "hits 0, size 1, pooled 1");
    EXPECT_THAT(openldap.calls(), IsEmpty());

    cache.checkForExpiredConnections(1000301);
    EXPECT_EQ(state(), "hits 0, size 0, pooled 0");
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_unbind_ext expired null null"));
}

TEST_F(TheSweep, CountsOnlyWhatItTakes)
{
    givenBack(bound())->m_openldapErrorCode = -1;
    bound(); // drops the invalid one without counting it
    now = 1000301;

    cache.checkForExpiredConnections(now);

    EXPECT_EQ(state(), "hits 0, size 1, pooled 0");
}

TEST_F(TheSweep, ComesBeforeTheSearch)
{
    LDAPConnection expired = bound();
    expired.cacheMarkAsAvailable();
    expired.openldapErrorCode(-1);
    now = 1000301;
    openldap.forgetCalls();

    bound();

    EXPECT_EQ(state(), "hits 0, size 1, pooled 1");
    EXPECT_TRUE(expired.cacheMarkAsUsed()) << "an expired connection is never taken";
}

} // namespace
} // namespace SolvaneTest
