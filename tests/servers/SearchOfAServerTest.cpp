// Entries with the object interface: searches, values and results, and entries that are added and
// read back.
#include "Directory.h"
#include "Faults.h"
#include "TestedServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

using namespace Solvane;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::UnorderedElementsAre;

namespace SolvaneTest {

class SearchOfAServer : public ServerTest {
protected:
    LDAPResult found(LDAPSearch::Parameter const& parameter)
    {
        return answerTo(connection, parameter);
    }
    LDAPResult foundIn(LDAPSearch::Scope scope)
    {
        auto parameter = searchFor(server()["ESCAPES"], "(objectClass=*)");
        parameter.scope = scope;
        return found(parameter);
    }

    LDAPConnection connection = server().bound();
};

TEST_F(SearchOfAServer, FindsAPersonByMailAddress)
{
    LDAPResult const result = found(searchFor(server()["PEOPLE"], "(mail=user0000007@corp.test)"));

    EXPECT_EQ(result.resultType(), 4);
    EXPECT_EQ(result.resultCode(), 0);
    EXPECT_THAT(namesIn(result), ElementsAre(server().personDn(7)));
    EXPECT_THAT(valuesIn(result, server()["FULL_NAME"]), ElementsAre("Anna Holm 7"));
    EXPECT_THAT(valuesIn(result, "employeeNumber"), ElementsAre("7"));
}

TEST_F(SearchOfAServer, OfABaseObjectFindsNothingElse)
{
    EXPECT_THAT(namesIn(foundIn(LDAPSearch::ScopeBase)), ElementsAre(server()["ESCAPES"]));
}

TEST_F(SearchOfAServer, OfOneLevelFindsTheChildren)
{
    auto const names = namesIn(foundIn(LDAPSearch::ScopeOneLevel));

    EXPECT_THAT(names, SizeIs(6));
    EXPECT_THAT(names, Not(Contains(server()["ESCAPES"])));
}

TEST_F(SearchOfAServer, OfASubtreeFindsTheBaseToo)
{
    auto const names = namesIn(foundIn(LDAPSearch::ScopeSubtree));

    EXPECT_THAT(names, SizeIs(7));
    EXPECT_THAT(names, Contains(server()["ESCAPES"]));
}

TEST_F(SearchOfAServer, ReturnsTheAttributesAskedForOnly)
{
    auto parameter = lookupOf(server().personDn(1));
    parameter.attributes = {LDAPAttributeType("mail"), LDAPAttributeType("sn")};

    EXPECT_THAT(descriptionsIn(found(parameter)), UnorderedElementsAre("mail", "sn"));
}

TEST_F(SearchOfAServer, ReturnsTypesWithoutValuesWhereTheServerDoes)
{
    auto parameter = lookupOf(server().personDn(1));
    parameter.attrsOnly = true;

    LDAPResult const result = found(parameter);

    auto const count = static_cast<int>(valuesIn(result, "mail").size());
    measured("types_only", count == 0 ? "kept" : "ignored");
    EXPECT_THAT(descriptionsIn(result), Contains("mail"));
    EXPECT_EQ(count, server().number("VALUES_IN_SPITE_OF_TYPES_ONLY"));
}

TEST_F(SearchOfAServer, KeepsUtf8Values)
{
    LDAPResult const result = found(lookupOf(server().personDn(10)));

    EXPECT_THAT(valuesIn(result, "givenName"), ElementsAre("Łukasz"));
    EXPECT_THAT(valuesIn(result, server()["FULL_NAME"]), ElementsAre("Łukasz Kern 10"));
}

TEST_F(SearchOfAServer, KeepsBinaryValuesByteForByte)
{
    std::string allBytes;
    for (int byte = 0; byte < 256; ++byte) {
        allBytes += static_cast<char>(byte);
    }

    LDAPResult const result = found(searchFor(server()["BIG"], "(uid=allbytes)"));

    EXPECT_THAT(valuesIn(result, "jpegPhoto"), ElementsAre(allBytes));
}

TEST_F(SearchOfAServer, KeepsACertificate)
{
    std::ifstream file(server()["SERVER_DIR"] + "/tls/good.der", std::ios::binary);
    std::string const certificate{std::istreambuf_iterator<char>(file),
                                  std::istreambuf_iterator<char>()};

    LDAPResult const result = found(lookupOf(server().personDn(100)));

    for (std::string const& description : descriptionsIn(result)) {
        if (description.compare(0, 15, "userCertificate") == 0) {
            measured("certificate", description);
        }
    }
    ASSERT_THAT(certificate, Not(IsEmpty()));
    EXPECT_THAT(valuesIn(result, server()["CERTIFICATE"]), ElementsAre(certificate));
}

TEST_F(SearchOfAServer, KeepsAttributeOptionsApart)
{
    if (server().number("LANGUAGE_OPTION") != 0) {
        GTEST_SKIP() << "this server stores no language options";
    }

    LDAPResult const result = found(lookupOf(server().personDn(50)));

    EXPECT_THAT(valuesIn(result, "cn;lang-fr"), ElementsAre("Monsieur 50"));
    EXPECT_THAT(valuesIn(result, "cn"), ElementsAre("Дмитрий Graf 50"));
}

TEST_F(SearchOfAServer, FindsEachNameThatNeedsEscaping)
{
    for (std::string const& name :
         {std::string("star * paren (x)"), std::string(R"(back\slash)"),
          std::string(R"(comma, plus+ quote" semi;)"), std::string("#hash <angle> equal="),
          std::string(" lead and trail "), std::string("Jürgen Größe")}) {
        auto const filter = "(cn=" + LDAPUtil::formalizeQueryFilter(name) + ')';

        LDAPResult const result = found(searchFor(server()["ESCAPES"], filter));

        ASSERT_THAT(namesIn(result), SizeIs(1)) << filter;
        EXPECT_THAT(valuesIn(result, "cn"), ElementsAre(name));
    }
}

TEST_F(SearchOfAServer, TakesAnEscapedStarForAStar)
{
    auto const filter = "(cn=" + LDAPUtil::formalizeQueryFilter("*") + ')';

    LDAPResult const result = found(searchFor(server()["ESCAPES"], filter));

    EXPECT_EQ(result.resultCode(), 0);
    EXPECT_THAT(namesIn(result), IsEmpty());
}

TEST_F(SearchOfAServer, TakesAnEscapedZeroByteForAByteInAWholeValueOnly)
{
    LDAPResult const whole =
        found(searchFor(server()["PEOPLE"], R"((mail=user0000001\00@corp.test))"));
    LDAPResult const prefix = found(searchFor(server()["PEOPLE"], R"((mail=user0000001\00*))"));

    measured("zero_byte", static_cast<int>(namesIn(whole).size()));
    measured("zero_byte_in_a_prefix", static_cast<int>(namesIn(prefix).size()));
    EXPECT_EQ(whole.resultCode(), 0);
    EXPECT_THAT(namesIn(whole), IsEmpty());
    // Every server compares only up to the zero byte and finds the wrong entry: one more reason for
    // the engine to refuse such keys.
    EXPECT_THAT(namesIn(prefix), ElementsAre(server().personDn(1)));
}

TEST_F(SearchOfAServer, FindsBytesByTheirEscapes)
{
    // All servers compare escaped UTF-8 text byte by byte.
    LDAPResult const result =
        found(searchFor(server()["PEOPLE"], R"((&(givenName=\c5\81ukasz)(employeeNumber=10)))"));

    EXPECT_THAT(namesIn(result), ElementsAre(server().personDn(10)));
}

TEST_F(SearchOfAServer, ThatFindsNothingSucceeds)
{
    LDAPResult const result = found(searchFor(server()["PEOPLE"], "(mail=nobody@corp.test)"));

    EXPECT_EQ(result.resultCode(), 0);
    EXPECT_THAT(namesIn(result), IsEmpty());
    EXPECT_EQ(result.errorMessage(), "");
}

TEST_F(SearchOfAServer, BelowABaseThatDoesNotExistIsToldSo)
{
    LDAPResult const result =
        found(searchFor("ou=nowhere," + server()["BASE_DN"], "(objectClass=*)"));

    measured("missing_base_matched", result.matchedDN());
    EXPECT_EQ(result.resultCode(), 32);
    EXPECT_THAT(result.errorMessage(), Not(IsEmpty()));
    EXPECT_THAT(result.matchedDN(), testing::AnyOf("", server()["BASE_DN"]));
}

TEST_F(SearchOfAServer, BeyondTheServersLimitKeepsWhatCame)
{
    LDAPResult const result = found(searchFor(server()["PEOPLE"], "(mail=*)"));

    auto const count = static_cast<int>(namesIn(result).size());
    measured("server_limit", result.resultCode());
    measured("server_limit_entries", count);
    bool const isLimited = server().has("SIZE_LIMIT");
    EXPECT_EQ(result.resultCode(), isLimited ? 4 : 0);
    EXPECT_EQ(count, server().number(isLimited ? "SIZE_LIMIT" : "USERS"));
}

TEST_F(SearchOfAServer, FromTheTopTakesNoReferenceForAnEntry)
{
    LDAPResult const result = found(searchFor(server()["BASE_DN"], "(mail=user0000001@corp.test)"));

    EXPECT_EQ(result.resultCode(), 0);
    EXPECT_THAT(namesIn(result), ElementsAre(server().personDn(1)));
    EXPECT_THAT(result.searchReferrals(), IsEmpty());
}

TEST_F(SearchOfAServer, AtAReferralEntryEndsAsTheServerHandlesIt)
{
    if (!server().has("REFERRAL_ENTRY")) {
        GTEST_SKIP() << "this server has no referral entries";
    }
    LDAPSearch search(connection, lookupOf(server()["REFERRAL_ENTRY"]));
    search.send();

    if (server().number("AT_REFERRAL_ENTRY") == 10) {
        EXPECT_THAT(thrownBy([&] { search.wait(10); }), IsFault("Result.cpp", 624, 4, 5));
        EXPECT_THAT(search.result().referrals(), SizeIs(1));
    } else {
        EXPECT_FALSE(search.wait(10));
    }

    measured("at_referral_entry", search.result().resultCode());
    EXPECT_EQ(search.result().resultCode(), server().number("AT_REFERRAL_ENTRY"));
    EXPECT_THAT(search.result().searchResultEntries(), SizeIs(0));
}

TEST_F(SearchOfAServer, IsAwaitedAgainWhereTheServerWasPaused)
{
    LDAPSearch search(connection, lookupOf(server().personDn(1)));
    server().pause();
    search.send();

    bool const ranOut = search.wait(1);
    server().resume();
    bool const ranOutAgain = search.wait(10);

    EXPECT_TRUE(ranOut);
    EXPECT_FALSE(ranOutAgain);
    EXPECT_THAT(namesIn(search.result()), ElementsAre(server().personDn(1)));
}

// Entries that are added and read back, and the refusals of a server.

class AddToAServer : public ServerTest {
protected:
    static LDAPAttributeContainer person(std::string const& name)
    {
        return LDAPAttributeContainer({attributeOf("objectClass", "inetOrgPerson"),
                                       attributeOf("cn", name), attributeOf("sn", name)});
    }
    static std::string dnOf(std::string const& name)
    {
        return "cn=" + name + ',' + server()["NEW"];
    }

