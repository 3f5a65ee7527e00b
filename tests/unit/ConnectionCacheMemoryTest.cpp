// What a lookup allocates, and what an allocation that fails leaves behind.
#include "Allocations.h"
#include "PoolTest.h"

#include "Descriptor.h"

#include <openldap.h>

#include <array>
#include <new>

#include <sys/socket.h>
#include <unistd.h>

namespace SolvaneTest {
namespace {

using Solvane::LDAPConnection;

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
