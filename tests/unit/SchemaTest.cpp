// Definitions of attribute types, and what is found in them; the table of result codes.
#include <solvane/ldap/LDAPResultCodes.h>
#include <solvane/ldap/LDAPSchema.h>

#include "Faults.h"

#include <ldap.h>

#include <gmock/gmock.h>

#include <string>

using namespace Solvane;
using SolvaneTest::IsFault;
using SolvaneTest::thrownBy;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

constexpr char name[] = "( 2.5.4.41 NAME 'name' DESC 'of anything' EQUALITY caseIgnoreMatch SUBSTR "
                        "caseIgnoreSubstringsMatch SYNTAX 1.3.6.1.4.1.1466.115.121.1.15{32768} )";
constexpr char commonName[] = "( 2.5.4.3 NAME ( 'cn' 'commonName' ) SUP name )";

class ASchema : public testing::Test {
protected:
    ASchema()
    {
        schema.add(name);
        schema.add(commonName);
    }

    LDAPSchema schema;
};

TEST_F(ASchema, FindsTypesByNameAndNumberInAnyCaseWithoutOptions)
{
    LDAPSchema::AttributeType const* const type = schema.find("cn");

    ASSERT_NE(type, nullptr);
    EXPECT_EQ(schema.find("COMMONname"), type);
    EXPECT_EQ(schema.find("2.5.4.3"), type);
    EXPECT_EQ(schema.find("cn;lang-de"), type);
    EXPECT_EQ(schema.find("mail"), nullptr);
    EXPECT_EQ(schema.find(""), nullptr);
    EXPECT_EQ(LDAPSchema().find("cn"), nullptr);
}

TEST_F(ASchema, TakesTypesWithoutANumberForNobodysSuperior)
{
    schema.add("( NAME 'odd' EQUALITY caseExactMatch )");
    schema.add("( 1.2.3.4 NAME 'photo' )");

    EXPECT_EQ(schema.find(""), nullptr);
    EXPECT_EQ(schema.find(";x"), nullptr);
    EXPECT_EQ(schema.resolved(*schema.find("photo")).equality, "");
}

TEST_F(ASchema, TakesALengthOnlyWithItsSyntax)
{
    schema.add("( 1.2.3.4 NAME 'own' SUP name SYNTAX 1.3.6.1.4.1.1466.115.121.1.15 )");
    schema.add("( 1.2.3.5 NAME 'huge' SYNTAX 1.2{4294967295} )");

    EXPECT_EQ(schema.resolved(*schema.find("cn")).maxLength, 32768);
    EXPECT_EQ(schema.resolved(*schema.find("own")).maxLength, 0);
    EXPECT_EQ(schema.find("huge")->maxLength, 0);
}

TEST_F(ASchema, ReadsWhatDescriptionsEscape)
{
    schema.add(R"(( 1.2.3.4 NAME 'own' DESC 'it\27s \5C and \5c, not \28' ))");

    EXPECT_EQ(schema.find("own")->description, R"(it's \ and \, not \28)");
}

TEST_F(ASchema, HasEveryPartOfADefinition)
{
    schema.add("( 2.5.18.1 NAME 'createTimestamp' OBSOLETE EQUALITY generalizedTimeMatch ORDERING "
               "generalizedTimeOrderingMatch SYNTAX 1.3.6.1.4.1.1466.115.121.1.24 SINGLE-VALUE "
               "NO-USER-MODIFICATION USAGE directoryOperation )");
    LDAPSchema::AttributeType const& type = *schema.find("createtimestamp");

    EXPECT_EQ(type.oid, "2.5.18.1");
    EXPECT_THAT(type.names, ElementsAre("createTimestamp"));
    EXPECT_EQ(type.equality, "generalizedTimeMatch");
    EXPECT_EQ(type.ordering, "generalizedTimeOrderingMatch");
    EXPECT_EQ(type.substring, "");
    EXPECT_EQ(type.syntax, "1.3.6.1.4.1.1466.115.121.1.24");
    EXPECT_EQ(type.maxLength, 0);
    EXPECT_TRUE(type.isObsolete);
    EXPECT_TRUE(type.isSingleValued);
    EXPECT_FALSE(type.isCollective);
    EXPECT_TRUE(type.isReadOnly);
    EXPECT_EQ(type.usage, LDAPSchema::UsageDirectory);
    EXPECT_EQ(schema.find("name")->description, "of anything");
    EXPECT_EQ(schema.find("name")->maxLength, 32768);
    EXPECT_FALSE(schema.find("name")->isReadOnly);
    EXPECT_EQ(schema.find("name")->usage, LDAPSchema::UsageUser);
    EXPECT_EQ(schema.find("cn")->superior, "name");
}

