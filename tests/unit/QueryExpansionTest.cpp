// Expansion of query templates: every specifier, the removal forms, malformed templates, and that
// no value changes the structure of a filter.
#include <solvane/ldap/LDAPUtil.h>

#include "Faults.h"
#include "FilterTree.h"

#include <gmock/gmock.h>

#include <cctype>
#include <random>

using namespace Solvane;
using SolvaneTest::hexadecimal;
using SolvaneTest::IsFault;
using SolvaneTest::thrownBy;
using SolvaneTest::treeByOpenLdap;
using SolvaneTest::treeOfText;

namespace {

/// What is put into a template.
struct Values {
    std::string user;
    std::string domain;
    std::string b;
    std::string g;
};

Values const joe{"Jo*E", "Corp.Test", "Bee(", "Gee)"};

std::string expand(std::string const& query, Values const& values = joe)
{
    return LDAPUtil::sv_ldap_expand_query(query, values.user, values.domain, values.b, values.g);
}

LDAPException refusalOf(std::string const& query)
{
    return thrownBy([&] { expand(query); });
}

struct Specifier {
    char letter;
    std::string expansion; ///< of the values above
};

std::ostream& operator<<(std::ostream& out, Specifier const& specifier)
{
    return out << '$' << specifier.letter;
}

class EachSpecifier : public testing::TestWithParam<Specifier> {
protected:
    static std::string specifier() { return std::string("$") + GetParam().letter; }
    static std::string expansion() { return GetParam().expansion; }
};

INSTANTIATE_TEST_SUITE_P(ThatInsertsAValue, EachSpecifier,
                         testing::Values(Specifier{'u', "Jo\\2AE"}, Specifier{'n', "jo\\2ae"},
                                         Specifier{'N', "JO\\2AE"}, Specifier{'d', "Corp.Test"},
                                         Specifier{'m', "Jo\\2AE@Corp.Test"},
                                         Specifier{'a', "jo\\2ae@corp.test"},
                                         Specifier{'A', "JO\\2AE@CORP.TEST"},
                                         Specifier{'b', "Bee\\28"}, Specifier{'g', "Gee\\29"}),
                         [](auto const& specifier) {
                             return std::string(1, specifier.param.letter) +
                                    (std::isupper(specifier.param.letter) != 0 ? "Upper" : "Lower");
                         });

class EachOptionalSpecifier : public testing::TestWithParam<std::string> {
protected:
    static std::string expandWithoutIt(std::string const& query)
    {
        return expand(query, Values{"jo", "corp.test", "", ""});
    }
};

INSTANTIATE_TEST_SUITE_P(WithoutAValue, EachOptionalSpecifier, testing::Values("$b", "$g"),
                         [](auto const& specifier) { return specifier.param.substr(1); });

/// Each specifier's value, before it was escaped, in hexadecimal digits.
std::string hexadecimalOf(char letter, Values const& values)
{
    auto const cased = [](std::string text, int (*change)(int)) {
        for (char& character : text) {
            character = static_cast<char>(change(static_cast<unsigned char>(character)));
        }
        return hexadecimal(text);
    };
    std::string const address = values.user + "@" + values.domain;
    switch (letter) {
    case 'u':
        return hexadecimal(values.user);
    case 'n':
        return cased(values.user, std::tolower);
    case 'N':
        return cased(values.user, std::toupper);
    case 'd':
        return hexadecimal(values.domain);
    case 'm':
        return hexadecimal(address);
    case 'a':
        return cased(address, std::tolower);
    case 'A':
        return cased(address, std::toupper);
    case 'b':
        return hexadecimal(values.b);
    default:
        return hexadecimal(values.g);
    }
}

/// A tree with its specifiers replaced by their values.
std::string filledIn(std::string const& tree, Values const& values)
{
    std::string filled;
    for (std::size_t i = 0; i < tree.size(); ++i) {
        if (tree[i] == '$') {
            filled += hexadecimalOf(tree[++i], values);
        } else {
            filled += tree[i];
        }
    }
    return filled;
}

struct Structure {
    std::string query;
    std::string tree;
};

Structure const structures[] = {
    {"(mail=$m)", "mail eq $m"},
    {"(&(uid=$u)(|(dc=$d)(cn>=$n)(cn<=$N)))", "&(uid eq $u)(|(dc eq $d)(cn ge $n)(cn le $N))"},
    {"(|(!(mail~=$a))(mail=$A)(b=$b)(g=$g))", "|(!(mail approx $a))(mail eq $A)(b eq $b)(g eq $g)"},
    {"(cn=*$u*)", "cn sub ,$u,"},
    {"(cn=$u*$d*$b)", "cn sub $u,$d,$b"},
    {"(&(cn=$g*)(sn=*$N)(objectClass=*)(cn=$u))",
     "&(cn sub $g,)(sn sub ,$N)(objectClass present)(cn eq $u)"},
    {"(mail=<$u|$d>)", "mail eq 3c$u7c$d3e"},
};

/// Draws bytes of every value, those that filters give a meaning more often, and at least one.
class Bytes {
public:
    Bytes(unsigned int seed, int lowest) : m_random(seed), m_lowest(lowest) {}

