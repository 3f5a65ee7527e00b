// Searches that are sent and not yet answered.
#include "Directory.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Solvane;
using testing::ElementsAre;

namespace SolvaneTest {

namespace {
constexpr char first[] = "uid=user0000001,ou=people,dc=corp,dc=test";
constexpr char second[] = "uid=user0000002,ou=people,dc=corp,dc=test";
} // namespace

class OutstandingSearch : public SuiteWithSlapd<OutstandingSearch> {
public:
    static std::vector<std::string> options() { return {"--users", "20"}; }

protected:
    void SetUp() override
    {
        SuiteWithSlapd<OutstandingSearch>::SetUp();
        if (hasSlapd()) {
            connection = boundTo(plainServer(slapd().port()));
        }
    }

    LDAPConnection connection;
};

TEST_F(OutstandingSearch, GetsItsOwnAnswersInWhateverOrderTheyAreAwaited)
{
    LDAPSearch searchForFirst(connection, lookupOf(first));
    LDAPSearch searchForSecond(connection, lookupOf(second));
    searchForFirst.send();
    searchForSecond.send();

    searchForSecond.wait(10);
    searchForFirst.wait(10);

    EXPECT_NE(searchForFirst.id(), searchForSecond.id());
    EXPECT_THAT(namesIn(searchForFirst.result()), ElementsAre(first));
    EXPECT_THAT(namesIn(searchForSecond.result()), ElementsAre(second));
}

TEST_F(OutstandingSearch, MayBePolledAndAwaitedAgain)
{
    LDAPSearch search(connection, lookupOf(first));
    slapd().pause();
    search.send();

    bool const isUnanswered = search.wait(0);
    slapd().resume();
    bool const isStillUnanswered = search.wait(10);

    EXPECT_TRUE(isUnanswered);
    EXPECT_FALSE(isStillUnanswered);
    EXPECT_THAT(namesIn(search.result()), ElementsAre(first));
}

TEST_F(OutstandingSearch, GoesOnWhenItIsCancelled)
{
    LDAPSearch search(connection, lookupOf(first));
    search.send();
    int const id = search.id();

    search.cancel();
    search.wait(10);

    EXPECT_EQ(search.id(), id);
    EXPECT_THAT(namesIn(search.result()), ElementsAre(first));
}

TEST_F(OutstandingSearch, MayBeDestroyedUnanswered)
{
    LDAPSearch(connection, lookupOf(first)).send();

    LDAPResult const result = answerTo(connection, lookupOf(second));

    EXPECT_THAT(namesIn(result), ElementsAre(second));
}

TEST_F(OutstandingSearch, CollectsTheAnswersOfEachTimeItIsSent)
{
    LDAPSearch::RefParameter const parameter(lookupOf(first));
    LDAPSearch search(connection, parameter);
    answerTo(search);
    parameter->baseDN = second;

    LDAPResult const result = answerTo(search);

    EXPECT_THAT(namesIn(result), ElementsAre(first, second));
}

} // namespace SolvaneTest
