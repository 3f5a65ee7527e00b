// The query driver: what derived classes may do, and when shared ones end.
#include "Allocations.h"
#include "QueryTest.h"

#include <new>

namespace SolvaneTest {
namespace {

using Solvane::LDAPException;
using Solvane::RefLDAPQuery;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using ADerivedQuery = QueryTest;
using ASharedQuery = QueryTest;

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
