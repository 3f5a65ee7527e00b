// The pool of connections: the calls and the counters of each of its operations, its log lines, and
// which connection a lookup takes.
#include "PoolTest.h"

#include <memory>
#include <string>

namespace SolvaneTest {
namespace {

using namespace std::string_literals;

using Solvane::LDAPConnection;
using Solvane::LDAPConnectionCache;
using Solvane::LDAPConnectionImpl;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;

using APool = PoolTest;
using ANewConnection = PoolTest;
using AReusedConnection = PoolTest;
using ADroppedConnection = PoolTest;
using TheServersOfAPool = PoolTest;
using AClearedPool = PoolTest;
using TheLogOfAPool = PoolTest;

TEST_F(APool, IsEmptyAtFirstAndMakesNoCall)
{
    EXPECT_EQ(state(), "hits 0, size 0, pooled 0");
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(APool, GivesAConnectionOutOnceUntilItComesBack)
{
    for (bool const isBound : {true, false}) {
        auto const take = [&] { return isBound ? bound() : unbound(); };
        cache.clear();
        LDAPConnection first = take();
        LDAPConnection const second = take();
        first.cacheMarkAsAvailable();

        LDAPConnection const third = take();

        EXPECT_NE(second.impl(), first.impl());
        EXPECT_EQ(third.impl(), first.impl());
        EXPECT_EQ(state(), isBound ? "hits 1, size 2, pooled 2" : "hits 2, size 2, pooled 2");
    }
}

TEST_F(ANewConnection, WithoutABindIsOpenedAndNotBound)
{
    LDAPConnection const connection = unbound();

    EXPECT_THAT(openldap.calls(), ElementsAreArray(joined({{"time"}, opening})));
    EXPECT_FALSE(connection.isNull());
    EXPECT_TRUE(connection.impl()->m_anonymous);
    EXPECT_EQ(connection.impl()->m_bindDn, "");
    EXPECT_EQ(state(), "hits 0, size 1, pooled 1");
}

TEST_F(ANewConnection, IsOpenedBoundAndAwaitedForTheNetworkTimeout)
{
    LDAPConnection const connection = bound();

    EXPECT_THAT(openldap.calls(),
                ElementsAreArray(joined({{"time"}, opening, sendingBind, awaitingBind})));
    EXPECT_FALSE(connection.isNull());
    EXPECT_FALSE(connection.impl()->m_anonymous);
    EXPECT_EQ(connection.impl()->m_bindMode, LDAPConnection::Asynchronous);
    EXPECT_EQ(state(), "hits 0, size 1, pooled 1");
}

TEST_F(ANewConnection, IsInUseByItsFirstUser)
{
    LDAPConnection boundOne = bound();
    LDAPConnection unboundOne = unbound();

    EXPECT_FALSE(boundOne.cacheMarkAsUsed());
    EXPECT_FALSE(unboundOne.cacheMarkAsUsed());
}

TEST_F(ANewConnection, WhoseBindIsNotAnsweredInTimeCountsAsBoundAndIsReused)
{
    openldap.ldap_result = [](auto...) { return 0; };

    LDAPConnectionImpl const* const body = givenBack(bound());

    EXPECT_THAT(openldap.calls(),
                ElementsAreArray(
                    joined({{"time"}, opening, sendingBind, {"ldap_result session 42 0 7s 0us"}})));
    EXPECT_EQ(state(), "hits 0, size 1, pooled 1");
    EXPECT_EQ(bound().impl(), body);
    EXPECT_EQ(state(), "hits 1, size 1, pooled 1");
}

TEST_F(ANewConnection, WaitsForItsBindAsLongAsItsServerSays)
{
    LDAPConnection::RefServer const patient = newServer(LDAPConnection::V3, false, 31);

    cache.getConnection(patient, "cn=a", "secret");

    EXPECT_THAT(openldap.calls(), Contains("ldap_result session 42 0 31s 0us"));
}

TEST_F(ANewConnection, SharesTheServerThatItWasAskedFor)
{
    LDAPConnection const connection = bound();

    EXPECT_EQ(connection.server().get(), server.get());
}

TEST_F(ANewConnection, LivesThreeHundredSeconds)
{
    EXPECT_EQ(bound().impl()->m_expiry, 1000300);
    EXPECT_EQ(unbound().impl()->m_expiry, 1000300);
}

TEST_F(AReusedConnection, IsCheckedAndHandedOutWithoutAnotherBind)
{
    for (bool const isBound : {true, false}) {
        auto const take = [&] { return isBound ? bound() : unbound(); };
        cache.clear();
        LDAPConnectionImpl const* const body = givenBackAs("session", take());

        LDAPConnection const connection = take();

        EXPECT_EQ(connection.impl(), body);
        EXPECT_THAT(openldap.calls(), ElementsAreArray(joined({{"time"}, checking})));
        EXPECT_EQ(state(), isBound ? "hits 1, size 1, pooled 1" : "hits 2, size 1, pooled 1");
    }
}

TEST_F(AReusedConnection, IsInUseAgain)
{
    givenBack(bound());
    givenBack(unbound());

    EXPECT_FALSE(bound().cacheMarkAsUsed());
    EXPECT_FALSE(unbound().cacheMarkAsUsed());
    EXPECT_EQ(state(), "hits 2, size 2, pooled 2");
}

TEST_F(AReusedConnection, IsTheOneThatWasAddedFirst)
{
    LDAPConnection first = bound();
    LDAPConnection second = bound();
    second.cacheMarkAsAvailable();
    first.cacheMarkAsAvailable();

    EXPECT_EQ(bound().impl(), first.impl());
}

TEST_F(AReusedConnection, LeavesABusyOneUnchecked)
{
    LDAPConnection const busy = bound();
    openldap.name(busy.context(), "busy");
    openldap.forgetCalls();

    LDAPConnection const connection = bound();

    EXPECT_NE(connection.impl(), busy.impl());
    EXPECT_THAT(openldap.calls(),
                ElementsAreArray(joined({{"time"}, opening, sendingBind, awaitingBind})));
    EXPECT_EQ(state(), "hits 0, size 2, pooled 2");
}

TEST_F(ADroppedConnection, WasFoundInvalidAndIsReplaced)
{
    for (bool const isBound : {true, false}) {
        auto const take = [&] { return isBound ? bound() : unbound(); };
        cache.clear();
        givenBackAs("dropped", take())->m_openldapErrorCode = -1;

        LDAPConnection const connection = take();

        Lists calls{{"time", "ldap_get_option dropped DESC", "getsockopt 5 1 4 4",
                     "ldap_unbind_ext dropped null null"},
                    opening};
        if (isBound) {
            calls.insert(calls.end(), {sendingBind, awaitingBind});
        }
        EXPECT_EQ(openldap.calls(), joined(calls));
        EXPECT_EQ(connection.openldapErrorCode(), 0);
        EXPECT_EQ(state(), "hits 0, size 2, pooled 1");
    }
}

TEST_F(ADroppedConnection, StaysMarkedAndOpenForWhoeverHoldsIt)
{
    LDAPConnection held = bound();
    held.openldapErrorCode(-1);
    givenBackAs("held", held);

    bound();

    EXPECT_FALSE(held.cacheMarkAsUsed());
    EXPECT_THAT(openldap.calls(), Not(Contains("ldap_unbind_ext held null null")));
}

TEST_F(ADroppedConnection, DoesNotKeepTheNextOneFromBeingReused)
{
    LDAPConnection first = bound();
    LDAPConnection second = bound();
    first.openldapErrorCode(-1);
    first.cacheMarkAsAvailable();
    second.cacheMarkAsAvailable();

    EXPECT_EQ(bound().impl(), second.impl());
    EXPECT_EQ(state(), "hits 1, size 2, pooled 1");
}

TEST_F(ADroppedConnection, GoesWithAllOthersThatAreInvalid)
{
    LDAPConnection first = unbound();
    LDAPConnection second = unbound();
    for (LDAPConnection* const connection : {&first, &second}) {
        connection->openldapErrorCode(-1);
        connection->cacheMarkAsAvailable();
    }

    LDAPConnection const third = unbound();

    EXPECT_NE(third.impl(), first.impl());
    EXPECT_NE(third.impl(), second.impl());
    EXPECT_EQ(state(), "hits 0, size 3, pooled 1");
}

TEST_F(ADroppedConnection, IsNotLookedForAmongThoseInUse)
{
    LDAPConnection busy = bound();
    busy.openldapErrorCode(-1);

    bound();

    EXPECT_EQ(state(), "hits 0, size 2, pooled 2");
}

TEST_F(ADroppedConnection, IsOneWithoutASocket)
{
    givenBack(bound());
    openldap.ldap_get_option = [](LDAP*, int, void* descriptor) {
        *static_cast<int*>(descriptor) = -1;
        return LDAP_SUCCESS;
    };

    bound();

    EXPECT_EQ(state(), "hits 0, size 2, pooled 1");
}

TEST_F(TheServersOfAPool, AreAnEmptyListWhenItIsEmpty)
{
    std::list<LDAPConnection::RefServer> servers{serverAt(7)};
    auto const* const given = servers.front().get();

    cache.connections(servers);

    ASSERT_EQ(servers.size(), 1U);
    EXPECT_EQ(servers.front().get(), given);
}

TEST_F(TheServersOfAPool, AreAppendedInOrderOncePerConnection)
{
    auto const other = serverAt(390);
    unbound();
    cache.getConnection(other);
    bound();
    std::list<LDAPConnection::RefServer> servers{other};

    cache.connections(servers);

    std::vector<LDAPConnection::Server*> found;
    for (auto const& each : servers) {
        found.push_back(each.get());
    }
    EXPECT_THAT(found, ElementsAre(other.get(), server.get(), other.get(), server.get()));
}

TEST_F(TheServersOfAPool, AreAppendedAgainEachTimeWithoutACall)
{
    unbound();
    openldap.forgetCalls();
    std::list<LDAPConnection::RefServer> servers;

    cache.connections(servers);
    cache.connections(servers);

    EXPECT_EQ(servers.size(), 2U);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AClearedPool, HasNoConnectionsAndKeepsItsHits)
{
    givenBack(bound());
    givenBack(bound());
    unbound();

    cache.clear();

    EXPECT_EQ(state(), "hits 1, size 0, pooled 0");
}

TEST_F(AClearedPool, EndsEachSessionOnce)
{
    givenBackAs("first", bound());
    givenBackAs("second", unbound());

    cache.clear();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_unbind_ext first null null", "ldap_unbind_ext second null null"));
}

TEST_F(AClearedPool, LeavesAConnectionInUseToItsUser)
{
    LDAPConnection used = bound();
    openldap.forgetCalls();

    cache.clear();

    EXPECT_THAT(openldap.calls(), IsEmpty());
    used = LDAPConnection();
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_unbind_ext session null null"));
}

TEST_F(AClearedPool, OpensAnewAndCountsFromTheStart)
{
    LDAPConnection const used = bound();
    cache.clear();

    LDAPConnection const connection = bound();

    EXPECT_NE(connection.impl(), used.impl());
    EXPECT_EQ(state(), "hits 0, size 1, pooled 1");
}

TEST_F(AClearedPool, MayBeClearedWhenItIsEmpty)
{
    cache.clear();

    EXPECT_EQ(state(), "hits 0, size 0, pooled 0");
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

/// A pool that ends when the test says so.
class AnEndingPool : public PoolTest {
protected:
    AnEndingPool() : pool(std::make_unique<LDAPConnectionCache>()) {}

    std::unique_ptr<LDAPConnectionCache> pool;
};

TEST_F(AnEndingPool, EndsEachSessionOnceAndInSilence)
{
    givenBackAs("first", pool->getConnection(server));
    givenBackAs("second", pool->getConnection(server, "cn=a", "secret"));
    DebugLines const lines(0xffffffff);

    pool.reset();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_unbind_ext first null null", "ldap_unbind_ext second null null"));
    EXPECT_THAT(lines.all(), IsEmpty());
}

TEST_F(AnEndingPool, LeavesAConnectionInUseToItsUser)
{
    LDAPConnection used = pool->getConnection(server, "cn=a", "secret");
    openldap.forgetCalls();

    pool.reset();

    EXPECT_THAT(openldap.calls(), IsEmpty());
    EXPECT_TRUE(used.impl()->isValid());
    used.cacheMarkAsAvailable();
    used = LDAPConnection();
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_get_option session DESC", "getsockopt 5 1 4 4",
                                              "ldap_unbind_ext session null null"));
}

std::string const lineOfANewConnection =
    "Connection:400 LDAPConnectionImpl 0: New LDAP Connection ldap://[127.0.0.1]:389/ - Network "
    "Timeout = 7";

TEST_F(TheLogOfAPool, TellsOfAReuse)
{
    givenBack(bound());

    expectTraced(0x80008,
                 {"Connection:575 getConnection 0: Use cached LDAP connection to "
                  "ldap://[127.0.0.1]:389/"},
                 [&] { givenBack(bound()); });
}

TEST_F(TheLogOfAPool, TellsOfAnInvalidConnectionBeforeTheNewOne)
{
    LDAPConnectionImpl* pooled = givenBack(bound());

    expectTraced(0x80008,
                 {"Connection:579 getConnection 0: Expired cached LDAP connection to "
                  "ldap://[127.0.0.1]:389/",
                  lineOfANewConnection},
                 [&] {
                     pooled->m_openldapErrorCode = -1;
                     pooled = givenBack(bound());
                 });
}

TEST_F(TheLogOfAPool, SaysNothingOfASweptConnection)
{
    givenBack(bound());
    now = 1000301;
    DebugLines const lines(0xffffffff);

    bound();

    EXPECT_THAT(lines.all(), ElementsAre(lineOfANewConnection));
}

TEST_F(TheLogOfAPool, TellsThatItIsCleared)
{
    expectTraced(0x80001,
                 {"Connection:664 clear 0: tid=" + std::to_string(gettid()) + ": Clear the cache"},
                 [&] { cache.clear(); });
}

TEST_F(TheLogOfAPool, IsSilentOnConnectionsWithoutABind)
{
    givenBack(unbound());
    DebugLines const lines(0xffffffff);

    givenBack(unbound())->m_openldapErrorCode = -1;
    unbound();

    EXPECT_THAT(lines.all(), ElementsAre(lineOfANewConnection));
}

TEST_F(TheLogOfAPool, IsSilentOnReadingItsServers)
{
    unbound();
    DebugLines const lines(0xffffffff);

    state();

    EXPECT_THAT(lines.all(), IsEmpty());
}

// Which pooled connection a lookup takes: the same server, the same kind, the same credentials.

using ALookup = PoolTest;

TEST_F(ALookup, ForAnotherServerOpensAConnection)
{
    LDAPConnectionImpl const* const boundBody = givenBack(bound());
    LDAPConnectionImpl const* const unboundBody = givenBack(unbound());

    LDAPConnection const other = cache.getConnection(serverAt(390), "cn=a", "secret");
    LDAPConnection const unboundOther = cache.getConnection(serverAt(390));

    EXPECT_NE(other.impl(), boundBody);
    EXPECT_EQ(other.server()->port, 390U);
    EXPECT_NE(unboundOther.impl(), unboundBody);
    EXPECT_EQ(state(), "hits 0, size 4, pooled 4");
}

TEST_F(ALookup, FindsItsServerAmongOthers)
{
    auto const other = serverAt(390);
    LDAPConnectionImpl const* const here = givenBack(bound());
    LDAPConnectionImpl const* const there = givenBack(cache.getConnection(other, "cn=a", "secret"));

    EXPECT_EQ(cache.getConnection(other, "cn=a", "secret").impl(), there);
    EXPECT_EQ(bound().impl(), here);
    EXPECT_EQ(state(), "hits 2, size 2, pooled 2");
}

TEST_F(ALookup, TellsServersByTheirUriAlone)
{
    LDAPConnectionImpl const* const boundBody = givenBack(bound());
    LDAPConnectionImpl const* const unboundBody = givenBack(unbound());
    LDAPConnection::RefServer const sameUri("127.0.0.1", 389, LDAPConnection::V2, false, 99, true,
                                            true);

    EXPECT_EQ(cache.getConnection(sameUri, "cn=a", "secret").impl(), boundBody);
    EXPECT_EQ(cache.getConnection(sameUri).impl(), unboundBody);
    EXPECT_EQ(state(), "hits 2, size 2, pooled 2");
}

TEST_F(ALookup, PassesAConnectionOfTheOtherKindOver)
{
    LDAPConnectionImpl const* const boundBody = givenBack(bound());

    LDAPConnectionImpl const* const unboundBody = givenBack(unbound());

    EXPECT_NE(unboundBody, boundBody);
    cache.clear();
    LDAPConnectionImpl const* const first = givenBack(unbound());
    EXPECT_NE(givenBack(bound()), first);
    EXPECT_EQ(state(), "hits 0, size 2, pooled 2");
}

TEST_F(ALookup, WithEmptyCredentialsDiffersFromOneWithoutABind)
{
    LDAPConnectionImpl const* const without = givenBack(unbound());

    LDAPConnectionImpl const* const empty = givenBack(bound("", ""));

    EXPECT_NE(empty, without);
    EXPECT_EQ(bound("", "").impl(), empty);
    EXPECT_EQ(unbound().impl(), without);
    EXPECT_EQ(state(), "hits 2, size 2, pooled 2");
}

TEST_F(ALookup, WithoutABindTakesAConnectionThatItsLastUserBound)
{
    LDAPConnection connection = unbound();
    connection.bind("cn=b", "other", LDAPConnection::Asynchronous);
    givenBack(connection);

    EXPECT_EQ(unbound().impl(), connection.impl());
}

TEST_F(ALookup, GoesByTheLastBindOfAConnection)
{
    LDAPConnection connection = bound("cn=a", "secret");
    connection.bind("cn=b", "other", LDAPConnection::Asynchronous);
    givenBack(connection);

    EXPECT_NE(bound("cn=a", "secret").impl(), connection.impl());
    EXPECT_EQ(bound("cn=b", "other").impl(), connection.impl());
}

TEST_F(ALookup, LeavesTheMarkersOfOtherConnectionsAlone)
{
    LDAPConnection otherDn = bound("cn=b", "secret");
    LDAPConnection otherPassword = bound("cn=a", "other");
    LDAPConnection otherKind = unbound();
    LDAPConnection otherServer = cache.getConnection(serverAt(390), "cn=a", "secret");
    for (auto* const each : {&otherDn, &otherPassword, &otherKind, &otherServer}) {
        each->cacheMarkAsAvailable();
    }

    bound();

    for (auto* const each : {&otherDn, &otherPassword, &otherKind, &otherServer}) {
        EXPECT_TRUE(each->cacheMarkAsUsed());
        EXPECT_FALSE(each->cacheMarkAsUsed());
    }
}

TEST_F(ALookup, ChecksNoConnectionButTheOneThatItTakes)
{
    givenBack(bound("cn=b", "secret"));
    givenBack(unbound());
    LDAPConnection const busy = bound();
    LDAPConnection taken = bound();
    givenBackAs("taken", taken);

    bound();

    EXPECT_THAT(openldap.calls(),
                testing::ElementsAre("time", "ldap_get_option taken DESC", "getsockopt 5 1 4 4"));
}

struct Credentials {
    char const* how;
    std::string dn;
    std::string password;
};

void PrintTo(Credentials const& tested, std::ostream* out) { *out << tested.how; }

class ALookupForOtherCredentials : public PoolTest,
                                   public testing::WithParamInterface<Credentials> {};

TEST_P(ALookupForOtherCredentials, OpensAConnectionOfItsOwn)
{
    LDAPConnectionImpl const* const body = givenBack(bound("cn=a", "secret"));

    LDAPConnectionImpl const* const other = givenBack(bound(GetParam().dn, GetParam().password));

    EXPECT_NE(other, body);
    EXPECT_EQ(bound("cn=a", "secret").impl(), body);
    EXPECT_EQ(bound(GetParam().dn, GetParam().password).impl(), other);
    EXPECT_EQ(state(), "hits 2, size 2, pooled 2");
}

INSTANTIATE_TEST_SUITE_P(
    Such, ALookupForOtherCredentials,
    testing::Values(Credentials{"AsAnotherDn", "cn=b", "secret"},
                    Credentials{"AsAnotherPassword", "cn=a", "Secret"},
                    Credentials{"AsTheDnInAnotherCase", "CN=a", "secret"},
                    Credentials{"AsADnThatTheOtherBeginsWith", "cn=", "secret"},
                    Credentials{"AsADnThatBeginsWithTheOther", "cn=ab", "secret"},
                    Credentials{"AsAPasswordThatTheOtherBeginsWith", "cn=a", "secre"},
                    Credentials{"AsAPasswordThatBeginsWithTheOther", "cn=a", "secrets"},
                    Credentials{"AsAnEmptyDn", "", "secret"},
                    Credentials{"AsAnEmptyPassword", "cn=a", ""},
                    Credentials{"AsADnWithBlanks", "cn=a ", "secret"},
                    Credentials{"AsADnWithAZeroByte", "cn=a\0"s, "secret"},
                    Credentials{"AsAPasswordWithAZeroByte", "cn=a", "secret\0x"s},
                    Credentials{"AsDnAndPasswordExchanged", "secret", "cn=a"}),
    [](auto const& tested) { return std::string(tested.param.how); });

} // namespace
} // namespace SolvaneTest
