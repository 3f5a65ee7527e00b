// The socketmap protocol, byte by byte.
#include "Socketmap.h"

#include <solvane/lookup/Answer.h>
#include <solvane/lookup/Settings.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Solvane;
using namespace Solvane::Service;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace SolvaneTest {

namespace {

constexpr std::size_t longest = 1000;

std::vector<std::string> readAll(NetstringReader& reader)
{
    std::vector<std::string> read;
    while (auto text = reader.next()) {
        read.push_back(*text);
    }
    return read;
}

bool isMalformed(std::string const& bytes)
{
    NetstringReader reader(longest);
    reader.add(bytes);
    readAll(reader);
    return reader.isMalformed();
}

LDAPSearchResultEntry entryWith(std::string const& name, std::vector<std::string> const& values)
{
    LDAPAttribute attribute{LDAPAttributeType(name)};
    for (std::string const& value : values) {
        attribute.value(value);
    }
    return LDAPSearchResultEntry("cn=anna", std::list<LDAPAttribute>{attribute});
}

Lookup::Answer foundWith(std::string const& name, std::vector<std::string> const& values)
{
    Lookup::Answer answer;
    answer.outcome = Lookup::Outcome::Found;
    answer.server = "ldap://one.test:389";
    answer.entries.push_back(entryWith(name, values));
    return answer;
}

/// The settings of a map with these result attributes.
Lookup::Settings returning(std::vector<std::string> const& attributes)
{
    Lookup::Settings settings;
    settings.attributes = attributes;
    return settings;
}

Lookup::Answer answerWith(Lookup::Outcome outcome, std::string const& text = "")
{
    Lookup::Answer answer;
    answer.outcome = outcome;
    answer.server = "ldap://one.test:389";
    answer.text = text;
    return answer;
}

} // namespace

TEST(NetstringReader, ReadsSeveralNetstringsOfOnePacket)
{
    NetstringReader reader(longest);

    reader.add("5:hello,0:,11:users a@b.c,");

    EXPECT_THAT(readAll(reader), ElementsAre("hello", "", "users a@b.c"));
    EXPECT_EQ(reader.heldBytes(), 0U);
}

TEST(NetstringReader, ReadsOneThatArrivesByteByByte)
{
    NetstringReader reader(longest);
    std::vector<std::string> read;

    for (char const byte : std::string("12:users a@b.de,3:abc,")) {
        reader.add(std::string(1, byte));
        for (std::string const& text : readAll(reader)) {
            read.push_back(text);
        }
    }

    EXPECT_THAT(read, ElementsAre("users a@b.de", "abc"));
}

TEST(NetstringReader, KeepsCommasColonsAndNulsOfTheContent)
{
    NetstringReader reader(longest);
    std::string const content("a,b:c\0d", 7);

    reader.add(netstring(content));

    EXPECT_THAT(readAll(reader), ElementsAre(content));
}

TEST(NetstringReader, WaitsForTheComma)
{
    NetstringReader reader(longest);

    reader.add("3:abc");

    EXPECT_THAT(readAll(reader), IsEmpty());
    EXPECT_FALSE(reader.isMalformed());
}

TEST(NetstringReader, AcceptsTheLongestAndRefusesALongerOne)
{
    std::string const limit(longest, 'x');
    NetstringReader reader(longest);
    reader.add(netstring(limit));

    EXPECT_THAT(readAll(reader), ElementsAre(limit));
    EXPECT_TRUE(isMalformed("1001:"));
    EXPECT_TRUE(isMalformed("99999999999999999999999999"));
}

TEST(NetstringReader, RefusesWhatIsNoNetstring)
{
    EXPECT_TRUE(isMalformed("GET / HTTP/1.1\r\n"));
    EXPECT_TRUE(isMalformed(":,"));
    EXPECT_TRUE(isMalformed("-1:,"));
    EXPECT_TRUE(isMalformed(" 1:a,"));
    EXPECT_TRUE(isMalformed("01:a,"));
    EXPECT_TRUE(isMalformed("3:abcd"));
    EXPECT_TRUE(isMalformed("3;abc,"));
}

TEST(NetstringReader, StaysMalformed)
{
    NetstringReader reader(longest);
    reader.add("x");
    readAll(reader);

    reader.add("1:a,");

    EXPECT_THAT(readAll(reader), IsEmpty());
    EXPECT_EQ(reader.heldBytes(), 1U);
}

TEST(SocketmapRequest, IsAMapAndAKey)
{
    auto const request = requestOf("users anna@corp.test");

    ASSERT_TRUE(request.has_value());
    EXPECT_EQ(request->map, "users");
    EXPECT_EQ(request->key, "anna@corp.test");
}

TEST(SocketmapRequest, KeepsTheBlanksOfTheKey)
{
    auto const request = requestOf("users \"anna m\"@corp.test");

    ASSERT_TRUE(request.has_value());
    EXPECT_EQ(request->key, "\"anna m\"@corp.test");
}

TEST(SocketmapRequest, NeedsAKey) { EXPECT_FALSE(requestOf("users").has_value()); }

TEST(SocketmapReply, HasTheValuesOfAllAttributesSeparatedByCommas)
{
    Lookup::Answer answer = foundWith("mail", {"anna@corp.test", "a@corp.test"});
    answer.entries.push_back(entryWith("maildrop", {"anna"}));

    Reply const reply = replyTo(answer, returning({"maildrop", "mail"}));

    EXPECT_EQ(reply.kind, Reply::Kind::found);
    EXPECT_EQ(reply.text, "OK anna,anna@corp.test,a@corp.test");
}

TEST(SocketmapReply, IsNotFoundForAnEntryWithoutAValue)
{
    EXPECT_EQ(replyTo(foundWith("mail", {}), returning({"mail"})).text, "NOTFOUND ");
    EXPECT_EQ(replyTo(foundWith("mail", {""}), returning({"mail"})).text, "NOTFOUND ");
    EXPECT_EQ(replyTo(foundWith("mail;lang-de", {"a"}), returning({"Mail"})).text, "NOTFOUND ");
    EXPECT_EQ(replyTo(foundWith("cn", {}), returning({"mail"})).text, "NOTFOUND ");
}

/// A server returns "uid" if it is asked for "userid": the user exists.
TEST(SocketmapReply, DefersMailForAnAttributeOfAnotherName)
{
    EXPECT_EQ(replyTo(foundWith("uid", {"anna"}), returning({"userid"})).text,
              "TEMP ldap://one.test:389: the entry has no value of the result attributes, but of "
              "'uid': set result_attribute to the server's name");

    Lookup::Settings group = returning({"userid"});
    group.specialResultAttributes = {"member"};
    EXPECT_THAT(replyTo(foundWith("uid", {"anna"}), group).text, StartsWith("TEMP "));
    EXPECT_EQ(replyTo(foundWith("member", {"cn=bert"}), group).text, "NOTFOUND ");
}

TEST(SocketmapReply, HasTheResultsOfAMapWithGroups)
{
    Lookup::Answer answer = foundWith("mail", {"staff@corp.test"});
    Lookup::Settings settings = returning({"mail"});
    settings.specialResultAttributes = {"member"};

    EXPECT_EQ(replyTo(answer, settings).text, "NOTFOUND ");
    answer.results = {"anna@corp.test", "", "bert@corp.test"};
    EXPECT_EQ(replyTo(answer, settings).text, "OK anna@corp.test,bert@corp.test");
}

TEST(SocketmapReply, IsNotFoundForKeysThatCannotExist)
{
    for (auto const outcome :
         {Lookup::Outcome::NotFound, Lookup::Outcome::Skipped, Lookup::Outcome::BadKey}) {
        EXPECT_EQ(replyTo(answerWith(outcome), returning({"mail"})).text, "NOTFOUND ");
    }
}

TEST(SocketmapReply, DefersMailForAnyTrouble)
{
    for (auto const outcome :
         {Lookup::Outcome::TryLater, Lookup::Outcome::Refused, Lookup::Outcome::Misconfigured}) {
        Reply const reply =
            replyTo(answerWith(outcome, "no answer within 15 s"), returning({"mail"}));

        EXPECT_EQ(reply.kind, Reply::Kind::tryLater);
        EXPECT_EQ(reply.text, "TEMP ldap://one.test:389: no answer within 15 s");
    }
}

TEST(SocketmapReply, DoesNotNameTheServerTwice)
{
    auto const answer =
        answerWith(Lookup::Outcome::TryLater, "cannot connect to ldap://one.test:389");

    EXPECT_EQ(replyTo(answer, returning({"mail"})).text,
              "TEMP cannot connect to ldap://one.test:389");
}

TEST(SocketmapReply, DefersMailForEntriesThatCameBeforeALimit)
{
    Lookup::Answer answer = foundWith("mail", {"anna@corp.test"});
    answer.outcome = Lookup::Outcome::TryLater;
    answer.text = "size limit exceeded";

    EXPECT_THAT(replyTo(answer, returning({"mail"})).text, StartsWith("TEMP "));
}

TEST(SocketmapReply, DefersMailForAValueWithControlCharacters)
{
    EXPECT_THAT(replyTo(foundWith("mail", {"a@corp.test\nb"}), returning({"mail"})).text,
                HasSubstr("TEMP ldap://one.test:389: a value contains a control character"));
}

TEST(SocketmapReply, HasAtMostAHundredThousandBytes)
{
    std::string const fits(longestReply - 3, 'x');

    EXPECT_EQ(replyTo(foundWith("mail", {fits}), returning({"mail"})).text.size(), longestReply);
    EXPECT_THAT(replyTo(foundWith("mail", {fits + "x"}), returning({"mail"})).text,
                HasSubstr("the values have more than 100000 bytes"));
    EXPECT_THAT(replyTo(foundWith("mail", {fits, "x"}), returning({"mail"})).text,
                StartsWith("TEMP "));
}

TEST(SocketmapReply, PutsTheReasonOnOneShortLine)
{
    EXPECT_EQ(Reply::tryLater("a\nb").text, "TEMP a\\x0Ab");
    EXPECT_EQ(Reply::tryLater(std::string(499, 'x') + "\xc3\xa4").text,
              "TEMP " + std::string(499, 'x'));
}

} // namespace SolvaneTest
