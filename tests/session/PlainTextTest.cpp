// Validation of text, and how invalid bytes are shown.
#include <solvane/session/PlainText.h>

#include <gmock/gmock.h>

#include <string>

namespace Solvane::Lookup {
namespace {

using namespace std::string_literals;

TEST(PlainText, IsUtf8WithoutControlCharacters)
{
    for (std::string const& text :
         {""s, "a b~"s, "\xC2\xA0"s, "\xDF\xBF"s, "\xE0\xA0\x80"s, "\xED\x9F\xBF"s, "\xEE\x80\x80"s,
          "\xEF\xBF\xBF"s, "\xF0\x90\x80\x80"s, "\xF4\x8F\xBF\xBF"s}) {
        EXPECT_FALSE(faultIn(text).has_value()) << oneLine(text);
        EXPECT_EQ(oneLine(text), text);
    }
}

TEST(PlainText, HasNoControlCharacters)
{
    for (std::string const& text :
         {"ab\0"s, "ab\t"s, "ab\x1F"s, "ab\x7F"s, "ab\xC2\x80"s, "ab\xC2\x9F"s, "ab\x01\xFF"s}) {
        auto const fault = faultIn(text);

        ASSERT_TRUE(fault.has_value()) << oneLine(text);
        EXPECT_EQ(fault->kind, TextFault::controlCharacter);
        EXPECT_EQ(fault->position, 2U);
    }
}

TEST(PlainText, TellsTheFirstFaultBehindCharactersOfEveryLength)
{
    auto const fault = faultIn("a\xC3\xBC"
                               "b\xE2\x82\xAC\xF0\x9F\x98\x80"
                               "c\xFF\n");

    ASSERT_TRUE(fault.has_value());
    EXPECT_EQ(fault->kind, TextFault::invalidUtf8);
    EXPECT_EQ(fault->position, 12U);
}

TEST(PlainText, NamesAFaultInWords)
{
    EXPECT_EQ(describe({TextFault::invalidUtf8, 7}), "invalid UTF-8 at byte 7");
    EXPECT_EQ(describe({TextFault::controlCharacter, 0}), "a control character at byte 0");
}

TEST(Utf8, HasNeitherOverlongFormsNorSurrogatesNorAnythingAboveUnicode)
{
    for (std::string const& text :
         {"\x80"s, "\xBF"s, "\xC0\x80"s, "\xC1\xBF"s, "\xC2"s, "\xC2\x41"s, "\xE0\x9F\xBF"s,
          "\xE2\x82"s, "\xED\xA0\x80"s, "\xED\xBF\xBF"s, "\xF0\x8F\xBF\xBF"s, "\xF4\x90\x80\x80"s,
          "\xF5\x80\x80\x80"s, "\xF8\x88\x80\x80\x80"s, "\xFE"s, "\xFF"s}) {
        EXPECT_FALSE(isUtf8("a" + text)) << oneLine(text);
        EXPECT_EQ(faultIn("a" + text)->position, 1U) << oneLine(text);
    }
}

TEST(Utf8, MayHaveControlCharacters)
{
    EXPECT_TRUE(isUtf8(""));
    EXPECT_TRUE(isUtf8("a\0\n\xC2\x85z"s));
}

TEST(OneLine, EscapesEveryByteThatIsNotPlainText)
{
    EXPECT_EQ(oneLine("a\n\xC3\xBC\xFF\xC2\x85\xE2\x82"s),
              "a\\x0A\xC3\xBC\\xFF\\xC2\\x85\\xE2\\x82");
}

TEST(SmallTexts, TellBlanksAndNulBytes)
{
    EXPECT_TRUE(isBlank(""));
    EXPECT_TRUE(isBlank(" \t\r\n"));
    EXPECT_FALSE(isBlank(" a "));
    EXPECT_TRUE(hasNul("a\0b"s));
    EXPECT_FALSE(hasNul("ab"));
}

TEST(SmallTexts, GiveTimesInSeconds)
{
    using std::chrono::milliseconds;

    EXPECT_EQ(inSeconds(milliseconds(0)), "0 s");
    EXPECT_EQ(inSeconds(milliseconds(2000)), "2 s");
    EXPECT_EQ(inSeconds(milliseconds(1050)), "1.050 s");
    EXPECT_EQ(inSeconds(milliseconds(7)), "0.007 s");
}

TEST(SmallTexts, WipeASecretInItsPlace)
{
    std::string secret = "a secret that is longer than what a string keeps in itself";
    char const* const place = secret.data();
    std::size_t const length = secret.size();

    wipe(secret);

    EXPECT_TRUE(secret.empty());
    ASSERT_EQ(secret.data(), place);
    EXPECT_EQ(std::string(place, length), std::string(length, '\0'));
}

} // namespace
} // namespace Solvane::Lookup
