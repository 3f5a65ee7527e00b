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

/// An expansion, and what it shows.
struct Expansion {
    char const* shows;
    std::string query;
    Values values;
    std::string result;
};

std::string const zero("\0", 1);

// clang-format off
Expansion const expansions[] = {
    // The template's own text.
    {"nothing",                      "",                    joe,                     ""},
    {"blanks alone",                 "  \t\r\n ",           joe,                     ""},
    {"unknown specifier",                 "(objectClass=*)",     joe,                     "(objectClass=*)"},
    {"blanks round it are dropped",  "  (cn=$u)  ",         {"a*b", "", "", ""},     "(cn=a\\2Ab)"},
    {"blanks within it are not",     " a $u b ",            {" j ", "", "", ""},     "a  j  b"},
    {"its own text is not escaped",  "(cn=*\\2A)$u",        {"*", "", "", ""},       "(cn=*\\2A)\\2A"},
    // Values.
    {"specifiers in values",         "$u$d$b$g",            {"$d", "$x", "${", "$"}, "$d$x${$"},
    {"zero bytes",                   zero + "a$u" + zero + "b", {zero, "", "", ""},  zero + "a" + zero + zero + "b"},
    {"bytes above ASCII",            "$u$n$N",              {"\xc3\xa4\xff", "", "", ""}, "\xc3\xa4\xff\xc3\xa4\xff\xc3\xa4\xff"},
    {"a hash for an empty domain",   "(mail=$d)",           {"jo", "", "", ""},      "(mail=#)"},
    {"no hash in an address",        "$m,$a,$A",            {"Jo", "", "", ""},      "Jo@,jo@,JO@"},
    {"an empty user is nothing",     "(x=$u)",              {"", "corp.test", "", ""}, "(x=)"},
    {"an address in upper case",     "$A",                  {"Jo", "x.test", "", ""}, "JO@X.TEST"},
    // $c, which is empty: the text since the specifier before it is lost.
    {"$c loses the text before it",  "(x=1)$c(y=$u)",       {"u", "", "", ""},       "(y=u)"},
    {"$c at the end",                "(x=1)$c",             joe,                     ""},
    {"$c alone",                     "$c",                  joe,                     ""},
    {"$c behind a specifier",        "(a=$u)(x=1)$c(y=2)",  {"u", "", "", ""},       "(a=u(y=2)"},
};

