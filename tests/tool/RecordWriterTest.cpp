// Each form of a record, for answers of every kind.
#include "RecordWriter.h"

#include <gmock/gmock.h>

#include <string>
#include <utility>

namespace Solvane::Tool {
namespace {

using namespace std::string_literals;
using Lookup::Identity;

std::string written(std::string const& format, Record const& record, char recordEnd = '\n')
{
    std::string out = "> "; // what was written before stays
    makeRecordWriter(format, recordEnd)->write(record, out);
    return out;
}

LDAPAttribute attribute(std::string const& name, std::initializer_list<std::string> values)
{
    LDAPAttribute made{LDAPAttributeType(name)};
    for (std::string const& value : values) {
        made.value(value);
    }
    return made;
}

Record found(std::list<LDAPSearchResultEntry> entries)
{
    Record record;
    record.key = "jdoe@corp.test";
    record.answer.outcome = Lookup::Outcome::Found;
    record.answer.entries = std::move(entries);
    record.answer.filter = "(mail=jdoe@corp.test)";
    record.answer.server = "ldap://127.0.0.1";
    record.answer.milliseconds = 1.25;
    return record;
}

Record jdoe()
{
    return found({{"cn=a", {attribute("cn", {"a", "b\xC3\xBC"}), attribute("uid", {"1"})}},
                  {"cn=c", {attribute("cn", {"c"})}}});
}

Record without(Lookup::Outcome outcome, int code = 0, std::string const& text = std::string())
{
    Record record;
    record.key = "nobody@x";
    record.answer.outcome = outcome;
    record.answer.code = code;
    record.answer.text = text;
    return record;
}

/// An error after entries that are not all of them.
Record incomplete()
{
    Record record = jdoe();
    record.answer.outcome = Lookup::Outcome::TryLater;
    record.answer.code = 4;
    record.answer.text = "Size limit\texceeded";
    return record;
}

/// Several entries although --single allows one.
Record tooMany()
{
    Record record = jdoe();
    record.hasTooManyEntries = true;
    record.answer.text = "2 entries where one is wanted";
    return record;
}

TEST(TextWriter, ShowsABlockForEachKey)
{
    EXPECT_EQ(written("text", jdoe()), "> # jdoe@corp.test: found 2\n"
                                       "dn: cn=a\ncn: a\ncn: b\xC3\xBC\nuid: 1\n\n"
                                       "dn: cn=c\ncn: c\n\n");
    EXPECT_EQ(written("text", without(Lookup::Outcome::NotFound)), "> # nobody@x: not found\n");
    EXPECT_EQ(written("text", without(Lookup::Outcome::NotFound, 0, "referred")),
              "> # nobody@x: not found: referred\n");
    EXPECT_EQ(written("text", without(Lookup::Outcome::Skipped)), "> # nobody@x: skipped\n");
}

TEST(TextWriter, ShowsTheClassOfAnError)
{
    EXPECT_EQ(written("text", without(Lookup::Outcome::TryLater, -1, "down\n")),
              "> # nobody@x: error 75: down\\x0A\n");
    EXPECT_EQ(written("text", without(Lookup::Outcome::BadKey, 0, "no key")),
              "> # nobody@x: error 65: no key\n");
    EXPECT_EQ(written("text", without(Lookup::Outcome::Misconfigured, 32, "no base")),
              "> # nobody@x: error 78: no base\n");
    EXPECT_THAT(written("text", incomplete()),
                testing::StartsWith("> # jdoe@corp.test: error 75 after 2 of its entries: Size "
                                    "limit\\x09exceeded\ndn: cn=a\n"));
    EXPECT_THAT(written("text", tooMany()),
                testing::StartsWith("> # jdoe@corp.test: error 65: 2 entries where one is wanted\n"
                                    "dn: cn=a\n"));
}

TEST(TextWriter, EncodesWhatIsNoLineOfText)
{
    EXPECT_EQ(written("text", found({{"cn=a\n", {attribute("x\ny", {"\xFF", "", "a\nb"})}}})),
              "> # jdoe@corp.test: found 1\n"
              "dn:: Y249YQo=\nx\\x0Ay:: /w==\nx\\x0Ay: \nx\\x0Ay:: YQpi\n\n");
}

TEST(ValuesWriter, WritesValuesOnly)
{
    EXPECT_EQ(written("values", jdoe()), "> a,b\xC3\xBC,1,c\n");
    EXPECT_EQ(written("values", found({{"cn=a", {attribute("cn", {"", "x\ny"})}}})),
              "> ,x\\x0Ay\n");
    EXPECT_EQ(written("values", without(Lookup::Outcome::NotFound, 0, "text")), "> \n");
    EXPECT_EQ(written("values", incomplete()), "> \n");
    EXPECT_EQ(written("values", tooMany()), "> \n");
}

TEST(TsvWriter, WritesAColumnMoreForErrors)
{
    EXPECT_EQ(written("tsv", jdoe()), "> jdoe@corp.test\ta,b\xC3\xBC,1,c\tfound\n");
    EXPECT_EQ(written("tsv", without(Lookup::Outcome::NotFound)), "> nobody@x\t\tnotfound\n");
    EXPECT_EQ(written("tsv", without(Lookup::Outcome::Skipped)), "> nobody@x\t\tskipped\n");
    EXPECT_EQ(written("tsv", incomplete()), "> jdoe@corp.test\t\terror\tSize limit\\x09exceeded\n");
    EXPECT_EQ(written("tsv", tooMany()),
              "> jdoe@corp.test\t\terror\t2 entries where one is wanted\n");
}

TEST(TsvWriter, LeavesNoTabInAColumn)
{
    Record record = found({{"cn=a", {attribute("cn", {"a\tb"})}}});
    record.key = "j\tdoe\n";

    EXPECT_EQ(written("tsv", record), "> j\\x09doe\\x0A\ta\\x09b\tfound\n");
}

TEST(JsonWriter, WritesEveryField)
{
    EXPECT_EQ(written("json", jdoe()),
              R"json(> {"key":"jdoe@corp.test","status":"found",)json"
              R"json("filter":"(mail=jdoe@corp.test)","server":"ldap://127.0.0.1",)json"
              R"json("entries":[{"dn":"cn=a","attrs":{"cn":["a","b)json"
              "\xC3\xBC"
              R"json("],"uid":["1"]}},{"dn":"cn=c","attrs":{"cn":["c"]}}],)json"
              R"json("code":0,"text":"","ms":1.250,"retried":false})json"
              "\n");
}