    Values values() { return Values{next(), next(), next(), next()}; }

private:
    int number(int highest) { return std::uniform_int_distribution<int>(0, highest)(m_random); }
    std::string next()
    {
        std::string bytes(static_cast<std::size_t>(1 + number(15)), '\0');
        for (char& byte : bytes) {
            bool const isSpecial = number(2) == 0;
            std::string const specials = "*()\\&|!=~<>${}2Aa# ";
            byte = isSpecial ? specials[static_cast<std::size_t>(number(18))]
                             : static_cast<char>(m_lowest + number(255 - m_lowest));
        }
        return bytes;
    }

    std::mt19937 m_random;
    int const m_lowest;
};

} // namespace

TEST_P(EachSpecifier, InsertsItsValueEscaped) { EXPECT_EQ(expand(specifier()), expansion()); }

TEST_P(EachSpecifier, KeepsTheTextBeforeAndBehindIt)
{
    EXPECT_EQ(expand("(x=" + specifier() + ")"), "(x=" + expansion() + ")");
}

TEST_P(EachSpecifier, StandsBesideItself)
{
    EXPECT_EQ(expand(specifier() + specifier()), expansion() + expansion());
}

TEST_P(EachSpecifier, IsWhatARemovalCutsFrom)
{
    std::string const last = expansion().substr(expansion().size() - 2);

    EXPECT_EQ(expand(specifier() + "${" + last + "}"),
              expansion().substr(0, expansion().size() - 2));
}

TEST_P(EachOptionalSpecifier, DropsTheTextBeforeIt)
{
    EXPECT_EQ(expandWithoutIt("(x=" + GetParam() + ")"), ")");
}

TEST_P(EachOptionalSpecifier, DropsOnlyTheTextBehindTheSpecifierBefore)
{
    EXPECT_EQ(expandWithoutIt("(&(uid=$u)(x=" + GetParam() + ")(y=1))"), "(&(uid=jo)(y=1))");
}

TEST_P(EachOptionalSpecifier, LeavesTheLastExpansionToARemoval)
{
    EXPECT_EQ(expandWithoutIt("$m, and " + GetParam() + "${@corp.test}"), "jo");
}

TEST(ExpandingATemplate, GivesNothingForNothing)
{
    EXPECT_EQ(expand(""), "");
    EXPECT_EQ(expand("  \t\r\n "), "");
}

TEST(ExpandingATemplate, CopiesATemplateWithoutSpecifiers)
{
    EXPECT_EQ(expand("(objectClass=*)"), "(objectClass=*)");
}

TEST(ExpandingATemplate, DropsBlanksRoundTheTemplateOnly)
{
    EXPECT_EQ(expand("  (cn=$u)  ", Values{"a*b", "", "", ""}), "(cn=a\\2Ab)");
    EXPECT_EQ(expand(" a $u b ", Values{" j ", "", "", ""}), "a  j  b");
}

TEST(ExpandingATemplate, DoesNotEscapeItsOwnText)
{
    EXPECT_EQ(expand("(cn=*\\2A)$u", Values{"*", "", "", ""}), "(cn=*\\2A)\\2A");
}

TEST(ExpandingATemplate, DoesNotReadSpecifiersInValues)
{
    EXPECT_EQ(expand("$u$d$b$g", Values{"$d", "$x", "${", "$"}), "$d$x${$");
}

TEST(ExpandingATemplate, KeepsZeroBytes)
{
    std::string const zero("\0", 1);

    EXPECT_EQ(expand(zero + "a$u" + zero + "b", Values{zero, "", "", ""}),
              zero + "a" + zero + zero + "b");
}

