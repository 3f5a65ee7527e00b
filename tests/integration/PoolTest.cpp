// The pool on a real directory: what it lends, what it keeps, and what the server sees of it.
#include "Directory.h"
#include "Eventually.h"
#include "Faults.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

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

} // namespace SolvaneTest
