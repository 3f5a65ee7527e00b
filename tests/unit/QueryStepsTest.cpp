// The query driver: each step called by itself, out of turn, and at the deadline.
#include "QueryTest.h"

#include <climits>

namespace SolvaneTest {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using AQuery = QueryTest;
using ABindingQuery = QueryTest;
using ASearchingQuery = QueryTest;
using TheDeadlineOfAQuery = QueryTest;

// Steps out of turn

struct OutOfTurn {
    char const* step;
    void (_LDAPQuery::*call)();
    int state;
};

void PrintTo(OutOfTurn const& tested, std::ostream* out)
{
    *out << tested.step << " in state " << tested.state;
}

class AStepOutOfTurn : public QueryTest, public testing::WithParamInterface<OutOfTurn> {};

TEST_P(AStepOutOfTurn, DoesNothing)
{
    auto const query = newQuery();
    query->m_search = search();
    query->prepare = [] { FAIL() << "no search is to be prepared"; };
    query->m_state = GetParam().state;

    ((*query).*GetParam().call)();

    EXPECT_EQ(query->state(), GetParam().state);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

std::vector<OutOfTurn> outOfTurn(char const* step, void (_LDAPQuery::*call)(), int ownState)
{
    std::vector<OutOfTurn> all;
    for (int const state : {0, 1, 3, 4, 5, 6, 7}) {
        if (state != ownState) {
            all.push_back({step, call, state});
        }
    }
    return all;
}

INSTANTIATE_TEST_SUITE_P(Bind, AStepOutOfTurn,
                         testing::ValuesIn(outOfTurn("bind", &_LDAPQuery::bind, 0)));
INSTANTIATE_TEST_SUITE_P(BindResponse, AStepOutOfTurn,
                         testing::ValuesIn(outOfTurn("bindResponseHandler",
                                                     &_LDAPQuery::bindResponseHandler, 1)));
INSTANTIATE_TEST_SUITE_P(SubmitSearch, AStepOutOfTurn,
                         testing::ValuesIn(outOfTurn("submitSearch", &_LDAPQuery::submitSearch,
                                                     3)));

class AResultHandledOutOfTurn : public QueryTest, public testing::WithParamInterface<int> {};

TEST_P(AResultHandledOutOfTurn, LeavesTheStateUpToTheDeadline)
{
    auto const query = newQuery();
    query->m_search = search();
    query->m_state = GetParam();
    now = 1012;

    query->searchResponseHandler();

    EXPECT_EQ(query->state(), GetParam());
    EXPECT_THAT(openldap.calls(), ElementsAre("time"));
}

TEST_P(AResultHandledOutOfTurn, FailsTheQueryPastTheDeadline)
{
    auto const query = newQuery();
    query->m_search = search();
    query->m_state = GetParam();
    now = 1013;

    query->searchResponseHandler();

    EXPECT_EQ(query->state(), 6);
    EXPECT_THAT(openldap.calls(), ElementsAre("time"));
}

INSTANTIATE_TEST_SUITE_P(InState, AResultHandledOutOfTurn, testing::Values(0, 1, 3, 5, 6, 7));

// Single steps

TEST_F(ABindingQuery, IsReadyUnlessTheServerRefuses)
{
    struct {
        char const* shows;
        std::vector<LDAPMessage*> answers;
        int state;
    } const cases[] = {
        {"the server accepts", {bindResponse(LDAP_SUCCESS)}, 3},
        {"the time runs out", {}, 3},
        {"the server refuses", {bindResponse(LDAP_INSUFFICIENT_ACCESS)}, 6},
    };
    for (auto const& row : cases) {
        auto const query = newQuery(true);
        willReceive(row.answers);

        query->bind();

        EXPECT_EQ(query->state(), row.state) << row.shows;
    }
}

TEST_F(ABindingQuery, StaysInNeedOfABindWhenTheBindCannotBeSent)
{
    auto const query = newQuery(true);
    openldap.ldap_sasl_bind = [](auto...) { return LDAP_SERVER_DOWN; };

    EXPECT_THAT(thrownBy([&] { query->bind(); }), IsFault("Connection.cpp", 241, 4, 1));
    EXPECT_EQ(query->state(), 0);
    EXPECT_EQ(query->m_errorMessage, "");
}

TEST_F(ABindingQuery, StaysBindingWhenTheAnswerCannotBeTaken)
{
    auto const query = newQuery(true);
    query->m_state = 1;
    willReceive({bindResponse(LDAP_INVALID_CREDENTIALS)});

    EXPECT_THAT(thrownBy([&] { query->bindResponseHandler(); }),
                IsFault("Connection.cpp", 297, 4, 3));
    EXPECT_EQ(query->state(), 1);
    EXPECT_EQ(query->m_errorMessage, "");
}

TEST_F(ASearchingQuery, WasSentBySubmitting)
{
    auto const query = newQuery();

    query->submitSearch();

    EXPECT_EQ(query->state(), 4);
    EXPECT_EQ(query->m_search.id(), 3);
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_search_ext session 'dc=example' 2 '(cn=a)' "
                                              "null 0 null null null -1"));
}

