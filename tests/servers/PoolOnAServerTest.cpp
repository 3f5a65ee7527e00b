// The pool of the object interface: connections that it reuses, and that it drops.
#include "Directory.h"
#include "Faults.h"
#include "TestedServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Solvane;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace SolvaneTest {

class PoolOnAServer : public ServerTest {
protected:
    LDAPConnection asReader()
    {
        return pool.getConnection(description, server()["READER_DN"], server()["READER_PW"]);
    }
    static std::vector<std::string> found(LDAPConnection& connection)
    {
        return namesIn(answerTo(connection, lookupOf(server().personDn(1))));
    }
    std::list<LDAPConnection::RefServer> pooled() const
    {
        std::list<LDAPConnection::RefServer> servers;
        pool.connections(servers);
        return servers;
    }

    LDAPConnection::RefServer description = server().description();
    LDAPConnectionCache pool;
};

TEST_F(PoolOnAServer, LendsTheSameBoundConnectionAgain)
{
    LDAPConnection first = asReader();
    first.cacheMarkAsAvailable();

    LDAPConnection second = asReader();

    EXPECT_EQ(second.impl(), first.impl());
    EXPECT_EQ(pool.cacheHits().value(), 1);
    EXPECT_THAT(found(second), ElementsAre(server().personDn(1)));
}

TEST_F(PoolOnAServer, KeepsIdentitiesApart)
{
    LDAPConnection reader = asReader();
    reader.cacheMarkAsAvailable();

    LDAPConnection person = pool.getConnection(description, server().personDn(1), "pw-user0000001");

    EXPECT_NE(person.impl(), reader.impl());
    EXPECT_EQ(pool.cacheHits().value(), 0);
    EXPECT_THAT(pooled(), SizeIs(2));
}

TEST_F(PoolOnAServer, ThrowsWhenThePasswordIsWrong)
{
    auto const thrown =
        thrownBy([&] { pool.getConnection(description, server()["READER_DN"], "guess"); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 602, 4, 0));
    EXPECT_EQ(causeType(thrown), 3);
    EXPECT_THAT(pooled(), IsEmpty());
}

TEST_F(PoolOnAServer, GivesANullConnectionWhereTheBindNeedsTls)
{
    if (!server().needsTls()) {
        GTEST_SKIP() << "this server takes passwords without TLS";
    }

    LDAPConnection const refused = pool.getConnection(server().plainDescription(),
                                                      server()["READER_DN"], server()["READER_PW"]);

    EXPECT_TRUE(refused.isNull());
    EXPECT_THAT(pooled(), IsEmpty());
}

TEST_F(PoolOnAServer, DropsAConnectionThatBrokeAndOpensANewOne)
{
    LDAPConnection broken = asReader();
    server().kill();
    auto const thrown = thrownBy([&] { found(broken); });
    server().restart();
    broken.cacheMarkAsAvailable();

    LDAPConnection next = asReader();

    EXPECT_THAT(thrown,
                testing::AnyOf(IsFault("Search.cpp", 270, 4, 4), IsFault("Search.cpp", 332, 4, 4)));
    EXPECT_NE(next.impl(), broken.impl());
    EXPECT_THAT(found(next), ElementsAre(server().personDn(1)));
    EXPECT_THAT(pooled(), SizeIs(1));
}

TEST_F(PoolOnAServer, ThrowsWhenTheServerIsDown)
{
    server().kill();

    auto const thrown = thrownBy([&] { asReader(); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 602, 4, 0));
    EXPECT_EQ(causeType(thrown), 1);
    EXPECT_THAT(pooled(), IsEmpty());
}

} // namespace SolvaneTest
