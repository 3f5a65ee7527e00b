// Filters as values: built, parsed and printed, and what hostile text becomes.
#include <solvane/ldap/LDAPFilter.h>
#include <solvane/ldap/LDAPUtil.h>

#include "Faults.h"
#include "FilterTree.h"

#include <gmock/gmock.h>

#include <random>
#include <string>
#include <vector>

using namespace Solvane;
using namespace std::string_literals;
using SolvaneTest::hexadecimal;
using SolvaneTest::IsFault;
using SolvaneTest::thrownBy;
using SolvaneTest::treeByOpenLdap;
using SolvaneTest::treeOfText;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using Kind = LDAPFilter::Kind;

std::string treeOf(LDAPFilter const& filter);

std::string treeOfSet(char const* operation, LDAPFilter const& filter)
{
    std::string tree = operation;
    for (LDAPFilter const& each : filter.filters()) {
        tree += '(' + treeOf(each) + ')';
    }
    return tree;
}

/// The filter in the notation of FilterTree.h.
std::string treeOf(LDAPFilter const& filter)
{
    switch (filter.kind()) {
    case Kind::And:
        return treeOfSet("&", filter);
    case Kind::Or:
        return treeOfSet("|", filter);
    case Kind::Not:
        return treeOfSet("!", filter);
    case Kind::Present:
        return filter.attribute() + " present";
    case Kind::Substring: {
        std::string tree = filter.attribute() + " sub " + hexadecimal(filter.values().front());
        for (std::size_t i = 1; i < filter.values().size(); ++i) {
            tree += ',' + hexadecimal(filter.values()[i]);
        }
        return tree;
    }
    default:
        break;
    }
    std::string const operation = filter.kind() == Kind::Equal            ? " eq "
                                  : filter.kind() == Kind::GreaterOrEqual ? " ge "
                                  : filter.kind() == Kind::LessOrEqual    ? " le "
                                  : filter.kind() == Kind::Approx         ? " approx "
                                                                          : " extensible ";
    return filter.attribute() + operation + hexadecimal(filter.values().front());
}

/// The position of the error; fails the test without one.
int errorIn(std::string const& text)
{
    auto const thrown = thrownBy([&] { LDAPFilter::parse(text); });
    EXPECT_THAT(thrown, IsFault("Filter.cpp", 61, 2, 0));
    EXPECT_THAT(thrown.stringParameter(),
                HasSubstr("at byte " + std::to_string(thrown.intParameter()) + ": "));
    return thrown.intParameter();
}

std::string nested(unsigned int levels)
{
    std::string text;
    for (unsigned int i = 1; i < levels; ++i) {
        text += "(!";
    }
    return text + "(a=b)" + std::string(levels - 1, ')');
}

} // namespace

TEST(AFilter, HasTheTreeOfTheExamplesOfTheRfc)
{
    for (char const* const text :
         {// RFC 4515 section 4
          "(cn=Babs Jensen)", "(!(cn=Tim Howes))",
          "(&(objectClass=Person)(|(sn=Jensen)(cn=Babs J*)))", "(o=univ*of*mich*)", "(seeAlso=)",
          R"((o=Parens R Us \28for all your parenthetical needs\29))", R"((cn=*\2A*))",
          R"((filename=C:\5cMyFile))", R"((bin=\00\00\00\04))", R"((sn=Lu\c4\8di\c4\87))",
          R"((1.3.6.1.4.1.1466.0=\04\02\48\69))"}) {
        LDAPFilter const filter = LDAPFilter::parse(text);

        EXPECT_EQ(treeOf(filter), treeByOpenLdap(text)) << text;
        EXPECT_EQ(treeOf(LDAPFilter::parse(filter.text())), treeOf(filter)) << text;
    }
}

TEST(AFilter, HasThePartsOfTheExtensibleExamplesOfTheRfc)
{
    struct {
        char const* text; // RFC 4515 section 4
        char const* attribute;
        bool dnAttributes;
        char const* rule;
        char const* value;
    } const examples[] = {
        {"(cn:caseExactMatch:=Fred Flintstone)", "cn", false, "caseExactMatch", "Fred Flintstone"},
        {"(cn:=Betty Rubble)", "cn", false, "", "Betty Rubble"},
        {"(sn:dn:2.4.6.8.10:=Barney Rubble)", "sn", true, "2.4.6.8.10", "Barney Rubble"},
        {"(o:dn:=Ace Industry)", "o", true, "", "Ace Industry"},
        {"(:1.2.3:=Wilma Flintstone)", "", false, "1.2.3", "Wilma Flintstone"},
        {"(:DN:2.4.6.8.10:=Dino)", "", true, "2.4.6.8.10", "Dino"},
    };
    for (auto const& example : examples) {
        LDAPFilter const filter = LDAPFilter::parse(example.text);

        EXPECT_EQ(filter.kind(), Kind::Extensible) << example.text;
        EXPECT_EQ(filter.attribute(), example.attribute) << example.text;
        EXPECT_EQ(filter.dnAttributes(), example.dnAttributes) << example.text;
        EXPECT_EQ(filter.rule(), example.rule) << example.text;
        EXPECT_THAT(filter.values(), ElementsAre(example.value)) << example.text;
        LDAPFilter const built = LDAPFilter::extensible(example.attribute, example.rule,
                                                        example.value, example.dnAttributes);
        EXPECT_EQ(built.text(), filter.text()) << example.text;
    }
    EXPECT_EQ(LDAPFilter::parse("(:DN:2.4.6.8.10:=Dino)").text(), "(:dn:2.4.6.8.10:=Dino)");
}