Expansion const removals[] = {
    // Which occurrence is cut.
    {"the last occurrence",          "(uid=$m${@corp.test})", {"jdoe", "corp.test", "", ""}, "(uid=jdoe)"},
    {"the last of two",              "$u${ab}",             {"abcabd", "", "", ""},  "abcd"},
    {"with a caret the first",       "$m${^jdoe@}",         {"jdoe", "corp.test", "", ""}, "corp.test"},
    {"the first of two",             "$u${^ab}",            {"abcabd", "", "", ""},  "cabd"},
    {"the first, wherever it is",    "$u${^b}",             {"abcb", "", "", ""},    "acb"},
    {"a caret alone: the last one",  "$u${^}",              {"a^b^c", "", "", ""},   "a^bc"},
    {"two carets: the first one",    "$u${^^}",             {"a^b^c", "", "", ""},   "ab^c"},
    // Nothing to cut.
    {"no text",                      "$m${}",               {"jdoe", "corp.test", "", ""}, "jdoe@corp.test"},
    {"not there",                    "$u${zz}",             {"jdoe", "", "", ""},    "jdoe"},
    {"not there, with a caret",      "$u${^zz}",            {"jdoe", "", "", ""},    "jdoe"},
    {"no value before it",           "${zz}x",              joe,                     "x"},
    {"neither value nor text",       "${}x",                joe,                     "x"},
    // What it is cut from.
    {"the text before it is lost",   "$u, text ${d}!",      {"jdoe", "", "", ""},    "joe!"},
    {"also if it is not there",      "$u, text ${zz}!",     {"jdoe", "", "", ""},    "jdoe!"},
    {"what the one before left",     "$m${.test}${@corp}${.test}", {"jdoe", "corp.test", "", ""}, "jdoe"},
    {"one after the other",          "$u${a}${a}${a}",      {"banana", "", "", ""},  "bnn"},
    {"the whole value",              "(x=$u${jdoe})",       {"jdoe", "", "", ""},    "(x=)"},
    {"the whole value, once more",   "(x=$u${jdoe}${jdoe})", {"jdoe", "", "", ""},   "(x=)"},
    {"the last value only",          "$u$d${corp}",         {"corp", "corp.test", "", ""}, "corp.test"},
    {"not the text between",         "$u-$d${corp}",        {"corp", "corp.test", "", ""}, "corp-.test"},
    {"past $c",                      "$u text $c${d}",      {"jdoe", "", "", ""},    "joe"},
    {"behind a hash: as many bytes", "($u$d${b})",          {"abc", "", "", ""},     "(aac)"},
    {"behind a hash, no text",       "($u$d${})",           {"abc", "", "", ""},     "(aabc)"},
    {"a hash alone",                 "$d${x}",              {"abc", "", "", ""},     "#"},
    {"not a hash behind what it cut", "$u${b}$d${#}",       {"ab", "", "", ""},      "a#"},
    // How values and text compare.
    {"a value that was escaped",     "$u${*}",              {"a*b", "", "", ""},     "a\\2Ab"},
    {"the escape itself",            "$u${\\2A}",           {"a*b", "", "", ""},     "ab"},
    {"an escape in another case",    "$n${\\2A}",           {"a*b", "", "", ""},     "a\\2ab"},
    {"an escape in lower case",      "$n${\\2a}",           {"a*b", "", "", ""},     "ab"},
    {"another case",                 "$u${JO}",             {"Jo", "", "", ""},      "Jo"},
    {"the same case",                "$N${JO}",             {"Jo", "", "", ""},      ""},
    {"a specifier in its text",      "$u${$x}",             {"a$xb", "", "", ""},    "ab"},
    {"a dollar in its text",         "$u${$}",              {"a$b", "", "", ""},     "ab"},
    {"it ends at the first brace",   "$u${a}b}",            {"xa", "", "", ""},      "xb}"},
    {"an opening brace is text",     "$u${{}",              {"x{y", "", "", ""},     "xy"},
    {"blanks in its text",           "$u${ b }",            {"a b c", "", "", ""},   "ac"},
};

/// A template that is refused.
struct Refusal {
    std::string query;
    unsigned int line;
    std::string text;
};

Refusal const refusals[] = {
    {"$u${abc",     160, "Invalid UserQuery string: missing matching bracket '}' : $u${abc"},
    {" }$u${ ",     160, "Invalid UserQuery string: missing matching bracket '}' :  }$u${ "},
    {"${a$x$",      160, "Invalid UserQuery string: missing matching bracket '}' : ${a$x$"},
    {"$x",          169, "Invalid format specifier in LdapQuery definition: at pos 0 (x) : $x"},
    {"$x${$",       169, "Invalid format specifier in LdapQuery definition: at pos 0 (x) : $x${$"},
    {"cn=$$u",      169, "Invalid format specifier in LdapQuery definition: at pos 3 ($) : cn=$$u"},
    // Pointed at in its trimmed form, shown as it was given.
    {"  cn=$u,$1 ", 169, "Invalid format specifier in LdapQuery definition: at pos 6 (1) :   cn=$u,$1 "},
    {"cn=$",        180, "Invalid UserQuery string: The last character must be a '$' : cn=$"},
    {" $u$  ",      180, "Invalid UserQuery string: The last character must be a '$' :  $u$  "},
    {"$",           180, "Invalid UserQuery string: The last character must be a '$' : $"},
};
// clang-format on

TEST(ExpandingATemplate, MakesTextOfTemplateAndValues)
{
    for (Expansion const& row : expansions) {
        EXPECT_EQ(expand(row.query, row.values), row.result) << row.shows;
    }
}

TEST(ARemoval, CutsFromTheValueBeforeIt)
{
    for (Expansion const& row : removals) {
        EXPECT_EQ(expand(row.query, row.values), row.result) << row.shows;
    }
}

TEST(AMalformedTemplate, IsReportedAtItsFirstFault)
{
    for (Refusal const& row : refusals) {
        auto const thrown = refusalOf(row.query);

        EXPECT_THAT(thrown, IsFault("Utility.cpp", row.line, 2, 0)) << row.query;
        EXPECT_EQ(thrown.stringParameter(), row.text);
    }
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
