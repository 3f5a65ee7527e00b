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

TEST(FormalizingAValue, EscapesTheCharactersThatFiltersGiveAMeaning)
{
    struct {
        char const* shows;
        std::string value;
        std::string formal;
    } const cases[] = {
        {"nothing", "", ""},
        {"an asterisk", "*", "\\2A"},
        {"an opening parenthesis", "(", "\\28"},
        {"a closing parenthesis", ")", "\\29"},
        {"a backslash", "\\", "\\5C"},
        {"a whole filter", "(cn=*)", "\\28cn=\\2A\\29"},
        {"a backslash between letters", "a\\b", "a\\5Cb"},
        {"an escape is escaped again", "\\2A", "\\5C2A"},
        {"the last character", "abc*", "abc\\2A"},
        {"several in a row", "**()\\\\", "\\2A\\2A\\28\\29\\5C\\5C"},
        {"none", "jdoe@corp.test", "jdoe@corp.test"},
        {"what means something outside of values", "a&b|c!d=e~f<g>h", "a&b|c!d=e~f<g>h"},
        {"zero bytes stay round an escape", std::string("\0*\0", 3), std::string("\0\\2A\0", 5)},
    };
    for (auto const& row : cases) {
        EXPECT_EQ(LDAPUtil::formalizeQueryFilter(row.value), row.formal) << row.shows;
    }
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
    struct {
        char const* shows;
        std::string filterTemplate;
        char const* address;
        char const* filter;
    } const cases[] = {
        {"each part", "(&(uid=$u)(dc=$d)(mail=$m))", "jdoe@corp.test",
         "(&(uid=jdoe)(dc=corp.test)(mail=jdoe@corp.test))"},
        {"escaped", "(mail=$m)", "j*(doe)@corp\\test", "(mail=j\\2A\\28doe\\29@corp\\5Ctest)"},
        {"it loses the text before an optional value", "(a=1)$b(uid=$u)", "jdoe@corp.test",
         "(uid=jdoe)"},
        {"also before the other one", "(a=1)$g(uid=$u)", "jdoe@corp.test", "(uid=jdoe)"},
        {"a hash for an empty domain", "(dc=$d)", "jdoe", "(dc=#)"},
        {"the template up to its first zero byte", std::string("(uid=$u)\0$", 10), "jdoe@corp.test",
         "(uid=jdoe)"},
        {"the address is split at its last at", "$u|$d", "a@b@corp.test", "a@b|corp.test"},
    };
    for (auto const& row : cases) {
        EXPECT_EQ(LDAPUtil::instanceFilterTemplate(row.filterTemplate, EmailAddress(row.address)),
                  row.filter)
            << row.shows;
    }
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
