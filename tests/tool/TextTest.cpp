// Text appended to what is written.
#include "Text.h"

#include <gmock/gmock.h>

#include <string>

namespace Solvane::Tool {
namespace {

using namespace std::string_literals;

std::string appended(void (*append)(std::string&, std::string_view), std::string_view bytes)
{
    std::string out = "> ";
    append(out, bytes);
    return out;
}

TEST(OneLine, IsAppendedWithControlCharactersEscaped)
{
    EXPECT_EQ(appended(appendOneLine, "j\xC3\xBCrgen"), "> j\xC3\xBCrgen");
    EXPECT_EQ(appended(appendOneLine, "a\tb\n\xFF"), "> a\\x09b\\x0A\\xFF");
}

TEST(Base64, FillsTheLastGroup)
{
    EXPECT_EQ(appended(appendBase64, ""), "> ");
    EXPECT_EQ(appended(appendBase64, "M"), "> TQ==");
    EXPECT_EQ(appended(appendBase64, "Ma"), "> TWE=");
    EXPECT_EQ(appended(appendBase64, "Man"), "> TWFu");
    EXPECT_EQ(appended(appendBase64, "Many"), "> TWFueQ==");
    EXPECT_EQ(appended(appendBase64, "\0\xFF\xFE"s), "> AP/+");
}

} // namespace
} // namespace Solvane::Tool
