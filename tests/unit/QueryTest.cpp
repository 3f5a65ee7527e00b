// The query driver: how it is made, how it starts and ends, what derived classes may do, and when
// shared ones end.
#include "QueryTest.h"
#include "Allocations.h"

#include <climits>
#include <new>
#include <stdexcept>

namespace SolvaneTest {
namespace {

using Solvane::LDAPConnection;
using Solvane::LDAPException;
using Solvane::RefLDAPQuery;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using AQuery = QueryTest;
using AStartedQuery = QueryTest;
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

TEST_F(AQuery, StartsAsItIsMade)
{
    struct {
        char const* shows;
        Query query;
        int state;
        long startTime;
        unsigned int timeout;
        long deadline;
        bool returnsConnection;
    } const cases[] = {
        {"on a connection it is ready and leaves the connection to its giver",
         Query(connection, 1000, 10, false), 3, 1000, 12, 1012, false},
        {"one that binds first needs a bind", Query(connection, 1000, 10, true), 0, 1000, 12, 1012,
         false},
        {"without a connection it gives the one back that it is to take", Query(1000, 10), 3, 1000,
         12, 1012, true},
        {"by default it has no time at all", Query(), 3, 0, 0, 0, true},
    };
    for (auto const& row : cases) {
        SCOPED_TRACE(row.shows);
        EXPECT_EQ(row.query.state(), row.state);
        EXPECT_EQ(row.query.m_startTime, row.startTime);
        EXPECT_EQ(row.query.m_timeout, row.timeout);
        EXPECT_EQ(row.query.m_deadline, row.deadline);
        EXPECT_EQ(row.query.returnConnectionToCache(), row.returnsConnection);
        EXPECT_EQ(row.query.m_connection.impl(),
                  row.returnsConnection ? nullptr : connection.impl());
    }
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

    EXPECT_THAT(thrownBy([&] { query.result(); }), IsFault("Search.cpp", 81, 1, 0));
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

TEST_F(AStartedQuery, EndsInAnErrorWithTheTextOfTheFault)
{
    struct {
        char const* shows;
        bool bindsFirst;
        std::function<void()> fail;
        std::vector<std::string> texts;
    } const cases[] = {
        {"the credentials are invalid",
         true,
         [&] {
             willReceive({bindResponse(LDAP_INVALID_CREDENTIALS), searchResult()});
         },
         {"LDAPException", "297",
          "Error: 'Invalid credentials' during bind to ldap://[127.0.0.1]:389/"}},
        {"the bind cannot be sent",
         true,
         [&] { openldap.ldap_sasl_bind = [](auto...) { return LDAP_SERVER_DOWN; }; },
         {"241"}},
        {"its search cannot be sent",
         false,
         [&] { openldap.ldap_search_ext = [](auto...) { return LDAP_FILTER_ERROR; }; },
         {"Bad search filter : (cn=a)"}},
        {"its result cannot be awaited",
         false,
         [&] { openldap.ldap_result = [](auto...) { return LDAP_SERVER_DOWN; }; },
         {"332", "Can't contact LDAP server"}},
    };
    auto const bind = openldap.ldap_sasl_bind;
    auto const search = openldap.ldap_search_ext;
    for (auto const& row : cases) {
        SCOPED_TRACE(row.shows);
        openldap.ldap_sasl_bind = bind;
        openldap.ldap_search_ext = search;
        auto const query = newQuery(row.bindsFirst);
        row.fail();

        query->start();

        EXPECT_EQ(query->state(), 7);
        EXPECT_EQ(query->m_search.isNull(), row.bindsFirst);
        for (std::string const& text : row.texts) {
            EXPECT_THAT(query->m_errorMessage, HasSubstr(text));
        }
    }
}

TEST_F(AStartedQuery, EndsInAnErrorWhenThereIsNoConnectionToBind)
{
    LDAPConnection none;
    Query query(none, 1000, 10, true);

    query.start();

    EXPECT_EQ(query.state(), 7);
    EXPECT_THAT(query.m_errorMessage, HasSubstr("201"));
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

TEST_F(AStartedQuery, IsDoneWithoutASearchAlsoAfterItsBind)
{
    Query query(connection, 1000, 10, false);
    query.start();
    EXPECT_EQ(query.state(), 5);
    EXPECT_THAT(openldap.calls(), IsEmpty());

    Query binding(connection, 1000, 10, true);
    willReceive({bindResponse(LDAP_SUCCESS)});
    binding.start();
    EXPECT_EQ(binding.state(), 5);
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

// The end

TEST_F(AnEndingQuery, ReturnsTheConnectionThatItTookUnlessItWasToldOtherwise)
{
    struct {
        char const* shows;
        std::unique_ptr<Query> query;
        bool isReturned;
    } cases[] = {
        {"it took one", std::make_unique<Query>(1000, 10), true},
        {"it was made by default", std::make_unique<Query>(), true},
        {"it was given one", newQuery(true), false},
        {"it took one and is to keep it", std::make_unique<Query>(1000, 10), false},
        {"it was given one and is to return it", newQuery(), true},
    };
    cases[3].query->returnConnectionToCache(false);
    cases[4].query->returnConnectionToCache(true);
    for (auto& row : cases) {
        SCOPED_TRACE(row.shows);
        row.query->m_connection = connection;
        connection.cacheMarkAsUsed();

        row.query.reset();

        EXPECT_EQ(connection.cacheMarkAsUsed(), row.isReturned);
        EXPECT_FALSE(connection.cacheMarkAsUsed());
        connection.cacheMarkAsAvailable();
    }
    EXPECT_THAT(openldap.calls(), IsEmpty());
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

// The query driver: what derived classes may do, and when shared ones end.

using ADerivedQuery = QueryTest;

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

// Shared between its users

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