TEST(ExpandingATemplate, KeepsBytesAboveAscii)
{
    EXPECT_EQ(expand("$u$n$N", Values{"\xc3\xa4\xff", "", "", ""}),
              "\xc3\xa4\xff\xc3\xa4\xff\xc3\xa4\xff");
}

TEST(ExpandingATemplate, PutsAHashForAnEmptyDomain)
{
    EXPECT_EQ(expand("(mail=$d)", Values{"jo", "", "", ""}), "(mail=#)");
}

TEST(ExpandingATemplate, PutsNoHashIntoAnAddressWithoutDomain)
{
    EXPECT_EQ(expand("$m,$a,$A", Values{"Jo", "", "", ""}), "Jo@,jo@,JO@");
}

TEST(ExpandingATemplate, InsertsAnEmptyUserAsNothing)
{
    EXPECT_EQ(expand("(x=$u)", Values{"", "corp.test", "", ""}), "(x=)");
}

TEST(ExpandingATemplate, PutsTheAddressInUpperCase)
{
    EXPECT_EQ(expand("$A", Values{"Jo", "x.test", "", ""}), "JO@X.TEST");
}

TEST(ExpandingATemplate, LosesTheTextBeforeTheEmptySpecifier)
{
    EXPECT_EQ(expand("(x=1)$c(y=$u)", Values{"u", "", "", ""}), "(y=u)");
    EXPECT_EQ(expand("(x=1)$c"), "");
    EXPECT_EQ(expand("$c"), "");
}

TEST(ExpandingATemplate, LosesOnlyTheTextBehindTheSpecifierBeforeTheEmptyOne)
{
    EXPECT_EQ(expand("(a=$u)(x=1)$c(y=2)", Values{"u", "", "", ""}), "(a=u(y=2)");
}

TEST(ARemoval, CutsTheLastOccurrence)
{
    EXPECT_EQ(expand("(uid=$m${@corp.test})", Values{"jdoe", "corp.test", "", ""}), "(uid=jdoe)");
    EXPECT_EQ(expand("$u${ab}", Values{"abcabd", "", "", ""}), "abcd");
}

TEST(ARemoval, CutsTheFirstOccurrenceWithACaret)
{
    EXPECT_EQ(expand("$m${^jdoe@}", Values{"jdoe", "corp.test", "", ""}), "corp.test");
    EXPECT_EQ(expand("$u${^ab}", Values{"abcabd", "", "", ""}), "cabd");
}

TEST(ARemoval, CutsWithACaretAnywhereInTheValue)
{
    EXPECT_EQ(expand("$u${^b}", Values{"abcb", "", "", ""}), "acb");
}

TEST(ARemoval, CutsTheLastCaretWithACaretAlone)
{
    EXPECT_EQ(expand("$u${^}", Values{"a^b^c", "", "", ""}), "a^bc");
}

TEST(ARemoval, CutsTheFirstCaretWithTwo)
{
    EXPECT_EQ(expand("$u${^^}", Values{"a^b^c", "", "", ""}), "ab^c");
}

TEST(ARemoval, CutsNothingWithoutText)
{
    EXPECT_EQ(expand("$m${}", Values{"jdoe", "corp.test", "", ""}), "jdoe@corp.test");
}

TEST(ARemoval, CutsNothingThatIsNotThere)
{
    EXPECT_EQ(expand("$u${zz}", Values{"jdoe", "", "", ""}), "jdoe");
    EXPECT_EQ(expand("$u${^zz}", Values{"jdoe", "", "", ""}), "jdoe");
    EXPECT_EQ(expand("${zz}x"), "x");
    EXPECT_EQ(expand("${}x"), "x");
}

TEST(ARemoval, LosesTheTextBeforeIt)
{
    EXPECT_EQ(expand("$u, text ${d}!", Values{"jdoe", "", "", ""}), "joe!");
    EXPECT_EQ(expand("$u, text ${zz}!", Values{"jdoe", "", "", ""}), "jdoe!");
}

TEST(ARemoval, CutsFromWhatTheOneBeforeLeft)
{
    EXPECT_EQ(expand("$m${.test}${@corp}${.test}", Values{"jdoe", "corp.test", "", ""}), "jdoe");
    EXPECT_EQ(expand("$u${a}${a}${a}", Values{"banana", "", "", ""}), "bnn");
}

