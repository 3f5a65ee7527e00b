// The pool over time and between threads: how long it keeps a connection, and that its lock is held
// while the pool is read and changed, never while the network is used.
#include "PoolTest.h"

#include <condition_variable>
#include <map>
#include <mutex>
#include <new>
#include <thread>

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

// The pool's lock: held while the pool is read and changed, never while the network is used.

/// A pool and, in another thread, a reader of it.
class TheLockOfAPool : public PoolTest {
protected:
    TheLockOfAPool()
    {
        openldap.ldap_initialize = [this](LDAP** session, char const* uri) {
            probe();
            return ldap_initialize(session, uri);
        };
        openldap.ldap_sasl_bind = [this](auto...) {
            probe();
            return LDAP_SUCCESS;
        };
        willAnswerBindsWith(LDAP_SUCCESS);
        openldap.ldap_unbind_ext = [this](auto... arguments) {
            probe();
            return ldap_unbind_ext(arguments...);
        };
    }

    ~TheLockOfAPool() override { openldap.ldap_unbind_ext = nullptr; }

    void willAnswerBindsWith(int code)
    {
        PoolTest::willAnswerBindsWith(code);
        openldap.ldap_result = [this, answer = openldap.ldap_result](auto... arguments) {
            probe();
            return answer(arguments...);
        };
    }
    void read()
    {
        std::list<LDAPConnection::RefServer> servers;
        cache.connections(servers);
    }
    void probe()
    {
        couldRead.push_back(reader.finishes([this] { read(); }));
    }

    std::vector<bool> couldRead; ///< whether the lock was free, for each use of the network so far
    OtherThread reader;
};

TEST_F(TheLockOfAPool, IsFreeWhileAConnectionIsOpened)
{
    unbound();

    EXPECT_THAT(couldRead, ElementsAre(true));
}

TEST_F(TheLockOfAPool, IsFreeWhileAConnectionIsOpenedBoundAndAwaited)
{
    bound();

    EXPECT_THAT(couldRead, ElementsAre(true, true, true));
}

TEST_F(TheLockOfAPool, IsFreeWhileARefusedOrFailedConnectionIsReleased)
{
    willAnswerBindsWith(LDAP_UNWILLING_TO_PERFORM);
    bound();
    EXPECT_THAT(couldRead, ElementsAre(true, true, true, true));

    couldRead.clear();
    willAnswerBindsWith(LDAP_INVALID_CREDENTIALS);
    thrownBy([&] { bound(); });
    EXPECT_THAT(couldRead, ElementsAre(true, true, true, true));
}

TEST_F(TheLockOfAPool, IsFreeWhileAnInvalidConnectionIsReleased)
{
    givenBack(bound())->m_openldapErrorCode = -1;
    givenBack(unbound())->m_openldapErrorCode = -1;
    couldRead.clear();

    unbound();
    EXPECT_THAT(couldRead, ElementsAre(true, true));

    bound();
    EXPECT_THAT(couldRead, ElementsAre(true, true, true, true, true, true));
}

TEST_F(TheLockOfAPool, IsFreeWhileAnInvalidConnectionIsReleasedAfterAHit)
{
    LDAPConnection invalid = bound();
    LDAPConnection valid = bound();
    invalid.openldapErrorCode(-1);
    invalid.cacheMarkAsAvailable();
    invalid = LDAPConnection();
    valid.cacheMarkAsAvailable();
    couldRead.clear();

    LDAPConnection const hit = bound();

    EXPECT_EQ(hit.impl(), valid.impl());
    EXPECT_THAT(couldRead, ElementsAre(true));
}

TEST_F(TheLockOfAPool, IsFreeWhileExpiredConnectionsAreReleased)
{
    givenBack(bound());
    givenBack(unbound());
    now = 1000301;
    couldRead.clear();

    bound();

    EXPECT_THAT(couldRead, ElementsAre(true, true, true, true, true));
}

TEST_F(TheLockOfAPool, IsFreeWhileClearedConnectionsAreReleased)
{
    givenBack(bound());
    givenBack(unbound());
    couldRead.clear();

    cache.clear();

    EXPECT_THAT(couldRead, ElementsAre(true, true));
}

