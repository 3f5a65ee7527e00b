// What a buffer holds and how much of it.
#include <solvart/Buffer.h>

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace {

using Solvane::Buffer;

std::string textOf(Buffer const& buffer)
{
    return std::string(reinterpret_cast<char const*>(buffer.data()), buffer.length());
}

unsigned char const* bytesOf(char const* text)
{
    return reinterpret_cast<unsigned char const*>(text);
}

TEST(ABuffer, IsNotMadeByConversion) { EXPECT_FALSE((std::is_convertible_v<void const*, Buffer>)); }

TEST(ABuffer, StartsEmpty)
{
    Buffer const buffer;

    EXPECT_EQ(buffer.length(), 0u);
    EXPECT_NE(buffer.data(), nullptr);
}

TEST(ABuffer, OfNothingHasAnAddress)
{
    Buffer buffer(nullptr, 0, false);

    unsigned char* const data = buffer.data();

    EXPECT_NE(data, nullptr);
    EXPECT_EQ(buffer.length(), 0u);
}

TEST(ABuffer, KeepsACopyOfTheBytes)
{
    std::string text("a\0b", 3);
    Buffer const buffer(text.data(), 3, false);

    text = "xyz";

    EXPECT_EQ(textOf(buffer), std::string("a\0b", 3));
}

TEST(ABuffer, IsWritable)
{
    Buffer buffer("abc", 3, false);

    buffer.data()[1] = 'X';

    EXPECT_EQ(textOf(buffer), "aXc");
}

TEST(ABuffer, GrowsByBytesAtItsEnd)
{
    Buffer buffer("ab", 2, false);

    buffer.append(bytesOf("cd"), 2);
    buffer.append(static_cast<unsigned char>(0));

    EXPECT_EQ(textOf(buffer), std::string("abcd\0", 5));
}

TEST(ABuffer, TakesNothingFromANullPointer)
{
    Buffer buffer("ab", 2, false);

    buffer.append(nullptr, 0);

    EXPECT_EQ(textOf(buffer), "ab");
}

TEST(ABuffer, CanBeAppendedToItself)
{
    Buffer buffer("0123456789abcdef", 16, false);

    buffer.append(buffer.data(), buffer.length());

    EXPECT_EQ(textOf(buffer), "0123456789abcdef0123456789abcdef");
}

TEST(ABuffer, RefusesMoreThanA32BitLength)
{
    Buffer buffer("a", 1, false);

    // Refused before a byte is read, so none needs to be there.
    EXPECT_THROW(buffer.append(bytesOf("b"), std::numeric_limits<unsigned int>::max()),
                 std::length_error);

    EXPECT_EQ(textOf(buffer), "a");
}

TEST(ACopiedBuffer, HasBytesOfItsOwn)
{
    Buffer const original("abc", 3, false);
    Buffer copy(original);

    copy.data()[0] = 'X';

    EXPECT_EQ(textOf(original), "abc");
    EXPECT_EQ(textOf(copy), "Xbc");
}

TEST(ACopiedBuffer, ReplacesWhatWasThere)
{
    Buffer const original("abc", 3, false);
    Buffer copy("something longer than that", 26, false);

    copy = original;

    EXPECT_EQ(textOf(copy), "abc");
}

TEST(AMovedBuffer, CarriesItsBytesAlong)
{
    Buffer original("abc", 3, false);

    Buffer const moved(std::move(original));

    EXPECT_EQ(textOf(moved), "abc");
}

TEST(AMovedBuffer, ReplacesWhatWasThere)
{
    Buffer original("abc", 3, false);
    Buffer target("something longer than that", 26, false);

    target = std::move(original);

    EXPECT_EQ(textOf(target), "abc");
}

} // namespace
