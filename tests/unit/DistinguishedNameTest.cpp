// Distinguished names: text, comparison, parents and children, and hostile input.
#include <solvane/ldap/LDAPDistinguishedName.h>

#include "Faults.h"

#include <ldap.h>

#include <gmock/gmock.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

using namespace Solvane;
using namespace std::string_literals;
using SolvaneTest::IsFault;
using SolvaneTest::thrownBy;
using testing::HasSubstr;

namespace {

using Name = LDAPDistinguishedName;

/// The names as text of this test, each value in hexadecimal digits: "cn=61+sn=62/dc=63", "cn#0402".
std::string structureOf(Name const& name)
{
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (Name::RDN const& rdn : name.rdns()) {
        text += text.empty() ? "" : "/";
        for (std::size_t i = 0; i < rdn.size(); ++i) {
            text += (i == 0 ? "" : "+") + rdn[i].type + (rdn[i].isEncoded ? '#' : '=');
            for (char const byte : rdn[i].value) {
                text += digits[static_cast<unsigned char>(byte) >> 4U];
                text += digits[static_cast<unsigned char>(byte) & 0xFU];
            }
        }
    }
    return text;
}

/// The value of a DN of one name with one value.
std::string valueIn(std::string const& text) { return Name::parse(text).rdns().at(0).at(0).value; }

/// The position of the error; fails the test without one.
int errorIn(std::string const& text)
{
    auto const thrown = thrownBy([&] { Name::parse(text); });
    EXPECT_THAT(thrown, IsFault("DistinguishedName.cpp", 48, 2, 0));
    EXPECT_THAT(thrown.stringParameter(),
                HasSubstr("at byte " + std::to_string(thrown.intParameter()) + ": "));
    return thrown.intParameter();
}

void freeName(LDAPDN name) { ldap_dnfree(name); }

/// The same as OpenLDAP reads it; "invalid" if it does not.
std::string structureByOpenLdap(std::string const& text)
{
    ::LDAPDN parsed = nullptr;
    if (ldap_str2dn(text.c_str(), &parsed, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS) {
        return "invalid";
    }
    std::unique_ptr<::LDAPRDN, void (*)(::LDAPDN)> const owner(parsed, freeName);
    std::vector<Name::RDN> rdns;
    for (::LDAPDN rdn = parsed; rdn != nullptr && *rdn != nullptr; ++rdn) {
        rdns.emplace_back();
        for (LDAPAVA** part = *rdn; *part != nullptr; ++part) {
            rdns.back().push_back({std::string((*part)->la_attr.bv_val, (*part)->la_attr.bv_len),
                                   std::string((*part)->la_value.bv_val, (*part)->la_value.bv_len),
                                   ((*part)->la_flags & LDAP_AVA_BINARY) != 0});
        }
    }
    return structureOf(Name(rdns));
}

} // namespace

TEST(ADistinguishedName, HasTheStructureOfTheExamplesOfTheRfc)
{
    struct {
        char const* text; // RFC 4514 section 4
        char const* structure;
    } const examples[] = {
        {"UID=jsmith,DC=example,DC=net", "UID=6a736d697468/DC=6578616d706c65/DC=6e6574"},
        {"OU=Sales+CN=J.  Smith,DC=example,DC=net",
         "OU=53616c6573+CN=4a2e2020536d697468/DC=6578616d706c65/DC=6e6574"},
        {R"(CN=James \"Jim\" Smith\, III,DC=example,DC=net)",
         "CN=4a616d657320224a696d2220536d6974682c20494949/DC=6578616d706c65/DC=6e6574"},
        {R"(CN=Before\0dAfter,DC=example,DC=net)",
         "CN=4265666f72650d4166746572/DC=6578616d706c65/DC=6e6574"},
        {"1.3.6.1.4.1.1466.0=#04024869", "1.3.6.1.4.1.1466.0#04024869"},
        {R"(CN=Lu\C4\8Di\C4\87)", "CN=4c75c48d69c487"},
    };
    for (auto const& example : examples) {
        Name const name = Name::parse(example.text);

        EXPECT_EQ(structureOf(name), example.structure) << example.text;
        EXPECT_EQ(structureOf(Name::parse(name.text())), example.structure) << example.text;
        EXPECT_EQ(structureByOpenLdap(example.text), example.structure) << example.text;
    }
}

TEST(ADistinguishedName, IsWrittenAsTheExamplesOfTheRfc)
{
    for (char const* const text :
         {"UID=jsmith,DC=example,DC=net", "OU=Sales+CN=J.  Smith,DC=example,DC=net",
          R"(CN=James \"Jim\" Smith\, III,DC=example,DC=net)", "1.3.6.1.4.1.1466.0=#04024869"}) {
        EXPECT_EQ(Name::parse(text).text(), text);
    }
    EXPECT_EQ(Name::parse(R"(CN=Before\0dAfter)").text(), R"(CN=Before\0DAfter)");
    EXPECT_EQ(Name::parse(R"(CN=Lu\C4\8Di\C4\87)").text(), "CN=Lu\xC4\x8Di\xC4\x87");
}

TEST(ADistinguishedName, OfNoNamesIsTheRoot)
{
    EXPECT_TRUE(Name().isEmpty());
    EXPECT_TRUE(Name::parse("").isEmpty());
    EXPECT_EQ(Name().text(), "");
    EXPECT_EQ(Name(), Name::parse(""));
}

TEST(ADistinguishedName, IgnoresSpacesAroundSeparators)
{
    EXPECT_EQ(Name::parse(" cn = a  b + sn = #0402 , dc = c ").text(), "cn=a  b+sn=#0402,dc=c");
}

TEST(ADistinguishedName, KeepsSpacesThatAreEscaped)
{
    EXPECT_EQ(valueIn(R"(cn=\ a\ )"), " a ");
    EXPECT_EQ(valueIn(R"(cn=a \20  )"), "a  ");
    EXPECT_EQ(valueIn(R"(cn=\20 )"), " ");
}

TEST(ADistinguishedName, DecodesEveryEscape)
{
    EXPECT_EQ(valueIn(R"(cn=\"\+\,\;\<\>\\\#\=\ x)"), "\"+,;<>\\#= x");
    EXPECT_EQ(valueIn(R"(cn=\61\4A\4a\00\fF)"), "aJJ\0\xFF"s);
}

TEST(ADistinguishedName, MayHaveEmptyValues)
{
    EXPECT_EQ(structureOf(Name::parse("cn=,dc=a")), "cn=/dc=61");
    EXPECT_EQ(structureOf(Name::parse("cn=+sn=")), "cn=+sn=");
}

TEST(ADistinguishedName, NamesThePositionOfAnError)
{
    struct {
        char const* shows;
        std::string text;
        int position;
    } const cases[] = {
        {"only spaces", "  ", 2},
        {"no equals sign", "cn", 2},
        {"no type", "=a", 0},
        {"a comma at the end", "cn=a,", 5},
        {"a plus at the end", "cn=a+", 5},
        {"two commas", "cn=a,,dc=b", 5},
        {"the separator of LDAPv2", "cn=a;dc=b", 4},
        {"the quotation marks of LDAPv2", "cn=\"a,b\"", 3},
        {"a type with an option", "cn;lang-de=a", 2},
        {"a type that begins with a digit", "1a=b", 0},
        {"a type that begins with a hyphen", "dc=a,-a=b", 5},
        {"a type with an underscore", "a_b=c", 1},
        {"an OID with two dots in a row", "1..2=a", 0},
        {"an OID of LDAPv2", "oid.1.2=a", 0},
        {"a type that is not ASCII", "\xC3\xA4=b", 0},
        {"a comparison", "cn=a<b", 4},
        {"a NUL byte", "cn=a\0b"s, 4},
        {"invalid UTF-8", "cn=a\xFF", 4},
        {"an overlong form", "cn=\xC0\xAF", 3},
        {"a surrogate", "cn=\xED\xA0\x80", 3},
        {"half a character", "cn=\xC3", 3},
        {"a backslash at the end", "cn=a\\", 5},
        {"one digit", "cn=a\\4", 5},
        {"no digits", "cn=a\\zz", 5},
        {"an escaped newline", "cn=a\\\n", 5},
        {"no encoded bytes", "cn=#", 4},
        {"half an encoded byte", "cn=#040", 6},
        {"text after encoded bytes", "cn=#04x", 6},
        {"an escape after encoded bytes", "cn=#04\\02", 6},
    };
    for (auto const& row : cases) {
        EXPECT_EQ(errorIn(row.text), row.position) << row.shows;
    }
}

TEST(ADistinguishedName, SaysWhatIsWrong)
{
    EXPECT_EQ(thrownBy([] { Name::parse("cn=a,dc"); }).stringParameter(),
              "invalid DN at byte 7: expected '=' after the attribute type");
}

TEST(ADistinguishedName, IsReadAsItWasWrittenWhateverItsBytes)
{
    std::mt19937 random(45140601);
    auto const below = [&random](unsigned int end) {
        return static_cast<unsigned>(random()) % end;
    };
    for (int round = 0; round < 3000; ++round) {
        std::vector<Name::RDN> rdns(below(4) + 1);
        for (Name::RDN& rdn : rdns) {
            rdn.resize(below(2) + 1);
            for (Name::Assertion& part : rdn) {
                part.type = below(2) == 0 ? "cn" : "2.5.4.3";
                part.value.resize(below(8) + 1);
                for (char& byte : part.value) {
                    byte = below(2) == 0 ? static_cast<char>(below(256)) : " #,+=\\\""[below(7)];
                }
                part.isEncoded = below(5) == 0;
            }
        }
        Name const name(rdns);

        std::string const text = name.text();

        ASSERT_EQ(structureOf(Name::parse(text)), structureOf(name)) << text;
        ASSERT_EQ(structureByOpenLdap(text), structureOf(name)) << text;
    }
}

TEST(ADistinguishedName, TakesAMillionBytesAndAHundredThousandNames)
{
    std::string const value(1000000, ',');
    EXPECT_EQ(valueIn("cn=" + Name::escaped(value)), value);

    std::string text = "dc=a";
    for (int i = 1; i < 100000; ++i) {
        text += ",dc=a";
    }
    Name const deep = Name::parse(text);
    EXPECT_EQ(deep.rdns().size(), 100000U);
    EXPECT_EQ(deep.text(), text);
    EXPECT_EQ(deep, Name::parse(text));
}

TEST(ComparingDistinguishedNames, IgnoresTheCaseOfAsciiLettersSpacesAndTheOrderOfAssertions)
{
    struct {
        char const* left;
        char const* right;
    } const equal[] = {
        {"CN=Anna,DC=Corp", "cn=aNNA , dc=corp"},
        {"cn=a b", "cn=a   b"},
        {"cn=a", R"(cn=\20 a\20\20)"},
        {"cn=a+sn=b", "SN=B+CN=A"},
        {"cn=", R"(cn=\20)"},
        {"cn=\xC3\xA4", R"(cn=\c3\a4)"},
        {"cn=#0402", "CN=#0402"},
    };
    for (auto const& pair : equal) {
        EXPECT_EQ(Name::parse(pair.left), Name::parse(pair.right)) << pair.left;
        EXPECT_EQ(Name::parse(pair.left).normalized(), Name::parse(pair.right).normalized());
        EXPECT_FALSE(Name::parse(pair.left) != Name::parse(pair.right));
    }
}

TEST(ComparingDistinguishedNames, DistinguishesEverythingElse)
{
    struct {
        char const* shows;
        std::string left;
        std::string right;
    } const unequal[] = {
        {"values", "cn=a", "cn=b"},
        {"types", "cn=a", "sn=a"},
        {"a name and the OID of one type", "cn=a", "2.5.4.3=a"},
        {"the order of names", "dc=a,dc=b", "dc=b,dc=a"},
        {"a name and its ancestor", "cn=a,dc=b", "dc=b"},
        {"two names and a name of two assertions", "cn=a,sn=b", "cn=a+sn=b"},
        {"a comma in a value", "cn=a,sn=b", R"(cn=a\,sn\=b)"},
        {"encoded bytes and a string", "cn=#0402", R"(cn=\#0402)"},
        {"encoded bytes by their case", "cn=#0461", "cn=#0441"},
        {"an assertion that is repeated", "cn=a+cn=a", "cn=a"},
        {"letters beyond ASCII by their case", "cn=\xC3\xA4", "cn=\xC3\x84"},
        {"other white space", "cn=a\tb", "cn=a b"},
        {"the bytes after a NUL", R"(cn=a\00b)", R"(cn=a\00c)"},
    };
    for (auto const& pair : unequal) {
        EXPECT_NE(Name::parse(pair.left), Name::parse(pair.right)) << pair.shows;
    }
}

TEST(TheParent, IsTheNameWithoutItsFirst)
{
    Name const name = Name::parse(R"(cn=a\,b+sn=c,ou=d,dc=e)");

    EXPECT_EQ(name.parent().text(), "ou=d,dc=e");
    EXPECT_EQ(name.parent().parent().parent(), Name());
}

TEST(TheParent, IsMissingAtTheRoot)
{
    EXPECT_THAT(
        thrownBy([] { Name().parent(); }),
        IsFault("DistinguishedName.cpp", 131, 2, 0, "the root of the directory has no parent"));
}

TEST(AChild, HasAValueThatCannotChangeTheStructure)
{
    Name const base = Name::parse("ou=people,dc=corp");
    for (std::string const& value : {"anna"s, "a,ou=admins"s, "a+uid=b"s, " a "s, "#0402"s, "\\2C"s,
                                     "a\0b"s, "a\nb"s, "\xFF"s, "\"a\""s, "a=b"s, ""s}) {
        Name const child = base.child("uid", value);

        EXPECT_EQ(Name::parse(child.text()).rdns().at(0).at(0).value, value);
        EXPECT_EQ(Name::parse(child.text()).parent(), base);
        EXPECT_TRUE(child.isBelow(base));
    }
    EXPECT_EQ(base.child("uid", "a,b\0"s).text(), R"(uid=a\,b\00,ou=people,dc=corp)");
}

TEST(AChild, MayHaveSeveralAssertions)
{
    EXPECT_EQ(Name::parse("dc=corp").child({{"cn", "a"}, {"2.5.4.4", "b", true}}).text(),
              "cn=a+2.5.4.4=#62,dc=corp");
}

TEST(AChild, IsRefusedWithATypeThatIsNone)
{
    for (char const* const type : {"", "a b", "cn;binary", "cn=", "1a", ".1", "a\n"}) {
        EXPECT_THAT(thrownBy([&] { Name().child(type, "a"); }),
                    IsFault("DistinguishedName.cpp", 92, 2, 0))
            << type;
    }
    EXPECT_THAT(thrownBy([] { Name().child(Name::RDN()); }),
                IsFault("DistinguishedName.cpp", 92, 2, 0));
    EXPECT_THAT(thrownBy([] {
                    Name({{{"cn", "", true}}});
                }),
                IsFault("DistinguishedName.cpp", 92, 2, 0));
}

TEST(JoiningDistinguishedNames, PutsOneAboveTheOther)
{
    Name const base = Name::parse("dc=corp");

    EXPECT_EQ(Name::parse("cn=a,ou=b").join(base).text(), "cn=a,ou=b,dc=corp");
    EXPECT_EQ(Name().join(base), base);
    EXPECT_EQ(base.join(Name()), base);
}

TEST(BeingBelow, IsDecidedByWholeNames)
{
    Name const base = Name::parse("OU=People,dc=corp");

    EXPECT_TRUE(Name::parse("uid=a,ou=people,dc=CORP").isBelow(base));
    EXPECT_TRUE(Name::parse("uid=a,ou=b,ou=people,dc=corp").isBelow(base));
    EXPECT_TRUE(base.isBelow(Name()));
    EXPECT_FALSE(base.isBelow(base));
    EXPECT_FALSE(Name().isBelow(Name()));
    EXPECT_FALSE(Name::parse("dc=corp").isBelow(base));
    EXPECT_FALSE(Name::parse("uid=a,ou=morepeople,dc=corp").isBelow(base));
    EXPECT_FALSE(Name::parse(R"(uid=a\,ou\=people,dc=corp)").isBelow(base));
}
