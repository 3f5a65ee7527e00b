// Entries that point elsewhere: aliases, referrals and continuation references.
#include "Directory.h"
#include "Faults.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Solvane;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;

namespace SolvaneTest {

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

} // namespace SolvaneTest
