// The end of a session, as the program and the server see it.
#include "Directory.h"
#include "Eventually.h"
#include "Faults.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Solvane;

namespace SolvaneTest {

namespace {
constexpr char person[] = "uid=user0000001,ou=people,dc=corp,dc=test";
} // namespace

class Unbind : public SuiteWithSlapd<Unbind> {
public:
    static std::vector<std::string> options() { return {"--users", "20"}; }

protected:
    void SetUp() override
    {
        SuiteWithSlapd<Unbind>::SetUp();
        if (hasSlapd()) {
            connection = boundTo(plainServer(slapd().port()));
        }
    }

    static bool serverHas(long connections)
    {
        return eventually([&] { return slapd().connectionCount() == connections; });
    }

    LDAPConnection connection;
};

TEST_F(Unbind, ClosesTheConnectionOnTheServer)
{
    bool const wasThere = serverHas(1);

    int const rc = connection.unbind();

    EXPECT_TRUE(wasThere);
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(serverHas(0));
}

TEST_F(Unbind, IsDoneByTheLastHandle)
{
    bool const wasThere = serverHas(1);

    connection = LDAPConnection();

    EXPECT_TRUE(wasThere);
    EXPECT_TRUE(serverHas(0));
}

TEST_F(Unbind, IsNotDoneByAnyOtherHandle)
{
    {
        LDAPConnection const copy(connection);
    }

    LDAPResult const result = answerTo(connection, lookupOf(person));

    EXPECT_EQ(result.resultCode(), 0);
    EXPECT_TRUE(serverHas(1));
}

TEST_F(Unbind, IsNotDoneWhileASearchHoldsTheConnection)
{
    LDAPSearch search(connection, lookupOf(person));
    connection = LDAPConnection();

    LDAPResult const result = answerTo(search);

    EXPECT_EQ(result.resultCode(), 0);
    EXPECT_TRUE(serverHas(1));
}

TEST_F(Unbind, LetsNoSearchBeAwaited)
{
    LDAPSearch search(connection, lookupOf(person));
    search.send();
    connection.unbind();

    EXPECT_THAT(thrownBy([&] { search.wait(1); }),
                IsFault("Search.cpp", 332, 4, 4, "Can't contact LDAP server"));
    EXPECT_EQ(connection.openldapErrorCode(), -1);
}

TEST_F(Unbind, LeavesAResultReadable)
{
    LDAPResult const result = answerTo(connection, lookupOf(person));

    connection.unbind();

    EXPECT_THAT(namesIn(result), testing::ElementsAre(person));
}

} // namespace SolvaneTest
