// Lookups by the engine, single and in bulk, on a healthy server.
#include "Lookups.h"
#include "TestedServer.h"

#include <solvane/ldap/LDAPAttribute.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Solvane;
using Lookup::Identity;
using Lookup::Outcome;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace SolvaneTest {

class LookupOnAServer : public ServerTest {
protected:
    static LDAPLookup::Answer answerTo(std::string const& key, LDAPLookup::Settings const& settings)
    {
        return LDAPLookup(settings).find(key);
    }
    static bool confirms() { return server().number("WHO_AM_I") == 0; }
};

TEST_F(LookupOnAServer, FindsThePersonOfAnAddress)
{
    auto const answer = answerTo(addressOf(7), server().settings());

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    ASSERT_THAT(answer.entries, SizeIs(1));
    EXPECT_EQ(answer.entries.front().entryName(), server().personDn(7));
    EXPECT_EQ(answer.identity, confirms() ? Identity::Confirmed : Identity::Unconfirmed);
    EXPECT_EQ(answer.text, "");
}

TEST_F(LookupOnAServer, FindsThePersonOfASecondAddress)
{
    auto const answer = answerTo("ukasz.10@alias.corp.test", server().settings());

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    ASSERT_THAT(answer.entries, SizeIs(1));
    EXPECT_EQ(answer.entries.front().entryName(), server().personDn(10));
}

TEST_F(LookupOnAServer, IgnoresTheCaseOfAnAddress)
{
    auto const answer = answerTo("USER0000007@Corp.Test", server().settings());

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
}

TEST_F(LookupOnAServer, SaysNotFoundAndWhatItRestsOn)
{
    auto const answer = answerTo("nobody@corp.test", server().settings());

    EXPECT_EQ(answer.outcome, Outcome::NotFound);
    EXPECT_THAT(answer.entries, IsEmpty());
    if (confirms()) {
        EXPECT_EQ(answer.text, "");
    } else {
        EXPECT_THAT(answer.text, HasSubstr("did not confirm the identity"));
    }
}

TEST_F(LookupOnAServer, ReturnsOnlyTheAttributesThatWereAskedFor)
{
    auto some = server().settings();
    some.attributes = {"sn", "givenName"};

    auto const answer = answerTo(addressOf(1), some);

    ASSERT_THAT(answer.entries, SizeIs(1)) << answer.text;
    EXPECT_THAT(answer.entries.front().attributes().attributes(), SizeIs(2));
}

TEST_F(LookupOnAServer, EscapesWhatAnAttackerWrites)
{
    for (std::string const key : {"*", "*)(uid=*@corp.test", R"(user\2a@corp.test)",
                                  "user*@corp.test", "(@corp.test", ")@corp.test"}) {
        auto const answer = answerTo(key, server().settings());

        EXPECT_EQ(answer.outcome, Outcome::NotFound) << answer.filter << answer.text;
    }
    EXPECT_EQ(answerTo(std::string("user\0@corp.test", 15), server().settings()).outcome,
              Outcome::BadKey);
}

TEST_F(LookupOnAServer, FindsEachNameThatNeedsEscaping)
{
    auto names = server().settings();
    names.base = server()["ESCAPES"];
    names.queryTemplate = "(cn=$u)";
    LDAPLookup lookup(names);

    for (std::string const name :
         {"star * paren (x)", R"(back\slash)", R"(comma, plus+ quote" semi;)",
          "#hash <angle> equal=", "Jürgen Größe"}) {
        auto const answer = lookup.find(name);

        EXPECT_EQ(answer.outcome, Outcome::Found) << answer.filter << ' ' << answer.text;
        EXPECT_THAT(answer.entries, SizeIs(1)) << answer.filter;
    }
}

TEST_F(LookupOnAServer, TriesTheFormsUntilOneIsFound)
{
    using Form = LDAPLookup::Form;
    auto forms = server().settings();
    forms.queryTemplate = "(|(mail=$m)(uid=$u))";
    forms.forms = {Form::full, Form::noext, Form::bare, Form::domain};
    LDAPLookup lookup(forms);

    auto const noext = lookup.find("user0000003+lists@corp.test");
    auto const bare = lookup.find("user0000004+lists@elsewhere.test");
    auto const none = lookup.find("nobody+lists@elsewhere.test");

    EXPECT_EQ(noext.outcome, Outcome::Found) << noext.text;
    EXPECT_THAT(noext.filter, HasSubstr("(mail=user0000003@corp.test)"));
    EXPECT_EQ(bare.outcome, Outcome::Found) << bare.text;
    EXPECT_THAT(bare.filter, HasSubstr("(uid=user0000004)"));
    EXPECT_EQ(none.outcome, Outcome::NotFound) << none.text;
}

TEST_F(LookupOnAServer, IsRefusedWithAWrongPassword)
{
    auto wrong = server().settings();
    wrong.password = "guess";

    auto const answer = answerTo(addressOf(1), wrong);

    EXPECT_EQ(answer.outcome, Outcome::Refused);
    EXPECT_EQ(answer.code, 49);
    EXPECT_THAT(answer.text, Not(HasSubstr("guess")));
}

TEST_F(LookupOnAServer, WithoutTlsIsRefusedWhereTheBindNeedsIt)
{
    auto plain = server().settings();
    plain.servers.front().secure = false;
    plain.servers.front().port = static_cast<unsigned int>(server().number("LDAP_PORT"));

    auto const answer = answerTo(addressOf(1), plain);

    EXPECT_EQ(answer.outcome, server().needsTls() ? Outcome::Refused : Outcome::Found);
    EXPECT_EQ(answer.code, server().number("PLAIN_BIND"));
}

