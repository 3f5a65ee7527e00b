// Attributes and their descriptions: values as bytes and as text, what is remembered of them,
// parsing, options and comparison.
#include <solvane/ldap/LDAPAttribute.h>

#include "Faults.h"

#include <solvane/ldap/impl/LDAPAttributeImpl.h>

#include <ldap.h>

#include <gmock/gmock.h>

#include <deque>
#include <list>
#include <string>
#include <vector>

using namespace Solvane;
using SolvaneTest::IsNullHandle;
using SolvaneTest::thrownBy;
using testing::ElementsAre;
using testing::IsEmpty;

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

// Attributes: values as bytes and as text, and what is remembered of them.

namespace {

std::string bytesOf(Buffer const& buffer)
{
    return std::string(reinterpret_cast<char const*>(buffer.data()), buffer.length());
}

std::vector<std::string> bytesOf(LDAPAttribute const& attribute)
{
    std::vector<std::string> all;
    for (Buffer const& value : attribute.binaryValue()) {
        all.push_back(bytesOf(value));
    }
    return all;
}

Buffer bufferOf(std::string const& bytes)
{
    return Buffer(bytes.data(), static_cast<unsigned int>(bytes.size()), false);
}

/// A null-terminated array of values as OpenLDAP hands it out.
class BerValues {
public:
    explicit BerValues(std::vector<std::string> const& texts) : m_texts(texts.begin(), texts.end())
    {
        for (std::string& text : m_texts) {
            m_values.push_back(berval{text.size(), text.data()});
            m_pointers.push_back(&m_values.back());
        }
        m_pointers.push_back(nullptr);
    }
    BerValues(BerValues const&) = delete;
    BerValues& operator=(BerValues const&) = delete;

    berval** array() { return m_pointers.data(); }
    /// Overwrites the values' bytes, as happens to freed memory.
    void spoil()
    {
        for (std::string& text : m_texts) {
            text.assign(text.size(), '?');
        }
    }

private:
    std::deque<std::string> m_texts;
    std::deque<berval> m_values;
    std::vector<berval*> m_pointers;
};

} // namespace

TEST(AnAttribute, StartsWithoutValues)
{
    LDAPAttribute const attribute(LDAPAttributeType("cn"));

    EXPECT_FALSE(attribute.isNull());
    EXPECT_EQ(attribute.type().asString(), "cn");
    EXPECT_THAT(attribute.binaryValue(), IsEmpty());
    EXPECT_THAT(attribute.value(), IsEmpty());
    EXPECT_EQ(attribute.asString(','), "");
}

TEST(AnAttribute, IsMadeFromOneValueOrAnArray)
{
    BerValues values({"one", "two"});

    EXPECT_THAT(bytesOf(LDAPAttribute(LDAPAttributeType("cn"), bufferOf("one"))),
                ElementsAre("one"));
    EXPECT_THAT(bytesOf(LDAPAttribute(LDAPAttributeType("cn"), values.array())),
                ElementsAre("one", "two"));
}

TEST(AnAttribute, SharesTheDescriptionItWasGiven)
{
    LDAPAttributeType type("cn");
    LDAPAttribute const attribute(type);

    type.add("binary");

    EXPECT_TRUE(attribute.type().isBinary());
    EXPECT_EQ(&attribute.type().options(), &type.options());
}

TEST(AnAttribute, TakesANullDescription)
{
    LDAPAttribute const attribute{LDAPAttributeType()};

    EXPECT_FALSE(attribute.isNull());
    EXPECT_TRUE(attribute.type().isNull());
}

TEST(AnAttribute, AppendsTextsAndBuffersInTheOrderOfTheCalls)
{
    LDAPAttribute attribute(LDAPAttributeType("cn"));

    attribute.value("b");
    attribute.value(bufferOf("a"));
    attribute.value(std::string());
    attribute.value("b");

    EXPECT_THAT(bytesOf(attribute), ElementsAre("b", "a", "", "b"));
    EXPECT_THAT(attribute.value(), ElementsAre("b", "a", "", "b"));
}

TEST(AnAttribute, KeepsTheLengthOfAValueWithZeroBytes)
{
    std::string const bytes("\0a\0b\0", 5);
    BerValues values({bytes});
    LDAPAttribute attribute(LDAPAttributeType("jpegPhoto"), values.array());

    attribute.value(bytes);
    attribute.value(bufferOf(bytes));

    EXPECT_THAT(bytesOf(attribute), ElementsAre(bytes, bytes, bytes));
    EXPECT_THAT(attribute.value(), ElementsAre(bytes, bytes, bytes));
    EXPECT_EQ(attribute.asString('|'), bytes + "|" + bytes + "|" + bytes);
}

TEST(AnAttribute, OwnsCopiesOfItsValues)
{
    BerValues values({"one", "two"});
    std::string text = "three";
    Buffer buffer = bufferOf("four");
    LDAPAttribute attribute(LDAPAttributeType("cn"), values.array());
    attribute.value(text);
    attribute.value(buffer);

    values.spoil();
    text[0] = '?';
    buffer.data()[0] = '?';

    EXPECT_THAT(bytesOf(attribute), ElementsAre("one", "two", "three", "four"));
}

