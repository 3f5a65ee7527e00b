// The pool in trouble: what a lookup makes of failures and of memory that runs out, and that
// neither changes the pool.
#include "Allocations.h"
#include "Descriptor.h"
#include "PoolTest.h"

#include <openldap.h>

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <new>

namespace SolvaneTest {
namespace {

using Solvane::LDAPConnection;
using testing::ElementsAreArray;

/// A pool with one idle bound connection and one idle unbound one, to other servers than the one
/// that lookups fail at.
class AFailingLookup : public PoolTest {
protected:
    AFailingLookup()
    {
        givenBack(cache.getConnection(serverAt(390), "cn=a", "secret"));
        givenBack(cache.getConnection(serverAt(390)));
        openldap.forgetCalls();
    }
    void expectEndOfABoundSession()
    {
        EXPECT_THAT(openldap.calls(),
                    ElementsAreArray(joined({{"time"},
                                             opening,
                                             sendingBind,
                                             awaitingBind,
                                             {"ldap_unbind_ext session null null"}})));
    }
    void TearDown() override
    {
        EXPECT_EQ(state(), "hits 0, size 2, pooled 2") << "a failure has changed the pool";
    }
};

/// The same, for lookups that fail while they look at a pooled connection.
class AFailingCheck : public PoolTest {
protected:
    OtherThread other;
};

using ARefusedBind = AFailingLookup;

TEST_F(ARefusedBind, GivesANullConnectionAndEndsTheSession)
{
    willAnswerBindsWith(LDAP_UNWILLING_TO_PERFORM);

    LDAPConnection const connection = bound();

    EXPECT_TRUE(connection.isNull());
    expectEndOfABoundSession();
}

TEST_F(ARefusedBind, ForWantOfAccessIsOneToo)
{
    willAnswerBindsWith(LDAP_INSUFFICIENT_ACCESS);

    EXPECT_TRUE(bound().isNull());
}

TEST_F(ARefusedBind, OfInvalidCredentialsIsReportedWithTheBindsOwnFailureAndEndsTheSession)
{
    willAnswerBindsWith(LDAP_INVALID_CREDENTIALS);

    auto const thrown = thrownBy([&] { bound(); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 602, 4, 0, ""));
    EXPECT_EQ(causeType(thrown), 3);
    EXPECT_THAT(causeOf(thrown),
                IsFault("Connection.cpp", 297, 4, 3,
                        "Error: 'Invalid credentials' during bind to ldap://[127.0.0.1]:389/"));
    expectEndOfABoundSession();
}

TEST_F(ARefusedBind, WithAReferralIsReportedWithTheReferral)
{
    openldap.ldap_result = [this](LDAP*, int, int, timeval*, LDAPMessage** message) {
        *message = messages.response(LDAP_RES_BIND, LDAP_REFERRAL, "", "", {"ldap://b/"});
        return ldap_msgtype(*message);
    };

    auto const thrown = thrownBy([&] { bound(); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 602, 4, 0));
    EXPECT_THAT(causeOf(thrown), IsFault("Result.cpp", 624, 4, 5));
}

TEST_F(AFailingLookup, WhoseBindFailsHasTheBindsFailureAsItsCause)
{
    auto const failureOfALookup = [&] {
        auto const thrown = thrownBy([&] { bound(); });
        EXPECT_THAT(thrown, IsFault("Connection.cpp", 602, 4, 0));
        return causeOf(thrown);
    };
    auto const answer = openldap.ldap_result;
    openldap.ldap_result = [](auto...) { return LDAP_SERVER_DOWN; };
    EXPECT_THAT(failureOfALookup(), IsFault("Connection.cpp", 315, 4, 3)) << "not awaited";
    openldap.ldap_result = answer;

    openldap.ldap_sasl_bind = [](auto...) { return LDAP_ENCODING_ERROR; };
    EXPECT_THAT(failureOfALookup(), IsFault("Connection.cpp", 241, 4, 3)) << "not sent";

    openldap.ldap_sasl_bind = [](auto...) { return LDAP_SERVER_DOWN; };
    EXPECT_THAT(
        failureOfALookup(),
        IsFault("Connection.cpp", 241, 4, 1,
                "Error: 'Can't contact LDAP server' during bind to ldap://[127.0.0.1]:389/"))
        << "a dead server";
}

TEST_F(AFailingLookup, ThatGetsNoSessionHasTheConnectionsFailureAsItsCause)
{
    auto const expectCause = [&](auto const& cause) {
        auto const withBind = thrownBy([&] { bound(); });
        auto const withoutBind = thrownBy([&] { unbound(); });

        EXPECT_THAT(withBind, IsFault("Connection.cpp", 602, 4, 0));
        EXPECT_THAT(causeOf(withBind), cause);
        EXPECT_THAT(withoutBind, IsFault("Connection.cpp", 650, 4, 0, ""));
        EXPECT_THAT(causeOf(withoutBind), cause);
    };
    openldap.ldap_set_option = [](auto...) { return LDAP_OPT_ERROR; };
    expectCause(IsFault("Connection.cpp", 519, 4, 2));

    openldap.ldap_initialize = [](auto...) { return LDAP_PARAM_ERROR; };
    expectCause(IsFault("Connection.cpp", 403, 4, 1));
}

TEST_F(AFailingLookup, KeepsAForeignExceptionAsItsCause)
{
    openldap.ldap_initialize = throwForeign<>;

    auto const withBind = thrownBy([&] { bound(); });
    auto const withoutBind = thrownBy([&] { unbound(); });

    EXPECT_THAT(withBind, IsFault("Connection.cpp", 602, 4, 0));
    EXPECT_EQ(withBind.cause().name(), "foreign");
    EXPECT_EQ(causeType(withBind), -1);
    EXPECT_THAT(withoutBind, IsFault("Connection.cpp", 650, 4, 0));
    EXPECT_EQ(withoutBind.cause().name(), "foreign");
}

TEST_F(AFailingLookup, PassesForeignExceptionsUnchanged)
{
    openldap.ldap_initialize = [](auto...) -> int { throw std::bad_alloc(); };

    EXPECT_THROW(bound(), std::bad_alloc);
    EXPECT_THROW(unbound(), std::bad_alloc);
}

TEST_F(AFailingLookup, WhoseBindRunsOutOfMemoryEndsTheSession)
{
    openldap.ldap_sasl_bind = [](auto...) -> int { throw std::bad_alloc(); };

    EXPECT_THROW(bound(), std::bad_alloc);

    EXPECT_THAT(openldap.calls(),
                ElementsAreArray(joined(
                    {{"time"}, opening, sendingBind, {"ldap_unbind_ext session null null"}})));
}

TEST_F(AFailingCheck, IsReportedAndUnlocksThePool)
{
    givenBack(bound());
    givenBack(unbound());
    openldap.ldap_get_option = throwForeign<>;

    auto const withBind = thrownBy([&] { bound(); });
    auto const withoutBind = thrownBy([&] { unbound(); });

    EXPECT_THAT(withBind, IsFault("Connection.cpp", 602, 4, 0));
    EXPECT_EQ(withBind.cause().name(), "foreign");
    EXPECT_THAT(withoutBind, IsFault("Connection.cpp", 650, 4, 0));
    EXPECT_EQ(withoutBind.cause().name(), "foreign");
    EXPECT_EQ(state(), "hits 0, size 2, pooled 2");
    EXPECT_TRUE(other.finishes([&] { cache.clear(); }));
}

TEST_F(AFailingCheck, ThatRunsOutOfMemoryPassesUnchangedAndUnlocksThePool)
{
    givenBack(bound());
    givenBack(unbound());
    openldap.ldap_get_option = [](auto...) -> int { throw std::bad_alloc(); };

    EXPECT_THROW(bound(), std::bad_alloc);
    EXPECT_THROW(unbound(), std::bad_alloc);

    EXPECT_EQ(state(), "hits 0, size 2, pooled 2");
    EXPECT_TRUE(other.finishes([&] { cache.clear(); }));
}

// What a lookup allocates, and what an allocation that fails leaves behind.

/// A pool whose sessions have real sockets, so that OpenLDAP needs no replacement while memory is
/// looked at: a lookup in the scope of RealCalls allocates for itself alone.
class TheMemoryOfAPool : public PoolTest {
protected:
    TheMemoryOfAPool()
    {
        openldap.time = nullptr;
        openldap.ldap_initialize = [this](LDAP** session, char const* uri) {
            std::array<int, 2> ends{};
            checked(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), "socketpair");
            m_peers.push_back(ends[1]);
            return ldap_init_fd(ends[0], LDAP_PROTO_TCP, uri, session);
        };
    }
    ~TheMemoryOfAPool() override
    {
        busy.clear();
        cache.clear(); // writes to the sockets
        for (int const peer : m_peers) {
            close(peer);
        }
    }

