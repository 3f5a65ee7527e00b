// Escaping of values for search filters, and filter templates instantiated for one address.
#include <solvane/ldap/LDAPUtil.h>

#include "Faults.h"

#include <ldap.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <random>
#include <vector>

// Exported by libldap, declared in no installed header: decodes a value of a filter in place and
// returns its length, negative for a malformed one.
extern "C" ber_slen_t ldap_pvt_filter_value_unescape(char* value);

using namespace Solvane;
using SolvaneTest::IsFault;
using SolvaneTest::thrownBy;

namespace {

bool isHexDigit(char character)
{
    return std::string("0123456789abcdefABCDEF").find(character) != std::string::npos;
}

/// The bytes that a filter value represents (RFC 4515 section 3); "malformed" if it is invalid.
std::string unescaped(std::string const& value)
{
    std::string result;
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (value[i] != '\\') {
            result += value[i];
            continue;
        }
        if (i + 2 >= value.size() || !isHexDigit(value[i + 1]) || !isHexDigit(value[i + 2])) {
            return "malformed";
        }
        result += static_cast<char>(std::stoi(value.substr(i + 1, 2), nullptr, 16));
        i += 2;
    }
    return result;
}

std::string randomBytes(std::mt19937& random, std::size_t longest)
{
    std::string bytes(std::uniform_int_distribution<std::size_t>(0, longest)(random), '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(std::uniform_int_distribution<int>(0, 255)(random));
    }
    return bytes;
}

} // namespace

TEST(FormalizingAValue, GivesNothingForNothing)
{
    EXPECT_EQ(LDAPUtil::formalizeQueryFilter(""), "");
}

TEST(FormalizingAValue, EscapesEachCharacterThatFiltersGiveAMeaning)
{
    EXPECT_EQ(LDAPUtil::formalizeQueryFilter("*"), "\\2A");
    EXPECT_EQ(LDAPUtil::formalizeQueryFilter("("), "\\28");
    EXPECT_EQ(LDAPUtil::formalizeQueryFilter(")"), "\\29");
    EXPECT_EQ(LDAPUtil::formalizeQueryFilter("\\"), "\\5C");
}

TEST(FormalizingAValue, CopiesEveryOtherByte)
{
    for (int number = 0; number < 256; ++number) {
        std::string const byte(1, static_cast<char>(number));
        if (byte.find_first_of("*()\\") != std::string::npos) {
            continue;
        }

        EXPECT_EQ(LDAPUtil::formalizeQueryFilter(byte), byte) << "byte " << number;
    }
}

TEST(FormalizingAValue, EscapesParenthesesOfAWholeFilter)
{
    EXPECT_EQ(LDAPUtil::formalizeQueryFilter("(cn=*)"), "\\28cn=\\2A\\29");
}

TEST(FormalizingAValue, EscapesABackslashBetweenLetters)
{
    EXPECT_EQ(LDAPUtil::formalizeQueryFilter("a\\b"), "a\\5Cb");
}

TEST(FormalizingAValue, EscapesAnEscapeAgain)
{
    EXPECT_EQ(LDAPUtil::formalizeQueryFilter("\\2A"), "\\5C2A");
}

TEST(FormalizingAValue, EndsWithTheEscapeOfALastSpecialCharacter)
{
    EXPECT_EQ(LDAPUtil::formalizeQueryFilter("abc*"), "abc\\2A");
}

TEST(FormalizingAValue, EscapesSpecialCharactersInARow)
{
    EXPECT_EQ(LDAPUtil::formalizeQueryFilter("**()\\\\"), "\\2A\\2A\\28\\29\\5C\\5C");
}

TEST(FormalizingAValue, LeavesAValueWithoutSpecialCharactersAlone)
{
    EXPECT_EQ(LDAPUtil::formalizeQueryFilter("jdoe@corp.test"), "jdoe@corp.test");
    EXPECT_EQ(LDAPUtil::formalizeQueryFilter("a&b|c!d=e~f<g>h"), "a&b|c!d=e~f<g>h");
}

TEST(FormalizingAValue, KeepsZeroBytesRoundAnEscape)
{
    EXPECT_EQ(LDAPUtil::formalizeQueryFilter(std::string("\0*\0", 3)), std::string("\0\\2A\0", 5));
}