TEST_F(ASchema, ResolvesWhatATypeInherits)
{
    schema.add("( 1.2.3 NAME 'nick' SUP CN EQUALITY caseExactMatch )");

    auto const nick = schema.resolved(*schema.find("nick"));

    EXPECT_EQ(nick.names.front(), "nick");
    EXPECT_EQ(nick.equality, "caseExactMatch");
    EXPECT_EQ(nick.substring, "caseIgnoreSubstringsMatch");
    EXPECT_EQ(nick.syntax, "1.3.6.1.4.1.1466.115.121.1.15");
    EXPECT_EQ(nick.maxLength, 32768);
    EXPECT_EQ(nick.description, "");
}

TEST_F(ASchema, EndsWithTypesThatAreDerivedFromEachOther)
{
    schema.add("( 1.2.3 NAME 'hen' SUP egg )");
    schema.add("( 1.2.4 NAME 'egg' SUP hen )");
    schema.add("( 1.2.5 NAME 'self' SUP self )");

    EXPECT_EQ(schema.resolved(*schema.find("hen")).syntax, "");
    EXPECT_EQ(schema.resolved(*schema.find("self")).syntax, "");
}

TEST_F(ASchema, ComparesTypesAndOthersAsTexts)
{
    EXPECT_TRUE(schema.isSameType("cn", "2.5.4.3"));
    EXPECT_TRUE(schema.isSameType("CN;lang-de", "commonName"));
    EXPECT_FALSE(schema.isSameType("cn", "name"));
    EXPECT_FALSE(schema.isSameType("cn", "mail"));
    EXPECT_FALSE(schema.isSameType("mail", "cn"));
    EXPECT_TRUE(schema.isSameType("mail", "MAIL;x-home"));
    EXPECT_FALSE(schema.isSameType("mail", "mailbox"));
}

TEST_F(ASchema, TakesTheLaterOfTwoDefinitions)
{
    schema.add("( 2.5.4.3 NAME 'cn' DESC 'later' SUP name )");

    EXPECT_EQ(schema.find("cn")->description, "later");
    EXPECT_EQ(schema.find("2.5.4.3")->description, "later");
    EXPECT_THAT(schema.attributeTypes(), SizeIs(3));
}

TEST_F(ASchema, RefusesMalformedDefinitionsWithTheirPosition)
{
    auto const thrown = thrownBy([this] { schema.add("( 1.2.3 NAME 'a' NONSENSE )"); });
    EXPECT_THAT(thrown, IsFault("Schema.cpp", 46, 2, 0));
    EXPECT_GT(thrown.intParameter(), 15);

    for (char const* const definition : {"", "(", "( garbage", "( 1.2.3 NAME 'a'", "x"}) {
        EXPECT_THAT(thrownBy([&] { schema.add(definition); }), IsFault("Schema.cpp", 46, 2, 0))
            << definition;
    }
    EXPECT_THAT(thrownBy([this] { schema.add(std::string("( 1.2.3 )\0", 10)); }),
                IsFault("Operation.cpp", 70, 2, 0));
    EXPECT_THAT(schema.attributeTypes(), SizeIs(2));
}

TEST_F(ASchema, OfAnEntryLeavesOutWhatCannotBeParsed)
{
    LDAPAttribute types(LDAPAttributeType("ATTRIBUTETYPES"));
    types.value(std::string(commonName));
    types.value(std::string("( garbage"));
    types.value(std::string(name));
    LDAPSearchResultEntry entry("cn=Subschema");
    entry.appendAttribute(types);

    LDAPSchema const read(entry);

    EXPECT_NE(read.find("cn"), nullptr);
    EXPECT_NE(read.find("name"), nullptr);
    EXPECT_THAT(read.malformed(), ElementsAre("( garbage"));
    EXPECT_THAT(LDAPSchema(LDAPSearchResultEntry("cn=Subschema")).attributeTypes(), IsEmpty());
}

