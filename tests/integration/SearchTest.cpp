// Searches in a real directory: what is found, what of it arrives, aliases, referrals, and the
// query driver.
#include "Directory.h"
#include "Faults.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <fstream>
#include <iterator>

using namespace Solvane;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

namespace SolvaneTest {

class Lookup : public SuiteWithSlapd<Lookup> {
public:
    static std::vector<std::string> options() { return {"--users", "600"}; }

protected:
    void SetUp() override
    {
        SuiteWithSlapd<Lookup>::SetUp();
        if (hasSlapd()) {
            connection = boundTo(plainServer(slapd().port()));
        }
    }

    LDAPConnection connection;
};

TEST_F(Lookup, FindsAPersonByMailAddress)
{
    auto const parameter = searchFor(people, "(mail=user0000007@corp.test)");

    LDAPResult const result = answerTo(connection, parameter);

    EXPECT_EQ(result.resultType(), 4);
    EXPECT_EQ(result.resultCode(), 0);
    EXPECT_THAT(namesIn(result), ElementsAre("uid=user0000007,ou=people,dc=corp,dc=test"));
    EXPECT_THAT(valuesIn(result, "cn"), ElementsAre("Anna Holm 7"));
    EXPECT_THAT(valuesIn(result, "employeeNumber"), ElementsAre("7"));
}

TEST_F(Lookup, ReturnsEveryValueOfAnAttribute)
{
    auto const parameter = lookupOf("uid=user0000010,ou=people,dc=corp,dc=test");

    LDAPResult const result = answerTo(connection, parameter);

    EXPECT_THAT(valuesIn(result, "mail"),
                UnorderedElementsAre("user0000010@corp.test", "ukasz.10@alias.corp.test"));
}

TEST_F(Lookup, ReturnsEveryMemberOfABigGroup)
{
    auto const parameter = lookupOf("cn=many,ou=big,dc=corp,dc=test");

    LDAPResult const result = answerTo(connection, parameter);

    EXPECT_THAT(valuesIn(result, "member"), SizeIs(2000));
}

TEST_F(Lookup, KeepsUtf8Values)
{
    auto const parameter = lookupOf("uid=user0000010,ou=people,dc=corp,dc=test");

    LDAPResult const result = answerTo(connection, parameter);

    EXPECT_THAT(valuesIn(result, "cn"), ElementsAre("Łukasz Kern 10"));
}

TEST_F(Lookup, TakesUtf8InFilterAndBase)
{
    auto const parameter =
        searchFor("cn=Jürgen Größe,ou=escapes,dc=corp,dc=test", "(cn=Jürgen Größe)");

    LDAPResult const result = answerTo(connection, parameter);

    EXPECT_THAT(valuesIn(result, "uid"), ElementsAre("escape5"));
}

TEST_F(Lookup, KeepsBinaryValuesByteForByte)
{
    std::string allBytes;
    for (int byte = 0; byte < 256; ++byte) {
        allBytes += static_cast<char>(byte);
    }

    LDAPResult const result = answerTo(connection, lookupOf("uid=allbytes,ou=big,dc=corp,dc=test"));

    EXPECT_THAT(valuesIn(result, "jpegPhoto"), ElementsAre(allBytes));
}

TEST_F(Lookup, KeepsACertificateUnderItsBinaryOption)
{
    std::ifstream file(slapd().certificateFile(), std::ios::binary);
    std::string const certificate{std::istreambuf_iterator<char>(file),
                                  std::istreambuf_iterator<char>()};

    LDAPResult const result =
        answerTo(connection, lookupOf("uid=user0000100,ou=people,dc=corp,dc=test"));

    ASSERT_THAT(certificate, testing::Not(IsEmpty()));
    EXPECT_THAT(valuesIn(result, "userCertificate;binary"), ElementsAre(certificate));
    EXPECT_TRUE(LDAPAttributeType("userCertificate;binary").isBinary());
}

TEST_F(Lookup, KeepsLanguageOptionsApart)
{
    auto const parameter = lookupOf("uid=user0000050,ou=people,dc=corp,dc=test");

    LDAPResult const result = answerTo(connection, parameter);

    EXPECT_THAT(valuesIn(result, "cn;lang-fr"), ElementsAre("Monsieur 50"));
    EXPECT_THAT(valuesIn(result, "cn"), ElementsAre("Дмитрий Graf 50"));
}

TEST_F(Lookup, TakesAPhotoOfOneMegabyte)
{
    auto const parameter = lookupOf("uid=bigphoto,ou=big,dc=corp,dc=test");

    LDAPResult const result = answerTo(connection, parameter);

    EXPECT_THAT(valuesIn(result, "jpegPhoto"), ElementsAre(SizeIs(1048576)));
}

TEST_F(Lookup, ReturnsTheAttributesAskedForOnly)
{
    auto parameter = lookupOf("uid=user0000001,ou=people,dc=corp,dc=test");
    parameter.attributes = {LDAPAttributeType("mail"), LDAPAttributeType("sn")};

    LDAPResult const result = answerTo(connection, parameter);

    EXPECT_THAT(descriptionsIn(result), UnorderedElementsAre("mail", "sn"));
}

TEST_F(Lookup, ReturnsTypesWithoutValuesWhenAsked)
{
    auto parameter = lookupOf("uid=user0000001,ou=people,dc=corp,dc=test");
    parameter.attrsOnly = true;

    LDAPResult const result = answerTo(connection, parameter);

    EXPECT_THAT(descriptionsIn(result), Contains("mail"));
    EXPECT_THAT(valuesIn(result, "mail"), IsEmpty());
}

TEST_F(Lookup, OfABaseObjectFindsNothingElse)
{
    auto parameter = searchFor("ou=private,dc=corp,dc=test", "(objectClass=*)");
    parameter.scope = LDAPSearch::ScopeBase;

    LDAPResult const result = answerTo(connection, parameter);

    EXPECT_THAT(namesIn(result), ElementsAre("ou=private,dc=corp,dc=test"));
}

TEST_F(Lookup, OfOneLevelFindsTheChildren)
{
    auto parameter = searchFor("ou=private,dc=corp,dc=test", "(objectClass=*)");
    parameter.scope = LDAPSearch::ScopeOneLevel;

    LDAPResult const result = answerTo(connection, parameter);

    EXPECT_THAT(namesIn(result), ElementsAre("cn=secret,ou=private,dc=corp,dc=test"));
}

TEST_F(Lookup, OfASubtreeFindsTheBaseAndEverythingBelow)
{
    auto const parameter = searchFor("ou=private,dc=corp,dc=test", "(objectClass=*)");

    LDAPResult const result = answerTo(connection, parameter);

    EXPECT_THAT(namesIn(result), UnorderedElementsAre("ou=private,dc=corp,dc=test",
                                                      "cn=secret,ou=private,dc=corp,dc=test"));
}

TEST_F(Lookup, WithoutAFilterFindsEverything)
{
    auto const parameter = searchFor("ou=private,dc=corp,dc=test", "");

    LDAPResult const result = answerTo(connection, parameter);

    EXPECT_THAT(namesIn(result), SizeIs(2));
}

TEST_F(Lookup, ThatFindsNothingSucceeds)
{
    auto const parameter = searchFor(people, "(mail=nobody@corp.test)");

    LDAPResult const result = answerTo(connection, parameter);

    EXPECT_EQ(result.resultCode(), 0);
    EXPECT_THAT(namesIn(result), IsEmpty());
    EXPECT_EQ(result.errorMessage(), "");
}

TEST_F(Lookup, BelowABaseThatDoesNotExistNamesWhatDoes)
{
    auto const parameter = searchFor("ou=sales,ou=people,dc=corp,dc=test", "(uid=*)");

    LDAPResult const result = answerTo(connection, parameter);

    EXPECT_EQ(result.resultCode(), 32);
    EXPECT_EQ(result.matchedDN(), "ou=people,dc=corp,dc=test");
    EXPECT_EQ(result.errorMessage(), "No such object");
}

TEST_F(Lookup, BeyondTheServersSizeLimitKeepsTheEntriesUpToIt)
{
    auto const parameter = searchFor(people, "(uid=*)");

    LDAPResult const result = answerTo(connection, parameter);

    EXPECT_EQ(result.resultCode(), 4);
    EXPECT_THAT(namesIn(result), SizeIs(500));
}

TEST_F(Lookup, DoesNotSendTheSizeLimitOfTheRecord)
{
    auto parameter = searchFor(people, "(uid=user000001*)");
    parameter.sizeLimit = 1;

    LDAPResult const result = answerTo(connection, parameter);

    EXPECT_EQ(result.resultCode(), 0);
    EXPECT_THAT(namesIn(result), SizeIs(10));
}

TEST_F(Lookup, SeesWhatTheBindEntitlesTo)
{
    auto const parameter = searchFor("ou=private,dc=corp,dc=test", "(cn=secret)");
    LDAPConnection anonymous = anonymousTo(plainServer(slapd().port()));

    LDAPResult const asReader = answerTo(connection, parameter);
    LDAPResult const asNobody = answerTo(anonymous, parameter);

    EXPECT_THAT(namesIn(asReader), SizeIs(1));
    EXPECT_THAT(namesIn(asNobody), IsEmpty());
}

TEST_F(Lookup, WithADamagedFilterIsNotSent)
{
    LDAPSearch search(connection, searchFor(people, "(uid=user0000001"));

    EXPECT_THROW(search.send(), LDAPException);

    EXPECT_EQ(connection.openldapErrorCode(), -7);
}

// Entries that point elsewhere: aliases, referrals and continuation references.

namespace {

constexpr char personDn[] = "uid=user0000001,ou=people,dc=corp,dc=test";
constexpr char containerAlias[] = "cn=people,ou=aliases,dc=corp,dc=test";
constexpr char aliases[] = "ou=aliases,dc=corp,dc=test";

} // namespace

class Alias : public SuiteWithSlapd<Alias> {
public:
    static std::vector<std::string> options() { return {"--users", "20"}; }

protected:
    /// The DNs that a search for the first person finds below `base`, on a new connection.
    std::vector<std::string> found(char const* base, LDAPSearch::Deref mode)
    {
        LDAPConnection connection = boundTo(plainServer(slapd().port()));
        auto parameter = searchFor(base, "(mail=user0000001@corp.test)");
        parameter.deref = mode;
        return namesIn(answerTo(connection, parameter));
    }
};

TEST_F(Alias, IsAnEntryLikeAnyOtherWhenNeverFollowed)
{
    EXPECT_THAT(found(containerAlias, LDAPSearch::DerefNever), IsEmpty());
    EXPECT_THAT(found(aliases, LDAPSearch::DerefNever), IsEmpty());
}

TEST_F(Alias, IsFollowedBelowTheBaseWhileSearching)
{
    EXPECT_THAT(found(containerAlias, LDAPSearch::DerefSearching), IsEmpty());
    EXPECT_THAT(found(aliases, LDAPSearch::DerefSearching), ElementsAre(personDn));
}

TEST_F(Alias, IsFollowedAsTheBaseWhenFinding)
{
    EXPECT_THAT(found(containerAlias, LDAPSearch::DerefFinding), ElementsAre(personDn));
    EXPECT_THAT(found(aliases, LDAPSearch::DerefFinding), IsEmpty());
}

TEST_F(Alias, IsFollowedEverywhereWhenAlways)
{
    EXPECT_THAT(found(containerAlias, LDAPSearch::DerefAlways), ElementsAre(personDn));
    EXPECT_THAT(found(aliases, LDAPSearch::DerefAlways), ElementsAre(personDn));
}

TEST_F(Alias, ModeStaysSetOnTheSession)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    auto parameter = searchFor(containerAlias, "(uid=user0000001)");
    parameter.deref = LDAPSearch::DerefFinding;
    answerTo(connection, parameter);
    parameter.deref = LDAPSearch::DerefNever;

