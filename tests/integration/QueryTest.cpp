// The query driver on a real directory and on one that is silent.
#include "Directory.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

using namespace Solvane;
using testing::ElementsAre;
using testing::HasSubstr;

namespace SolvaneTest {

namespace {

/// Searches for what bound sessions alone may see.
class SecretQuery : public _LDAPQuery {
public:
    using _LDAPQuery::_LDAPQuery;

    void searchParameter() override
    {
        m_parameter =
            LDAPSearch::RefParameter(searchFor("ou=private,dc=corp,dc=test", "(cn=secret)"));
        m_search = LDAPSearch(m_connection, m_parameter);
    }

    void take(LDAPConnection const& connection) { m_connection = connection; }
    std::string const& errorMessage() const { return m_errorMessage; }
};

constexpr char secretDn[] = "cn=secret,ou=private,dc=corp,dc=test";

} // namespace

class AQueryOfADirectory : public SuiteWithSlapd<AQueryOfADirectory> {
public:
    static std::vector<std::string> options() { return {"--users", "5", "--retcode"}; }

protected:
    void SetUp() override
    {
        SuiteWithSlapd<AQueryOfADirectory>::SetUp();
        if (hasSlapd()) {
            server = plainServer(slapd().port());
            connection = LDAPConnection(server, false);
        }
    }
    void TearDown() override
    {
        if (hasSlapd()) {
            slapd().resume();
        }
    }

    LDAPConnection::RefServer server;
    LDAPConnection connection;
};

TEST_F(AQueryOfADirectory, BindsSearchesAndIsDone)
{
    SecretQuery query(connection, std::time(nullptr), 10, true);
    query.bindParameters(readerDn, readerPassword);

    query.start();

    EXPECT_EQ(query.state(), _LDAPQuery::QueryDone);
    EXPECT_THAT(namesIn(query.result()), ElementsAre(secretDn));
}

TEST_F(AQueryOfADirectory, FailsWhenTheBindIsRefused)
{
    SecretQuery query(connection, std::time(nullptr), 10, true);
    query.bindParameters("cn=busy,ou=codes,dc=corp,dc=test", "x");

    query.start();

    EXPECT_EQ(query.state(), _LDAPQuery::QueryFailed);
}

TEST_F(AQueryOfADirectory, ReportsWrongCredentialsAsItsError)
{
    SecretQuery query(connection, std::time(nullptr), 10, true);
    query.bindParameters(readerDn, "wrong");

    query.start();

    EXPECT_EQ(query.state(), _LDAPQuery::QueryError);
    EXPECT_THAT(query.errorMessage(), HasSubstr("Invalid credentials"));
}

TEST_F(AQueryOfADirectory, FailsWhenTheServerIsSilentUntilTheDeadline)
{
    bindAsReader(connection);
    SecretQuery query(connection, std::time(nullptr), 10, false);
    query.deadline(std::time(nullptr) + 1);
    slapd().pause();

    query.start();

    EXPECT_EQ(query.state(), _LDAPQuery::QueryFailed);
}

TEST_F(AQueryOfADirectory, IsAwaitedAfterOthersWereSent)
{
    LDAPConnectionCache pool;
    SecretQuery first(std::time(nullptr), 10);
    SecretQuery second(std::time(nullptr), 10);
    for (SecretQuery* const query : {&first, &second}) {
        query->take(pool.getConnection(server, readerDn, readerPassword));
        query->submitSearch();
    }

    second.searchResponseHandler();
    first.searchResponseHandler();

    EXPECT_EQ(first.state(), _LDAPQuery::QueryDone);
    EXPECT_EQ(second.state(), _LDAPQuery::QueryDone);
    EXPECT_THAT(namesIn(first.result()), ElementsAre(secretDn));
    EXPECT_THAT(namesIn(second.result()), ElementsAre(secretDn));
}

TEST_F(AQueryOfADirectory, GivesItsConnectionBackToThePool)
{
    LDAPConnectionCache pool;
    {
        SecretQuery query(std::time(nullptr), 10);
        query.take(pool.getConnection(server, readerDn, readerPassword));
        query.start();
    }

    pool.getConnection(server, readerDn, readerPassword);

    EXPECT_EQ(pool.cacheHits().value(), 1);
}

} // namespace SolvaneTest
