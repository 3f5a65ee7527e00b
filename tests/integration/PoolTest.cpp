// The pool on a real directory: what it lends, what it keeps, what the server sees of it, and many
// threads on it while the directory crashes and comes back.
#include "Directory.h"
#include "Eventually.h"
#include "Faults.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <map>
#include <mutex>
#include <thread>

using namespace Solvane;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace SolvaneTest {

class ThePool : public SuiteWithSlapd<ThePool> {
public:
    static std::vector<std::string> options() { return {"--users", "20", "--retcode"}; }

protected:
    void SetUp() override
    {
        SuiteWithSlapd<ThePool>::SetUp();
        if (hasSlapd()) {
            server = plainServer(slapd().port());
        }
    }

    LDAPConnection asReader() { return pool.getConnection(server, readerDn, readerPassword); }
    static bool seesSecret(LDAPConnection& connection)
    {
        return !namesIn(answerTo(connection, secret)).empty();
    }
    std::list<LDAPConnection::RefServer> pooled() const
    {
        std::list<LDAPConnection::RefServer> servers;
        pool.connections(servers);
        return servers;
    }

    static LDAPSearch::Parameter const secret; ///< finds something for bound sessions only
    LDAPConnection::RefServer server;
    LDAPConnectionCache pool;
};

LDAPSearch::Parameter const ThePool::secret =
    searchFor("ou=private,dc=corp,dc=test", "(cn=secret)");

TEST_F(ThePool, LendsTheSameBoundConnectionAgain)
{
    LDAPConnection first = asReader();
    first.cacheMarkAsAvailable();

    LDAPConnection second = asReader();

    EXPECT_EQ(second.impl(), first.impl());
    EXPECT_TRUE(seesSecret(second));
    EXPECT_EQ(pool.cacheHits().value(), 1);
    EXPECT_EQ(slapd().connectionCount(), 1);
}

TEST_F(ThePool, OpensAnotherConnectionWhileTheFirstIsInUse)
{
    LDAPConnection first = asReader();
    LDAPConnection second = asReader();

    EXPECT_NE(second.impl(), first.impl());
    EXPECT_TRUE(seesSecret(second));
    EXPECT_THAT(pooled(), SizeIs(2));
    EXPECT_EQ(slapd().connectionCount(), 2);
}

TEST_F(ThePool, KeepsIdentitiesApart)
{
    LDAPConnection reader = asReader();
    reader.cacheMarkAsAvailable();
    LDAPConnection anonymous = pool.getConnection(server);
    LDAPConnection user =
        pool.getConnection(server, "uid=user0000001,ou=people,dc=corp,dc=test", "pw-user0000001");

    EXPECT_FALSE(seesSecret(anonymous));
    EXPECT_TRUE(seesSecret(user));
    EXPECT_EQ(pool.cacheHits().value(), 0);
    EXPECT_THAT(pooled(), SizeIs(3));
}

TEST_F(ThePool, DropsAConnectionThatBrokeAndOpensANewOne)
{
    LDAPConnection broken = asReader();
    slapd().kill();
    thrownBy([&] { answerTo(broken, secret); });
    slapd().restart();
    broken.cacheMarkAsAvailable();

    LDAPConnection next = asReader();

    EXPECT_NE(next.impl(), broken.impl());
    EXPECT_TRUE(seesSecret(next));
    EXPECT_THAT(pooled(), SizeIs(1));
    EXPECT_EQ(pool.cacheSize().value(), 2); // what was invalid still counts
}

TEST_F(ThePool, SweepsOutWhatExpired)
{
    LDAPConnection old = asReader();
    old.cacheMarkAsAvailable();
    old.impl()->m_expiry = std::time(nullptr) - 1;

    LDAPConnection next = asReader();

    EXPECT_NE(next.impl(), old.impl());
    EXPECT_EQ(pool.cacheHits().value(), 0);
    EXPECT_EQ(pool.cacheSize().value(), 1);
}

TEST_F(ThePool, TellsTheServerWhenItLetsGo)
{
    asReader();
    asReader();
    ASSERT_EQ(slapd().connectionCount(), 2);

    pool.clear();

    EXPECT_TRUE(eventually([] { return slapd().connectionCount() == 0; }));
}

TEST_F(ThePool, GivesANullConnectionWhenTheBindIsRefused)
{
    LDAPConnection const refused =
        pool.getConnection(server, "cn=busy,ou=codes,dc=corp,dc=test", "x");

    EXPECT_TRUE(refused.isNull());
    EXPECT_THAT(pooled(), IsEmpty());
    EXPECT_EQ(pool.cacheSize().value(), 0);
}

TEST_F(ThePool, ThrowsWhenTheCredentialsAreWrong)
{
    auto const thrown = thrownBy([&] { pool.getConnection(server, readerDn, "wrong"); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 602, 4, 0));
    EXPECT_EQ(causeType(thrown), 3);
    EXPECT_EQ(thrown.cause().lineNumber(), 297U);
    EXPECT_THAT(pooled(), IsEmpty());
}

TEST_F(ThePool, ThrowsWhenTheServerIsDown)
{
    slapd().kill();

    auto const thrown = thrownBy([&] { asReader(); });
    slapd().restart();

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 602, 4, 0));
    EXPECT_EQ(causeType(thrown), 1);
    EXPECT_THAT(pooled(), IsEmpty());
}