    LDAPResult const result = answerTo(connection, parameter);

    EXPECT_THAT(namesIn(result), ElementsAre(personDn));
}

TEST_F(Alias, WithoutATargetIsReportedAsSuch)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    auto parameter = searchFor("cn=dangling,ou=badaliases,dc=corp,dc=test", "");
    parameter.deref = LDAPSearch::DerefAlways;

    LDAPResult const result = answerTo(connection, parameter);

    EXPECT_EQ(result.resultCode(), 33);
}

TEST_F(Alias, LoopIsReportedAsNoTargetEither)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    auto parameter = searchFor("cn=loopA,ou=badaliases,dc=corp,dc=test", "");
    parameter.deref = LDAPSearch::DerefAlways;

    LDAPResult const result = answerTo(connection, parameter);

    EXPECT_EQ(result.resultCode(), 33);
}

class Referral : public SuiteWithSlapd<Referral> {
public:
    static std::vector<std::string> options()
    {
        return {"--users", "20", "--superior", "ldap://superior.corp.test:389"};
    }
};

TEST_F(Referral, AsFinalAnswerIsThrown)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    LDAPSearch search(connection, lookupOf("cn=elsewhere,ou=referrals,dc=corp,dc=test"));
    search.send();

    EXPECT_THAT(thrownBy([&] { search.wait(10); }),
                IsFault("Result.cpp", 624, 4, 5,
                        "Can't handle referrals. Got referral to "
                        "ldap://other.corp.test:389/ou=people,dc=corp,dc=test??base "));
}

