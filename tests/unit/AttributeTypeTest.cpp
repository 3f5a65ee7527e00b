// Attribute descriptions: parsing, options, the two caches, comparison.
#include <solvane/ldap/LDAPAttribute.h>

#include "Faults.h"

#include <gmock/gmock.h>

#include <list>
#include <string>

using namespace Solvane;
using SolvaneTest::IsNullHandle;
using SolvaneTest::thrownBy;
using testing::ElementsAre;

namespace {

/// A description, and what is read from it.
struct Description {
    std::string text;
    std::string type;
    std::list<std::string> options;
    std::string asString;
    bool isBinary;
};

// clang-format off
Description const descriptions[] = {
    {"cn",                       "cn",              {},                      "cn",                       false},
    {"userCertificate;Lang-EN",  "userCertificate", {"Lang-EN"},             "userCertificate;Lang-EN",  false},
    {"cn;b;a;b",                 "cn",              {"b", "a", "b"},         "cn;b;a;b",                 false},
    {std::string("c\0n;a\0b", 7), std::string("c\0n", 3), {std::string("a\0b", 3)}, std::string("c\0n;a\0b", 7), false},
    // Binary: the option in any case, and no other.
    {"userCertificate;binary",   "userCertificate", {"binary"},              "userCertificate;binary",   true},
    {"x;BINARY",                 "x",               {"BINARY"},              "x;BINARY",                 true},
    {"x;Binary",                 "x",               {"Binary"},              "x;Binary",                 true},
    {"x;lang-en;bInArY;other",   "x",               {"lang-en", "bInArY", "other"}, "x;lang-en;bInArY;other", true},
    {"x;binary2",                "x",               {"binary2"},             "x;binary2",                false},
    {"x;bin",                    "x",               {"bin"},                 "x;bin",                    false},
    {"binary",                   "binary",          {},                      "binary",                   false},
    // Blanks round the whole and round each option are dropped; one before the first semicolon stays.
    {" \t cn \r\n",              "cn",              {},                      "cn",                       false},
    {"cn;binary \n",             "cn",              {"binary"},              "cn;binary",                true},
    {"cn; lang-en ;binary",      "cn",              {"lang-en", "binary"},   "cn;lang-en;binary",        true},
    {"cn ;binary",               "cn ",             {"binary"},              "cn ;binary",               true},
    // It is cut at the position that the untrimmed text has.
    {" cn;binary",               "cn;",             {"inary"},               "cn;;inary",                false},
    {"          cn;binary",      "cn;binary",       {},                      "cn;binary",                false},
    // Empty parts: an option is kept, except behind a last semicolon.
    {"cn;;binary",               "cn",              {"", "binary"},          "cn;;binary",               true},
    {"cn;",                      "cn",              {},                      "cn",                       false},
    {"cn;a;",                    "cn",              {"a"},                   "cn;a",                     false},
    {"",                         "",                {},                      "",                         false},
    {"  ",                       "",                {},                      "",                         false},
    {";a;binary",                "",                {"a", "binary"},         "",                         true},
};
// clang-format on

} // namespace

TEST(AnAttributeDescription, IsATypeAndOptions)
{
    for (Description const& row : descriptions) {
        SCOPED_TRACE('"' + row.text + '"');
        LDAPAttributeType const type(row.text);

        EXPECT_FALSE(type.isNull());
        EXPECT_EQ(type.type(), row.type);
        EXPECT_EQ(type.options(), row.options);
        EXPECT_EQ(type.asString(), row.asString);
        EXPECT_EQ(type.isBinary(), row.isBinary);
    }
}

TEST(AnAttributeDescription, ThatIsMovedFromIsNullAndLeavesItsBodyToTheOther)
{
    LDAPAttributeType first("cn;a");
    std::list<std::string> const* const options = &first.options();

    LDAPAttributeType second(std::move(first));
    LDAPAttributeType third("sn");
    third = std::move(second);

    EXPECT_TRUE(first.isNull());
    EXPECT_TRUE(second.isNull());
    EXPECT_EQ(&third.options(), options);
}

TEST(AddingAnOption, DropsBlanksRoundIt)
{
    LDAPAttributeType type("cn");

    type.add("\t lang-de ");

    EXPECT_THAT(type.options(), ElementsAre("lang-de"));
}

TEST(AddingAnOption, TakesAnEmptyOne)
{
    LDAPAttributeType type("cn");

    type.add("");
    type.add("  ");

    EXPECT_THAT(type.options(), ElementsAre("", ""));
    EXPECT_EQ(type.asString(), "cn;;");
}