TEST_F(LookupOnAServer, IsNeverNotFoundWhereABindIsNeededAndLeftOut)
{
    auto anonymous = server().settings();
    anonymous.bindDn.clear();
    anonymous.password.clear();

    auto const answer = answerTo(addressOf(1), anonymous);

    EXPECT_EQ(answer.code, server().number("ANONYMOUS_SEARCH"));
    EXPECT_EQ(answer.outcome == Outcome::Found, answer.code == 0) << answer.text;
    EXPECT_NE(answer.outcome, Outcome::NotFound);
    EXPECT_EQ(answer.identity, Identity::Anonymous);
}

TEST_F(LookupOnAServer, IsMisconfiguredWhereTheBaseIsMissing)
{
    auto nowhere = server().settings();
    nowhere.base = "ou=nowhere," + server()["BASE_DN"];

    auto const answer = answerTo(addressOf(1), nowhere);

    EXPECT_EQ(answer.outcome, Outcome::Misconfigured);
    EXPECT_EQ(answer.code, 32);
}

TEST_F(LookupOnAServer, BeyondTheLimitIsTriedLaterWhetherTheServerKeepsItOrNot)
{
    auto broad = server().settings();
    broad.queryTemplate = "(mail=*@$d)";
    broad.entryLimit = 5;

    auto const answer = answerTo("any@corp.test", broad);

    EXPECT_EQ(answer.outcome, Outcome::TryLater);
    EXPECT_EQ(answer.code, 4);
    EXPECT_THAT(answer.entries.size(), testing::AnyOf(5, 6));
}

TEST_F(LookupOnAServer, FromTheTopFindsThePersonAndSaysWhatWasNotAsked)
{
    auto top = server().settings();
    top.base = server()["BASE_DN"];

    auto const found = answerTo(addressOf(1), top);
    auto const notFound = answerTo("nobody@corp.test", top);

    EXPECT_EQ(found.outcome, Outcome::Found) << found.text;
    EXPECT_EQ(notFound.outcome, Outcome::TryLater);
    EXPECT_THAT(notFound.text, HasSubstr("returned references to other servers"));
}

TEST_F(LookupOnAServer, BelowAReferralEntryIsNotPlainlyNotFound)
{
    if (!server().has("REFERRAL_ENTRY")) {
        GTEST_SKIP() << "this server has no referral entries";
    }
    auto referred = server().settings();
    referred.base = server()["REFERRAL_ENTRY"];

    auto const answer = answerTo(addressOf(1), referred);

    EXPECT_EQ(answer.code, server().number("AT_REFERRAL_ENTRY"));
    if (answer.code == 0) {
        EXPECT_EQ(answer.outcome, Outcome::TryLater);
        EXPECT_THAT(answer.text, HasSubstr("references = ignore"));
    } else {
        EXPECT_EQ(answer.outcome, Outcome::Refused);
    }
}

TEST_F(LookupOnAServer, VerifiesTheServersCertificate)
{
    auto secure = server().settings();
    secure.servers.front().secure = true;
    secure.servers.front().port = static_cast<unsigned int>(server().number("LDAPS_PORT"));
    auto const full = answerTo(addressOf(1), secure);
    secure.tls.verify = Lookup::TlsVerify::chain;
    auto const chain = answerTo(addressOf(1), secure);
    secure.tls.caFile = TestedServer::second()["CA_FILE"];
    auto const other = answerTo(addressOf(1), secure);

    EXPECT_EQ(full.outcome, Outcome::Found) << full.text;
    EXPECT_EQ(chain.outcome, Outcome::Found) << chain.text;
    EXPECT_EQ(other.outcome, Outcome::Refused);
    EXPECT_EQ(other.code, -11);
}

TEST_F(LookupOnAServer, ReusesTheConnectionOfTheLastOne)
{
    LDAPLookup lookup(server().settings());

    for (int user = 1; user <= 10; ++user) {
        EXPECT_EQ(lookup.find(addressOf(user)).outcome, Outcome::Found);
    }

    EXPECT_EQ(lookup.statistics().opened, 1U);
    EXPECT_EQ(lookup.statistics().reused, 9U);
}

TEST_F(LookupOnAServer, OfManyKeysGivesEachItsOwnEntryInOrder)
{
    auto wide = server().settings();
    wide.connections = 3;
    wide.window = 16;
    LDAPLookup lookup(wide);
    std::vector<std::string> keys;
    for (int i = 0; i < 1000; ++i) {
        keys.push_back(i % 10 == 9 ? "nobody" + std::to_string(i) + "@corp.test"
                                   : addressOf(i % server().number("USERS") + 1));
    }

    auto const answers = answersTo(lookup, keys);

    ASSERT_THAT(answers, SizeIs(1000));
    for (std::size_t i = 0; i < answers.size(); ++i) {
        ASSERT_EQ(answers[i].key, keys[i]);
        if (i % 10 == 9) {
            ASSERT_EQ(answers[i].answer.outcome, Outcome::NotFound) << answers[i].answer.text;
        } else {
            ASSERT_EQ(answers[i].answer.outcome, Outcome::Found) << answers[i].answer.text;
            ASSERT_EQ(answers[i].answer.entries.front().entryName(),
                      server().personDn(static_cast<int>(i) % server().number("USERS") + 1));
        }
    }
    EXPECT_EQ(lookup.statistics().opened, 3U);
}

} // namespace SolvaneTest