TEST(AnAttribute, SharesItsValuesWithItsCopies)
{
    LDAPAttribute first(LDAPAttributeType("cn"));
    LDAPAttribute second(first);
    LDAPAttribute third;
    third = first;

    second.value("a");
    third.value("b");

    EXPECT_THAT(bytesOf(first), ElementsAre("a", "b"));
    EXPECT_EQ(&first.binaryValue(), &second.binaryValue());
    EXPECT_EQ(&first.binaryValue(), &third.binaryValue());
}

TEST(AnAttribute, ThatIsMovedFromIsNullAndLeavesItsBodyToTheOther)
{
    LDAPAttribute first(LDAPAttributeType("cn"), bufferOf("a"));
    std::list<Buffer> const* const values = &first.binaryValue();

    LDAPAttribute second(std::move(first));
    LDAPAttribute third(LDAPAttributeType("sn"));
    third = std::move(second);

    EXPECT_TRUE(first.isNull());
    EXPECT_TRUE(second.isNull());
    EXPECT_EQ(&third.binaryValue(), values);
}

TEST(AnAttribute, TakesOverADescriptionThatIsMovedIn)
{
    BerValues values({"one", "two"});
    LDAPAttributeType type("cn;lang-en");
    std::list<std::string> const* const options = &type.options();

    LDAPAttribute const attribute(std::move(type), values.array());

    EXPECT_TRUE(type.isNull());
    EXPECT_EQ(&attribute.type().options(), options);
    EXPECT_THAT(bytesOf(attribute), ElementsAre("one", "two"));
}

TEST(SettingAnArrayOfValues, ReplacesAllValues)
{
    BerValues values({"new"});
    LDAPAttribute attribute(LDAPAttributeType("cn"), bufferOf("old"));
    attribute.value("older");

    attribute.value(values.array());

    EXPECT_THAT(bytesOf(attribute), ElementsAre("new"));
}

TEST(SettingAnArrayOfValues, LeavesNoneForANullOrEmptyArray)
{
    BerValues none({});
    for (berval** const array : {static_cast<berval**>(nullptr), none.array()}) {
        LDAPAttribute attribute(LDAPAttributeType("cn"), bufferOf("old"));

        attribute.value(array);

        EXPECT_THAT(attribute.binaryValue(), IsEmpty());
        EXPECT_THAT(attribute.value(), IsEmpty());
        EXPECT_EQ(attribute.asString(','), "");
    }
}

TEST(SettingAnArrayOfValues, TakesAnEmptyValueWithoutBytes)
{
    berval empty{0, nullptr};
    berval* array[] = {&empty, nullptr};
    LDAPAttribute attribute(LDAPAttributeType("cn"));

    attribute.value(array);

    EXPECT_THAT(bytesOf(attribute), ElementsAre(""));
    EXPECT_THAT(attribute.value(), ElementsAre(""));
}

TEST(TheTextOfAnAttribute, HasNoSeparatorForOneValue)
{
    LDAPAttribute const attribute(LDAPAttributeType("cn"), bufferOf("one"));

    EXPECT_EQ(attribute.asString(','), "one");
}

TEST(TheTextOfAnAttribute, JoinsItsValuesWithoutTheDescription)
{
    LDAPAttribute attribute(LDAPAttributeType("description"));
    attribute.value("one");
    attribute.value("two");

    EXPECT_EQ(attribute.asString(','), "one,two");
    EXPECT_EQ(attribute.asString('\n'), "one\ntwo");
    EXPECT_EQ(attribute.asString('\0'), std::string("one\0two", 7));
}

TEST(TheTextOfAnAttribute, WritesValuesAsTheyAre)
{
    LDAPAttribute attribute(LDAPAttributeType("cn;binary"));
    attribute.value("a,b");
    attribute.value("");
    attribute.value("\"\\\xff");

    EXPECT_EQ(attribute.asString(','), "a,b,,\"\\\xff");
}

TEST(TheTextOfAnAttribute, IsMadeAnewAtEachCall)
{
    LDAPAttribute attribute(LDAPAttributeType("cn"));
    attribute.value("a");
    attribute.value("b");
    std::string const& text = attribute.asString(',');

    attribute.asString(';');

    EXPECT_EQ(text, "a;b");
}

TEST(TheTextOfAnAttribute, IsLeftAloneByACallWithTheSameSeparator)
{
    LDAPAttribute attribute(LDAPAttributeType("cn"));
    attribute.value("a value that no string keeps in itself");
    attribute.value("b");
    std::string const& text = attribute.asString(',');
    char const* const characters = text.data();

    EXPECT_EQ(&attribute.asString(','), &text);
    EXPECT_EQ(text.data(), characters);
}

