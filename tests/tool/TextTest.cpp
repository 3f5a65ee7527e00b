// What passes as text, and how bytes that do not are shown.
#include "Text.h"

#include <gmock/gmock.h>

#include <string>

namespace Solvane::Tool {
namespace {

using namespace std::string_literals;

TEST(PlainText, IsUtf8WithoutControlCharacters)
{
    for (std::string const& text :
         {""s, "a b~"s, "\xC2\xA0"s, "\xDF\xBF"s, "\xE0\xA0\x80"s, "\xED\x9F\xBF"s, "\xEE\x80\x80"s,
          "\xEF\xBF\xBF"s, "\xF0\x90\x80\x80"s, "\xF4\x8F\xBF\xBF"s}) {
        EXPECT_FALSE(faultIn(text).has_value()) << oneLine(text);
    }
}

TEST(PlainText, HasNoControlCharacters)
{
    for (std::string const& text : {"ab\0"s, "ab\x1F"s, "ab\x7F"s, "ab\xC2\x80"s, "ab\xC2\x9F"s}) {
        auto const fault = faultIn(text);

        ASSERT_TRUE(fault.has_value()) << oneLine(text);
        EXPECT_EQ(fault->kind, TextFault::controlCharacter);
        EXPECT_EQ(fault->position, 2U);
    }
}

TEST(Utf8, HasNeitherOverlongFormsNorSurrogatesNorAnythingAboveUnicode)
{
    for (std::string const& text :
         {"\x80"s, "\xBF"s, "\xC0\x80"s, "\xC1\xBF"s, "\xC2"s, "\xC2\x41"s, "\xE0\x9F\xBF"s,
          "\xE2\x82"s, "\xED\xA0\x80"s, "\xED\xBF\xBF"s, "\xF0\x8F\xBF\xBF"s, "\xF4\x90\x80\x80"s,
          "\xF5\x80\x80\x80"s, "\xF8\x88\x80\x80\x80"s, "\xFE"s, "\xFF"s}) {
        EXPECT_FALSE(isUtf8("a" + text)) << oneLine(text);
    }
}

TEST(Utf8, MayHaveControlCharacters) { EXPECT_TRUE(isUtf8("a\0\n\xC2\x85"s)); }

TEST(OneLine, ShowsEveryByteOfWhatIsNoPlainText)
{
    EXPECT_EQ(oneLine("a\n\xC3\xBC\xFF\xC2\x85\xE2\x82"s),
              "a\\x0A\xC3\xBC\\xFF\\xC2\\x85\\xE2\\x82");
}

TEST(Base64, FillsTheLastGroup)
{
    EXPECT_EQ(base64(""), "");
    EXPECT_EQ(base64("M"), "TQ==");
    EXPECT_EQ(base64("Ma"), "TWE=");
    EXPECT_EQ(base64("Man"), "TWFu");
    EXPECT_EQ(base64("Many"), "TWFueQ==");
    EXPECT_EQ(base64("\0\xFF\xFE"s), "AP/+");
}

} // namespace
} // namespace Solvane::Tool
