// The query driver: every transition, every step out of turn, the deadline, and what derived classes
// may do.
#include "Allocations.h"
#include "CallTest.h"

#include <climits>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>

namespace SolvaneTest {
namespace {

using Solvane::_LDAPQuery;
using Solvane::LDAPConnection;
using Solvane::LDAPException;
using Solvane::LDAPRequestImpl;
using Solvane::LDAPResult;
using Solvane::LDAPSearch;
using Solvane::RefLDAPQuery;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// A query whose search the test prepares, with everything open to the test.
class Query : public _LDAPQuery {
public:
    using _LDAPQuery::_LDAPQuery;

    void searchParameter() override
    {
        if (prepare) {
            prepare();
        }
    }

    std::function<void()> prepare;

    using _LDAPQuery::m_bindDn;
    using _LDAPQuery::m_bindPassword;
    using _LDAPQuery::m_connection;
    using _LDAPQuery::m_deadline;
    using _LDAPQuery::m_errorMessage;
    using _LDAPQuery::m_parameter;
    using _LDAPQuery::m_search;
    using _LDAPQuery::m_startTime;
    using _LDAPQuery::m_state;
    using _LDAPQuery::m_timeout;
};

/// A request that answers a wait as the test says, and tells how long it was to wait.
class ScriptedRequest : public LDAPRequestImpl {
public:
    void send() override {}
    bool wait(unsigned int timeout) override
    {
        waited.push_back(timeout);
        return !isAnswered;
    }
    LDAPResult const& result() const override { return answer; }
    void cancel() override {}

    bool isAnswered = true;
    LDAPResult answer;
    std::vector<unsigned int> waited;
};

/// A search handle onto a request of the test's own.
class ScriptedSearch : public LDAPSearch {
public:
    explicit ScriptedSearch(std::unique_ptr<LDAPRequestImpl> request)
    {
        m_impl.adopt(std::move(request));
    }
};

/// Queries on one connection. The clock shows 1000; OpenLDAP takes each bind and search.
class QueryTest : public ConnectedTest {
protected:
    QueryTest()
    {
        openldap.time = [this](time_t*) { return now; };
        openldap.ldap_sasl_bind = [](auto, auto, auto, auto, auto, auto, int* messageId) {
            *messageId = 2;
            return LDAP_SUCCESS;
        };
        openldap.ldap_search_ext = [](auto, auto, auto, auto, auto, auto, auto, auto, auto, auto,
                                      int* messageId) {
            *messageId = 3;
            return LDAP_SUCCESS;
        };
        willReceive({});
    }

    /// A query that binds first where told so, with a search to send.
    std::unique_ptr<Query> newQuery(bool bindFirst = false)
    {
        auto query = std::make_unique<Query>(connection, 1000, 10, bindFirst);
        query->bindParameters("cn=a", "secret");
        Query* const made = query.get();
        query->prepare = [this, made] { made->m_search = search(); };
        return query;
    }
    LDAPSearch search()
    {
        LDAPSearch::Parameter parameter("dc=example");
        parameter.filter = "(cn=a)";
        return LDAPSearch(connection, parameter);
    }
    /// Puts a scripted request into a query that then waits for its result.
    static ScriptedRequest& searching(Query& query)
    {
        auto request = std::make_unique<ScriptedRequest>();
        ScriptedRequest& made = *request;
        query.m_search = ScriptedSearch(std::move(request));
        query.m_state = 4;
        return made;
    }
    LDAPMessage* bindResponse(int code) { return messages.response(LDAP_RES_BIND, code); }
    LDAPMessage* searchResult() { return messages.response(LDAP_RES_SEARCH_RESULT, LDAP_SUCCESS); }