TEST(TheTextValues, OnceReadStayAsTheyAre)
{
    LDAPAttribute attribute(LDAPAttributeType("cn"), bufferOf("old"));
    ASSERT_THAT(attribute.value(), ElementsAre("old"));

    attribute.value("new");
    attribute.value(bufferOf("newer"));

    EXPECT_THAT(attribute.value(), ElementsAre("old"));
    EXPECT_EQ(attribute.asString(','), "old");
    EXPECT_THAT(bytesOf(attribute), ElementsAre("old", "new", "newer"));
}

TEST(TheTextValues, OnceReadOutliveAReplacement)
{
    BerValues values({"new"});
    LDAPAttribute attribute(LDAPAttributeType("cn"), bufferOf("old"));
    ASSERT_EQ(attribute.asString(','), "old");

    attribute.value(values.array());
    attribute.value(static_cast<berval**>(nullptr));

    EXPECT_THAT(attribute.value(), ElementsAre("old"));
    EXPECT_EQ(attribute.asString(','), "old");
    EXPECT_THAT(attribute.binaryValue(), IsEmpty());
}

TEST(TheTextValues, AreNotCachedWhileThereAreNone)
{
    LDAPAttribute attribute(LDAPAttributeType("cn"));
    ASSERT_THAT(attribute.value(), IsEmpty());
    ASSERT_EQ(attribute.asString(','), "");

    attribute.value("first");

    EXPECT_THAT(attribute.value(), ElementsAre("first"));
}

TEST(AnAttributeBody, HasValuesOfItsOwnWhenCopied)
{
    LDAPAttributeImpl original;
    original.type(LDAPAttributeType("cn"));
    original.value(std::string("a"));

    LDAPAttributeImpl copy(original);
    copy.value(std::string("b"));

    EXPECT_EQ(original.binaryValue().size(), 1U);
    EXPECT_EQ(copy.binaryValue().size(), 2U);
    EXPECT_EQ(copy.type().asString(), "cn");
}

TEST(AnAttributeBody, TakesTextsAlongWhenCopiedAndAssigned)
{
    LDAPAttributeImpl original;
    original.value(std::string("a"));
    original.value(std::string("b"));
    LDAPAttributeImpl const& reader = original;
    ASSERT_EQ(reader.asString(','), "a,b");
    original.value(nullptr);

    LDAPAttributeImpl const copy(original);
    LDAPAttributeImpl assigned;
    assigned = original;

    EXPECT_THAT(copy.value(), ElementsAre("a", "b"));
    EXPECT_EQ(copy.asString(';'), "a;b");
    LDAPAttributeImpl const& assignedReader = assigned;
    EXPECT_THAT(assignedReader.value(), ElementsAre("a", "b"));
    EXPECT_EQ(reader.asString(','), "a,b");
}

TEST(AnAttributeBody, KeepsAllWhenAssignedToItself)
{
    LDAPAttributeImpl body;
    body.type(LDAPAttributeType("cn"));
    body.value(std::string("a"));
    LDAPAttributeImpl const& itself = body;
    ASSERT_THAT(itself.value(), ElementsAre("a"));

    body = itself;

    EXPECT_EQ(itself.type().asString(), "cn");
    EXPECT_THAT(itself.value(), ElementsAre("a"));
    EXPECT_EQ(itself.binaryValue().size(), 1U);
}

TEST(AnAttributeBody, HasANullDescriptionUntilItIsSet)
{
    LDAPAttributeImpl const body;

    EXPECT_TRUE(body.type().isNull());
}

TEST(ANullAttribute, IsMadeByTheDefaultConstructorAndByCopyingOne)
{
    LDAPAttribute const null;
    LDAPAttribute const copy(null);
    LDAPAttribute assigned(LDAPAttributeType("cn"));

    assigned = null;

    EXPECT_TRUE(null.isNull());
    EXPECT_TRUE(copy.isNull());
    EXPECT_TRUE(assigned.isNull());
}

TEST(ANullAttribute, ReportsTheOperationThatWasCalled)
{
    LDAPAttribute null;
    LDAPAttribute const& reader = null;
    BerValues values({"a"});

    EXPECT_THAT(thrownBy([&] { reader.type(); }), IsNullHandle("Attribute.cpp", 247));
    EXPECT_THAT(thrownBy([&] { null.value("a"); }), IsNullHandle("Attribute.cpp", 256));
    EXPECT_THAT(thrownBy([&] { null.value(bufferOf("a")); }), IsNullHandle("Attribute.cpp", 265));
    EXPECT_THAT(thrownBy([&] { reader.binaryValue(); }), IsNullHandle("Attribute.cpp", 274));
    EXPECT_THAT(thrownBy([&] { null.value(values.array()); }), IsNullHandle("Attribute.cpp", 283));
    EXPECT_THAT(thrownBy([&] { reader.value(); }), IsNullHandle("Attribute.cpp", 292));
    EXPECT_THAT(thrownBy([&] { reader.asString(','); }), IsNullHandle("Attribute.cpp", 301));
    EXPECT_TRUE(null.isNull());
}
