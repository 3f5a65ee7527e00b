// Answers of a real directory, one key at a time.
#include "Lookups.h"
#include "Slapd.h"

#include <solvane/ldap/LDAPAttribute.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

using namespace Solvane;
using Lookup::Identity;
using Lookup::Outcome;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace SolvaneTest {

class LookupOfAKey : public SuiteWithSlapd<LookupOfAKey> {
public:
    static std::vector<std::string> options() { return {"--users", "60", "--retcode"}; }

protected:
    LDAPLookup::Settings settings() const { return settingsFor({slapd().port()}); }
    LDAPLookup::Answer answerTo(std::string const& key) { return LDAPLookup(settings()).find(key); }
    std::string uri() const { return "ldap://127.0.0.1:" + std::to_string(slapd().port()); }
};

TEST_F(LookupOfAKey, FindsTheEntryAndSaysHow)
{
    auto const answer = answerTo("user0000007@corp.test");

    EXPECT_EQ(answer.outcome, Outcome::Found);
    ASSERT_THAT(answer.entries, SizeIs(1));
    EXPECT_EQ(answer.entries.front().entryName(), "uid=user0000007,ou=people,dc=corp,dc=test");
    EXPECT_EQ(answer.filter, "(mail=user0000007@corp.test)");
    EXPECT_EQ(answer.server, uri());
    EXPECT_EQ(answer.code, 0);
    EXPECT_EQ(answer.text, "");
    EXPECT_EQ(answer.identity, Identity::Confirmed);
    EXPECT_FALSE(answer.wasRepeated);
    EXPECT_GT(answer.milliseconds, 0);
}

TEST_F(LookupOfAKey, SaysNotFoundOnAConfirmedConnection)
{
    auto const answer = answerTo("nobody@corp.test");

    EXPECT_EQ(answer.outcome, Outcome::NotFound);
    EXPECT_EQ(answer.identity, Identity::Confirmed);
    EXPECT_EQ(answer.text, "");
    EXPECT_THAT(answer.entries, IsEmpty());
}

TEST_F(LookupOfAKey, IsAnonymousWithoutABindDn)
{
    auto anonymous = settings();
    anonymous.bindDn.clear();
    anonymous.password.clear();
    LDAPLookup lookup(anonymous);

    auto const answer = lookup.find("nobody@corp.test");

    EXPECT_EQ(answer.outcome, Outcome::NotFound);
    EXPECT_EQ(answer.identity, Identity::Anonymous);
}

TEST_F(LookupOfAKey, ReturnsOnlyTheAttributesThatWereAskedFor)
{
    auto some = settings();
    some.attributes = {"cn", "sn"};
    LDAPLookup lookup(some);

    auto const answer = lookup.find(addressOf(1));

    ASSERT_THAT(answer.entries, SizeIs(1));
    std::vector<std::string> names;
    for (LDAPAttribute const& attribute : answer.entries.front().attributes().attributes()) {
        names.push_back(attribute.type().asString());
    }
    EXPECT_THAT(names, testing::UnorderedElementsAre("cn", "sn"));
}

TEST_F(LookupOfAKey, EscapesWhatAnAttackerWrites)
{
    auto const answer = answerTo("*)(uid=*@corp.test");

    EXPECT_EQ(answer.outcome, Outcome::NotFound);
    EXPECT_EQ(answer.filter, "(mail=\\2A\\29\\28uid=\\2A@corp.test)");
}

TEST_F(LookupOfAKey, RefusesKeysThatAreNoText)
{
    LDAPLookup lookup(settings());

    for (std::string const& key : {std::string(), std::string("a\0b@corp.test", 13),
                                   std::string("a\nb@corp.test"), std::string("\xff@corp.test"),
                                   std::string("a\xc0\xaf@corp.test"), std::string("a\x7f@c")}) {
        auto const answer = lookup.find(key);
        EXPECT_EQ(answer.outcome, Outcome::BadKey) << answer.text;
        EXPECT_EQ(answer.server, "");
        EXPECT_NE(answer.text, "");
    }
    EXPECT_EQ(lookup.statistics().opened, 0U);
}

TEST_F(LookupOfAKey, IsMisconfiguredWithAFilterThatOpenLDAPRefusesAndKeepsTheConnection)
{
    auto fragile = settings();
    fragile.queryTemplate = "($u=*)"; // the key becomes an attribute's name
    LDAPLookup lookup(fragile);

    auto const bad = lookup.find("no name@corp.test");
    auto const good = lookup.find("employeeNumber@corp.test");

    EXPECT_EQ(bad.outcome, Outcome::Misconfigured);
    EXPECT_EQ(bad.code, -7);
    EXPECT_EQ(good.outcome, Outcome::Found);
    EXPECT_EQ(lookup.statistics().opened, 1U);
}

TEST_F(LookupOfAKey, IsSkippedWhereItsDomainIsNotServed)
{
    auto served = settings();
    served.domains = {"Corp.Test", "other.test"};
    LDAPLookup lookup(served);

    EXPECT_EQ(lookup.find("user0000001@elsewhere.test").outcome, Outcome::Skipped);
    EXPECT_EQ(lookup.find("user0000001").outcome, Outcome::Skipped);
    EXPECT_EQ(lookup.statistics().opened, 0U);
    EXPECT_EQ(lookup.find("user0000001@CORP.test").outcome, Outcome::Found);
}

TEST_F(LookupOfAKey, TriesTheFormsInTheirOrderUntilOneIsFound)
{
    using Form = LDAPLookup::Form;
    auto forms = settings();
    forms.queryTemplate = "(|(mail=$m)(uid=$u)(mail=root$m))";
    forms.forms = {Form::full, Form::noext, Form::bare, Form::domain};

    auto const withExtension = LDAPLookup(forms).find("user0000003+lists@corp.test");
    forms.queryTemplate = "(&(uid=$u)(!(mail=*$d)))";
    auto const bare = LDAPLookup(forms).find("user0000003+lists@corp.test");
    forms.queryTemplate = "(mail=user0000004$m)";
    auto const catchAll = LDAPLookup(forms).find("who@corp.test");

    EXPECT_EQ(withExtension.outcome, Outcome::Found);
    EXPECT_THAT(withExtension.filter, HasSubstr("(mail=user0000003@corp.test)"));
    EXPECT_EQ(bare.outcome, Outcome::Found);
    EXPECT_EQ(bare.filter, "(&(uid=user0000003)(!(mail=*#)))");
    EXPECT_EQ(catchAll.outcome, Outcome::Found);
    EXPECT_EQ(catchAll.filter, "(mail=user0000004@corp.test)");
}

TEST_F(LookupOfAKey, GivesAPartialAnswerAsTryLaterWithWhatCame)
{
    auto broad = settings();
    broad.queryTemplate = "(mail=*@$d)";
    broad.entryLimit = 5;
    LDAPLookup lookup(broad);

    auto const answer = lookup.find("any@corp.test");

    EXPECT_EQ(answer.outcome, Outcome::TryLater);
    EXPECT_EQ(answer.code, 4);
    EXPECT_THAT(answer.entries, SizeIs(5));
    EXPECT_THAT(answer.text, HasSubstr("Size limit exceeded (4)"));
}

TEST_F(LookupOfAKey, IsMisconfiguredWhereTheBaseIsMissing)
{
    auto nowhere = settings();
    nowhere.base = "ou=nowhere,dc=corp,dc=test";

    auto const answer = LDAPLookup(nowhere).find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Misconfigured);
    EXPECT_EQ(answer.code, 32);
    EXPECT_THAT(answer.text, HasSubstr("matched DN 'dc=corp,dc=test'"));
}

