// Names in filters, and names that a schema knows.
#include "AttributeNames.h"

#include <gmock/gmock.h>

namespace Solvane::Tool {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(AttributesInAFilter, AreThoseOfEachComparison)
{
    EXPECT_THAT(attributesInFilter("(|(mail=a@b)(&(uid~=a)(!(age>=3))(age<=9)))"),
                ElementsAre("mail", "uid", "age", "age"));
}

TEST(AttributesInAFilter, HaveNoOptionsAndNoMatchingRules)
{
    EXPECT_THAT(attributesInFilter("(|(cn;lang-fr=a)(ou:dn:caseIgnoreMatch:=b))"),
                ElementsAre("cn", "ou"));
}

TEST(AttributesInAFilter, MayBeSurroundedByBlanks)
{
    EXPECT_THAT(attributesInFilter("( mail =a)"), ElementsAre("mail"));
}

TEST(AttributesInAFilter, AreNotWantedFromARuleAloneOrFromNothing)
{
    EXPECT_THAT(attributesInFilter("(:caseExactMatch:=a)"), IsEmpty());
    EXPECT_THAT(attributesInFilter("("), IsEmpty());
    EXPECT_THAT(attributesInFilter(""), IsEmpty());
}

TEST(AnAttributeName, IsASelectorWithoutItsOptions)
{
    EXPECT_EQ(attributeNameOf("userCertificate;binary"), "userCertificate");
    EXPECT_EQ(attributeNameOf("mail"), "mail");
}

TEST(AnAttributeName, IsNotASelectorOfMany)
{
    for (char const* const selector : {"*", "+", "@person", "1.1"}) {
        EXPECT_EQ(attributeNameOf(selector), "") << selector;
    }
}

class KnownNames : public testing::Test {
protected:
    KnownNames()
    {
        names.add("( 0.9.2342.19200300.100.1.3 NAME ( 'mail' 'rfc822Mailbox' ) SYNTAX "
                  "1.3.6.1.4.1.1466.115.121.1.26{256} )");
        names.add("( 2.5.4.3 NAME 'cn' SUP name )");
        names.add("( 1.2.3.4 NAME 'mailAlternateAddress' )");
        names.add("( garbage");
    }

    AttributeNames names;
};

TEST_F(KnownNames, AreThoseOfTheDefinitionsInAnyCaseAndTheirNumbers)
{
    EXPECT_TRUE(names.has("mail"));
    EXPECT_TRUE(names.has("RFC822mailbox"));
    EXPECT_TRUE(names.has("2.5.4.3"));
    EXPECT_FALSE(names.has("name"));
    EXPECT_FALSE(names.has("maill"));
    EXPECT_TRUE(AttributeNames().isEmpty());
}

TEST_F(KnownNames, AreSuggestedForMisspeltOnes)
{
    EXPECT_EQ(names.similarTo("maill"), "mail");
    EXPECT_EQ(names.similarTo("maik"), "mail");
    EXPECT_EQ(names.similarTo("CM"), "cn");
    EXPECT_EQ(names.similarTo("mailalternateadress"), "mailAlternateAddress");
}

TEST_F(KnownNames, AreNotSuggestedForOthers)
{
    EXPECT_EQ(names.similarTo("telephoneNumber"), "");
    EXPECT_EQ(names.similarTo("uid"), "");
    EXPECT_EQ(AttributeNames().similarTo("mail"), "");
}

} // namespace
} // namespace Solvane::Tool
