// Owners of OpenLDAP memory: each object is freed once, by its own release call.
#include "CallTest.h"

#include <solvart/Buffer.h>

#include <new>
#include <type_traits>

namespace SolvaneTest {
namespace {

using namespace std::string_literals;
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
using AnArrayOwner = CallTest;
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

TEST_F(AnOwner, GivesItsObjectBackOnceHoweverOftenItIsFreedAndCanBeFilledAgain)
{
    {
        LDAPCharBuffer owner;
        *owner.address() = ber_strdup("a");
        owner.free();
        EXPECT_EQ(owner.get(), nullptr);
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

TEST_F(AnOwner, ReleasesWithTheCallForItsKind)
{
    LDAPMessage* const message = messages.entry("cn=a");
    openldap.name(message, "message");
    BerElement* const position = ber_alloc_t(LBER_USE_DER);
    openldap.name(position, "position");
    {
        LDAPMessageBuffer owner;
        *owner.address() = message;
    }
    {
        LDAPCharBuffer owner;
        *owner.address() = ber_strdup("text");
    }
    {
        LDAPValueBuffer owner;
        *owner.address() = newTexts({"x", "y"});
    }
    {
        LDAPBerValBuffer owner(",");
        *owner.address() = newValues({"1", "2"});
    }
    {
        LDAPBerElementBuffer owner;
        *owner.address() = position;
    }

    // A position's buffer belongs to the message.
    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_msgfree message", "ldap_memfree 'text'",
                            "ldap_value_free ['x' 'y']", "ldap_value_free_len ['1' '2']",
                            "ber_free position 0"));
}

TEST_F(AnArrayOwner, AppendsItsTextsInOrderToWhatTheListHoldsAndStillOwnsThem)
{
    LDAPValueBuffer owner;
    *owner.address() = newTexts({"x", "y"});
    std::list<std::string> out{"w"};

    owner.asList(out);
    owner.asList(out);

    EXPECT_THAT(out, ElementsAre("w", "x", "y", "x", "y"));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnArrayOwner, LeavesTheListWhenItHoldsNoneOrAnEmptyArray)
{
    LDAPValueBuffer owner;
    std::list<std::string> out{"w"};

    owner.asList(out);
    *owner.address() = newTexts({});
    owner.asList(out);

    EXPECT_THAT(out, ElementsAre("w"));
}

TEST_F(AValuesOwner, AppendsNothingNotEvenTheZeroByteWhenItHoldsNone)
{
    LDAPBerValBuffer const owner(",");
    Buffer out;

    owner.asBuffer(out);

    EXPECT_EQ(out.length(), 0U);
}

TEST_F(AValuesOwner, JoinsItsValuesAndAppendsAZeroByte)
{
    struct {
        char const* shows;
        std::string separator;
        std::vector<std::string> values;
        std::string before;
        std::string after;
    } const cases[] = {
        {"only the zero byte for an empty array", ",", {}, "", "\0"s},
        {"the separator between values", ";", {"1", "2", "3"}, "", "1;2;3\0"s},
        {"the separator before an empty value in the middle", ";", {"1", "", "3"}, "", "1;;3\0"s},
        {"no separator while the buffer is still empty", ";", {"", "2"}, "", "2\0"s},
        {"the separator behind what was there", ",", {"a", "b"}, "before", "before,a,b\0"s},
        {"an empty separator", "", {"a", "b"}, "", "ab\0"s},
        {"the separator up to its first zero byte", "-\0+"s, {"a", "b"}, "", "a-b\0"s},
        {"a separator that begins with a zero byte", "\0+"s, {"a", "b"}, "", "ab\0"s},
        {"values with zero bytes whole", ",", {"a\0b"s}, "", "a\0b\0"s},
    };
    for (auto const& row : cases) {
        LDAPBerValBuffer owner(row.separator);
        *owner.address() = newValues(row.values);
        Buffer out(row.before.data(), static_cast<unsigned int>(row.before.size()), false);

        owner.asBuffer(out);

        EXPECT_EQ(bytesOf(out), row.after) << row.shows;
    }
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