TEST_F(ASchema, IsAValue)
{
    LDAPSchema copy = schema;
    copy.add("( 1.2.3 NAME 'mail' )");

    EXPECT_EQ(schema.find("mail"), nullptr);
    ASSERT_NE(copy.find("mail"), nullptr);
    EXPECT_NE(copy.find("cn"), schema.find("cn"));
}

TEST(ResultCodes, AreFoundByNumberAndName)
{
    LDAPResultCodes::Code const* const code = LDAPResultCodes::find(32);

    ASSERT_NE(code, nullptr);
    EXPECT_STREQ(code->name, "noSuchObject");
    EXPECT_EQ(LDAPResultCodes::find("NOSUCHOBJECT"), code);
    EXPECT_STREQ(LDAPResultCodes::find(-1)->name, "LDAP_SERVER_DOWN");
    EXPECT_EQ(LDAPResultCodes::find("e-syncRefreshRequired")->value, 4096);
    EXPECT_EQ(LDAPResultCodes::find(81), nullptr);
    EXPECT_EQ(LDAPResultCodes::find("nonsense"), nullptr);
    std::pair<int, char const*> const others[] = {
        // of RFC 4511 and later ones
        {0, "success"},
        {1, "operationsError"},
        {4, "sizeLimitExceeded"},
        {10, "referral"},
        {12, "unavailableCriticalExtension"},
        {14, "saslBindInProgress"},
        {18, "inappropriateMatching"},
        {34, "invalidDNSyntax"},
        {49, "invalidCredentials"},
        {50, "insufficientAccessRights"},
        {68, "entryAlreadyExists"},
        {80, "other"},
        {118, "canceled"},
        {119, "noSuchOperation"},
        {120, "tooLate"},
        {121, "cannotCancel"},
        {122, "assertionFailed"},
        {123, "authorizationDenied"},
    };
    for (auto const& [value, name] : others) {
        ASSERT_NE(LDAPResultCodes::find(value), nullptr) << value;
        EXPECT_STREQ(LDAPResultCodes::find(value)->name, name);
    }
    for (LDAPResultCodes::Code const& each : LDAPResultCodes::all()) {
        ASSERT_NE(LDAPResultCodes::find(each.value), nullptr) << each.name;
        EXPECT_STREQ(LDAPResultCodes::find(each.value)->name, each.name);
        EXPECT_STREQ(LDAPResultCodes::find(std::string(each.name))->name, each.name);
        EXPECT_THAT(each.meaning, EndsWith(".")) << each.name;
    }
}

TEST(ResultCodes, AreAllThatOpenLdapHasATextFor)
{
    for (int value = -100; value <= 5000; ++value) {
        std::string const text = ldap_err2string(value);
        bool const isKnown =
            text.find("Unknown") == std::string::npos || value == LDAP_AUTH_UNKNOWN;
        if (isKnown && value != LDAP_X_PROXY_AUTHZ_FAILURE) {
            EXPECT_NE(LDAPResultCodes::find(value), nullptr) << value << ' ' << text;
        }
    }
}

TEST(ResultCodes, HaveATextWithTheirNumber)
{
    EXPECT_EQ(LDAPResultCodes::text(32), "No such object (32)");
    EXPECT_EQ(LDAPResultCodes::text(-1), "Can't contact LDAP server (-1)");
    EXPECT_EQ(LDAPResultCodes::text(LDAP_AUTH_UNKNOWN), "Unknown authentication method (-6)");
    EXPECT_EQ(LDAPResultCodes::text(9999), "Unknown (extension) error (9999)");
    for (LDAPResultCodes::Code const& each : LDAPResultCodes::all()) {
        EXPECT_EQ(LDAPResultCodes::text(each.value).find("Unknown") == 0,
                  each.value == LDAP_AUTH_UNKNOWN)
            << each.name;
    }
}

} // namespace