TEST_F(LookupOfAKey, DoesNotRepeatAWrongPasswordForEachKey)
{
    auto wrong = settings();
    wrong.password = "wrong";
    LDAPLookup lookup(wrong);

    auto const first = lookup.find(addressOf(1));
    auto const second = lookup.find(addressOf(2));

    EXPECT_EQ(first.outcome, Outcome::Refused);
    EXPECT_EQ(first.code, 49);
    EXPECT_EQ(second.outcome, Outcome::Refused);
    EXPECT_EQ(second.code, 49);
    EXPECT_THAT(second.text, testing::Not(HasSubstr("wrong")));
}

TEST_F(LookupOfAKey, MapsEachCodeOfTheServerToItsOutcome)
{
    struct Case {
        char const* name;
        int code;
        Outcome outcome;
    };
    // clang-format off
    Case const cases[] = {
        { "operationsError",    1,  Outcome::TryLater      },
        { "timeLimitExceeded",  3,  Outcome::TryLater      },
        { "sizeLimitExceeded",  4,  Outcome::TryLater      },
        { "referral",           10, Outcome::Refused       },
        { "noSuchObject",       32, Outcome::Misconfigured },
        { "invalidDNSyntax",    34, Outcome::Misconfigured },
        { "insufficientAccess", 50, Outcome::Refused       },
        { "busy",               51, Outcome::TryLater      },
        { "unavailable",        52, Outcome::TryLater      },
        { "unwillingToPerform", 53, Outcome::Refused       },
        { "other",              80, Outcome::TryLater      },
    };
    // clang-format on
    for (Case const& expected : cases) {
        auto coded = settings();
        coded.base = std::string("cn=") + expected.name + ",ou=codes,dc=corp,dc=test";
        coded.scope = LDAPSearch::ScopeBase;

        auto const answer = LDAPLookup(coded).find(addressOf(1));

        EXPECT_EQ(answer.outcome, expected.outcome) << expected.name;
        EXPECT_EQ(answer.code, expected.code) << expected.name;
        EXPECT_THAT(answer.text, StartsWith(uri() + ": ")) << expected.name;
        EXPECT_FALSE(answer.wasRepeated) << expected.name;
    }
}

TEST_F(LookupOfAKey, ReusesTheConnectionOfTheLastOne)
{
    LDAPLookup lookup(settings());

    lookup.find(addressOf(1));
    lookup.find(addressOf(2));
    lookup.find(addressOf(3));

    EXPECT_EQ(lookup.statistics().opened, 1U);
    EXPECT_EQ(lookup.statistics().reused, 2U);
    EXPECT_EQ(slapd().connectionCount(), 1);
}

TEST_F(LookupOfAKey, NeedsNoMoreConnectionsThanAreAllowedHoweverManyThreadsAsk)
{
    auto narrow = settings();
    narrow.connections = 3;
    LDAPLookup lookup(narrow);
    std::vector<Outcome> outcomes(400, Outcome::TryLater);

    std::vector<std::thread> threads;
    for (std::size_t thread = 0; thread < 16; ++thread) {
        threads.emplace_back([&, thread] {
            for (std::size_t i = thread; i < outcomes.size(); i += 16) {
                outcomes[i] = lookup.find(addressOf(static_cast<int>(i % 60) + 1)).outcome;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_THAT(outcomes, Each(Outcome::Found));
    EXPECT_LE(lookup.statistics().opened, 3U);
}

TEST_F(LookupOfAKey, GoesOverTlsToTheHostThatTheCertificateIsFor)
{
    auto secure = settingsFor({slapd().tlsPort()});
    secure.servers[0].secure = true;
    secure.tls.caFile = slapd().caFile().string();

    auto const right = LDAPLookup(secure).find(addressOf(1));

    EXPECT_EQ(right.outcome, Outcome::Found) << right.text;
}

} // namespace SolvaneTest