TEST_F(ASearchingQuery, IsNotEvenReadyToSearchWhenItCannotBeSent)
{
    auto const query = newQuery();
    openldap.ldap_search_ext = [](auto...) { return LDAP_SERVER_DOWN; };

    EXPECT_THAT(thrownBy([&] { query->submitSearch(); }), IsFault("Search.cpp", 270, 4, 4));
    EXPECT_EQ(query->state(), 3);
    EXPECT_EQ(query->m_errorMessage, "");
}

TEST_F(ASearchingQuery, IsDoneWithItsResult)
{
    auto const query = newQuery();
    query->submitSearch();
    willReceive({messages.entry("cn=a"), searchResult()});

    query->searchResponseHandler();

    EXPECT_EQ(query->state(), 5);
    EXPECT_EQ(query->result().searchResultEntries().size(), 1U);
}

TEST_F(ASearchingQuery, HasFailedWhenTheTimeRunsOut)
{
    Query query(connection, 1000, 10, false);
    searching(query).isAnswered = false;

    query.searchResponseHandler();

    EXPECT_EQ(query.state(), 6);
}

TEST_F(ASearchingQuery, GoesOnSearchingWhileThereIsNoResult)
{
    Query query(connection, 1000, 10, false);
    ScriptedRequest& request = searching(query);

    query.searchResponseHandler();
    EXPECT_EQ(query.state(), 4);

    request.answer = LDAPResult(connection);
    query.searchResponseHandler();
    EXPECT_EQ(query.state(), 5);
    EXPECT_THAT(request.waited, ElementsAre(12, 12));
}

TEST_F(ASearchingQuery, PassesOnWhatItsWaitThrows)
{
    auto const query = newQuery();
    query->submitSearch();
    openldap.ldap_result = [](auto...) { return LDAP_SERVER_DOWN; };

    EXPECT_THAT(thrownBy([&] { query->searchResponseHandler(); }),
                IsFault("Search.cpp", 332, 4, 4));
    EXPECT_EQ(query->state(), 4);
    EXPECT_EQ(query->m_errorMessage, "");
}

// The deadline

struct DeadlineCase {
    char const* when;
    time_t now;
    long deadline;
    unsigned int waited;
};

void PrintTo(DeadlineCase const& tested, std::ostream* out) { *out << tested.when; }

class TheTimeLeftToAQuery : public QueryTest, public testing::WithParamInterface<DeadlineCase> {};

TEST_P(TheTimeLeftToAQuery, IsWhatItsSearchMayTake)
{
    now = GetParam().now;
    Query query(connection, 1000, 10, false);
    query.deadline(GetParam().deadline);
    ScriptedRequest const& request = searching(query);

    query.searchResponseHandler();

    EXPECT_THAT(request.waited, ElementsAre(GetParam().waited));
    EXPECT_EQ(query.state(), 4);
}

INSTANTIATE_TEST_SUITE_P(
    As, TheTimeLeftToAQuery,
    testing::Values(DeadlineCase{"BeforeTheDeadline", 1002, 1012, 10},
                    DeadlineCase{"OneSecondBeforeTheDeadline", 1011, 1012, 1},
                    DeadlineCase{"AtTheDeadline", 1012, 1012, 0},
                    DeadlineCase{"BeforeTheStart", 900, 1012, 112},
                    DeadlineCase{"AtAClockOfZero", 0, 1012, 1012},
                    DeadlineCase{"AsLongAsATimeoutCanBe", 1000, 4294968295L, 4294967295U},
                    DeadlineCase{"LongerThanATimeoutCanBe", 1000, 4294968296L, 4294967295U},
                    DeadlineCase{"UntilTheEndOfTime", 1000, LONG_MAX, 4294967295U}),
    [](auto const& tested) { return std::string(tested.param.when); });

TEST_F(TheDeadlineOfAQuery, PassesOneSecondLater)
{
    Query query(connection, 1000, 10, false);
    ScriptedRequest const& request = searching(query);
    now = 1013;

    query.searchResponseHandler();

    EXPECT_EQ(query.state(), 6);
    EXPECT_THAT(request.waited, IsEmpty());
}

TEST_F(TheDeadlineOfAQuery, TurnsAFinishedQueryIntoAFailedOne)
{
    auto const query = newQuery();
    willReceive({searchResult()});
    query->start();
    ASSERT_EQ(query->state(), 5);
    now = 1013;

    query->searchResponseHandler();

    EXPECT_EQ(query->state(), 6);
    EXPECT_EQ(query->result().resultType(), 4);
}

TEST_F(TheDeadlineOfAQuery, HasPassedAtOnceForAQueryMadeByDefault)
{
    Query query;

    query.searchResponseHandler();

    EXPECT_EQ(query.state(), 6);
}

TEST_F(TheDeadlineOfAQuery, CanBeSetForAQueryMadeByDefault)
{
    Query query;
    query.deadline(1005);
    ScriptedRequest const& request = searching(query);

    query.searchResponseHandler();

    EXPECT_EQ(query.state(), 4);
    EXPECT_THAT(request.waited, ElementsAre(5));
}

TEST_F(TheDeadlineOfAQuery, IsNotAskedForBeforeTheSearchIsSent)
{
    auto const query = newQuery();
    now = 5000;

    query->submitSearch();

    EXPECT_EQ(query->state(), 4);
}

} // namespace
} // namespace SolvaneTest