TEST(JsonWriter, WritesNullForWhatThereIsNot)
{
    EXPECT_EQ(written("json", without(Lookup::Outcome::Refused, 53, "no\n")),
              R"(> {"key":"nobody@x","status":"error","filter":null,"server":null,"entries":[],)"
              R"("code":53,"text":"no\\x0A","ms":0.000,"retried":false})"
              "\n");
}

TEST(JsonWriter, TellsWhatIsUnusual)
{
    Record record = without(Lookup::Outcome::Skipped);
    record.answer.wasRepeated = true;
    record.answer.identity = Identity::Unconfirmed;

    EXPECT_THAT(written("json", record),
                testing::EndsWith(R"("retried":true,"identity":"unconfirmed"})"
                                  "\n"));
}

TEST(JsonWriter, EscapesAndWrapsBytes)
{
    EXPECT_THAT(
        written("json", found({{"\xFF",
                                {attribute("cn", {"a\"\\\n\0z"s, "\xC0"}), attribute("x\ny", {}),
                                 attribute("c;binary", {"Many", ""})}}})),
        testing::HasSubstr(R"([{"dn":{"base64":"/w=="},"attrs":{"cn":["a\"\\\n\u0000z",)"
                           R"({"base64":"wA=="}],"x\\x0Ay":[],)"
                           R"("c;binary":[{"base64":"TWFueQ=="},{"base64":""}]}}])"));
}

TEST(JsonWriter, GathersTheValuesOfARepeatedAttribute)
{
    EXPECT_THAT(written("json", found({{"cn=a",
                                        {attribute("cn", {"1"}), attribute("sn", {"2"}),
                                         attribute("cn", {"3", "4"})}}})),
                testing::HasSubstr(R"("attrs":{"cn":["1","3","4"],"sn":["2"]})"));
}

TEST(LdifWriter, WritesContentRecords)
{
    EXPECT_EQ(makeRecordWriter("ldif", '\n')->opening(), "version: 1\n\n");
    EXPECT_EQ(
        written("ldif", found({{"cn=a", {attribute("cn", {"a", "\xC3\xBC", " b", "", ":c"})}}})),
        "> # jdoe@corp.test: found 1\n"
        "dn: cn=a\ncn: a\ncn:: w7w=\ncn:: IGI=\ncn:\ncn:: OmM=\n\n");
    EXPECT_EQ(written("ldif", without(Lookup::Outcome::NotFound)), "> # nobody@x: not found\n");
}

TEST(LdifWriter, EncodesWhatIsDeclaredBinary)
{
    EXPECT_THAT(written("ldif", found({{"cn=a", {attribute("c;binary", {"Many"})}}})),
                testing::HasSubstr("\nc;binary:: TWFueQ==\n"));
}

TEST(RecordEnd, TakesThePlaceOfTheLastNewline)
{
    Record const record = found({{"cn=a", {attribute("cn", {"a"})}}});

    EXPECT_EQ(written("text", record, '\0'), "> # jdoe@corp.test: found 1\ndn: cn=a\ncn: a\n\0"s);
    EXPECT_EQ(written("ldif", record, '\0'), "> # jdoe@corp.test: found 1\ndn: cn=a\ncn: a\n\0"s);
    EXPECT_EQ(written("values", record, '\0'), "> a\0"s);
    EXPECT_EQ(written("tsv", record, '\0'), "> jdoe@corp.test\ta\tfound\0"s);
    EXPECT_THAT(written("json", record, '\0'), testing::EndsWith("\"retried\":false}\0"s));
}

TEST(RecordFormats, AreKnownByName)
{
    EXPECT_THAT(recordFormats(), testing::ElementsAre("text", "values", "tsv", "json", "ldif"));
}

} // namespace
} // namespace Solvane::Tool