    time_t now = 1000;
};

using AQuery = QueryTest;
using AStartedQuery = QueryTest;
using ABindingQuery = QueryTest;
using ASearchingQuery = QueryTest;
using TheDeadlineOfAQuery = QueryTest;
using ADerivedQuery = QueryTest;
using AnEndingQuery = QueryTest;
using ASharedQuery = QueryTest;

TEST(TheStatesOfAQuery, HaveTheirNumbers)
{
    EXPECT_EQ(_LDAPQuery::QueryBindNeeded, 0);
    EXPECT_EQ(_LDAPQuery::QueryBinding, 1);
    EXPECT_EQ(_LDAPQuery::QueryReady, 3);
    EXPECT_EQ(_LDAPQuery::QuerySearching, 4);
    EXPECT_EQ(_LDAPQuery::QueryDone, 5);
    EXPECT_EQ(_LDAPQuery::QueryFailed, 6);
    EXPECT_EQ(_LDAPQuery::QueryError, 7);
}

// Construction

TEST_F(AQuery, OnAConnectionIsReadyAndLeavesTheConnectionToItsGiver)
{
    Query const query(connection, 1000, 10, false);

    EXPECT_EQ(query.state(), 3);
    EXPECT_EQ(query.m_startTime, 1000);
    EXPECT_EQ(query.m_timeout, 12U);
    EXPECT_EQ(query.m_deadline, 1012);
    EXPECT_EQ(query.m_connection.impl(), connection.impl());
    EXPECT_FALSE(query.returnConnectionToCache());
}

TEST_F(AQuery, ThatBindsFirstNeedsABind)
{
    Query const query(connection, 1000, 10, true);

    EXPECT_EQ(query.state(), 0);
    EXPECT_FALSE(query.returnConnectionToCache());
}

TEST_F(AQuery, WithoutAConnectionIsReadyAndGivesTheConnectionBackThatItIsToTake)
{
    Query const query(1000, 10);

    EXPECT_EQ(query.state(), 3);
    EXPECT_EQ(query.m_startTime, 1000);
    EXPECT_EQ(query.m_timeout, 12U);
    EXPECT_EQ(query.m_deadline, 1012);
    EXPECT_TRUE(query.m_connection.isNull());
    EXPECT_TRUE(query.returnConnectionToCache());
}

TEST_F(AQuery, ByDefaultHasNoTimeAtAll)
{
    Query const query;

    EXPECT_EQ(query.state(), 3);
    EXPECT_EQ(query.m_startTime, 0);
    EXPECT_EQ(query.m_timeout, 0U);
    EXPECT_EQ(query.m_deadline, 0);
    EXPECT_TRUE(query.m_connection.isNull());
    EXPECT_TRUE(query.returnConnectionToCache());
}

TEST_F(AQuery, IsMadeWithoutACallAndWithoutASearch)
{
    Query const query(connection, 1000, 10, true);

    EXPECT_THAT(openldap.calls(), IsEmpty());
    EXPECT_TRUE(query.m_search.isNull());
    EXPECT_EQ(query.m_parameter.get(), nullptr);
    EXPECT_EQ(query.m_errorMessage, "");
    EXPECT_EQ(query.m_bindDn, "");
    EXPECT_EQ(query.m_bindPassword, "");
}

TEST_F(AQuery, AddsItsTwoSecondsInThirtyTwoBits)
{
    Query const longest(connection, 1000, UINT_MAX, false);
    Query const longestWithout(1000, UINT_MAX);
    Query const nearly(connection, 1000, UINT_MAX - 2, false);

    EXPECT_EQ(longest.m_timeout, 1U);
    EXPECT_EQ(longest.m_deadline, 1001);
    EXPECT_EQ(longestWithout.m_timeout, 1U);
    EXPECT_EQ(longestWithout.m_deadline, 1001);
    EXPECT_EQ(nearly.m_timeout, 4294967295U);
    EXPECT_EQ(nearly.m_deadline, 4294968295L);
}

TEST_F(AQuery, KeepsWhatItsOwnerSets)
{
    Query query(connection, 1000, 10, true);

    query.bindParameters("cn=b", "other");
    query.deadline(5);
    query.returnConnectionToCache(true);

    EXPECT_EQ(query.m_bindDn, "cn=b");
    EXPECT_EQ(query.m_bindPassword, "other");
    EXPECT_EQ(query.m_deadline, 5);
    EXPECT_TRUE(query.returnConnectionToCache());
}

TEST_F(AQuery, WithoutASearchHasNoResult)
{
    Query const query(connection, 1000, 10, false);

    auto const thrown = thrownBy([&] { query.result(); });

    EXPECT_THAT(thrown, IsFault("Search.cpp", 81, 1, 0));
}

TEST_F(AQuery, ShowsItsSearchsOwnResult)
{
    auto const query = newQuery();
    willReceive({searchResult()});
    query->start();

    EXPECT_EQ(&query->result(), &query->m_search.result());
    EXPECT_EQ(query->result().resultType(), 4);
}

// start()

TEST_F(AStartedQuery, SkipsTheBindAndSendsItsSearch)
{
    auto const query = newQuery(false);
    willReceive({searchResult()});

    query->start();

    EXPECT_EQ(query->state(), 5);
    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_search_ext session 'dc=example' 2 '(cn=a)' null 0 null null null "
                            "-1",
                            "time", "ldap_result session 3 0 12s 0us", "ldap_msgtype message",
                            "ldap_parse_result session message null 0", "ldap_msgfree message"));
}