TEST(AddingAnOption, DoesNotTakeTheTextApart)
{
    LDAPAttributeType type("cn");

    type.add("a;binary");

    EXPECT_THAT(type.options(), ElementsAre("a;binary"));
    EXPECT_FALSE(type.isBinary());
}

TEST(AddingAnOption, ChangesAnAnswerGivenBefore)
{
    LDAPAttributeType type("cn");
    ASSERT_FALSE(type.isBinary());
    ASSERT_EQ(type.asString(), "cn");

    type.add("binary");

    EXPECT_TRUE(type.isBinary());
    EXPECT_EQ(type.asString(), "cn;binary");
}

TEST(AddingAnOption, LeavesABinaryDescriptionBinary)
{
    LDAPAttributeType type("cn;binary");
    ASSERT_TRUE(type.isBinary());

    type.add("lang-en");

    EXPECT_TRUE(type.isBinary());
    EXPECT_EQ(type.asString(), "cn;binary;lang-en");
}

TEST(AddingAnOption, ShowsThroughEveryHandleOfTheBody)
{
    LDAPAttributeType first("cn");
    LDAPAttributeType second(first);
    LDAPAttributeType third;
    third = first;

    second.add("a");
    third.add("b");

    EXPECT_THAT(first.options(), ElementsAre("a", "b"));
    EXPECT_EQ(&first.options(), &second.options());
    EXPECT_EQ(&first.options(), &third.options());
}

TEST(ComparingDescriptions, IgnoresCaseInTypeAndOptions)
{
    EXPECT_TRUE(LDAPAttributeType("CN;Binary") == LDAPAttributeType("cn;binary"));
    EXPECT_TRUE(LDAPAttributeType("MAIL") == LDAPAttributeType("mail"));
}

TEST(ComparingDescriptions, MindsOrderAndRepetitionOfOptions)
{
    EXPECT_FALSE(LDAPAttributeType("cn;a;b") == LDAPAttributeType("cn;b;a"));
    EXPECT_FALSE(LDAPAttributeType("cn;a") == LDAPAttributeType("cn;a;a"));
    EXPECT_FALSE(LDAPAttributeType("cn") == LDAPAttributeType("cn;a"));
}

TEST(ComparingDescriptions, ComparesTheWholeTexts)
{
    EXPECT_FALSE(LDAPAttributeType("mail") == LDAPAttributeType("mailbox"));
    EXPECT_FALSE(LDAPAttributeType("mailbox") == LDAPAttributeType("mail"));
    EXPECT_FALSE(LDAPAttributeType(std::string("a\0b", 3)) ==
                 LDAPAttributeType(std::string("a\0c", 3)));
}

TEST(ComparingDescriptions, FindsAllThatRenderAsNothingEqual)
{
    EXPECT_TRUE(LDAPAttributeType(";a") == LDAPAttributeType(""));
}

TEST(ComparingDescriptions, FindsANullHandleEqualOnlyToItself)
{
    LDAPAttributeType const null;
    LDAPAttributeType const otherNull;
    LDAPAttributeType const empty("");

    EXPECT_TRUE(null == null);
    EXPECT_FALSE(null == otherNull);
    EXPECT_FALSE(null == empty);
    EXPECT_FALSE(empty == null);
}

TEST(ComparingDescriptions, FindsCopiesEqual)
{
    LDAPAttributeType const type("cn;a");
    LDAPAttributeType const copy(type);

    EXPECT_TRUE(type == copy);
    EXPECT_TRUE(copy == type);
}

TEST(ANullDescription, IsMadeByTheDefaultConstructorAndByCopyingOne)
{
    LDAPAttributeType const null;
    LDAPAttributeType const copy(null);

    EXPECT_TRUE(null.isNull());
    EXPECT_TRUE(copy.isNull());
    EXPECT_FALSE(LDAPAttributeType("").isNull());
}

TEST(ANullDescription, ReportsTheOperationThatWasCalled)
{
    LDAPAttributeType null;
    LDAPAttributeType const& reader = null;

    EXPECT_THAT(thrownBy([&] { reader.asString(); }), IsNullHandle("Attribute.cpp", 41));
    EXPECT_THAT(thrownBy([&] { reader.type(); }), IsNullHandle("Attribute.cpp", 50));
    EXPECT_THAT(thrownBy([&] { reader.isBinary(); }), IsNullHandle("Attribute.cpp", 59));
    EXPECT_THAT(thrownBy([&] { null.add("a"); }), IsNullHandle("Attribute.cpp", 68));
    EXPECT_THAT(thrownBy([&] { reader.options(); }), IsNullHandle("Attribute.cpp", 78));
    EXPECT_TRUE(null.isNull());
}