TEST(ARemoval, CutsTheWholeValue)
{
    EXPECT_EQ(expand("(x=$u${jdoe})", Values{"jdoe", "", "", ""}), "(x=)");
    EXPECT_EQ(expand("(x=$u${jdoe}${jdoe})", Values{"jdoe", "", "", ""}), "(x=)");
}

TEST(ARemoval, CutsFromTheLastValueOnly)
{
    EXPECT_EQ(expand("$u$d${corp}", Values{"corp", "corp.test", "", ""}), "corp.test");
    EXPECT_EQ(expand("$u-$d${corp}", Values{"corp", "corp.test", "", ""}), "corp-.test");
}

TEST(ARemoval, SeesTheValueEscaped)
{
    EXPECT_EQ(expand("$u${*}", Values{"a*b", "", "", ""}), "a\\2Ab");
    EXPECT_EQ(expand("$u${\\2A}", Values{"a*b", "", "", ""}), "ab");
    EXPECT_EQ(expand("$n${\\2A}", Values{"a*b", "", "", ""}), "a\\2ab");
    EXPECT_EQ(expand("$n${\\2a}", Values{"a*b", "", "", ""}), "ab");
}

TEST(ARemoval, MindsCase)
{
    EXPECT_EQ(expand("$u${JO}", Values{"Jo", "", "", ""}), "Jo");
    EXPECT_EQ(expand("$N${JO}", Values{"Jo", "", "", ""}), "");
}

TEST(ARemoval, DoesNotReadSpecifiersInItsText)
{
    EXPECT_EQ(expand("$u${$x}", Values{"a$xb", "", "", ""}), "ab");
    EXPECT_EQ(expand("$u${$}", Values{"a$b", "", "", ""}), "ab");
}

TEST(ARemoval, EndsAtTheFirstBrace)
{
    EXPECT_EQ(expand("$u${a}b}", Values{"xa", "", "", ""}), "xb}");
    EXPECT_EQ(expand("$u${{}", Values{"x{y", "", "", ""}), "xy");
}

TEST(ARemoval, KeepsBlanksInItsText)
{
    EXPECT_EQ(expand("$u${ b }", Values{"a b c", "", "", ""}), "ac");
}

TEST(ARemoval, CutsTheLastCharactersBehindAHash)
{
    EXPECT_EQ(expand("($u$d${b})", Values{"abc", "", "", ""}), "(aac)");
    EXPECT_EQ(expand("($u$d${})", Values{"abc", "", "", ""}), "(aabc)");
    EXPECT_EQ(expand("$d${x}", Values{"abc", "", "", ""}), "#");
}

TEST(ARemoval, GoesPastTheEmptySpecifier)
{
    EXPECT_EQ(expand("$u text $c${d}", Values{"jdoe", "", "", ""}), "joe");
}

TEST(AMalformedTemplate, LacksAClosingBrace)
{
    auto const thrown = refusalOf("$u${abc");

    EXPECT_THAT(thrown, IsFault("Utility.cpp", 160, 2, 0));
    EXPECT_EQ(thrown.stringParameter(),
              "Invalid UserQuery string: missing matching bracket '}' : $u${abc");
}

TEST(AMalformedTemplate, LacksAClosingBraceRightAtItsEnd)
{
    auto const thrown = refusalOf(" }$u${ ");

    EXPECT_THAT(thrown, IsFault("Utility.cpp", 160, 2, 0));
    EXPECT_EQ(thrown.stringParameter(),
              "Invalid UserQuery string: missing matching bracket '}' :  }$u${ ");
}

TEST(AMalformedTemplate, HasASpecifierThatIsNotKnown)
{
    auto const thrown = refusalOf("$x");

    EXPECT_THAT(thrown, IsFault("Utility.cpp", 169, 2, 0));
    EXPECT_EQ(thrown.stringParameter(),
              "Invalid format specifier in LdapQuery definition: at pos 0 (x) : $x");
}

TEST(AMalformedTemplate, HasADollarForASpecifier)
{
    auto const thrown = refusalOf("cn=$$u");

    EXPECT_THAT(thrown, IsFault("Utility.cpp", 169, 2, 0));
    EXPECT_EQ(thrown.stringParameter(),
              "Invalid format specifier in LdapQuery definition: at pos 3 ($) : cn=$$u");
}

TEST(AMalformedTemplate, IsPointedAtInItsTrimmedFormAndShownAsItWasGiven)
{
    auto const thrown = refusalOf("  cn=$u,$1 ");

    EXPECT_EQ(thrown.stringParameter(),
              "Invalid format specifier in LdapQuery definition: at pos 6 (1) :   cn=$u,$1 ");
}