TEST_F(AStartedQuery, BindsAndThenSendsItsSearch)
{
    auto const query = newQuery(true);
    willReceive({bindResponse(LDAP_SUCCESS), searchResult()});

    query->start();

    EXPECT_EQ(query->state(), 5);
    EXPECT_THAT(openldap.calls(),
                ElementsAre("ber_str2bv 'secret' 0 0 null",
                            "ldap_sasl_bind session 'cn=a' null 'secret' null null",
                            "ber_bvfree 'secret'", "ldap_result session 2 0 12s 0us",
                            "ldap_msgtype message", "ldap_parse_result session message null 0",
                            "ldap_msgfree message",
                            "ldap_search_ext session 'dc=example' 2 '(cn=a)' null 0 null null null "
                            "-1",
                            "time", "ldap_result session 3 0 12s 0us", "ldap_msgtype message",
                            "ldap_parse_result session message null 0", "ldap_msgfree message"));
}

TEST_F(AStartedQuery, BindsAsynchronously)
{
    auto const query = newQuery(true);

    query->start();

    EXPECT_EQ(body().m_bindMode, LDAPConnection::Asynchronous);
}

TEST_F(AStartedQuery, GoesOnToItsSearchWhenTheBindIsNotAnsweredInTime)
{
    auto const query = newQuery(true);
    int waits = 0;
    openldap.ldap_result = [&](LDAP*, int, int, timeval*, LDAPMessage** message) {
        if (++waits == 1) {
            return 0;
        }
        *message = searchResult();
        return ldap_msgtype(*message);
    };

    query->start();

    EXPECT_EQ(waits, 2);
    EXPECT_EQ(query->state(), 5);
}

TEST_F(AStartedQuery, FailsWithoutASearchWhenTheBindIsRefused)
{
    auto const query = newQuery(true);
    willReceive({bindResponse(LDAP_UNWILLING_TO_PERFORM), searchResult()});

    query->start();

    EXPECT_EQ(query->state(), 6);
    EXPECT_EQ(query->m_errorMessage, "");
    EXPECT_TRUE(query->m_search.isNull());
}

TEST_F(AStartedQuery, EndsInAnErrorWhenTheCredentialsAreInvalid)
{
    auto const query = newQuery(true);
    willReceive({bindResponse(LDAP_INVALID_CREDENTIALS), searchResult()});

    query->start();

    EXPECT_EQ(query->state(), 7);
    EXPECT_THAT(query->m_errorMessage, HasSubstr("LDAPException"));
    EXPECT_THAT(query->m_errorMessage, HasSubstr("297"));
    EXPECT_THAT(query->m_errorMessage,
                HasSubstr("Error: 'Invalid credentials' during bind to ldap://[127.0.0.1]:389/"));
    EXPECT_TRUE(query->m_search.isNull());
}

TEST_F(AStartedQuery, EndsInAnErrorWhenTheBindCannotBeSent)
{
    auto const query = newQuery(true);
    openldap.ldap_sasl_bind = [](auto...) { return LDAP_SERVER_DOWN; };

    query->start();

    EXPECT_EQ(query->state(), 7);
    EXPECT_THAT(query->m_errorMessage, HasSubstr("241"));
}

TEST_F(AStartedQuery, EndsInAnErrorWhenThereIsNoConnectionToBind)
{
    LDAPConnection none;
    Query query(none, 1000, 10, true);

    query.start();

    EXPECT_EQ(query.state(), 7);
    EXPECT_THAT(query.m_errorMessage, HasSubstr("201"));
}

TEST_F(AStartedQuery, EndsInAnErrorWhenItsSearchCannotBeSent)
{
    auto const query = newQuery();
    openldap.ldap_search_ext = [](auto...) { return LDAP_FILTER_ERROR; };

    query->start();

    EXPECT_EQ(query->state(), 7);
    EXPECT_THAT(query->m_errorMessage, HasSubstr("Bad search filter : (cn=a)"));
}