TEST_F(TheLockOfAPool, IsFreeWhileAnInvalidConnectionIsReleasedAfterALaterCheckFailed)
{
    LDAPConnection first = bound();
    LDAPConnection second = bound();
    first.openldapErrorCode(-1);
    first.cacheMarkAsAvailable();
    second.cacheMarkAsAvailable();
    void const* const failing = second.context();
    openldap.ldap_get_option = [failing](LDAP* session, int, void* descriptor) -> int {
        if (session == failing) {
            throw std::bad_alloc();
        }
        *static_cast<int*>(descriptor) = 5;
        return LDAP_SUCCESS;
    };
    first = LDAPConnection();
    couldRead.clear();

    EXPECT_THROW(bound(), std::bad_alloc);

    EXPECT_THAT(couldRead, ElementsAre(true));
}

TEST_F(TheLockOfAPool, KeepsReadersOutWhileAConnectionIsChecked)
{
    for (bool const isBound : {true, false}) {
        givenBack(isBound ? bound() : unbound());
        bool wasHeldUp = false;
        openldap.getsockopt = [&](int, int, int, void* pending, socklen_t*) {
            *static_cast<int*>(pending) = 0;
            wasHeldUp = reader.isHeldUp([this] { read(); });
            return 0;
        };

        isBound ? bound() : unbound();

        EXPECT_TRUE(wasHeldUp);
    }
}

/// Lets threads go on when as many as were expected have arrived.
class MeetingPoint {
public:
    explicit MeetingPoint(int expected) : m_missing(expected) {}

    /// True when all have come, false when they have not after a long time.
    bool arrive()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        --m_missing;
        m_changed.notify_all();
        return m_changed.wait_for(lock, std::chrono::seconds(20), [&] { return m_missing <= 0; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_missing;
};

using TwoLookupsAtOnce = PoolTest;

TEST_F(TwoLookupsAtOnce, BothOpenAndBothKeepTheirConnection)
{
    MeetingPoint meeting(2);
    openldap.ldap_sasl_bind = [&](auto, auto, auto, auto, auto, auto, int* messageId) {
        *messageId = 42;
        return meeting.arrive() ? LDAP_SUCCESS : LDAP_TIMEOUT;
    };
    LDAPConnection theirs;

    std::thread otherUser([&] { theirs = bound(); });
    LDAPConnection const ours = bound();
    otherUser.join();

    ASSERT_FALSE(ours.isNull());
    ASSERT_FALSE(theirs.isNull());
    EXPECT_NE(ours.impl(), theirs.impl());
    EXPECT_EQ(state(), "hits 0, size 2, pooled 2");
}

TEST_F(TwoLookupsAtOnce, DoNotSearchAgainAfterTheyOpened)
{
    OtherThread other;
    bool isFirst = true;
    openldap.ldap_sasl_bind = [&](auto, auto, auto, auto, auto, auto, int* messageId) {
        *messageId = 42;
        if (isFirst) {
            isFirst = false;
            other.finishes([&] { givenBack(bound()); }); // idle, and in the pool by now
        }
        return LDAP_SUCCESS;
    };

    LDAPConnection const connection = bound();

    EXPECT_EQ(state(), "hits 0, size 2, pooled 2");
    EXPECT_FALSE(connection.isNull());
}

TEST_F(TwoLookupsAtOnce, WithoutABindBothOpenAndBothKeepTheirConnection)
{
    MeetingPoint meeting(2);
    openldap.ldap_set_option = [&](LDAP* session, int option, void const* value) {
        if (option == LDAP_OPT_RESTART && !meeting.arrive()) {
            return LDAP_OPT_ERROR;
        }
        return ldap_set_option(session, option, value);
    };
    LDAPConnection theirs;

    std::thread otherUser([&] { theirs = unbound(); });
    LDAPConnection const ours = unbound();
    otherUser.join();

    EXPECT_NE(ours.impl(), theirs.impl());
    EXPECT_EQ(state(), "hits 0, size 2, pooled 2");
}

using ManyThreads = PoolTest;

TEST_F(ManyThreads, NeverShareAConnection)
{
    std::mutex mutex;
    std::map<LDAPConnectionImpl*, int> users;
    bool wasShared = false;
    auto const useThePool = [&] {
        for (int i = 0; i < 50; ++i) {
            LDAPConnection connection = i % 2 == 0 ? bound() : unbound();
            {
                std::lock_guard<std::mutex> const lock(mutex);
                wasShared = wasShared || ++users[connection.impl()] != 1;
            }
            std::this_thread::yield();
            {
                std::lock_guard<std::mutex> const lock(mutex);
                --users[connection.impl()];
            }
            connection.cacheMarkAsAvailable();
        }
    };

    std::list<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back(useThePool);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_FALSE(wasShared);
    EXPECT_EQ(cache.cacheHits().value() + cache.cacheSize().value(), 200);
}

} // namespace
} // namespace SolvaneTest
