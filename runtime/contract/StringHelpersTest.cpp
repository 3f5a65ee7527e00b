// The contract of StringHelpers.h: trimming, case, comparison, and UTF-8.
#include <solvart/StringHelpers.h>

#include <solvart/Buffer.h>

#include <gtest/gtest.h>

#include <cctype>
#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

/// Leaves a test that needs a locale which cannot be had.
#define SKIP_UNLESS_CHOSEN(locale)                                                                 \
    if (!(locale).isChosen()) {                                                                    \
        GTEST_SKIP() << "the locale is neither installed nor can it be compiled";                  \
    }

namespace {

using Solvane::Buffer;
using Solvane::copyStringToLower;
using Solvane::stringCompareNoCase;
using Solvane::stringLeftTrim;
using Solvane::stringRightTrim;
using Solvane::stringToLowerNoCopy;
using Solvane::stringToUtf8;

/// Chooses a locale and goes back to "C" in the end.
class ProcessLocale {
public:
    /// An installed locale.
    explicit ProcessLocale(char const* name) : m_isChosen(std::setlocale(LC_ALL, name) != nullptr)
    {
    }
    /// A locale compiled for this test from the system's sources, such as "el_GR", for a character
    /// set, such as "ISO-8859-7". Where those sources or their compiler are missing, none is
    /// chosen.
    ProcessLocale(char const* source, char const* charset)
    {
        std::string folder = (std::filesystem::temp_directory_path() / "localeXXXXXX").string();
        if (::mkdtemp(folder.data()) == nullptr) {
            return;
        }
        m_folder = folder;
        std::string const command = std::string("localedef -c --no-archive -i ") + source + " -f " +
                                    charset + " " + folder + "/contract >/dev/null 2>&1";
        // A locale with warnings is made all the same, so the outcome shows when it is chosen.
        [[maybe_unused]] int const status = std::system(command.c_str());
        ::setenv("LOCPATH", folder.c_str(), 1);
        m_isChosen = std::setlocale(LC_ALL, "contract") != nullptr;
        ::unsetenv("LOCPATH");
    }
    ~ProcessLocale()
    {
        std::setlocale(LC_ALL, "C");
        if (!m_folder.empty()) {
            std::error_code ignored;
            std::filesystem::remove_all(m_folder, ignored);
        }
    }
    ProcessLocale(ProcessLocale const&) = delete;
    ProcessLocale& operator=(ProcessLocale const&) = delete;

    bool isChosen() const { return m_isChosen; }

private:
    bool m_isChosen = false;
    std::filesystem::path m_folder;
};

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