TEST_F(AStartedQuery, EndsInAnErrorWhenItsResultCannotBeAwaited)
{
    auto const query = newQuery();
    openldap.ldap_result = [](auto...) { return LDAP_SERVER_DOWN; };

    query->start();

    EXPECT_EQ(query->state(), 7);
    EXPECT_THAT(query->m_errorMessage, HasSubstr("332"));
    EXPECT_THAT(query->m_errorMessage, HasSubstr("Can't contact LDAP server"));
}

TEST_F(AStartedQuery, KeepsTheTextOfWhatItCaught)
{
    auto const query = newQuery();
    query->prepare = [] { throw Solvane::Exception("foreign", 9, "Elsewhere.cpp", 1); };

    query->start();

    EXPECT_EQ(query->state(), 7);
    EXPECT_EQ(query->m_errorMessage,
              Solvane::Exception("foreign", 9, "Elsewhere.cpp", 1).asString());
}

TEST_F(AStartedQuery, LetsOtherExceptionsPassAndKeepsItsState)
{
    auto const query = newQuery();
    query->prepare = [] { throw std::runtime_error("not ours"); };

    EXPECT_THROW(query->start(), std::runtime_error);

    EXPECT_EQ(query->state(), 3);
    EXPECT_EQ(query->m_errorMessage, "");
}

TEST_F(AStartedQuery, LetsAnExhaustedMemoryPassWhileItBinds)
{
    auto const query = newQuery(true);
    openldap.ldap_sasl_bind = [](auto...) -> int { throw std::bad_alloc(); };

    EXPECT_THROW(query->start(), std::bad_alloc);

    EXPECT_EQ(query->state(), 0);
}

TEST_F(AStartedQuery, IsDoneWithoutASearch)
{
    Query query(connection, 1000, 10, false);

    query.start();

    EXPECT_EQ(query.state(), 5);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AStartedQuery, IsDoneAfterItsBindWithoutASearch)
{
    Query query(connection, 1000, 10, true);
    willReceive({bindResponse(LDAP_SUCCESS)});

    query.start();

    EXPECT_EQ(query.state(), 5);
}

TEST_F(AStartedQuery, FailsWhenTheTimeOfItsSearchRunsOut)
{
    auto const query = newQuery();

    query->start();

    EXPECT_EQ(query->state(), 6);
}

TEST_F(AStartedQuery, FailsWhenTheDeadlineHasPassedAfterItsSearchWasSent)
{
    auto const query = newQuery();
    now = 1013;

    query->start();

    EXPECT_EQ(query->state(), 6);
    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_search_ext session 'dc=example' 2 '(cn=a)' null 0 null null null "
                            "-1",
                            "time"));
}

TEST_F(AStartedQuery, WaitsForItsBindTheWholeTimeoutWhateverTheClockSays)
{
    auto const query = newQuery(true);
    now = 1010;
    std::vector<long> waited;
    openldap.ldap_result = [&](LDAP*, int, int, timeval* timeout, LDAPMessage**) {
        waited.push_back(timeout->tv_sec);
        return 0;
    };

    query->start();

    EXPECT_THAT(waited, ElementsAre(12, 2));
}

class AQueryInAStateThatStartLeavesAlone : public QueryTest,
                                           public testing::WithParamInterface<int> {};

TEST_P(AQueryInAStateThatStartLeavesAlone, IsNotStarted)
{
    auto const query = newQuery();
    query->m_state = GetParam();

    query->start();

    EXPECT_EQ(query->state(), GetParam());
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Number, AQueryInAStateThatStartLeavesAlone,
                         testing::Values(1, 4, 5, 6, 7));

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

TEST_F(ABindingQuery, IsReadyOnceTheServerAccepts)
{
    auto const query = newQuery(true);
    willReceive({bindResponse(LDAP_SUCCESS)});

    query->bind();

    EXPECT_EQ(query->state(), 3);
}

TEST_F(ABindingQuery, IsReadyWhenTheTimeRunsOut)
{
    auto const query = newQuery(true);

    query->bind();

    EXPECT_EQ(query->state(), 3);
}

TEST_F(ABindingQuery, HasFailedOnceTheServerRefuses)
{
    auto const query = newQuery(true);
    willReceive({bindResponse(LDAP_INSUFFICIENT_ACCESS)});

    query->bind();

    EXPECT_EQ(query->state(), 6);
}