TEST(AFilter, IsBuiltFromPartsAndPrinted)
{
    LDAPFilter const filter = LDAPFilter::allOf(
        {LDAPFilter::equal("objectClass", "person"),
         LDAPFilter::anyOf({LDAPFilter::substring("cn", "a*", {"b", "c"}, "d"),
                            LDAPFilter::substring("cn;lang-fr", "", {}, "e"),
                            LDAPFilter::present("mail")}),
         LDAPFilter::negated(LDAPFilter::approx("sn", "f")), LDAPFilter::greaterOrEqual("uid", "1"),
         LDAPFilter::lessOrEqual("2.5.4.3", "2")});

    EXPECT_EQ(filter.text(), R"((&(objectClass=person)(|(cn=a\2A*b*c*d)(cn;lang-fr=*e)(mail=*)))"
                             "(!(sn~=f))(uid>=1)(2.5.4.3<=2))");
    EXPECT_EQ(treeOf(filter), treeByOpenLdap(filter.text()));
}

TEST(AFilter, MayHaveNoFiltersOrOne)
{
    EXPECT_EQ(LDAPFilter::allOf({}).text(), "(&)");
    EXPECT_EQ(LDAPFilter::anyOf({}).text(), "(|)");
    EXPECT_EQ(LDAPFilter::parse("(&(a=b))").filters().size(), 1U);
}

TEST(AFilter, AcceptsWhatOpenLdapAcceptsBesidesTheGrammar)
{
    struct {
        char const* text;
        char const* written;
    } const cases[] = {
        {"cn=a", "(cn=a)"},        {"( cn=a)", "(cn=a)"},
        {"(cn= a )", "(cn= a )"},  {"(\n& (a=b)\t(c=d) )", "(&(a=b)(c=d))"},
        {"(! (a=b))", "(!(a=b))"}, {R"((a=\*\(\)\\))", R"((a=\2A\28\29\5C))"},
        {"(a=b=c)", "(a=b=c)"},    {"(01.2=a)", "(01.2=a)"},
    };
    for (auto const& row : cases) {
        EXPECT_EQ(LDAPFilter::parse(row.text).text(), row.written) << row.text;
        EXPECT_EQ(treeByOpenLdap(row.text), treeByOpenLdap(row.written)) << row.text;
    }
}

TEST(AFilter, NamesThePositionOfAnError)
{
    struct {
        char const* shows;
        std::string text;
        int position;
    } const cases[] = {
        {"nothing", "", 0},
        {"a blank before the filter", " (a=b)", 0},
        {"a blank after the filter", "(a=b) ", 5},
        {"two filters", "(a=b)(c=d)", 5},
        {"no closing parenthesis", "(a=b", 4},
        {"no opening parenthesis", "a=b)", 3},
        {"two parentheses", "((a=b))", 1},
        {"no content", "()", 1},
        {"no attribute", "(=a)", 1},
        {"no operator", "(a)", 2},
        {"half an operator", "(a>b)", 3},
        {"a blank before the operator", "(a =b)", 2},
        {"an attribute with an underscore", "(a_b=c)", 2},
        {"an attribute with an empty option", "(a;=b)", 1},
        {"an OID that ends with a dot", "(1.=b)", 1},
        {"not without a filter", "(!)", 2},
        {"not with two filters", "(!(a=b)(c=d))", 7},
        {"a comparison among filters", "(&(a=b)c=d)", 7},
        {"an asterisk in a comparison of order", "(a>=b*)", 5},
        {"two asterisks", "(a=b**c)", 5},
        {"only asterisks", "(a=**)", 4},
        {"an opening parenthesis in a value", "(a=b(c))", 4},
        {"half an escape", R"((a=\2))", 4},
        {"a damaged escape", R"((a=\zz))", 4},
        {"a backslash at the end", "a=\\", 3},
        {"a NUL byte", "(a=b\0c)"s, 4},
        {"invalid UTF-8", "(a=b\xFF)", 4},
        {"no rule and no attribute", "(:=a)", 1},
        {"only the flag", "(:dn:=a)", 1},
        {"an empty rule", "(a::=b)", 3},
        {"two rules", "(a:b:c:=d)", 5},
        {"a rule without a colon at its end", "(a:b=c)", 4},
        {"a rule with an option", "(a:b;c:=d)", 4},
    };
    for (auto const& row : cases) {
        EXPECT_EQ(errorIn(row.text), row.position) << row.shows;
    }
}

