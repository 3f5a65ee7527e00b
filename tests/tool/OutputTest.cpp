// What the tool writes: forms of a record, texts, latencies, and exit statuses.
#include "CheckReport.h"
#include "Outcome.h"
#include "RecordWriter.h"
#include "Text.h"

#include <solvane/lookup/Answer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Solvane::Tool {
namespace {

using namespace std::string_literals;
using Lookup::Identity;
using testing::ElementsAre;

// Each form of a record, for answers of every kind.

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

TEST(TsvWriter, LeavesValuesThatCanBeRestored)
{
    Record record = found({{"cn=a", {attribute("cn", {"a,b", "\\x2C", "c\xE2\x80\xAE"})}}});
    record.key = "a,b\\@x";

    EXPECT_EQ(written("tsv", record), "> a,b\\x5C@x\ta\\x2Cb,\\x5Cx2C,c\\xE2\\x80\\xAE\tfound\n");
    EXPECT_EQ(written("values", record), "> a\\x2Cb,\\x5Cx2C,c\\xE2\\x80\\xAE\n");
}

TEST(TextWriter, LeavesTheDirectionOfTextAlone)
{
    Record record = found({{"cn=a", {attribute("cn", {"x\xE2\x80\xAEy"})}}}); // U+202E
    record.key = "\xD8\x9Cz";                                                 // U+061C

    EXPECT_EQ(written("text", record), "> # \\xD8\\x9Cz: found 1\ndn: cn=a\ncn:: eOKArnk=\n\n");
}

Record group(std::vector<std::string> results)
{
    Record record = jdoe();
    record.hasResults = true;
    record.isWithoutValue = results.empty();
    record.answer.results = std::move(results);
    return record;
}

TEST(EachWriter, WritesResultsInThePlaceOfTheValuesOfEntries)
{
    Record const record = group({"a@b", "c\n"});

    EXPECT_EQ(written("text", record),
              "> # jdoe@corp.test: found 2\nresult: a@b\nresult:: Ywo=\n\n");
    EXPECT_EQ(written("values", record), "> a@b,c\\x0A\n");
    EXPECT_EQ(written("tsv", record), "> jdoe@corp.test\ta@b,c\\x0A\tfound\n");
    EXPECT_THAT(written("json", record),
                testing::HasSubstr(R"("attrs":{"cn":["c"]}}],"results":["a@b","c\n"],"code":0)"));
    EXPECT_THAT(written("ldif", record), testing::HasSubstr("dn: cn=a\n"));
}

TEST(EachWriter, TellsThatThereIsNoValue)
{
    Record const record = group({});

    EXPECT_EQ(written("text", record), "> # jdoe@corp.test: found 2, without a value\n");
    EXPECT_EQ(written("values", record), "> \n");
    EXPECT_EQ(written("tsv", record), "> jdoe@corp.test\t\tnovalue\n");
    EXPECT_THAT(written("json", record), testing::HasSubstr(R"("status":"novalue")"));
    EXPECT_EQ(outcomeOf(record), Outcome::found);
}

TEST(TsvWriter, AppendsARemark)
{
    Record record = group({"a"});
    record.answer.text = "member 'x' does not exist";

    EXPECT_EQ(written("tsv", record), "> jdoe@corp.test\ta\tfound\tmember 'x' does not exist\n");
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

TEST(JsonWriter, EscapesWhatATerminalObeysOrReorders)
{
    Record record = found({{"cn=a",
                            {attribute("cn", {"\x7F\xC2\x9B"
                                              "31m\xE2\x81\xA6",
                                              "\xE2\x82\xAC\xF0\x9F\x98\x80"})}}});
    record.key = "\xD8\x9C\xC3\xBC";

    EXPECT_THAT(written("json", record),
                testing::AllOf(testing::HasSubstr("\"key\":\"\\u061c\xC3\xBC\""),
                               testing::HasSubstr(R"(["\u007f\u009b31m\u2066",)"),
                               testing::HasSubstr("\xE2\x82\xAC\xF0\x9F\x98\x80\"]")));
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

TEST(LdifWriter, LetsNoNameOfAnAttributeChangeWhatALineMeans)
{
    Record const record =
        found({{"cn=a", {attribute("cn\nsn: b", {"a"}), attribute("b:", {"c"})}}});

    EXPECT_EQ(written("ldif", record), "> # jdoe@corp.test: found 1\ndn: cn=a\n"
                                       "# invalid attribute name: cn\\x0Asn: b\n"
                                       "# invalid attribute name: b:\n\n");
    for (char const* const name : {"changetype", "ChangeType", "control", "dn"}) {
        EXPECT_EQ(written("ldif", found({{"cn=a", {attribute(name, {"delete"})}}})),
                  "> # jdoe@corp.test: found 1\ndn: cn=a\n# invalid attribute name: "s + name +
                      "\n\n");
    }
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

// Text appended to what is written.

std::string appended(void (*append)(std::string&, std::string_view), std::string_view bytes)
{
    std::string out = "> ";
    append(out, bytes);
    return out;
}

TEST(OneLine, IsAppendedWithControlCharactersEscaped)
{
    EXPECT_EQ(appended(appendOneLine, "j\xC3\xBCrgen"), "> j\xC3\xBCrgen");
    EXPECT_EQ(appended(appendOneLine, "a\tb\n\xFF"), "> a\\x09b\\x0A\\xFF");
}

TEST(Base64, FillsTheLastGroup)
{
    EXPECT_EQ(appended(appendBase64, ""), "> ");
    EXPECT_EQ(appended(appendBase64, "M"), "> TQ==");
    EXPECT_EQ(appended(appendBase64, "Ma"), "> TWE=");
    EXPECT_EQ(appended(appendBase64, "Man"), "> TWFu");
    EXPECT_EQ(appended(appendBase64, "Many"), "> TWFueQ==");
    EXPECT_EQ(appended(appendBase64, "\0\xFF\xFE"s), "> AP/+");
}

// Percentiles and bars of latencies.

Histogram of(std::initializer_list<double> measured)
{
    Histogram histogram;
    for (double const milliseconds : measured) {
        histogram.add(milliseconds);
    }
    return histogram;
}

TEST(HistogramOfOne, HasItAsEveryPercentile)
{
    Histogram const histogram = of({3});

    EXPECT_EQ(histogram.percentile(0), 3);
    EXPECT_EQ(histogram.percentile(50), 3);
    EXPECT_EQ(histogram.percentile(100), 3);
}

TEST(HistogramOfMany, TakesPercentilesFromTheMeasurements)
{
    Histogram histogram;
    for (int i = 100; i > 0; --i) {
        histogram.add(i);
    }

    EXPECT_EQ(histogram.percentile(0), 1);
    EXPECT_EQ(histogram.percentile(50), 50);
    EXPECT_EQ(histogram.percentile(99), 99);
    EXPECT_EQ(histogram.percentile(100), 100);
}

TEST(HistogramOfMany, TellsItsFigures)
{
    EXPECT_EQ(of({4, 1.25, 2, 0.76}).summary(), "min 0.8, p50 1.2, p99 4.0, max 4.0 ms");
}

TEST(HistogramBars, StandForTheRangesFromTheFirstToTheLastInUse)
{
    std::string const blanks(20, ' ');
    std::string const half(20, '#');

    auto const bars = of({1, 1.5, 7, 7}).bars();

    EXPECT_THAT(bars, ElementsAre("    < 2 ms  " + half + blanks + "  2",
                                  "    < 5 ms  " + blanks + blanks + "  0",
                                  "   < 10 ms  " + half + blanks + "  2"));
}

TEST(HistogramBars, AreSeenHoweverSmallTheirShare)
{
    Histogram histogram = of({9000});
    for (int i = 0; i < 1000; ++i) {
        histogram.add(4000);
    }

    auto const bars = histogram.bars();

    ASSERT_EQ(bars.size(), 2U);
    EXPECT_EQ(bars.back(), ">= 5000 ms  #" + std::string(39, ' ') + "  1");
}

// Exit statuses, their weight, and the outcome of each LDAP result code.

using Kind = Lookup::Outcome;

std::vector<int> codesWith(Outcome outcome, std::function<Outcome(int)> const& outcomeOfCode)
{
    std::vector<int> codes;
    for (int code = -18; code <= 123; ++code) {
        if (outcomeOfCode(code) == outcome) {
            codes.push_back(code);
        }
    }
    return codes;
}

/// The outcome of a step that ended so, by its code.
std::function<Outcome(int)> ended(Kind kind)
{
    return [kind](int code) { return outcomeOf(Lookup::Verdict{kind, code, {}}); };
}

Outcome outcomeOfAnswer(Kind kind, int code)
{
    Lookup::Answer answer;
    answer.outcome = kind;
    answer.code = code;
    return outcomeOf(answer);
}

TEST(Outcomes, HaveTheExitStatusOfTheirKind)
{
    std::vector<Outcome> const outcomes = {
        Outcome::found,   Outcome::notFound,     Outcome::exists,  Outcome::badInput,
        Outcome::refused, Outcome::tryLater,     Outcome::denied,  Outcome::configuration,
        Outcome::usage,   Outcome::outputFailed, Outcome::internal};

    std::vector<int> statuses;
    statuses.reserve(outcomes.size());
    for (Outcome const outcome : outcomes) {
        statuses.push_back(exitStatusOf(outcome));
    }

    EXPECT_THAT(statuses, testing::ElementsAre(0, 1, 73, 65, 69, 75, 77, 78, 64, 74, 70));
}

TEST(Outcomes, AreDecidedByTheWorst)
{
    std::vector<Outcome> const byWeight = {
        Outcome::found,    Outcome::notFound,      Outcome::exists,
        Outcome::badInput, Outcome::refused,       Outcome::tryLater,
        Outcome::denied,   Outcome::configuration, Outcome::usage};

    for (std::size_t heavy = 0; heavy < byWeight.size(); ++heavy) {
        for (std::size_t light = 0; light <= heavy; ++light) {
            EXPECT_EQ(worse(byWeight[light], byWeight[heavy]), byWeight[heavy]);
            EXPECT_EQ(worse(byWeight[heavy], byWeight[light]), byWeight[heavy]);
        }
    }
}

TEST(AnAnswer, HasTheOutcomeOfItsKind)
{
    EXPECT_EQ(outcomeOfAnswer(Kind::Found, 0), Outcome::found);
    EXPECT_EQ(outcomeOfAnswer(Kind::NotFound, 0), Outcome::notFound);
    EXPECT_EQ(outcomeOfAnswer(Kind::Skipped, 0), Outcome::notFound);
    EXPECT_EQ(outcomeOfAnswer(Kind::BadKey, 0), Outcome::badInput);
    EXPECT_EQ(outcomeOfAnswer(Kind::TryLater, 4), Outcome::tryLater);
    EXPECT_EQ(outcomeOfAnswer(Kind::Refused, 53), Outcome::refused);
    EXPECT_EQ(outcomeOfAnswer(Kind::Misconfigured, 32), Outcome::configuration);
}

TEST(ARefusal, IsOneOfAccessForSomeCodes)
{
    EXPECT_THAT(codesWith(Outcome::denied, ended(Kind::Refused)),
                testing::ElementsAre(-11, 7, 8, 13, 32, 48, 49, 50));
    EXPECT_EQ(codesWith(Outcome::refused, ended(Kind::Refused)).size(), 142U - 8);
}

TEST(AMisconfiguration, IsOneOfTheDataForSomeCodes)
{
    EXPECT_THAT(codesWith(Outcome::badInput, ended(Kind::Misconfigured)),
                testing::ElementsAre(-7, 16, 17, 18, 19, 20, 21, 34, 64, 65, 66, 67, 69, 71));
    EXPECT_EQ(codesWith(Outcome::configuration, ended(Kind::Misconfigured)).size(), 142U - 14);
}

TEST(AnAdd, HasTheOutcomeOfItsCode)
{
    EXPECT_THAT(codesWith(Outcome::found, outcomeOfAdd), testing::ElementsAre(0));
    EXPECT_THAT(codesWith(Outcome::exists, outcomeOfAdd), testing::ElementsAre(68));
    EXPECT_THAT(codesWith(Outcome::badInput, outcomeOfAdd),
                testing::ElementsAre(-9, -7, 16, 17, 18, 19, 20, 21, 34, 64, 65, 66, 67, 69, 71));
    EXPECT_THAT(codesWith(Outcome::refused, outcomeOfAdd), testing::ElementsAre(9, 10, 53));
    EXPECT_THAT(codesWith(Outcome::denied, outcomeOfAdd),
                testing::ElementsAre(-11, 7, 8, 13, 48, 49, 50));
    EXPECT_THAT(codesWith(Outcome::configuration, outcomeOfAdd),
                testing::ElementsAre(2, 32, 33, 36));
}

TEST(Remedies, AreThereForWhateverIsWrong)
{
    for (Kind const kind : {Kind::BadKey, Kind::TryLater, Kind::Refused, Kind::Misconfigured}) {
        for (int code = -18; code <= 123; ++code) {
            EXPECT_STRNE(remedyFor(Lookup::Verdict{kind, code, {}}), "") << code;
        }
    }
    for (int code = -18; code <= 123; ++code) {
        EXPECT_EQ(std::string(remedyForAdd(code)).empty(), code == 0) << code;
    }
}

TEST(Remedies, NameOptionAndPackageWhereAuthoritiesAreMissing)
{
    std::string const remedy = remedyFor(Lookup::Verdict{
        Kind::Misconfigured, -9, "ldaps://a.test: the system's CA bundle is missing"});

    EXPECT_THAT(remedy, testing::HasSubstr("--tls-ca"));
    EXPECT_THAT(remedy, testing::HasSubstr("the package ca-certificates"));
}

TEST(Remedies, SpeakOfTheSettingThatIsWrong)
{
    for (auto const& [text, remedy] : std::vector<std::pair<std::string, std::string>>{
             {"the CA folder '/x' cannot be read: ", "--tls-ca-dir"},
             {"the CRL file '/x' contains no revocation lists", "--tls-crl"},
             {"the client certificate has no key: set the key file, too", "--tls-key"},
             {"the client certificate is missing: a key file is set", "--tls-cert"},
             {"the client certificate '/x' with the key '/y' cannot be used", "--tls-key"},
             {"the certificate file '/x' cannot be read: ", "--tls-cert"},
             {"the key file '/y' cannot be read: ", "--tls-key"},
             {"the cipher suite 'x' is not a valid GnuTLS priority string", "--tls-ciphers"},
             {"SASL EXTERNAL needs a client certificate", "--tls-cert"},
             {"StartTLS needs LDAPv3", "-P 3"},
             {"an empty password is not sent", "password"},
         }) {
        EXPECT_THAT(
            remedyFor(Lookup::Verdict{Kind::Misconfigured, -9, "ldaps://a.test: " + text}),
            testing::AllOf(testing::HasSubstr(remedy), testing::Not(testing::HasSubstr("ca-cert"))))
            << text;
    }
    EXPECT_STREQ(remedyFor(Lookup::Verdict{Kind::Misconfigured, -9, "anything else"}),
                 "correct the setting");
}

TEST(Remedies, TellWhatTheServerHasAgainstUsFromWhatWeHaveAgainstIt)
{
    auto const remedyOf = [](int code, char const* text) {
        return remedyFor(Lookup::Verdict{code == -1 ? Kind::TryLater : Kind::Refused, code, text});
    };

    EXPECT_THAT(remedyOf(-11, "the server refuses TLS: Certificate was revoked (44); it may not "
                              "accept the client certificate '/x'"),
                testing::HasSubstr("client certificate"));
    EXPECT_THAT(remedyOf(-11, "the certificate is not accepted: revoked"),
                testing::HasSubstr("the server's certificate"));
    EXPECT_THAT(remedyOf(-1, "the server closed the connection; it requested a client certificate, "
                             "but none is configured"),
                testing::HasSubstr("--tls-cert"));
    EXPECT_THAT(remedyOf(-1, "the server does not speak TLS"), testing::HasSubstr("-H"));
    EXPECT_THAT(remedyOf(-1, "cannot connect"), testing::HasSubstr("is running"));
}

TEST(Remedies, NameHostAndKdcIfKerberosFails)
{
    for (Kind const kind : {Kind::TryLater, Kind::Refused, Kind::Misconfigured}) {
        EXPECT_THAT(remedyFor(Lookup::Verdict{kind, -6, {}}),
                    testing::AllOf(testing::HasSubstr("-H"), testing::HasSubstr("KDC")));
    }
    EXPECT_THAT(remedyFor(Lookup::Verdict{Kind::Misconfigured, -9,
                                          "no Kerberos ticket for ldap/a.test: none available"}),
                testing::HasSubstr("kinit"));
    EXPECT_STREQ(remedyFor(Lookup::Verdict{Kind::Misconfigured, -9,
                                           "the mechanism GSSAPI of Cyrus SASL is not installed"}),
                 "install it");
}

TEST(Remedies, AreNotThereForWhatIsRight)
{
    for (Kind const kind : {Kind::Found, Kind::NotFound, Kind::Skipped}) {
        EXPECT_STREQ(remedyFor(Lookup::Verdict{kind, 0, {}}), "");
    }
}

} // namespace
} // namespace Solvane::Tool