TEST_F(ABindingQuery, StaysInNeedOfABindWhenTheBindCannotBeSent)
{
    auto const query = newQuery(true);
    openldap.ldap_sasl_bind = [](auto...) { return LDAP_SERVER_DOWN; };

    auto const thrown = thrownBy([&] { query->bind(); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 241, 4, 1));
    EXPECT_EQ(query->state(), 0);
    EXPECT_EQ(query->m_errorMessage, "");
}

TEST_F(ABindingQuery, StaysBindingWhenTheAnswerCannotBeTaken)
{
    auto const query = newQuery(true);
    query->m_state = 1;
    willReceive({bindResponse(LDAP_INVALID_CREDENTIALS)});

    auto const thrown = thrownBy([&] { query->bindResponseHandler(); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 297, 4, 3));
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

    auto const thrown = thrownBy([&] { query->submitSearch(); });

    EXPECT_THAT(thrown, IsFault("Search.cpp", 270, 4, 4));
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

    auto const thrown = thrownBy([&] { query->searchResponseHandler(); });

    EXPECT_THAT(thrown, IsFault("Search.cpp", 332, 4, 4));
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

// Derived classes

TEST_F(ADerivedQuery, MayStopTheQueryWhileItPreparesTheSearch)
{
    auto const query = newQuery();
    query->prepare = [&] {
        query->m_search = search();
        query->m_state = 6;
    };

    query->start();

    EXPECT_EQ(query->state(), 6);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(ADerivedQuery, MaySayThatItIsSearchingAlready)
{
    auto const query = newQuery();
    query->prepare = [&] {
        query->m_search = search();
        query->m_search.send();
        query->m_state = 4;
    };
    willReceive({searchResult()});

    query->start();

    EXPECT_EQ(query->state(), 5);
    EXPECT_THAT(openldap.calls(), Contains("ldap_search_ext session 'dc=example' 2 '(cn=a)' null 0 "
                                           "null null null -1")
                                      .Times(1));
}

TEST_F(ADerivedQuery, MayMakeItsSearchOfItsParameters)
{
    Query query(connection, 1000, 10, false);
    query.prepare = [&] {
        query.m_parameter = LDAPSearch::RefParameter("dc=other");
        query.m_search = LDAPSearch(query.m_connection, query.m_parameter);
    };

    query.submitSearch();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_search_ext session 'dc=other' 2 null null 0 null null null -1"));
}

TEST_F(ADerivedQuery, ThatThrowsIsNotSent)
{
    auto const query = newQuery();
    query->prepare = [&] {
        query->m_search = search();
        throw LDAPException("LDAPException", 2, "Derived.cpp", 17, 0);
    };

    EXPECT_THAT(thrownBy([&] { query->submitSearch(); }), IsFault("Derived.cpp", 17, 2, 0));
    EXPECT_EQ(query->state(), 3);

    query->start();
    EXPECT_EQ(query->state(), 7);
    EXPECT_THAT(query->m_errorMessage, HasSubstr("Derived.cpp"));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

/// A query that notes each step that is taken.
class NotingQuery : public _LDAPQuery {
public:
    using _LDAPQuery::_LDAPQuery;
    ~NotingQuery() override { ++ended; }

    void start() override
    {
        steps.emplace_back("start");
        _LDAPQuery::start();
    }
    void bind() override
    {
        steps.emplace_back("bind");
        _LDAPQuery::bind();
    }
    void bindResponseHandler() override
    {
        steps.emplace_back("bindResponseHandler");
        _LDAPQuery::bindResponseHandler();
    }
    void submitSearch() override
    {
        steps.emplace_back("submitSearch");
        _LDAPQuery::submitSearch();
    }
    void searchParameter() override
    {
        steps.emplace_back("searchParameter");
        m_search = LDAPSearch(m_connection, LDAPSearch::Parameter());
    }
    void searchResponseHandler() override
    {
        steps.emplace_back("searchResponseHandler");
        _LDAPQuery::searchResponseHandler();
    }

    std::vector<std::string> steps;
    static int ended;
};

int NotingQuery::ended = 0;

TEST_F(ADerivedQuery, IsAskedForEveryStep)
{
    NotingQuery query(connection, 1000, 10, true);
    _LDAPQuery& base = query;

    base.start();

    EXPECT_THAT(query.steps, ElementsAre("start", "bind", "bindResponseHandler", "submitSearch",
                                         "searchParameter", "searchResponseHandler"));
}

TEST_F(ADerivedQuery, IsNotAskedToBindWhenItIsReady)
{
    NotingQuery query(connection, 1000, 10, false);

    query.start();

    EXPECT_THAT(query.steps,
                ElementsAre("start", "submitSearch", "searchParameter", "searchResponseHandler"));
}

TEST_F(ADerivedQuery, IsNotAskedForASearchAfterARefusedBind)
{
    NotingQuery query(connection, 1000, 10, true);
    willReceive({bindResponse(LDAP_UNWILLING_TO_PERFORM)});

    query.start();

    EXPECT_THAT(query.steps, ElementsAre("start", "bind", "bindResponseHandler"));
}

TEST_F(ADerivedQuery, IsNotAskedForAResultWithoutASearch)
{
    class Searchless : public NotingQuery {
    public:
        using NotingQuery::NotingQuery;
        void searchParameter() override { steps.emplace_back("searchParameter"); }
    };
    Searchless query(connection, 1000, 10, false);

    query.start();

    EXPECT_THAT(query.steps, ElementsAre("start", "submitSearch", "searchParameter"));
    EXPECT_EQ(query.state(), 5);
}

// The end

TEST_F(AnEndingQuery, GivesBackTheConnectionThatItTook)
{
    connection.cacheMarkAsUsed();
    auto query = std::make_unique<Query>(1000, 10);
    query->m_connection = connection;

    query.reset();

    EXPECT_TRUE(connection.cacheMarkAsUsed());
    EXPECT_FALSE(connection.cacheMarkAsUsed());
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnEndingQuery, MadeByDefaultGivesItsConnectionBackToo)
{
    connection.cacheMarkAsUsed();
    auto query = std::make_unique<Query>();
    query->m_connection = connection;

    query.reset();

    EXPECT_TRUE(connection.cacheMarkAsUsed());
}

TEST_F(AnEndingQuery, LeavesAConnectionThatItWasGivenInUse)
{
    connection.cacheMarkAsUsed();
    auto query = newQuery(true);

    query.reset();

    EXPECT_FALSE(connection.cacheMarkAsUsed());
}

TEST_F(AnEndingQuery, DoesWithItsConnectionAsItWasTold)
{
    connection.cacheMarkAsUsed();
    auto kept = std::make_unique<Query>(1000, 10);
    kept->m_connection = connection;
    kept->returnConnectionToCache(false);
    auto given = newQuery();
    given->returnConnectionToCache(true);

    kept.reset();
    EXPECT_FALSE(connection.cacheMarkAsUsed());

    given.reset();
    EXPECT_TRUE(connection.cacheMarkAsUsed());
}

TEST_F(AnEndingQuery, WithoutAConnectionGivesNothingBack)
{
    auto query = std::make_unique<Query>(1000, 10);

    EXPECT_NO_THROW(query.reset());

    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnEndingQuery, LeavesAnOutstandingSearchAndTheSessionAlone)
{
    auto query = newQuery();
    query->submitSearch();
    openldap.forgetCalls();

    query.reset();

    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(ASharedQuery, IsNoneByDefault)
{
    RefLDAPQuery const none;

    EXPECT_EQ(none.get(), nullptr);
}

TEST_F(ASharedQuery, EndsOnceWithItsLastUser)
{
    NotingQuery::ended = 0;
    RefLDAPQuery first(new NotingQuery(connection, 1000, 10, false));
    RefLDAPQuery second(first);
    RefLDAPQuery third;
    third = second;

    first = RefLDAPQuery();
    second.reset();
    EXPECT_EQ(NotingQuery::ended, 0);
    EXPECT_EQ(third.use_count(), 1);

    third = RefLDAPQuery();
    EXPECT_EQ(NotingQuery::ended, 1);
}

TEST_F(ASharedQuery, IsDrivenByEachOfItsUsers)
{
    auto* const query = new NotingQuery(connection, 1000, 10, false);
    RefLDAPQuery const first(query);
    RefLDAPQuery const second(first);

    second->start();

    EXPECT_EQ(first->state(), 6);
    EXPECT_EQ(first.get(), query);
}

TEST_F(ASharedQuery, EndsWhenItCannotBeCounted)
{
    NotingQuery::ended = 0;
    auto* const query = new NotingQuery(connection, 1000, 10, false);

    EXPECT_THROW(
        {
            FailingAllocation const failing(0);
            RefLDAPQuery const shared(query);
        },
        std::bad_alloc);

    EXPECT_EQ(NotingQuery::ended, 1);
}

} // namespace
} // namespace SolvaneTest
