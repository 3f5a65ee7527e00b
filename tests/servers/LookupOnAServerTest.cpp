// The engine on a server: lookups, single and in bulk, and failover while a server crashes, restarts
// or falls silent.
#include "Lookups.h"
#include "TemporaryDirectory.h"
#include "TestedServer.h"

#include <solvane/ldap.h>
#include <solvane/lookup/LDAPLookupQueue.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

using namespace Solvane;
using Lookup::Identity;
using Lookup::Outcome;
using std::chrono::milliseconds;
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

// Other ways than ldaps:// and, where the server takes passwords without TLS, ldap://.

class LookupOnAServerByWay : public ServerTestByWay {};

TEST_P(LookupOnAServerByWay, FindsThePersonOfAnAddressAndNobodyElse)
{
    LDAPLookup lookup(settings());

    auto const found = lookup.find(addressOf(7));
    auto const notFound = lookup.find("nobody@corp.test");

    EXPECT_EQ(found.outcome, Outcome::Found) << found.text;
    ASSERT_THAT(found.entries, SizeIs(1));
    EXPECT_EQ(found.entries.front().entryName(), server().personDn(7));
    EXPECT_EQ(notFound.outcome, Outcome::NotFound) << notFound.text;
    EXPECT_EQ(lookup.statistics().opened, 1U);
}

TEST_P(LookupOnAServerByWay, AnswersManyKeysOfALoop)
{
    constexpr int keys = 200;
    LDAPLookup lookup(settings());
    LDAPLookupQueue queue(lookup);
    auto const userOf = [](LDAPLookupQueue::Tag tag) {
        return static_cast<int>(tag) % server().number("USERS") + 1;
    };

    for (LDAPLookupQueue::Tag tag = 0; tag < keys; ++tag) {
        queue.submit(addressOf(userOf(tag)), tag);
    }
    int answered = 0;
    while (auto const result = queue.next(std::chrono::seconds(20))) {
        ++answered;
        ASSERT_EQ(result->answer.outcome, Outcome::Found) << result->answer.text;
        ASSERT_THAT(result->answer.entries, SizeIs(1));
        ASSERT_EQ(result->answer.entries.front().entryName(),
                  server().personDn(userOf(result->tag)));
    }

    EXPECT_EQ(answered, keys);
}

INSTANTIATE_TEST_SUITE_P(Ways, LookupOnAServerByWay,
                         testing::Values(Way{"StartTls", true, false}, Way{"Gssapi", false, true},
                                         Way{"GssapiOverStartTls", true, true}),
                         nameOf);

// Lookups by the engine while a server crashes, restarts or falls silent, and failover to another
// one.

class LostAndFoundServer : public ServerTest {
protected:
    /// Settings for both servers, in order, with the authorities of both.
    LDAPLookup::Settings settingsForBoth() const
    {
        std::string const authorities = m_folder.path() / "authorities.pem";
        TestedServer::writeAuthorities(authorities);
        auto settings = server().settings();
        settings.servers.push_back(TestedServer::second().entry());
        settings.tls.caFile = authorities;
        settings.backOff = settings.longestBackOff = milliseconds(1);
        return settings;
    }
    static std::string uriOf(TestedServer const& asked)
    {
        return asked[asked.needsTls() ? "LDAPS_URI" : "LDAP_URI"];
    }

private:
    TemporaryDirectory m_folder;
};

TEST_F(LostAndFoundServer, ThatStartedAgainIsAskedOnANewConnection)
{
    LDAPLookup lookup(server().settings());
    auto const before = lookup.find(addressOf(1));
    server().kill();
    server().restart();

    auto const after = lookup.find(addressOf(2));

    EXPECT_EQ(before.outcome, Outcome::Found) << before.text;
    EXPECT_EQ(after.outcome, Outcome::Found) << after.text;
    EXPECT_EQ(lookup.statistics().opened, 2U);
    EXPECT_EQ(lookup.statistics().stale + lookup.statistics().repeated, 1U);
}

TEST_F(LostAndFoundServer, ThatIsDownIsTriedLaterAndFoundOnceItIsBack)
{
    auto settings = server().settings();
    settings.backOff = settings.longestBackOff = milliseconds(1);
    LDAPLookup lookup(settings);
    lookup.find(addressOf(1));
    server().kill();

    auto const down = lookup.find(addressOf(1));
    server().restart();
    auto const back = lookup.find(addressOf(1));

    EXPECT_EQ(down.outcome, Outcome::TryLater);
    EXPECT_EQ(down.code, -1);
    EXPECT_EQ(back.outcome, Outcome::Found) << back.text;
}

TEST_F(LostAndFoundServer, ThatIsSilentEndsAKeyAtItsDeadline)
{
    auto settings = server().settings();
    settings.deadline = milliseconds(500);
    LDAPLookup lookup(settings);
    lookup.find(addressOf(1));
    server().pause();

    auto const silent = lookup.find(addressOf(1));
    auto const unopened = LDAPLookup(settings).find(addressOf(1));

    EXPECT_EQ(silent.outcome, Outcome::TryLater);
    EXPECT_EQ(silent.code, -5);
    EXPECT_LT(silent.milliseconds, 10000);
    EXPECT_EQ(unopened.outcome, Outcome::TryLater);
    EXPECT_EQ(unopened.code, -5);
}