TEST(AMalformedTemplate, EndsWithADollar)
{
    auto const thrown = refusalOf("cn=$");

    EXPECT_THAT(thrown, IsFault("Utility.cpp", 180, 2, 0));
    EXPECT_EQ(thrown.stringParameter(),
              "Invalid UserQuery string: The last character must be a '$' : cn=$");
}

TEST(AMalformedTemplate, EndsWithADollarBeforeBlanks)
{
    auto const thrown = refusalOf(" $u$  ");

    EXPECT_THAT(thrown, IsFault("Utility.cpp", 180, 2, 0));
    EXPECT_EQ(thrown.stringParameter(),
              "Invalid UserQuery string: The last character must be a '$' :  $u$  ");
}

TEST(AMalformedTemplate, MayBeADollarAlone)
{
    EXPECT_THAT(refusalOf("$"), IsFault("Utility.cpp", 180, 2, 0));
}

TEST(AMalformedTemplate, IsReportedAtItsFirstFault)
{
    EXPECT_THAT(refusalOf("$x${$"), IsFault("Utility.cpp", 169, 2, 0));
    EXPECT_THAT(refusalOf("${a$x$"), IsFault("Utility.cpp", 160, 2, 0));
}

TEST(AMalformedTemplate, HasNoCause) { EXPECT_FALSE(refusalOf("$x").hasCause()); }

TEST(AMalformedTemplate, HasAnyOtherCharacterForASpecifier)
{
    std::string const known = "unNdmaAbgc{";
    for (int number = 0; number < 256; ++number) {
        char const character = static_cast<char>(number);
        if (known.find(character) != std::string::npos) {
            continue;
        }
        std::string const query = std::string("$") + character + ".";

        auto const thrown = refusalOf(query);

        EXPECT_THAT(thrown, IsFault("Utility.cpp", 169, 2, 0)) << "byte " << number;
        EXPECT_EQ(thrown.stringParameter(),
                  std::string("Invalid format specifier in LdapQuery definition: at pos 0 (") +
                      character + ") : " + query)
            << "byte " << number;
    }
}

TEST(TheStructureOfAFilter, IsTheTemplatesForPlainValues)
{
    Values const plain{"Jo", "Corp.Test", "bee", "gee"};
    for (Structure const& structure : structures) {
        std::string const filter = expand(structure.query, plain);

        EXPECT_EQ(treeOfText(filter), filledIn(structure.tree, plain)) << filter;
        EXPECT_EQ(treeByOpenLdap(filter), filledIn(structure.tree, plain)) << filter;
    }
}

TEST(TheStructureOfAFilter, IsTheTemplatesForAnyBytesInTheValues)
{
    Bytes bytes(19970401, 0);
    for (int round = 0; round < 2000; ++round) {
        Values const values = bytes.values();
        for (Structure const& structure : structures) {
            std::string const filter = expand(structure.query, values);

            ASSERT_EQ(treeOfText(filter), filledIn(structure.tree, values))
                << "round " << round << ", " << structure.query << '\n'
                << filter;
        }
    }
}

TEST(TheStructureOfAFilter, IsTheTemplatesForOpenLdapToo)
{
    Bytes bytes(20060601, 1); // OpenLDAP takes text that ends at a zero byte
    for (int round = 0; round < 2000; ++round) {
        Values const values = bytes.values();
        for (Structure const& structure : structures) {
            std::string const filter = expand(structure.query, values);

            ASSERT_EQ(treeByOpenLdap(filter), filledIn(structure.tree, values))
                << "round " << round << ", " << structure.query << '\n'
                << filter;
        }
    }
}

TEST(TheStructureOfAFilter, ShowsAValueThatIsNotEscaped)
{
    std::string const filter = "(&(uid="
                               "x)(|(uid=*)"
                               ")(dc=y))";

    EXPECT_EQ(treeOfText(filter), "&(uid eq 78)(|(uid present))(dc eq 79)");
    EXPECT_EQ(treeByOpenLdap(filter), "&(uid eq 78)(|(uid present))(dc eq 79)");
    EXPECT_THROW(treeOfText("(uid=a(b)"), std::invalid_argument);
    EXPECT_THROW(treeOfText("(uid=a)b)"), std::invalid_argument);
    EXPECT_THROW(treeOfText("(uid=a\\2)"), std::invalid_argument);
}