TEST(FormalizingAValue, IsUndoneByTheFilterGrammar)
{
    std::mt19937 random(20040615);
    for (int round = 0; round < 5000; ++round) {
        std::string const value = randomBytes(random, 40);

        std::string const formal = LDAPUtil::formalizeQueryFilter(value);

        ASSERT_EQ(unescaped(formal), value) << "round " << round;
        ASSERT_EQ(formal.find_first_of("*()"), std::string::npos) << "round " << round;
    }
}

TEST(FormalizingAValue, IsUndoneByOpenLdap)
{
    std::mt19937 random(20060601);
    for (int round = 0; round < 5000; ++round) {
        std::string value = randomBytes(random, 40);
        value.resize(std::min(value.find('\0'), value.size()));

        std::string const formal = LDAPUtil::formalizeQueryFilter(value);

        std::vector<char> text(formal.c_str(), formal.c_str() + formal.size() + 1);
        ber_slen_t const length = ldap_pvt_filter_value_unescape(text.data());
        ASSERT_GE(length, 0) << "round " << round;
        ASSERT_EQ(std::string(text.data(), static_cast<std::size_t>(length)), value)
            << "round " << round;
    }
}

TEST(InstantiatingATemplate, PutsThePartsOfTheAddressIn)
{
    EmailAddress const address("jdoe@corp.test");

    EXPECT_EQ(LDAPUtil::instanceFilterTemplate("(&(uid=$u)(dc=$d)(mail=$m))", address),
              "(&(uid=jdoe)(dc=corp.test)(mail=jdoe@corp.test))");
}

TEST(InstantiatingATemplate, EscapesThePartsOfTheAddress)
{
    EmailAddress const address("j*(doe)@corp\\test");

    EXPECT_EQ(LDAPUtil::instanceFilterTemplate("(mail=$m)", address),
              "(mail=j\\2A\\28doe\\29@corp\\5Ctest)");
}

TEST(InstantiatingATemplate, LosesTheTextBeforeTheOptionalValues)
{
    EmailAddress const address("jdoe@corp.test");

    EXPECT_EQ(LDAPUtil::instanceFilterTemplate("(a=1)$b(uid=$u)", address), "(uid=jdoe)");
    EXPECT_EQ(LDAPUtil::instanceFilterTemplate("(a=1)$g(uid=$u)", address), "(uid=jdoe)");
}

TEST(InstantiatingATemplate, PutsAHashForAnEmptyDomain)
{
    EmailAddress const address("jdoe");

    EXPECT_EQ(LDAPUtil::instanceFilterTemplate("(dc=$d)", address), "(dc=#)");
}

TEST(InstantiatingATemplate, ReadsTheTemplateUpToItsFirstZeroByte)
{
    EmailAddress const address("jdoe@corp.test");

    EXPECT_EQ(LDAPUtil::instanceFilterTemplate(std::string("(uid=$u)\0$", 10), address),
              "(uid=jdoe)");
}

TEST(InstantiatingATemplate, SplitsTheAddressAtItsLastAt)
{
    EmailAddress const address("a@b@corp.test");

    EXPECT_EQ(LDAPUtil::instanceFilterTemplate("$u|$d", address), "a@b|corp.test");
}

TEST(InstantiatingATemplate, PassesTheExceptionOfAMalformedTemplateOn)
{
    EmailAddress const address("jdoe@corp.test");

    auto const thrown = thrownBy([&] { LDAPUtil::instanceFilterTemplate(" cn=$x ", address); });

    EXPECT_THAT(
        thrown,
        IsFault("Utility.cpp", 169, 2, 0,
                "Invalid format specifier in LdapQuery definition: at pos 3 (x) :  cn=$x "));
    EXPECT_FALSE(thrown.hasCause());
}

TEST(InstantiatingATemplate, ReportsTheTemplateUpToItsFirstZeroByte)
{
    EmailAddress const address("jdoe@corp.test");

    auto const thrown =
        thrownBy([&] { LDAPUtil::instanceFilterTemplate(std::string("cn=$\0u", 6), address); });

    EXPECT_EQ(thrown.stringParameter(),
              "Invalid UserQuery string: The last character must be a '$' : cn=$");
}