TEST_F(LostAndFoundServer, LeavesItsKeysToTheOther)
{
    LDAPLookup lookup(settingsForBoth());
    auto const before = lookup.find(addressOf(1));
    server().kill();

    auto const meanwhile = lookup.find(addressOf(2));
    server().restart();
    std::string askedLast;
    for (int i = 0; i < 1000 && askedLast != before.server; ++i) {
        askedLast = lookup.find(addressOf(3)).server;
    }

    EXPECT_EQ(before.server, uriOf(server()));
    EXPECT_EQ(meanwhile.outcome, Outcome::Found) << meanwhile.text;
    EXPECT_EQ(meanwhile.server, uriOf(TestedServer::second()));
    EXPECT_EQ(askedLast, before.server);
}

TEST_F(LostAndFoundServer, ThatIsSilentLeavesItsKeysToTheOther)
{
    auto settings = settingsForBoth();
    settings.networkTimeout = 2;
    LDAPLookup lookup(settings);
    lookup.find(addressOf(1));
    server().pause();

    auto const answer = lookup.find(addressOf(2));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(answer.server, uriOf(TestedServer::second()));
}

TEST_F(LostAndFoundServer, ThatCrashesUnderManyKeysLosesNone)
{
    auto settings = settingsForBoth();
    settings.connections = 2;
    settings.window = 16;
    LDAPLookup lookup(settings);
    std::vector<std::string> keys;
    for (int i = 0; i < 1000; ++i) {
        keys.push_back(addressOf(i % server().number("USERS") + 1));
    }
    std::vector<Answered> answers;
    std::size_t fromTheSecond = 0;

    lookup.findAll(sourceOf(keys), [&](std::string const& key, LDAPLookup::Answer&& answer) {
        if (answers.size() == 50) {
            server().kill();
        }
        if (answer.server == uriOf(TestedServer::second())) {
            ++fromTheSecond;
        }
        answers.push_back({key, std::move(answer)});
        return true;
    });

    ASSERT_THAT(answers, SizeIs(1000));
    for (std::size_t i = 0; i < answers.size(); ++i) {
        ASSERT_EQ(answers[i].key, keys[i]);
        ASSERT_EQ(answers[i].answer.outcome, Outcome::Found) << answers[i].answer.text;
    }
    EXPECT_GT(fromTheSecond, 0U);
}

// Groups within groups, and values that a server returns in ranges.

class GroupsOnAServer : public ServerTest {
protected:
    static void SetUpTestSuite()
    {
        add("leaves", {server().personDn(1), server().personDn(2), server().personDn(3)});
        add("branches", {server().personDn(4), dnOf("leaves"), server().personDn(1)});
        add("tree", {dnOf("branches"), dnOf("leaves"), server().personDn(5)});
    }

    static std::string dnOf(std::string const& name)
    {
        return "cn=" + name + ',' + server()["NEW"];
    }

    static void add(std::string const& name, std::vector<std::string> const& members)
    {
        bool const isOfActiveDirectory = server()["PROGRAM"] == "samba";
        LDAPAttributeContainer group;
        for (auto const& [type, values] :
             {Attribute("objectClass", {isOfActiveDirectory ? "group" : "groupOfNames"}),
              Attribute("cn", {name}), Attribute("member", members)}) {
            LDAPAttribute attribute{LDAPAttributeType(type)};
            for (std::string const& value : values) {
                attribute.value(value);
            }
            group.add(attribute);
        }
        LDAPConnection connection = server().bound();
        std::string dn = dnOf(name);
        LDAPAdd request(connection, dn);
        request.attributes(group);
        request.send();
        EXPECT_FALSE(request.wait(10)) << name;
        EXPECT_EQ(request.result().resultCode(), 0) << name;
    }

    static LDAPLookup::Settings groupSettings()
    {
        auto settings = server().settings();
        settings.base = server()["NEW"];
        settings.queryTemplate = "(cn=$u)";
        settings.specialResultAttributes = {"member"};
        settings.leafResultAttributes = {"mail"};
        return settings;
    }
    static std::set<std::string> resultsOf(LDAPLookup::Answer const& answer)
    {
        return {answer.results.begin(), answer.results.end()};
    }
    static std::set<std::string> addresses(std::initializer_list<int> users)
    {
        std::set<std::string> all;
        for (int const user : users) {
            all.insert(addressOf(user));
        }
        return all;
    }
};

TEST_F(GroupsOnAServer, AreFoundWithTheMembersOfTheirGroups)
{
    LDAPLookup lookup(groupSettings());

    auto const answer = lookup.find("tree");

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(answer.text, "");
    EXPECT_EQ(resultsOf(answer), addresses({1, 2, 3, 4, 5}));
    EXPECT_THAT(answer.results, SizeIs(5));
    EXPECT_EQ(lookup.find("tree").results, answer.results);
}

TEST_F(GroupsOnAServer, AreCompleteIfTheirMembersComeInRanges)
{
    if (server()["PROGRAM"] != "samba") {
        GTEST_SKIP() << "this server returns no ranges";
    }
    auto plain = groupSettings();
    plain.specialResultAttributes.clear();
    plain.leafResultAttributes.clear();
    plain.attributes = {"member;range=0-0"};
    auto ranged = groupSettings();
    ranged.specialResultAttributes = {"member;range=0-1"};

    auto const entry = LDAPLookup(plain).find("leaves");
    auto const answer = LDAPLookup(ranged).find("tree");

    EXPECT_EQ(entry.outcome, Outcome::Found) << entry.text;
    EXPECT_THAT(entry.values("member"), SizeIs(3));
    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(resultsOf(answer), addresses({1, 2, 3, 4, 5}));
}

} // namespace SolvaneTest