    /// The server's verdict on a new entry.
    int verdictOn(std::string dn, LDAPAttributeContainer const& attributes)
    {
        LDAPAdd add(connection, dn);
        add.attributes(attributes);
        add.send();
        return add.wait(10) ? -1 : add.result().resultCode();
    }

    LDAPConnection connection = server().bound();
};

TEST_F(AddToAServer, StoresTextAndBytes)
{
    std::string const bytes = "\xff\xd8\xff\x80\x01\xff\xd9";
    LDAPAttributeContainer newcomer = person("first");
    newcomer.add(attributeOf("givenName", "Zo\xC3\xAB"));
    newcomer.add(attributeOf("jpegPhoto", bytes));

    int const verdict = verdictOn(dnOf("first"), newcomer);

    EXPECT_EQ(verdict, 0);
    LDAPResult const stored = answerTo(connection, lookupOf(dnOf("first")));
    EXPECT_THAT(valuesIn(stored, "givenName"), ElementsAre("Zo\xC3\xAB"));
    EXPECT_THAT(valuesIn(stored, "jpegPhoto"), ElementsAre(bytes));
}

TEST_F(AddToAServer, OfACertificateByItsBinaryOptionEndsAsTheServerHandlesOptions)
{
    std::ifstream file(server()["SERVER_DIR"] + "/tls/good.der", std::ios::binary);
    std::string const certificate{std::istreambuf_iterator<char>(file),
                                  std::istreambuf_iterator<char>()};
    LDAPAttributeContainer certified = person("certified");
    certified.add(attributeOf("userCertificate;binary", certificate));

    int const verdict = verdictOn(dnOf("certified"), certified);

    measured("binary_option", verdict);
    EXPECT_EQ(verdict, server().number("BINARY_OPTION"));
    if (verdict == 0) {
        LDAPResult const stored = answerTo(connection, lookupOf(dnOf("certified")));
        EXPECT_THAT(valuesIn(stored, server()["CERTIFICATE"]), ElementsAre(certificate));
    }
}

TEST_F(AddToAServer, OfAnAttributeWithALanguageEndsAsTheServerHandlesOptions)
{
    LDAPAttributeContainer french = person("french");
    french.add(attributeOf("description;lang-fr", "une personne"));

    int const verdict = verdictOn(dnOf("french"), french);

    measured("language_option", verdict);
    EXPECT_EQ(verdict, server().number("LANGUAGE_OPTION"));
}

TEST_F(AddToAServer, IsRefusedForAnEntryThatExists)
{
    int const first = verdictOn(dnOf("twice"), person("twice"));
    int const second = verdictOn(dnOf("twice"), person("twice"));

    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 68);
}

TEST_F(AddToAServer, IsRefusedForATypeThatDoesNotExist)
{
    LDAPAttributeContainer odd = person("odd");
    odd.add(attributeOf("noSuchAttributeType", "x"));

    int const verdict = verdictOn(dnOf("odd"), odd);

    measured("undefined_type", verdict);
    EXPECT_EQ(verdict, server().number("UNDEFINED_TYPE"));
}

TEST_F(AddToAServer, IsRefusedWhereTheBindGivesNoRight)
{
    std::string const dn = "cn=intruder," + server()["PEOPLE"];

    EXPECT_EQ(verdictOn(dn, person("intruder")), 50);
}

TEST_F(AddToAServer, IsRefusedBelowWhatDoesNotExist)
{
    std::string const dn = "cn=orphan,ou=nowhere," + server()["NEW"];

    int const verdict = verdictOn(dn, person("orphan"));

    measured("missing_parent", verdict);
    EXPECT_EQ(verdict, 32);
}

} // namespace SolvaneTest
