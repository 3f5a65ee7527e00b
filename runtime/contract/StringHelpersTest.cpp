// Trimming, lower-casing and comparing, in whatever locale.
#include <solvart/StringHelpers.h>

#include "ProcessLocale.h"

#include <gtest/gtest.h>

#include <cctype>
#include <string>

namespace {

using Solvane::copyStringToLower;
using Solvane::stringCompareNoCase;
using Solvane::stringLeftTrim;
using Solvane::stringRightTrim;
using Solvane::stringToLowerNoCopy;

std::string leftTrimmed(std::string text)
{
    stringLeftTrim(text);
    return text;
}

std::string rightTrimmed(std::string text)
{
    stringRightTrim(text);
    return text;
}

TEST(LeftTrimming, RemovesLeadingWhiteSpaceOnly)
{
    EXPECT_EQ(leftTrimmed(" \t\n\v\f\r a b "), "a b ");
    EXPECT_EQ(leftTrimmed("a "), "a ");
    EXPECT_EQ(leftTrimmed(" \t"), "");
    EXPECT_EQ(leftTrimmed(""), "");
}

TEST(RightTrimming, RemovesTrailingWhiteSpaceOnly)
{
    EXPECT_EQ(rightTrimmed(" a b \t\n\v\f\r"), " a b");
    EXPECT_EQ(rightTrimmed(" a"), " a");
    EXPECT_EQ(rightTrimmed(" \t"), "");
    EXPECT_EQ(rightTrimmed(""), "");
}

TEST(Trimming, KeepsZeroBytesAndBytesAboveASCII)
{
    EXPECT_EQ(leftTrimmed(std::string("\0a", 2)), std::string("\0a", 2));
    EXPECT_EQ(rightTrimmed(std::string("a\0", 2)), std::string("a\0", 2));
    EXPECT_EQ(leftTrimmed("\xa0\x85"), "\xa0\x85");
    EXPECT_EQ(rightTrimmed("\xa0\x85"), "\xa0\x85");
}

TEST(LowerCasing, WorksInPlace)
{
    std::string text("LDAP Server [@] \xc4\0Z", 19);

    stringToLowerNoCopy(text);

    EXPECT_EQ(text, std::string("ldap server [@] \xc4\0z", 19));
}

TEST(LowerCasing, CanLeaveItsTextAlone)
{
    std::string const text = "MAIL";

    EXPECT_EQ(copyStringToLower(text), "mail");
    EXPECT_EQ(text, "MAIL");
}

TEST(ComparingWithoutCase, FindsEqualTexts)
{
    EXPECT_EQ(stringCompareNoCase(std::string("CN;Binary"), "cn;binary", 0), 0);
    EXPECT_EQ(stringCompareNoCase("CN;Binary", std::string("cn;binary"), 0), 0);
    EXPECT_EQ(stringCompareNoCase("", std::string(), 0), 0);
}

TEST(ComparingWithoutCase, OrdersDifferentTexts)
{
    EXPECT_LT(stringCompareNoCase(std::string("ABC"), "abd", 0), 0);
    EXPECT_GT(stringCompareNoCase(std::string("abd"), "ABC", 0), 0);
    EXPECT_LT(stringCompareNoCase("ABC", std::string("abd"), 0), 0);
    EXPECT_GT(stringCompareNoCase("abd", std::string("ABC"), 0), 0);
    EXPECT_LT(stringCompareNoCase(std::string("z"), "\xc4", 0), 0);
    EXPECT_GT(stringCompareNoCase(std::string("\xc4"), "z", 0), 0);
    EXPECT_LT(stringCompareNoCase(std::string("_"), "A", 0), 0); // as "_" and "a" do
}

TEST(ComparingWithoutCase, TellsATextFromItsBeginning)
{
    EXPECT_LT(stringCompareNoCase(std::string("bin"), "binary", 0), 0);
    EXPECT_GT(stringCompareNoCase(std::string("binary"), "bin", 0), 0);
    EXPECT_LT(stringCompareNoCase("bin", std::string("binary"), 0), 0);
    EXPECT_GT(stringCompareNoCase("binary", std::string("bin"), 0), 0);
}

TEST(ComparingWithoutCase, GoesOnBehindZeroBytes)
{
    EXPECT_NE(stringCompareNoCase(std::string("a\0b", 3), std::string("a\0c", 3), 0), 0);
    EXPECT_NE(stringCompareNoCase("a", std::string("a\0c", 3), 0), 0);
}

TEST(ComparingWithoutCase, MayBeLimitedToABeginning)
{
    EXPECT_EQ(stringCompareNoCase(std::string("abcX"), "ABCY", 3), 0);
    EXPECT_NE(stringCompareNoCase(std::string("abcX"), "ABCY", 4), 0);
    EXPECT_EQ(stringCompareNoCase(std::string("abc"), "ABC", 100), 0);
    EXPECT_NE(stringCompareNoCase(std::string("ab"), "ABC", 3), 0);
    EXPECT_EQ(stringCompareNoCase("abcX", std::string("ABCY"), 3), 0);
    EXPECT_NE(stringCompareNoCase("abcX", std::string("ABCY"), 4), 0);
    EXPECT_EQ(stringCompareNoCase("abc", std::string("ABC"), 100), 0);
}

TEST(TheStringHelpers, GiveTheSameInATurkishProcess)
{
    ProcessLocale const turkish("tr_TR", "ISO-8859-9");
    SKIP_UNLESS_CHOSEN(turkish);
    ASSERT_NE(std::tolower('I'), 'i');
    ASSERT_NE(std::tolower(0xc7), 0xc7);

    EXPECT_EQ(copyStringToLower("TITLE\xc7"), "title\xc7");
    EXPECT_EQ(stringCompareNoCase("TITLE", std::string("title"), 0), 0);
    EXPECT_NE(stringCompareNoCase(std::string("\xc7"), "\xe7", 0), 0);
    EXPECT_EQ(rightTrimmed("title\xa0"), "title\xa0");
}

} // namespace