TEST_F(Referral, AsFinalAnswerStaysInTheResult)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    LDAPSearch search(connection, lookupOf("dc=branch,dc=corp,dc=test"));
    search.send();

    thrownBy([&] { search.wait(10); });

    EXPECT_EQ(search.result().resultCode(), 10);
    EXPECT_EQ(search.result().matchedDN(), "dc=branch,dc=corp,dc=test");
    EXPECT_THAT(search.result().referrals(),
                ElementsAre("ldap://other.corp.test:389/dc=branch,dc=corp,dc=test??base",
                            "ldap://second.corp.test:389/dc=branch,dc=corp,dc=test??base"));
}

TEST_F(Referral, ToTheSuperiorServerIsThrownOutsideTheData)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    LDAPSearch search(connection, lookupOf("dc=elsewhere,dc=test"));
    search.send();

    EXPECT_THAT(thrownBy([&] { search.wait(10); }), IsFault("Result.cpp", 624, 4, 5));
    EXPECT_THAT(search.result().referrals(),
                ElementsAre("ldap://superior.corp.test:389/dc=elsewhere,dc=test??base"));
}

TEST_F(Referral, LeavesTheConnectionUsable)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    LDAPSearch search(connection, lookupOf("cn=elsewhere,ou=referrals,dc=corp,dc=test"));
    search.send();
    thrownBy([&] { search.wait(10); });

    LDAPResult const result = answerTo(connection, lookupOf(personDn));

    EXPECT_THAT(namesIn(result), ElementsAre(personDn));
    EXPECT_TRUE(connection.impl()->isValid());
}

TEST_F(Referral, ThatContinuesASearchIsDroppedAndTheEntriesArrive)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));

    LDAPResult const result =
        answerTo(connection, searchFor("dc=corp,dc=test", "(uid=user0000001)"));

    EXPECT_EQ(result.resultCode(), 0);
    EXPECT_THAT(namesIn(result), ElementsAre(personDn));
    EXPECT_THAT(result.searchReferrals(), IsEmpty());
    EXPECT_THAT(result.referrals(), IsEmpty());
}

// The query driver on a real directory and on one that is silent.

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
