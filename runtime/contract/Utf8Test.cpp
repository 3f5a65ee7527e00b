// Conversion from the process's character set to UTF-8.
#include <solvart/StringHelpers.h>

#include "ProcessLocale.h"

#include <solvart/Buffer.h>

#include <gtest/gtest.h>

#include <string>

namespace {

using Solvane::Buffer;
using Solvane::stringToUtf8;

std::string utf8(std::string const& text)
{
    Buffer out;
    stringToUtf8(text, out, nullptr);
    return std::string(reinterpret_cast<char const*>(out.data()), out.length());
}

TEST(ConversionToUtf8, AppendsToWhatIsThere)
{
    Buffer out("dn: ", 4, false);

    stringToUtf8("cn=x", out, nullptr);

    EXPECT_EQ(std::string(reinterpret_cast<char const*>(out.data()), out.length()), "dn: cn=x");
}

TEST(ConversionToUtf8, MakesNothingOfNothing) { EXPECT_EQ(utf8(""), ""); }

class ConversionInAProcessOfUtf8OrASCII : public testing::TestWithParam<char const*> {
protected:
    ProcessLocale const locale{GetParam()};
};

TEST_P(ConversionInAProcessOfUtf8OrASCII, KeepsUtf8)
{
    SKIP_UNLESS_CHOSEN(locale);

    EXPECT_EQ(utf8("cn=M\xc3\xbcller"), "cn=M\xc3\xbcller");
    EXPECT_EQ(utf8(std::string("a\0b\x01\x7f", 5)), std::string("a\0b\x01\x7f", 5));
    EXPECT_EQ(utf8("\xc2\x80 \xdf\xbf \xe0\xa0\x80 \xed\x9f\xbf \xee\x80\x80 \xef\xbf\xbf"),
              "\xc2\x80 \xdf\xbf \xe0\xa0\x80 \xed\x9f\xbf \xee\x80\x80 \xef\xbf\xbf");
    EXPECT_EQ(utf8("\xf0\x90\x80\x80 \xf1\x80\x80\x80 \xf4\x8f\xbf\xbf"),
              "\xf0\x90\x80\x80 \xf1\x80\x80\x80 \xf4\x8f\xbf\xbf");
}

TEST_P(ConversionInAProcessOfUtf8OrASCII, TakesOtherBytesAsISO88591)
{
    SKIP_UNLESS_CHOSEN(locale);

    EXPECT_EQ(utf8("cn=M\xfcller"), "cn=M\xc3\xbcller");
    EXPECT_EQ(utf8("\x80\xa0\xff"), "\xc2\x80\xc2\xa0\xc3\xbf");
    EXPECT_EQ(utf8("cut \xe2\x82"), "cut \xc3\xa2\xc2\x82");
}

TEST_P(ConversionInAProcessOfUtf8OrASCII, TakesFormsThatUtf8ForbidsAsISO88591)
{
    SKIP_UNLESS_CHOSEN(locale);

    EXPECT_EQ(utf8("\xc0\xaf"), "\xc3\x80\xc2\xaf");                         // overlong "/"
    EXPECT_EQ(utf8("\xc1\xbf"), "\xc3\x81\xc2\xbf");                         // overlong DEL
    EXPECT_EQ(utf8("\xe0\x9f\xbf"), "\xc3\xa0\xc2\x9f\xc2\xbf");             // overlong U+07FF
    EXPECT_EQ(utf8("\xf0\x8f\xbf\xbf"), "\xc3\xb0\xc2\x8f\xc2\xbf\xc2\xbf"); // overlong U+FFFF
    EXPECT_EQ(utf8("\xed\xa0\x80"), "\xc3\xad\xc2\xa0\xc2\x80");             // surrogate
    EXPECT_EQ(utf8("\xf4\x90\x80\x80"), "\xc3\xb4\xc2\x90\xc2\x80\xc2\x80"); // U+110000
    EXPECT_EQ(utf8("\xf5\x80\x80\x80"), "\xc3\xb5\xc2\x80\xc2\x80\xc2\x80");
}

INSTANTIATE_TEST_SUITE_P(Locales, ConversionInAProcessOfUtf8OrASCII,
                         testing::Values("C", "C.UTF-8"));

TEST(ConversionFromUtf8, KeepsValidCharactersBesideInvalidBytes)
{
    ProcessLocale const locale("C.UTF-8");
    SKIP_UNLESS_CHOSEN(locale);

    EXPECT_EQ(utf8("\xc3\xbc\xfc\xc3\xbc"), "\xc3\xbc\xc3\xbc\xc3\xbc");
    EXPECT_EQ(utf8("\xe2\x82\xe2\x82\xac"), "\xc3\xa2\xc2\x82\xe2\x82\xac");
}

TEST(ConversionFromISO88591, TakesEveryByteAsACharacter)
{
    ProcessLocale const locale("en_US", "ISO-8859-1");
    SKIP_UNLESS_CHOSEN(locale);

    EXPECT_EQ(utf8("cn=M\xfcller"), "cn=M\xc3\xbcller");
    EXPECT_EQ(utf8("\xc3\xbc"), "\xc3\x83\xc2\xbc"); // two characters here, not one
    EXPECT_EQ(utf8(std::string("a\0b", 3)), std::string("a\0b", 3));
}

TEST(ConversionFromISO88597, TakesAByteThatGreekLacksAsISO88591)
{
    ProcessLocale const locale("el_GR", "ISO-8859-7");
    SKIP_UNLESS_CHOSEN(locale);

    EXPECT_EQ(utf8("\xe1\xff\xe2"), "\xce\xb1\xc3\xbf\xce\xb2");
}

TEST(ConversionFromISO88597, HasAnyLength)
{
    ProcessLocale const locale("el_GR", "ISO-8859-7");
    SKIP_UNLESS_CHOSEN(locale);

    std::string const converted = utf8("x" + std::string(100000, '\xe1'));

    std::string expected = "x";
    for (int i = 0; i < 100000; ++i) {
        expected += "\xce\xb1";
    }
    EXPECT_TRUE(converted == expected);
}

TEST(ConversionFromEUCJP, TakesACutCharacterAsISO88591)
{
    ProcessLocale const locale("ja_JP", "EUC-JP");
    SKIP_UNLESS_CHOSEN(locale);

    EXPECT_EQ(utf8("\xa4\xa2\xa4"), "\xe3\x81\x82\xc2\xa4");
}

TEST(ConversionFromTCVN, KeepsALastLetterThatAMarkCouldFollow)
{
    ProcessLocale const locale("vi_VN", "TCVN5712-1");
    SKIP_UNLESS_CHOSEN(locale);

    EXPECT_EQ(utf8("cn=a"), "cn=a");
}

// The converter holds back a letter that a mark could follow.
TEST(ConversionFromCP1258, KeepsTheOrderRoundAByteThatIsNoCharacter)
{
    ProcessLocale const locale("vi_VN", "CP1258");
    SKIP_UNLESS_CHOSEN(locale);

    EXPECT_EQ(utf8("a\x8a"
                   "b"),
              "a\xc2\x8a"
              "b");
}

} // namespace
