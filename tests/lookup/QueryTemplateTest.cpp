// Expanding and explaining templates, and every finding with its position.
#include <solvane/lookup/QueryTemplate.h>

#include <solvane/ldap.h>

#include <gmock/gmock.h>

#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace Solvane::Lookup {

using Finding = QueryTemplate::Finding;

void PrintTo(Finding const& finding, std::ostream* out)
{
    *out << (finding.weight == Finding::Weight::error ? "error" : "warning") << " at "
         << finding.position << '+' << finding.length << ": " << finding.text;
}

namespace {

using namespace std::string_literals;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

auto isFinding(Finding::Weight weight, std::string::size_type position,
               std::string::size_type length, std::string const& words)
{
    return AllOf(Field(&Finding::weight, weight), Field(&Finding::position, position),
                 Field(&Finding::length, length), Field(&Finding::text, HasSubstr(words)));
}

auto isError(std::string::size_type position, std::string::size_type length,
             std::string const& words)
{
    return isFinding(Finding::Weight::error, position, length, words);
}

auto isWarning(std::string::size_type position, std::string::size_type length,
               std::string const& words)
{
    return isFinding(Finding::Weight::warning, position, length, words);
}

std::vector<Finding> findingsOf(std::string const& text) { return QueryTemplate(text).check(); }

// Expanding

TEST(QueryTemplateExpansion, InsertsTheAddressAndTheOptionalValues)
{
    QueryTemplate const queryTemplate(" (&(mail=$m)(ou=$b)(l=$g)) ", "sales", "Graz");

    EXPECT_EQ(queryTemplate.expand(EmailAddress("jdoe@corp.test")),
              "(&(mail=jdoe@corp.test)(ou=sales)(l=Graz))");
    EXPECT_EQ(queryTemplate.text(), " (&(mail=$m)(ou=$b)(l=$g)) ");
}

TEST(QueryTemplateExpansion, ThrowsForAMalformedTemplate)
{
    EXPECT_THROW(QueryTemplate("(x=$q)").expand(EmailAddress("a@x")), LDAPException);
}

/// The filter's parentheses and asterisks alone.
std::string structureOf(std::string const& filter)
{
    std::string structure;
    for (char const character : filter) {
        if (character == '(' || character == ')' || character == '*') {
            structure.push_back(character);
        }
    }
    return structure;
}

TEST(QueryTemplateExpansion, KeepsTheStructureOfTheFilterWhateverTheKey)
{
    QueryTemplate const queryTemplate("(|(mail=$m)(&(uid=$u)(dc=$d))(cn=$n*)(ou=$b)(sn=$A))",
                                      "*)(b=");
    std::string const alphabet = "()*\\&|!=@$ {}a2\xC3\xBC\n";
    std::minstd_rand random(20240229);

    for (int round = 0; round < 2000; ++round) {
        std::string key;
        for (auto length = random() % 12; length > 0; --length) {
            key.push_back(alphabet[random() % alphabet.size()]);
        }

        std::string const filter = queryTemplate.expand(EmailAddress(key));

        EXPECT_EQ(structureOf(filter), "(()(()())(*)()())") << key;
    }
}

TEST(QueryTemplateExpansion, MakesFiltersThatOpenLDAPTakesOfHostileKeys)
{
    QueryTemplate const queryTemplate("(|(mail=$m)(uid=$N)(&(uid=$u)(dc=$d)))");

    for (char const* const key : {"*", "*)(uid=*", "a\\", "\\", "@", "", "a@", "@a", "(((", ")))",
                                  "\\28@\\", "$u", "${u}", "a b", "x@y@z"}) {
        EXPECT_TRUE(isFilter(queryTemplate.expand(EmailAddress(key)))) << key;
    }
}

// Explaining

auto isStep(std::string::size_type position, std::string const& specifier,
            std::string const& dropped, std::string const& inserted, std::string const& removed,
            std::string const& replacement)
{
    using Step = QueryTemplate::Step;
    return AllOf(Field(&Step::position, position), Field(&Step::specifier, specifier),
                 Field(&Step::dropped, dropped), Field(&Step::inserted, inserted),
                 Field(&Step::removed, removed), Field(&Step::replacement, replacement));
}

TEST(QueryTemplateExplanation, CountsFromTheTextWithItsBlanks)
{
    QueryTemplate const queryTemplate("\t (|(uid=$u)(x=1)$c(mail=$m${@corp.test})(b=$b)(g=$g) ", "",
                                      "7");

    EXPECT_THAT(
        queryTemplate.explain(EmailAddress("jdoe@corp.test")),
        ElementsAre(isStep(9, "$u", "", "jdoe", "", ""), isStep(17, "$c", ")(x=1)", "", "", ""),
                    isStep(25, "$m", "", "jdoe@corp.test", "", ""),
                    isStep(27, "${@corp.test}", "", "", "@corp.test", ""),
                    isStep(44, "$b", ")(b=", "", "", ""), isStep(50, "$g", "", "7", "", "")));
}

TEST(QueryTemplateExplanation, TellsTheFirstOccurrenceFromTheLast)
{
    EXPECT_THAT(
        QueryTemplate("$m-${^a}").explain(EmailAddress("aba@x")),
        ElementsAre(isStep(0, "$m", "", "aba@x", "", ""), isStep(3, "${^a}", "-", "", "a", "")));
}

TEST(QueryTemplateExplanation, TellsThatNothingWasRemoved)
{
    EXPECT_THAT(QueryTemplate("$u${zz}").explain(EmailAddress("ab@x")),
                ElementsAre(isStep(0, "$u", "", "ab", "", ""), isStep(2, "${zz}", "", "", "", "")));
}

TEST(QueryTemplateExplanation, ShowsACutThatReachesBehindTheLastExpansion)
{
    // The "#" of an empty domain does not count as an inserted value: the removal includes it.
    EXPECT_THAT(QueryTemplate("$u$d${b}").explain(EmailAddress("ab")),
                ElementsAre(isStep(0, "$u", "", "ab", "", ""), isStep(2, "$d", "", "#", "", ""),
                            isStep(4, "${b}", "", "", "b#", "a")));
}

TEST(QueryTemplateExplanation, EndsBeforeAMalformedSpecifier)
{
    for (char const* const text : {"(x=$u)(y=$q)$d", "(x=$u)$", "(x=$u)(y=${a"}) {
        EXPECT_THAT(QueryTemplate(text).explain(EmailAddress("jdoe@x")),
                    ElementsAre(isStep(3, "$u", "", "jdoe", "", "")))
            << text;
    }
}

TEST(QueryTemplateExplanation, KeepsInvalidUtf8AfterASpecifierInTheText)
{
    EXPECT_THAT(QueryTemplate("$u\xB9$b-$g\x80$u", "", "7").explain(EmailAddress("jdoe@x")),
                ElementsAre(isStep(0, "$u", "", "jdoe", "", ""),
                            isStep(3, "$b", "\xB9", "", "", ""), isStep(6, "$g", "", "7", "", ""),
                            isStep(9, "$u", "", "jdoe", "", "")));
}

// Checking

TEST(QueryTemplateCheck, FindsNothingInACleanTemplate)
{
    for (char const* const text :
         {"(mail=$m)", "mail=$m", " (|(mail=$a)(mailAlias=$A))\r\n", "(cn=\xC3\xBC$u)",
          "(cn=\\28$u\\29)", "(sAMAccountName=\\24$u)", "(uid=$u${.external})", "(uid=$m${\\2A})",
          "(uid=$u${a}${^b})", "(userPrincipalName=$n${.external}@corp.test)",
          "(&(objectClass=person)(!(uid=$N)))"}) {
        EXPECT_THAT(findingsOf(text), IsEmpty()) << text;
    }
    EXPECT_THAT(QueryTemplate("(&(uid=$u)(ou=$b)(l=$g))", "sales", "Graz").check(), IsEmpty());
}

TEST(QueryTemplateCheck, PointsAtAnUnknownSpecifier)
{
    EXPECT_THAT(findingsOf("(x=$q)"), ElementsAre(isError(3, 2, "use $u $n $N")));
    EXPECT_THAT(findingsOf(" (x=$$)"), ElementsAre(isError(4, 2, "\\24")));
    EXPECT_THAT(findingsOf("(x=$U)(y=$u)$ z"), ElementsAre(isError(3, 2, "unknown specifier"),
                                                           isError(12, 2, "unknown specifier")));
}

TEST(QueryTemplateCheck, PointsAtAWholeCharacterBehindTheDollar)
{
    EXPECT_THAT(findingsOf("(x=$\xE2\x82\xAC)"), ElementsAre(isError(3, 4, "unknown specifier")));
}

TEST(QueryTemplateCheck, PointsAtATrailingDollar)
{
    EXPECT_THAT(findingsOf("cn=$u$ \n"), ElementsAre(isError(5, 1, "'$' without a specifier")));
}

TEST(QueryTemplateCheck, PointsAtABraceThatIsNotClosed)
{
    EXPECT_THAT(findingsOf("(uid=$u${.ext) "), ElementsAre(isError(7, 7, "without its '}'")));
}

TEST(QueryTemplateCheck, PointsAtControlCharactersAndInvalidUtf8)
{
    EXPECT_THAT(findingsOf("(&(a=$u)\n(b=2))"), ElementsAre(isError(8, 1, "control character")));
    EXPECT_THAT(findingsOf("(a=$u\0)"s), ElementsAre(isError(5, 1, "control character")));
    EXPECT_THAT(findingsOf("(a=\xC2\x85$u)"), ElementsAre(isError(3, 2, "control character")));
    EXPECT_THAT(findingsOf(" (a=\xFC$u)"), ElementsAre(isError(4, 1, "invalid UTF-8")));
}

TEST(QueryTemplateCheck, PointsAtASpecifierWithAnInvalidValue)
{
    EXPECT_THAT(QueryTemplate("(&(uid=$u)(ou=$b)(l=$g))", "x\xFF", "\n").check(),
                ElementsAre(isError(14, 2, "invalid UTF-8 at byte 1"),
                            isError(20, 2, "a control character at byte 0")));
    EXPECT_THAT(QueryTemplate("(uid=$u)", "\xFF", "\n").check(), IsEmpty());
}

TEST(QueryTemplateCheck, PointsAtTheSpecifierOfAnotherSystem)
{
    EXPECT_THAT(findingsOf("(mail=%s)"), ElementsAre(isError(6, 2, "use '$m' for the address")));
    EXPECT_THAT(findingsOf("(x=50%)(m=%u@%d)"),
                ElementsAre(isError(10, 2, "'$u' for its local part")));
    EXPECT_THAT(findingsOf("(cn=100%)"),
                ElementsAre(isWarning(0, 9, "no specifier for the address")));
    EXPECT_THAT(findingsOf("(&(x=%s)(mail=$m))"),
                ElementsAre(isWarning(5, 2, "plain text, not a specifier")));
}

TEST(QueryTemplateCheck, PointsAtATemplateThatComesOutEmpty)
{
    EXPECT_THAT(findingsOf(""), ElementsAre(isError(0, 0, "empty filter")));
    EXPECT_THAT(findingsOf(" \n"), ElementsAre(isError(0, 0, "empty filter")));
    EXPECT_THAT(findingsOf(" (x=1)$b"),
                ElementsAre(isWarning(1, 5, "dropped before $b, which is empty"),
                            isWarning(1, 7, "no specifier for the address"),
                            isError(1, 7, "empty filter")));
}

TEST(QueryTemplateCheck, PointsAtParenthesesWithoutPartner)
{
    EXPECT_THAT(findingsOf("(&(uid=$u)(cn=$u)"), ElementsAre(isError(0, 1, "'(' without")));
    EXPECT_THAT(findingsOf("(uid=$u))"), ElementsAre(isError(8, 1, "')' without")));
    EXPECT_THAT(findingsOf(" )uid=$u("),
                ElementsAre(isError(1, 1, "')' without"), isError(8, 1, "'(' without")));
}

TEST(QueryTemplateCheck, CountsTheParenthesesThatGetIntoTheFilter)
{
    EXPECT_THAT(findingsOf("(&(objectClass=person)(ou=$b)(uid=$u))"),
                ElementsAre(isWarning(0, 26, "dropped before $b"), isError(28, 1, "')' without"),
                            isError(37, 1, "')' without")));
    EXPECT_THAT(QueryTemplate("(&(objectClass=person)(ou=$b)(uid=$u))", "sales").check(),
                IsEmpty());
    EXPECT_THAT(findingsOf("(&(uid=$u)(x=1)$c(ou=people))"),
                ElementsAre(isError(0, 1, "'(' without"), isWarning(9, 6, "dropped before $c")));
}

TEST(QueryTemplateCheck, TakesNoParenthesisInBracesAndNoEscapedOneForOne)
{
    EXPECT_THAT(findingsOf("(uid=$u${(})"), ElementsAre(isWarning(7, 4, "never found")));
    EXPECT_THAT(findingsOf("(uid=\\28$u)"), IsEmpty());
    EXPECT_THAT(findingsOf("(uid=\\)$u)"), IsEmpty());
}

TEST(QueryTemplateCheck, WarnsWhereEveryAddressFindsTheSame)
{
    EXPECT_THAT(findingsOf(" (objectClass=person) "),
                ElementsAre(isWarning(1, 20, "every address finds the same entries")));
    EXPECT_THAT(QueryTemplate("(ou=$b)", "sales").check(),
                ElementsAre(isWarning(0, 7, "every address finds the same entries")));
}

TEST(QueryTemplateCheck, WarnsOfLostText)
{
    EXPECT_THAT(findingsOf("by address$c(mail=$m)"),
                ElementsAre(isWarning(0, 10, "dropped before $c")));
    EXPECT_THAT(findingsOf("(&(uid=$u)(ou=$b)(l=$g))"),
                ElementsAre(isWarning(9, 5, "dropped before $b, which is empty"),
                            isWarning(16, 4, "dropped before $g, which is empty")));
    EXPECT_THAT(findingsOf("(uid=$u)(cn=${.ext})"),
                ElementsAre(isWarning(7, 5, "dropped before '${'")));
}

TEST(QueryTemplateCheck, WarnsOfAnEmptyDomain)
{
    EXPECT_THAT(findingsOf("(&(uid=$u)(dc=$d))"), ElementsAre(isWarning(14, 2, "'#'")));
}

TEST(QueryTemplateCheck, WarnsOfARemovalThatMissesAnEmptyDomain)
{
    EXPECT_THAT(findingsOf("(&(mail=$m)(dc=$d${o}))"),
                ElementsAre(isWarning(15, 2, "'#'"), isWarning(17, 4, "cuts into the text")));
    EXPECT_THAT(findingsOf("(dc=$d${o})"), ElementsAre(isWarning(4, 2, "'#'")));
    EXPECT_THAT(findingsOf("(&(dc=$d)(uid=$u${o}))"), ElementsAre(isWarning(6, 2, "'#'")));
}

TEST(QueryTemplateCheck, WarnsOfARemovalThatCanFindNothing)
{
    for (char const* const text : {"(uid=$u${*})", "(uid=$u${(})", "(uid=$u${)})"}) {
        EXPECT_THAT(findingsOf(text), ElementsAre(isWarning(7, 4, "never found"))) << text;
    }
}

TEST(QueryTemplateCheck, WarnsOfARemovalThatTakesEscapesApart)
{
    EXPECT_THAT(findingsOf("(uid=$u${\\})"), ElementsAre(isWarning(7, 4, "splits escapes")));
    EXPECT_THAT(findingsOf("(uid=$u${^\\2})"), ElementsAre(isWarning(7, 6, "splits escapes")));
    EXPECT_THAT(findingsOf("(uid=$u${2A})"), ElementsAre(isWarning(7, 5, "splits escapes")));
    EXPECT_THAT(findingsOf("(uid=$n${a})"), ElementsAre(isWarning(7, 4, "splits escapes")));
}

TEST(QueryTemplateCheck, PointsAtATemplateWhoseFilterOpenLDAPRefuses)
{
    EXPECT_THAT(findingsOf(" $m"), ElementsAre(isError(1, 2,
                                                       "rejects the filter for user@domain.test: "
                                                       "user@domain.test")));
    EXPECT_THAT(findingsOf("(uid=$u)(cn=$u)"),
                ElementsAre(isError(0, 15, ": (uid=user)(cn=user)")));
    EXPECT_THAT(findingsOf("(cn=\\x$u)"), ElementsAre(isError(0, 9, "OpenLDAP rejects")));
    EXPECT_THAT(findingsOf("(cn=\\x$u)"),
                ElementsAre(isError(0, 9, "at byte 5: expected two hexadecimal digits")));
}

TEST(QueryTemplateCheck, WarnsWhereOpenLDAPRefusesAFilterOfUnusualAddressesOnly)
{
    EXPECT_THAT(findingsOf("(cn=*$u*)"), ElementsAre(isWarning(0, 9, "for @domain.test: (cn=**)")));
}

TEST(QueryTemplateCheck, SaysTextOfOneLineOnly)
{
    auto const findings = findingsOf("(x=$\n)$");

    ASSERT_THAT(findings, SizeIs(3));
    for (Finding const& finding : findings) {
        EXPECT_EQ(finding.text.find('\n'), std::string::npos) << finding.text;
    }
}

TEST(QueryTemplateCheck, AllowsATemplateOfPostfixWithoutTheAddressIfTheBaseHasIt)
{
    Settings settings;
    settings.postfixRules = true;
    settings.queryTemplate = "(objectClass=*)";
    settings.base = "ou=100%%,dc=t";

    auto const findings = QueryTemplate(settings).check();
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_THAT(findings[0].text, HasSubstr("every address finds the same entries"));
    settings.base = "cn=%u,dc=t";
    EXPECT_THAT(QueryTemplate(settings).check(), IsEmpty());
}

// Filters

TEST(Filter, IsWhatOpenLDAPTakes)
{
    for (char const* const filter :
         {"(cn=a)", "cn=a", "( cn=a)", "(cn=)", "(cn=*)", "(cn=a*b)", "(cn=\\2A)", "(&)", "(|)",
          "(&(a=b)(!(c=d)))", "(cn:dn:2.5.13.5:=x)", "(cn>=a)", "(cn~=a)"}) {
        EXPECT_TRUE(isFilter(filter)) << filter;
    }
}

TEST(Filter, IsNothingElse)
{
    for (std::string const& filter :
         {""s, " "s, "\t\n"s, ")"s, "("s, "()"s, "(cn=a"s, "cn=a)"s, "(cn=a) "s, "(cn =a)"s,
          "(a=b)(c=d)"s, "(!)"s, "(!(a=b)(c=d))"s, "(cn=\\2)"s, "(=a)"s, "cn"s, "((cn=a))"s}) {
        EXPECT_FALSE(isFilter(filter)) << filter;
    }
}

TEST(Filter, IsUtf8)
{
    EXPECT_FALSE(isFilter("(cn=\xFF)"));
    EXPECT_TRUE(isFilter("(cn=\\FF)"));
}

TEST(Filter, HasNoNul)
{
    EXPECT_FALSE(isFilter("uid=a\0"s));
    EXPECT_FALSE(isFilter("uid=a\0b"s));
    EXPECT_FALSE(isFilter("\0"s));
    EXPECT_FALSE(isFilter("(uid=a\0)"s));
}

} // namespace
} // namespace Solvane::Lookup
