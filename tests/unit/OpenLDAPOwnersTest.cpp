// Owners of OpenLDAP memory: each object is freed once, by its own release call.
#include "CallTest.h"

#include <solvart/Buffer.h>

#include <new>
#include <type_traits>

namespace SolvaneTest {
namespace {

using Solvane::Buffer;
using Solvane::LDAPBerElementBuffer;
using Solvane::LDAPBerValBuffer;
using Solvane::LDAPBerValItemBuffer;
using Solvane::LDAPCharBuffer;
using Solvane::LDAPMessageBuffer;
using Solvane::LDAPValueBuffer;
using testing::ElementsAre;
using testing::IsEmpty;

template <typename Owner> constexpr bool isCopyable()
{
    return std::is_copy_constructible<Owner>::value || std::is_copy_assignable<Owner>::value;
}
static_assert(!isCopyable<LDAPMessageBuffer>() && !isCopyable<LDAPCharBuffer>() &&
                  !isCopyable<LDAPValueBuffer>() && !isCopyable<LDAPBerElementBuffer>() &&
                  !isCopyable<LDAPBerValBuffer>() && !isCopyable<LDAPBerValItemBuffer>(),
              "two owners of one object would give it back twice");

using AnOwner = CallTest;
using AMessageOwner = CallTest;
using ATextOwner = CallTest;
using AnArrayOwner = CallTest;
using APositionOwner = CallTest;
using AValuesOwner = CallTest;
using AValueOwner = CallTest;

berval** newValues(std::vector<std::string> const& texts)
{
    auto** const array = static_cast<berval**>(ber_memcalloc(texts.size() + 1, sizeof(berval*)));
    for (std::size_t i = 0; i < texts.size(); ++i) {
        array[i] = ber_mem2bv(texts[i].data(), texts[i].size(), 1, nullptr);
    }
    return array;
}

std::string bytesOf(Buffer const& buffer)
{
    return std::string(reinterpret_cast<char const*>(buffer.data()), buffer.length());
}

std::string joined(char const* separator, std::vector<std::string> const& values,
                   std::string const& before = "")
{
    LDAPBerValBuffer owner(separator);
    *owner.address() = newValues(values);
    Buffer out(before.data(), static_cast<unsigned int>(before.size()), false);
    owner.asBuffer(out);
    return bytesOf(out);
}

TEST_F(AnOwner, StartsEmptyAndThenGivesNothingBack)
{
    {
        LDAPMessageBuffer message;
        LDAPCharBuffer text;
        LDAPValueBuffer array;
        LDAPBerElementBuffer position;
        LDAPBerValBuffer values(",");
        EXPECT_EQ(message.get(), nullptr);
        EXPECT_EQ(text.get(), nullptr);
        EXPECT_EQ(array.get(), nullptr);
        EXPECT_EQ(position.get(), nullptr);
        EXPECT_EQ(values.get(), nullptr);
        message.free();
        text.free();
        array.free();
        position.free();
        values.free();
    }

    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnOwner, GivesItsObjectBackOnceHoweverOftenItIsFreed)
{
    {
        LDAPCharBuffer owner;
        *owner.address() = ber_strdup("a");
        owner.free();
        owner.free();
    }

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_memfree 'a'"));
}

TEST_F(AnOwner, IsEmptyAfterItWasFreed)
{
    LDAPCharBuffer owner;
    *owner.address() = ber_strdup("a");

    owner.free();

    EXPECT_EQ(owner.get(), nullptr);
}

TEST_F(AnOwner, CanBeFilledAgain)
{
    {
        LDAPCharBuffer owner;
        *owner.address() = ber_strdup("a");
        owner.free();
        *owner.address() = ber_strdup("b");
    }

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_memfree 'a'", "ldap_memfree 'b'"));
}

TEST_F(AnOwner, GivesItsObjectBackWhenAnExceptionLeaves)
{
    try {
        LDAPCharBuffer owner;
        *owner.address() = ber_strdup("a");
        throw 1;
    } catch (int) {
    }

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_memfree 'a'"));
}

TEST_F(AMessageOwner, ReleasesWithLdapMsgfree)
{
    LDAPMessage* const message = messages.entry("cn=a");
    openldap.name(message, "message");
    {
        LDAPMessageBuffer owner;
        *owner.address() = message;
    }

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_msgfree message"));
}

TEST_F(ATextOwner, ReleasesWithLdapMemfree)
{
    {
        LDAPCharBuffer owner;
        *owner.address() = ber_strdup("text");
    }

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_memfree 'text'"));
}

TEST_F(AnArrayOwner, ReleasesWithLdapValueFree)
{
    {
        LDAPValueBuffer owner;
        *owner.address() = newTexts({"x", "y"});
    }

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_value_free ['x' 'y']"));
}

TEST_F(AnArrayOwner, AppendsItsTextsInOrderToWhatTheListHolds)
{
    LDAPValueBuffer owner;
    *owner.address() = newTexts({"x", "y"});
    std::list<std::string> out{"w"};

    owner.asList(out);

    EXPECT_THAT(out, ElementsAre("w", "x", "y"));
}

TEST_F(AnArrayOwner, StillOwnsTheArrayAfterwards)
{
    LDAPValueBuffer owner;
    *owner.address() = newTexts({"x"});
    std::list<std::string> out;

    owner.asList(out);
    owner.asList(out);

    EXPECT_THAT(out, ElementsAre("x", "x"));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnArrayOwner, LeavesTheListWhenItHoldsNone)
{
    LDAPValueBuffer const owner;
    std::list<std::string> out{"w"};

    owner.asList(out);

    EXPECT_THAT(out, ElementsAre("w"));
}

TEST_F(AnArrayOwner, LeavesTheListWhenTheArrayIsEmpty)
{
    LDAPValueBuffer owner;
    *owner.address() = newTexts({});
    std::list<std::string> out{"w"};

    owner.asList(out);

    EXPECT_THAT(out, ElementsAre("w"));
}

TEST_F(APositionOwner, ReleasesWithBerFreeAndLeavesTheBufferToTheMessage)
{
    BerElement* const position = ber_alloc_t(LBER_USE_DER);
    openldap.name(position, "position");
    {
        LDAPBerElementBuffer owner;
        *owner.address() = position;
    }

    EXPECT_THAT(openldap.calls(), ElementsAre("ber_free position 0"));
}

TEST_F(AValuesOwner, ReleasesWithLdapValueFreeLen)
{
    {
        LDAPBerValBuffer owner(",");
        *owner.address() = newValues({"1", "2"});
    }

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_value_free_len ['1' '2']"));
}

TEST_F(AValuesOwner, AppendsNothingNotEvenTheZeroByteWhenItHoldsNone)
{
    LDAPBerValBuffer const owner(",");
    Buffer out;

    owner.asBuffer(out);

    EXPECT_EQ(out.length(), 0U);
}

TEST_F(AValuesOwner, AppendsOnlyTheZeroByteForAnEmptyArray)
{
    EXPECT_EQ(joined(",", {}), std::string("\0", 1));
}

TEST_F(AValuesOwner, PutsTheSeparatorBetweenValuesAndAZeroByteBehind)
{
    EXPECT_EQ(joined(";", {"1", "2", "3"}), std::string("1;2;3\0", 6));
}

TEST_F(AValuesOwner, PutsTheSeparatorBeforeAnEmptyValueInTheMiddle)
{
    EXPECT_EQ(joined(";", {"1", "", "3"}), std::string("1;;3\0", 5));
}

TEST_F(AValuesOwner, PutsNoSeparatorWhileTheBufferIsStillEmpty)
{
    EXPECT_EQ(joined(";", {"", "2"}), std::string("2\0", 2));
}

TEST_F(AValuesOwner, PutsTheSeparatorBehindWhatTheBufferHeldBefore)
{
    EXPECT_EQ(joined(",", {"a", "b"}, "before"), std::string("before,a,b\0", 11));
}

TEST_F(AValuesOwner, ConcatenatesWithAnEmptySeparator)
{
    EXPECT_EQ(joined("", {"a", "b"}), std::string("ab\0", 3));
}

TEST_F(AValuesOwner, PutsTheSeparatorUpToItsFirstZeroByte)
{
    LDAPBerValBuffer owner(std::string("-\0+", 3));
    *owner.address() = newValues({"a", "b"});
    Buffer out;

    owner.asBuffer(out);

    EXPECT_EQ(bytesOf(out), std::string("a-b\0", 4));
}

TEST_F(AValuesOwner, TakesASeparatorThatBeginsWithAZeroByteForAnEmptyOne)
{
    LDAPBerValBuffer owner(std::string("\0+", 2));
    *owner.address() = newValues({"a", "b"});
    Buffer out;

    owner.asBuffer(out);

    EXPECT_EQ(bytesOf(out), std::string("ab\0", 3));
}

TEST_F(AValuesOwner, AppendsValuesWithZeroBytesWhole)
{
    EXPECT_EQ(joined(",", {std::string("a\0b", 3)}), std::string("a\0b\0", 4));
}

TEST_F(AValuesOwner, StillOwnsTheArrayAfterwards)
{
    LDAPBerValBuffer owner(",");
    *owner.address() = newValues({"a"});
    Buffer out;

    owner.asBuffer(out);

    EXPECT_NE(owner.get(), nullptr);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AValueOwner, AdoptsAZeroTerminatedCopyOfTheText)
{
    LDAPBerValItemBuffer const owner("abc");

    EXPECT_EQ(owner.get()->bv_len, 3U);
    EXPECT_STREQ(owner.get()->bv_val, "abc");
    EXPECT_THAT(openldap.calls(), ElementsAre("ber_str2bv 'abc' 0 0 null"));
}

TEST_F(AValueOwner, HoldsAValueOfLengthZeroWithoutBytesForAnEmptyText)
{
    LDAPBerValItemBuffer const owner("");

    ASSERT_NE(owner.get(), nullptr);
    EXPECT_EQ(owner.get()->bv_len, 0U);
    EXPECT_EQ(owner.get()->bv_val, nullptr);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AValueOwner, CountsTheTextUpToItsFirstZeroByte)
{
    LDAPBerValItemBuffer const owner(std::string("ab\0c", 4));

    EXPECT_EQ(owner.get()->bv_len, 2U);
    EXPECT_EQ(std::string(owner.get()->bv_val, 5), std::string("ab\0c\0", 5));
}

TEST_F(AValueOwner, HoldsAnEmptyValueForATextThatBeginsWithAZeroByte)
{
    LDAPBerValItemBuffer const owner(std::string("\0a", 2));

    EXPECT_EQ(owner.get()->bv_len, 0U);
    EXPECT_NE(owner.get()->bv_val, nullptr);
}

TEST_F(AValueOwner, ReleasesWithBerBvfreeOnce)
{
    {
        LDAPBerValItemBuffer owner("abc");
        owner.free();
        owner.free();
    }

    EXPECT_THAT(openldap.calls(), ElementsAre("ber_str2bv 'abc' 0 0 null", "ber_bvfree 'abc'"));
}

TEST_F(AValueOwner, ReleasesAnEmptyValueWithBerBvfreeToo)
{
    {
        LDAPBerValItemBuffer const owner("");
    }

    EXPECT_THAT(openldap.calls(), ElementsAre("ber_bvfree null"));
}

TEST_F(AValueOwner, ReportsThatThereIsNoMemoryForTheValue)
{
    openldap.ber_str2bv = [](auto...) { return nullptr; };

    EXPECT_THROW(LDAPBerValItemBuffer("abc"), std::bad_alloc);

    EXPECT_THAT(openldap.calls(), ElementsAre("ber_str2bv 'abc' 0 0 null"));
}

} // namespace
} // namespace SolvaneTest
