// Queries that a test opens up: what the tests of the query driver share.
#ifndef SOLVANE_TESTS_UNIT_QUERY_TEST_H
#define SOLVANE_TESTS_UNIT_QUERY_TEST_H

#include "CallTest.h"

#include <functional>
#include <memory>
#include <vector>

namespace SolvaneTest {

using Solvane::_LDAPQuery;
using Solvane::LDAPRequestImpl;
using Solvane::LDAPResult;
using Solvane::LDAPSearch;

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

/// A request whose wait returns what the test sets, and that records the timeout.
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

    /// A query with a search to send; binds first if requested.
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

} // namespace SolvaneTest

#endif