    /// Pooled connections that do not match the credentials below, each for another reason.
    void addOthers()
    {
        givenBack(cache.getConnection(serverAt(390), dn, password));
        givenBack(bound(dn.substr(1), password));
        givenBack(bound(dn + 'x', password));
        givenBack(bound(dn, password.substr(1)));
        givenBack(bound(dn, password + 'x'));
        givenBack(unbound());
        busy.push_back(bound(dn, password));
    }

    unsigned int allocationsOfAHit()
    {
        RealCalls const unseen;
        return allocationsOf([&] { givenBack(bound(dn, password)); });
    }
    unsigned int allocationsOfAHitWithoutABind()
    {
        RealCalls const unseen;
        return allocationsOf([&] { givenBack(unbound()); });
    }

    // Longer than what a string keeps in itself, so that a copy would be seen.
    std::string const dn = "cn=a user with a rather long name,dc=example,dc=org";
    std::string const password = "a password that is rather long as well";
    std::list<LDAPConnection> busy;

private:
    std::vector<int> m_peers;
};

TEST_F(TheMemoryOfAPool, IsNotNeededToPassConnectionsOver)
{
    givenBack(bound(dn, password));
    unsigned int const alone = allocationsOfAHit();
    cache.clear();
    addOthers();
    givenBack(bound(dn, password));

    unsigned int const amongOthers = allocationsOfAHit();

    EXPECT_EQ(cache.cacheHits().value(), 2);
    EXPECT_GT(alone, 0U);
    EXPECT_EQ(amongOthers, alone);
}

TEST_F(TheMemoryOfAPool, IsNotNeededToPassConnectionsOverWithoutABind)
{
    givenBack(unbound());
    unsigned int const alone = allocationsOfAHitWithoutABind();
    cache.clear();
    givenBack(bound(dn, password));
    givenBack(cache.getConnection(serverAt(390)));
    busy.push_back(unbound());
    givenBack(unbound());

    unsigned int const amongOthers = allocationsOfAHitWithoutABind();

    EXPECT_EQ(cache.cacheHits().value(), 2);
    EXPECT_GT(alone, 0U);
    EXPECT_EQ(amongOthers, alone);
}

TEST_F(TheMemoryOfAPool, KeepsTheMarkerFreeWhicheverAllocationOfAReuseFails)
{
    LDAPConnection pooled = bound(dn, password);
    pooled.cacheMarkAsAvailable();
    DebugLines const lines(0x80008);
    RealCalls const unseen;
    unsigned int failures = 0;
    for (bool isDone = false; !isDone;) {
        FailingAllocation const failing(failures);
        try {
            givenBack(bound(dn, password));
            isDone = true;
        } catch (std::bad_alloc const&) {
            ++failures;
        }

        EXPECT_TRUE(pooled.cacheMarkAsUsed()) << "after failure " << failures;
        pooled.cacheMarkAsAvailable();
    }

    EXPECT_GT(failures, 1U) << "the handle and the log line need memory";
    EXPECT_EQ(cache.cacheSize().value(), 1);
    EXPECT_FALSE(lines.all().empty());
}

TEST_F(TheMemoryOfAPool, KeepsTheMarkerFreeWhicheverAllocationOfAReuseWithoutABindFails)
{
    LDAPConnection pooled = unbound();
    pooled.cacheMarkAsAvailable();
    RealCalls const unseen;
    unsigned int failures = 0;
    for (bool isDone = false; !isDone;) {
        FailingAllocation const failing(failures);
        try {
            givenBack(unbound());
            isDone = true;
        } catch (std::bad_alloc const&) {
            ++failures;
        }

        EXPECT_TRUE(pooled.cacheMarkAsUsed()) << "after failure " << failures;
        pooled.cacheMarkAsAvailable();
    }

    EXPECT_GT(failures, 0U);
    EXPECT_EQ(cache.cacheHits().value(), 1);
    EXPECT_EQ(cache.cacheSize().value(), 1);
}

TEST_F(TheMemoryOfAPool, IsNotNeededToDropAnInvalidConnection)
{
    givenBack(bound(dn, password))->m_openldapErrorCode = -1;
    DebugLines const lines(0x80008);
    RealCalls const unseen;

    EXPECT_THROW(
        {
            FailingAllocation const failing(0); // that of the log line
            bound(dn, password);
        },
        std::bad_alloc);

    EXPECT_EQ(state(), "hits 0, size 1, pooled 0");
}

TEST_F(TheMemoryOfAPool, IsAllFreedWhicheverAllocationOfAnOpeningFails)
{
    RealCalls const unseen;
    unsigned int failures = 0;
    for (;; ++failures) {
        FailingAllocation const failing(failures);
        try {
            unbound();
            break;
        } catch (std::bad_alloc const&) {
            EXPECT_EQ(cache.cacheSize().value(), 0);
        }
    }

    EXPECT_GT(failures, 3U) << "the body, its guard, the handles and the list need memory";
    EXPECT_EQ(state(), "hits 0, size 1, pooled 1");
}

} // namespace
} // namespace SolvaneTest