// Many threads on one pool while the directory crashes and comes back: every answer is right and
// given to the right identity, and no connection is in two hands.

namespace {

constexpr unsigned int userCount = 64;

std::string userName(unsigned int number)
{
    char text[16];
    std::snprintf(text, sizeof text, "user%07u", number);
    return text;
}

std::string dnOf(unsigned int number) { return "uid=" + userName(number) + "," + people; }

/// Which connections are lent out.
class Hands {
public:
    /// Returns false if it is taken.
    bool take(LDAPConnectionImpl const* connection)
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        return ++m_holders[connection] == 1;
    }
    void giveBack(LDAPConnectionImpl const* connection)
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        --m_holders[connection];
    }

private:
    std::mutex m_mutex;
    std::map<LDAPConnectionImpl const*, int> m_holders; // guarded by m_mutex
};

/// What the threads have seen so far.
struct Tally {
    std::atomic<unsigned int> right{0};
    std::atomic<unsigned int> wrong{0};
    std::atomic<unsigned int> shared{0};
    std::atomic<unsigned int> failed{0};
};

} // namespace

class ThePoolUnderLoad : public SuiteWithSlapd<ThePoolUnderLoad> {
public:
    static std::vector<std::string> options() { return {"--users", "64"}; }

protected:
    /// One lookup, bound as a user who may read the private part, or anonymous, who may not.
    void lookUp(unsigned int number, bool anonymously)
    {
        LDAPConnection connection =
            anonymously ? pool.getConnection(server)
                        : pool.getConnection(server, dnOf(number), "pw-" + userName(number));
        if (connection.isNull()) {
            ++tally.wrong;
            return;
        }
        tally.shared += hands.take(connection.impl()) ? 0U : 1U;
        try {
            check(connection, number, anonymously);
        } catch (Exception const&) {
            ++tally.failed;
        }
        hands.giveBack(connection.impl());
        connection.cacheMarkAsAvailable();
    }

    void check(LDAPConnection& connection, unsigned int number, bool anonymously)
    {
        auto const secrets =
            namesIn(answerTo(connection, searchFor("ou=private,dc=corp,dc=test", "(cn=secret)")));
        auto const found =
            namesIn(answerTo(connection, searchFor(people, "(uid=" + userName(number) + ")")));
        bool const isRight = secrets.size() == (anonymously ? 0U : 1U) && found.size() == 1 &&
                             found.front() == dnOf(number);
        ++(isRight ? tally.right : tally.wrong);
    }

    void work(unsigned int number)
    {
        for (unsigned int round = 0; !isDone; ++round) {
            try {
                lookUp(number, round % 4 == 3);
            } catch (Exception const&) { // no connection: the directory is away
                ++tally.failed;
                std::this_thread::yield();
            }
        }
    }

    bool flowsAgain()
    {
        unsigned int const before = tally.right;
        return eventually([&] { return tally.right > before + 2 * userCount; });
    }

    LDAPConnection::RefServer server;
    LDAPConnectionCache pool;
    Hands hands;
    Tally tally;
    std::atomic<bool> isDone{false};
};

TEST_F(ThePoolUnderLoad, AnswersRightThroughTwoCrashesOfTheDirectory)
{
    server = plainServer(slapd().port(), 5);
    std::vector<std::thread> threads;
    for (unsigned int number = 1; number <= userCount; ++number) {
        threads.emplace_back([this, number] { work(number); });
    }
    threads.emplace_back([this] {
        while (!isDone) {
            std::list<LDAPConnection::RefServer> servers;
            pool.connections(servers);
            pool.clear();
            std::this_thread::sleep_for(std::chrono::milliseconds(20)); // a pace, not a wait
        }
    });

    bool flowed = flowsAgain();
    for (int crash = 0; crash < 2; ++crash) {
        slapd().kill();
        slapd().restart();
        flowed = flowed && flowsAgain();
    }
    isDone = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    pool.clear();

    EXPECT_TRUE(flowed);
    EXPECT_EQ(tally.wrong, 0U);
    EXPECT_EQ(tally.shared, 0U);
    EXPECT_GT(tally.failed, 0U);
    EXPECT_TRUE(eventually([] { return slapd().connectionCount() == 0; }));
}

} // namespace SolvaneTest
