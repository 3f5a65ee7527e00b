// Attribute descriptions: parsing, options, the two caches, comparison.
#include <solvane/ldap/LDAPAttribute.h>

#include "Faults.h"

#include <gmock/gmock.h>

using namespace Solvane;
using SolvaneTest::IsFault;
using SolvaneTest::thrownBy;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(AnAttributeDescription, IsItsTypeIfThereIsNoOption)
{
    LDAPAttributeType const type("cn");

    EXPECT_EQ(type.type(), "cn");
    EXPECT_THAT(type.options(), IsEmpty());
    EXPECT_EQ(type.asString(), "cn");
    EXPECT_FALSE(type.isBinary());
}

TEST(AnAttributeDescription, KeepsTheCaseOfItsTypeAndOptions)
{
    LDAPAttributeType const type("userCertificate;Lang-EN");

    EXPECT_EQ(type.type(), "userCertificate");
    EXPECT_THAT(type.options(), ElementsAre("Lang-EN"));
    EXPECT_EQ(type.asString(), "userCertificate;Lang-EN");
}

TEST(AnAttributeDescription, IsBinaryWithTheOptionBinary)
{
    LDAPAttributeType const type("userCertificate;binary");

    EXPECT_EQ(type.type(), "userCertificate");
    EXPECT_THAT(type.options(), ElementsAre("binary"));
    EXPECT_TRUE(type.isBinary());
}

TEST(AnAttributeDescription, IsBinaryWithTheOptionInAnyCase)
{
    EXPECT_TRUE(LDAPAttributeType("x;BINARY").isBinary());
    EXPECT_TRUE(LDAPAttributeType("x;Binary").isBinary());
    EXPECT_TRUE(LDAPAttributeType("x;lang-en;bInArY;other").isBinary());
}

TEST(AnAttributeDescription, IsNotBinaryForAnOptionThatOnlyResemblesIt)
{
    EXPECT_FALSE(LDAPAttributeType("x;binary2").isBinary());
    EXPECT_FALSE(LDAPAttributeType("x;bin").isBinary());
    EXPECT_FALSE(LDAPAttributeType("x;").isBinary());
    EXPECT_FALSE(LDAPAttributeType("binary").isBinary());
}

TEST(AnAttributeDescription, DropsBlanksRoundEachOption)
{
    LDAPAttributeType const type("cn; lang-en ;binary");

    EXPECT_THAT(type.options(), ElementsAre("lang-en", "binary"));
    EXPECT_EQ(type.asString(), "cn;lang-en;binary");
}

TEST(AnAttributeDescription, DropsBlanksRoundTheWhole)
{
    LDAPAttributeType const plain(" \t cn \r\n");
    LDAPAttributeType const withOption("cn;binary \n");

    EXPECT_EQ(plain.type(), "cn");
    EXPECT_EQ(plain.asString(), "cn");
    EXPECT_THAT(withOption.options(), ElementsAre("binary"));
}

TEST(AnAttributeDescription, KeepsABlankBetweenTypeAndOption)
{
    LDAPAttributeType const type("cn ;binary");

    EXPECT_EQ(type.type(), "cn ");
    EXPECT_EQ(type.asString(), "cn ;binary");
}

TEST(AnAttributeDescription, KeepsAnEmptyOption)
{
    LDAPAttributeType const type("cn;;binary");

    EXPECT_THAT(type.options(), ElementsAre("", "binary"));
    EXPECT_EQ(type.asString(), "cn;;binary");
}

TEST(AnAttributeDescription, HasNoOptionBehindALastSemicolon)
{
    LDAPAttributeType const bare("cn;");
    LDAPAttributeType const behindAnOption("cn;a;");

    EXPECT_EQ(bare.type(), "cn");
    EXPECT_THAT(bare.options(), IsEmpty());
    EXPECT_EQ(bare.asString(), "cn");
    EXPECT_THAT(behindAnOption.options(), ElementsAre("a"));
}

TEST(AnAttributeDescription, IsCutAtThePositionThatTheUntrimmedTextHas)
{
    LDAPAttributeType const oneBlank(" cn;binary");
    LDAPAttributeType const manyBlanks("          cn;binary");

    EXPECT_EQ(oneBlank.type(), "cn;");
    EXPECT_THAT(oneBlank.options(), ElementsAre("inary"));
    EXPECT_EQ(oneBlank.asString(), "cn;;inary");
    EXPECT_EQ(manyBlanks.type(), "cn;binary");
    EXPECT_THAT(manyBlanks.options(), IsEmpty());
}

TEST(AnAttributeDescription, MayBeEmpty)
{
    LDAPAttributeType const empty("");
    LDAPAttributeType const blank("  ");

    EXPECT_FALSE(empty.isNull());
    EXPECT_EQ(empty.type(), "");
    EXPECT_THAT(empty.options(), IsEmpty());
    EXPECT_EQ(empty.asString(), "");
    EXPECT_EQ(blank.asString(), "");
}

TEST(AnAttributeDescription, RendersAsNothingWithAnEmptyTypeAndOptions)
{
    LDAPAttributeType const type(";a;binary");

    EXPECT_EQ(type.type(), "");
    EXPECT_THAT(type.options(), ElementsAre("a", "binary"));
    EXPECT_EQ(type.asString(), "");
    EXPECT_TRUE(type.isBinary());
}

TEST(AnAttributeDescription, KeepsRepeatedOptionsInTheirOrder)
{
    LDAPAttributeType const type("cn;b;a;b");

    EXPECT_THAT(type.options(), ElementsAre("b", "a", "b"));
    EXPECT_EQ(type.asString(), "cn;b;a;b");
}

TEST(AnAttributeDescription, KeepsZeroBytes)
{
    std::string const text("c\0n;a\0b", 7);

    LDAPAttributeType const type(text);

    EXPECT_EQ(type.type(), std::string("c\0n", 3));
    EXPECT_THAT(type.options(), ElementsAre(std::string("a\0b", 3)));
    EXPECT_EQ(type.asString(), text);
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

    EXPECT_THAT(thrownBy([&] { reader.asString(); }), IsFault("Attribute.cpp", 41, 1, 0));
    EXPECT_THAT(thrownBy([&] { reader.type(); }), IsFault("Attribute.cpp", 50, 1, 0));
    EXPECT_THAT(thrownBy([&] { reader.isBinary(); }), IsFault("Attribute.cpp", 59, 1, 0));
    EXPECT_THAT(thrownBy([&] { null.add("a"); }), IsFault("Attribute.cpp", 68, 1, 0));
    EXPECT_THAT(thrownBy([&] { reader.options(); }), IsFault("Attribute.cpp", 78, 1, 0));
    EXPECT_TRUE(null.isNull());
}
