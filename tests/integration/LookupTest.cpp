// Searches in a real directory: what is found, and what of it arrives.
#include "Directory.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

using namespace Solvane;
using testing::Contains;
using testing::ElementsAre;
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

} // namespace SolvaneTest