TEST(AFilter, SaysWhatIsWrong)
{
    EXPECT_EQ(thrownBy([] { LDAPFilter::parse("(&(a=b)"); }).stringParameter(),
              "invalid filter at byte 7: expected ')'");
}

TEST(AFilter, IsNestedAHundredDeepAndNoDeeper)
{
    std::string const deepest = nested(LDAPFilter::maxDepth);

    LDAPFilter const filter = LDAPFilter::parse(deepest);

    EXPECT_EQ(filter.text(), deepest);
    EXPECT_EQ(errorIn(nested(LDAPFilter::maxDepth + 1)), 200);
    EXPECT_EQ(errorIn(std::string(1000000, '(')), 1);
    EXPECT_EQ(errorIn("(&" + nested(LDAPFilter::maxDepth) + ")"), 200);
    EXPECT_THAT(thrownBy([&] { LDAPFilter::negated(filter); }),
                IsFault("Filter.cpp", 139, 2, 0, "a filter is nested deeper than 100 levels"));
    EXPECT_THAT(thrownBy([&] {
                    LDAPFilter::allOf({LDAPFilter::present("a"), filter});
                }),
                IsFault("Filter.cpp", 139, 2, 0));
}

TEST(AFilter, MayBeLarge)
{
    std::vector<LDAPFilter> const many(100000, LDAPFilter::equal("uid", std::string(10, '*')));

    std::string const text = LDAPFilter::anyOf(many).text();

    EXPECT_EQ(LDAPFilter::parse(text).filters().size(), many.size());
    EXPECT_EQ(LDAPFilter::parse(text).text(), text);
}

TEST(AFilter, IsNotBuiltFromInvalidParts)
{
    for (char const* const attribute : {"", "a b", "a=b", "a)(b", "1a", "a;", "a;b;", ".1", "-a"}) {
        EXPECT_THAT(thrownBy([&] { LDAPFilter::equal(attribute, "x"); }),
                    IsFault("Filter.cpp", 104, 2, 0))
            << attribute;
        EXPECT_THAT(thrownBy([&] { LDAPFilter::present(attribute); }),
                    IsFault("Filter.cpp", 104, 2, 0))
            << attribute;
    }
    for (char const* const rule : {"a b", "a;b", "dn", ":", "1a"}) {
        EXPECT_THAT(thrownBy([&] { LDAPFilter::extensible("a", rule, "x"); }),
                    IsFault("Filter.cpp", 104, 2, 0))
            << rule;
    }
    EXPECT_THAT(thrownBy([] { LDAPFilter::extensible("", "", "x", true); }),
                IsFault("Filter.cpp", 104, 2, 0));
    EXPECT_THAT(thrownBy([] { LDAPFilter::substring("a", "", {}, ""); }),
                IsFault("Filter.cpp", 104, 2, 0));
    EXPECT_THAT(thrownBy([] { LDAPFilter::substring("a", "b", {""}, "c"); }),
                IsFault("Filter.cpp", 104, 2, 0));
}

TEST(AFilter, IsReadAsItWasBuiltWhateverTheBytesOfItsValues)
{
    std::mt19937 random(45150601);
    auto const piece = [&random] {
        std::string bytes(std::uniform_int_distribution<std::size_t>(1, 12)(random), '\0');
        for (char& byte : bytes) {
            byte = random() % 2 == 0 ? "*()\\&|!="[random() % 8] : static_cast<char>(random());
        }
        return bytes;
    };
    for (int round = 0; round < 3000; ++round) {
        LDAPFilter const filter = LDAPFilter::anyOf(
            {LDAPFilter::equal("a", piece()), LDAPFilter::substring("b", piece(), {piece()}, ""),
             LDAPFilter::negated(LDAPFilter::lessOrEqual("c", piece()))});

        std::string const text = filter.text();

        ASSERT_EQ(treeOf(LDAPFilter::parse(text)), treeOf(filter)) << text;
        ASSERT_EQ(treeByOpenLdap(text), treeOf(filter)) << text;
        ASSERT_EQ(treeOfText(text), treeOf(filter)) << text;
    }
}

TEST(AFilter, EscapesValuesAsTemplatesDoAndControlCharactersToo)
{
    EXPECT_EQ(LDAPFilter::escaped("a*(b)\\"), LDAPUtil::formalizeQueryFilter("a*(b)\\"));
    EXPECT_EQ(LDAPFilter::escaped("\xC3\xA4"), "\xC3\xA4");
    EXPECT_EQ(LDAPFilter::escaped("a\0\n\x7F\xFF"s), R"(a\00\0A\7F\FF)");
}
