// How entries become results: formats, ranges of values, references to members, and their order.
#include "Expansion.h"

#include <solvane/ldap/LDAPAttribute.h>
#include <solvart/StringHelpers.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <optional>

using namespace Solvane;
using namespace Solvane::Lookup;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace SolvaneTest {

namespace {

constexpr char server[] = "ldap://one";

/// The texts of a format for values; those without a text are left out.
std::vector<std::string> formatted(std::string const& format, std::string const& key,
                                   std::vector<std::string> const& values)
{
    std::vector<std::string> texts;
    for (std::string const& value : values) {
        if (auto const text = ResultFormat(format).of(value, key)) {
            texts.push_back(*text);
        }
    }
    return texts;
}

using Attributes = std::vector<std::pair<std::string, std::vector<std::string>>>;

LDAPSearchResultEntry entry(std::string const& dn, Attributes const& attributes)
{
    LDAPSearchResultEntry made(dn);
    for (auto const& [name, values] : attributes) {
        LDAPAttribute attribute{LDAPAttributeType(name)};
        for (std::string const& value : values) {
            attribute.value(value);
        }
        made.appendAttribute(attribute);
    }
    return made;
}

Settings groupSettings()
{
    Settings settings;
    settings.servers.resize(1);
    settings.servers[0].host = "ldap.corp.test";
    settings.specialResultAttributes = {"member"};
    settings.leafResultAttributes = {"mail"};
    return settings;
}

/// A directory of entries by DN, which answers the searches of an expansion.
class Directory {
public:
    explicit Directory(Settings settings = groupSettings()) : m_settings(std::move(settings)) {}

    void add(std::string const& dn, Attributes const& attributes)
    {
        m_entries.emplace_back(dn, attributes);
    }
    /// A group with members by their names below dc=t.
    void group(std::string const& name, std::vector<std::string> members)
    {
        for (std::string& member : members) {
            member = "cn=" + member + ",dc=t";
        }
        add("cn=" + name + ",dc=t", {{"mail", {name}}, {"member", members}});
    }
    void person(std::string const& name) { add("cn=" + name + ",dc=t", {{"mail", {name}}}); }

    /// The results of the entry with this name.
    /// @param isReversed  answers the searches of a level in the reverse order
    std::vector<std::string> resultsOf(std::string const& name, bool isReversed = false)
    {
        ResultRules const rules(m_settings);
        std::string const key = "key@corp.test";
        Expansion expansion(rules, m_settings, key);
        Expansion::Entries found;
        found.push_back(*entryOf("cn=" + name + ",dc=t"));
        m_searches.clear();
        expansion.begin(found, server);
        while (expansion.hasNext()) {
            answerAll(expansion, isReversed);
        }
        m_verdict = expansion.verdict();
        EXPECT_TRUE(expansion.isDone() || !m_verdict.isGood());
        if (!m_verdict.isGood()) {
            return {};
        }
        auto const results = expansion.results();
        m_remark = expansion.remark();
        return results;
    }

    /// Of the last run: the bases of its searches, its verdict, its remark.
    std::vector<std::string> const& searches() const { return m_searches; }
    Verdict const& verdict() const { return m_verdict; }
    std::string const& remark() const { return m_remark; }

private:
    std::optional<LDAPSearchResultEntry> entryOf(std::string const& dn,
                                                 std::vector<std::string> const& only = {}) const
    {
        for (auto const& [name, attributes] : m_entries) {
            if (stringCompareNoCase(name, dn, 0) == 0) {
                Attributes kept;
                std::copy_if(attributes.begin(), attributes.end(), std::back_inserter(kept),
                             [&](auto const& attribute) {
                                 return only.empty() ||
                                        std::count(only.begin(), only.end(), attribute.first) != 0;
                             });
                return entry(name, kept);
            }
        }
        return std::nullopt;
    }

    void answerAll(Expansion& expansion, bool isReversed)
    {
        std::list<Expansion::Search> searches;
        for (Expansion::Search search; expansion.next(search);) {
            searches.insert(isReversed ? searches.begin() : searches.end(), search);
        }
        for (Expansion::Search const& search : searches) {
            m_searches.push_back(search.request.base);
            Expansion::Entries entries;
            if (auto const found = entryOf(search.request.base, search.request.attributes)) {
                entries.push_back(*found);
            }
            bool const isMissing = entries.empty();
            expansion.take(search, entries, server, isMissing);
        }
    }

    Settings m_settings;
    std::vector<std::pair<std::string, Attributes>> m_entries;
    std::vector<std::string> m_searches;
    Verdict m_verdict;
    std::string m_remark;
};

/// The search that a reference to a member leads to.
struct Made {
    Verdict verdict;
    SearchRequest request;
    std::string filter;
};
Made searchFor(std::string const& reference, Settings const& settings = groupSettings())
{
    Made made;
    made.verdict = ResultRules(settings).makeSearch(reference, made.request, made.filter);
    return made;
}

} // namespace

// Formats

TEST(AResultFormat, InsertsPartsOfTheValue)
{
    std::vector<std::string> const values = {"anna@corp.t", "plain", "@empty", "user@", ""};

    EXPECT_THAT(formatted("%s", "k", values),
                ElementsAre("anna@corp.t", "plain", "@empty", "user@"));
    EXPECT_THAT(formatted("%u", "k", values), ElementsAre("anna", "plain", "user"));
    EXPECT_THAT(formatted("%d", "k", values), ElementsAre("corp.t", "empty"));
    EXPECT_THAT(formatted("<%u at %d>", "k", values), ElementsAre("<anna at corp.t>"));
    EXPECT_THAT(formatted("OK", "k", {"a", "", "b"}), ElementsAre("OK", "OK"));
    EXPECT_THAT(formatted("100%%s", "k", {"a"}), ElementsAre("100%s"));
    EXPECT_THAT(formatted("%u%u", "k", {"a@b@c"}), ElementsAre("a@ba@b"));
}

TEST(AResultFormat, InsertsPartsOfTheKey)
{
    EXPECT_THAT(formatted("%S:%U:%D:%s", "anna@x.y", {"v"}), ElementsAre("anna@x.y:anna:x.y:v"));
    EXPECT_THAT(formatted("%2-%1", "anna@x.y", {"v"}), ElementsAre("x-y"));
    EXPECT_THAT(formatted("%3", "anna@mail.example.com", {"v"}), ElementsAre("mail"));
    EXPECT_THAT(formatted("%2-%1", "anna@x..y.", {"v"}), ElementsAre("x-y"));
}

TEST(AResultFormat, TellsWhatAKeyLacks)
{
    EXPECT_EQ(ResultFormat("%s %u %d").lackOf("anna"), "");
    EXPECT_EQ(ResultFormat("%S %U").lackOf("anna"), "");
    EXPECT_EQ(ResultFormat("%D").lackOf("anna"), "domain");
    EXPECT_EQ(ResultFormat("%D").lackOf("anna@"), "domain");
    EXPECT_EQ(ResultFormat("%U").lackOf("@x.y"), "user");
    EXPECT_EQ(ResultFormat("%2").lackOf("anna@x"), "label 2 of a domain");
    EXPECT_EQ(ResultFormat("%2").lackOf("anna@.y"), "label 2 of a domain");
}

TEST(AResultFormat, IsInvalidWithAnUnknownSpecifier)
{
    EXPECT_EQ(ResultFormat::faultOf("%s %u %d %S %U %D %1 %9 %% text"), "");
    EXPECT_THAT(ResultFormat::faultOf("%q"), HasSubstr("unknown specifier %q"));
    EXPECT_THAT(ResultFormat::faultOf("%0"), HasSubstr("unknown specifier %0"));
    EXPECT_THAT(ResultFormat::faultOf("a%%%"), HasSubstr("single %"));
}

// Ranges

TEST(ARangeOfValues, IsReadFromTheDescription)
{
    auto const first = ValueRange::in("member;range=0-1499");
    auto const last = ValueRange::in("member;x;Range=1500-*;y");

    ASSERT_TRUE(first);
    EXPECT_EQ(first->name, "member");
    EXPECT_EQ(first->begin, 0U);
    EXPECT_EQ(first->end, 1499U);
    EXPECT_FALSE(first->isLast);
    ASSERT_TRUE(last);
    EXPECT_EQ(last->name, "member;x;y");
    EXPECT_EQ(last->begin, 1500U);
    EXPECT_TRUE(last->isLast);
}

TEST(ARangeOfValues, IsNotReadFromAnythingElse)
{
    for (char const* const text :
         {"member", "range=0-1", "member;binary", "member;range=", "member;range=1",
          "member;range=a-b", "member;range=0-", "member;range=0-1x", "member;range=-1-5",
          "member;ranges=0-1", "member;range=5-2", "member;range=0-18446744073709551615",
          "member;range=0-99999999999999999999999"}) {
        EXPECT_FALSE(ValueRange::in(text)) << text;
    }
    EXPECT_TRUE(ValueRange::isIn("member;Range=5-2"));
    EXPECT_FALSE(ValueRange::isIn("member;x"));
    EXPECT_FALSE(ValueRange::isIn("member;ranges=0-1;range"));
}

// References to members

TEST(ANormalizedDn, IsTheSameForEveryWayToWriteIt)
{
    std::string const dn = normalizedDn("uid=anna,dc=corp,dc=test");

    EXPECT_EQ(normalizedDn("UID=anna, DC=corp , Dc=test"), dn);
    EXPECT_EQ(normalizedDn("uid=\\61nna,dc=corp,dc=test"), dn);
    EXPECT_EQ(normalizedDn("cn=a+sn=b,dc=t"), normalizedDn("SN=b+CN=a,dc=t"));
    EXPECT_NE(normalizedDn("uid=Anna,dc=corp,dc=test"), dn); // its syntax may be caseExactString
    EXPECT_NE(normalizedDn("uid=ann,dc=corp,dc=test"), dn);
    EXPECT_NE(normalizedDn("uid=anna,dc=test"), dn);
    EXPECT_NE(normalizedDn("cn=a\\,dc\\=t"), normalizedDn("cn=a,dc=t"));
    EXPECT_EQ(normalizedDn("no DN"), "no DN");
}

TEST(AReferenceToAMember, IsADn)
{
    Made const made = searchFor("uid=anna,dc=t");

    EXPECT_TRUE(made.verdict.isGood());
    EXPECT_EQ(made.request.base, "uid=anna,dc=t");
    EXPECT_EQ(made.request.scope, 0);
    EXPECT_EQ(made.filter, "(objectClass=*)");
    EXPECT_THAT(made.request.attributes, ElementsAre("mail", "member"));
}

TEST(AReferenceToAMember, IsAnLdapUrl)
{
    Made const made = searchFor("ldap:///ou=people,dc=t??sub?(title=boss%20one)");
    Made const host = searchFor("ldap://LDAP.corp.test:1389/dc=t?mail,cn?one");

    EXPECT_TRUE(made.verdict.isGood());
    EXPECT_EQ(made.request.base, "ou=people,dc=t");
    EXPECT_EQ(made.request.scope, 2);
    EXPECT_EQ(made.filter, "(title=boss one)");
    EXPECT_THAT(made.request.attributes, ElementsAre("mail", "member"));
    EXPECT_TRUE(host.verdict.isGood());
    EXPECT_EQ(host.request.scope, 1);
    EXPECT_THAT(host.request.attributes, ElementsAre("mail"));
}

TEST(AReferenceToAMember, MayNameAServerOfTheSettings)
{
    auto settings = groupSettings();
    settings.servers.resize(4);
    settings.servers[1].host = "2001:db8::1";
    settings.servers[2].socketPath = "/run/slapd/ldapi";
    settings.servers[3].srvDomain = "corp.test";

    for (char const* const url :
         {"ldap:///dc=t", "ldap://ldap.corp.test", "ldap://LDAP.Corp.test./dc=t",
          "ldaps://ldap.corp.test:636/dc=t", "ldap://ldap.corp.test:1389/dc=t",
          "ldap://[2001:DB8:0::1]/dc=t", "ldapi://%2Frun%2Fslapd%2Fldapi/dc=t"}) {
        EXPECT_TRUE(searchFor(url, settings).verdict.isGood()) << url;
    }
    for (char const* const url :
         {"ldap://corp.test/dc=t", "ldap://ldap.corp.test.test/dc=t", "ldap://[2001:db8::2]/dc=t",
          "ldap://127.0.0.1/dc=t", "ldapi://%2Frun%2Fslapd%2FLdapi/dc=t", "ldap://./dc=t"}) {
        Made const made = searchFor(url, settings);
        EXPECT_EQ(made.verdict.outcome, Outcome::Misconfigured) << url;
        EXPECT_THAT(made.verdict.text, HasSubstr("names another server")) << url;
    }
}

TEST(AReferenceToAMember, SelectsAttributesWithOptions)
{
    auto settings = groupSettings();
    settings.attributes = {"cn;lang-de", "sn"};

    EXPECT_THAT(searchFor("ldap:///dc=t?cn,sn;lang-fr,title", settings).request.attributes,
                ElementsAre("cn;lang-de", "sn;lang-fr"));
    EXPECT_THAT(searchFor("ldap:///dc=t?*", settings).request.attributes,
                ElementsAre("mail", "member", "cn;lang-de", "sn"));
    EXPECT_THAT(searchFor("ldap:///dc=t?title", settings).request.attributes, IsEmpty());
}

TEST(AReferenceToAMember, IsMisconfiguredIfItCannotBeFollowed)
{
    for (std::string const& reference :
         {std::string("ldap://other.corp.test/dc=t"), std::string("ldap:///dc=t?mail?everywhere"),
          std::string("ldap:///dc=t?\?\?\?!critical"), std::string("ldap:///dc=t%00,dc=u"),
          std::string("dc=t\0,dc=u", 10)}) {
        EXPECT_EQ(searchFor(reference).verdict.outcome, Outcome::Misconfigured) << reference;
    }
    EXPECT_THAT(searchFor("ldap://other.corp.test/dc=t").verdict.text,
                HasSubstr("another server, 'other.corp.test', which is not asked"));
}

// Roles

TEST(TheRoleOfAnAttribute, IsTheHighestOfItsLists)
{
    auto settings = groupSettings();
    settings.attributes = {"cn", "mail", "maildrop"};
    settings.leafResultAttributes = {"mail", "maildrop"};
    settings.terminalResultAttributes = {"maildrop"};
    ResultRules const rules(settings);

    using Role = ResultRules::Role;
    EXPECT_EQ(rules.roleOf("CN"), Role::result);
    EXPECT_EQ(rules.roleOf("cn;lang-de"), Role::result);
    EXPECT_EQ(rules.roleOf("mail"), Role::leaf);
    EXPECT_EQ(rules.roleOf("maildrop"), Role::terminal);
    EXPECT_EQ(rules.roleOf("Member;range=0-5"), Role::special);
    EXPECT_EQ(rules.roleOf("sn"), Role::none);
    EXPECT_THAT(rules.requested(),
                testing::UnorderedElementsAre("cn", "mail", "maildrop", "member"));
}

// Expansions

TEST(AGroup, IsItsMembersInTheirOrder)
{
    Directory directory;
    directory.group("all", {"bert", "sales", "anna"});
    directory.group("sales", {"carl", "dora"});
    for (char const* const name : {"anna", "bert", "carl", "dora"}) {
        directory.person(name);
    }

    EXPECT_THAT(directory.resultsOf("all"), ElementsAre("bert", "carl", "dora", "anna"));
    EXPECT_THAT(directory.resultsOf("all", true), ElementsAre("bert", "carl", "dora", "anna"));
    EXPECT_EQ(directory.remark(), "");
}

TEST(AGroup, HasEachEntryOnceAndEndsItsLoops)
{
    Directory directory;
    directory.group("all", {"sales", "anna", "ALL", "sales"});
    directory.group("sales", {"anna", "staff", "sales"});
    directory.group("staff", {"all", "bert", "sales"});
    directory.person("anna");
    directory.person("bert");

    for (bool const isReversed : {false, true}) {
        EXPECT_THAT(directory.resultsOf("all", isReversed), ElementsAre("anna", "bert"));
        EXPECT_EQ(directory.searches().size(), 5U); // none for the group, one for "ALL"
    }
}

TEST(AGroup, HasAnEntryOnceThatUrlsFindToo)
{
    auto settings = groupSettings();
    settings.attributes = {"mobile"};
    settings.expansionLimit = 4;
    Directory directory(settings);
    std::string const anna = "cn=anna,dc=t";
    std::string const url = "ldap:///cn=anna,dc=t?";
    directory.add(anna, {{"mobile", {"+1", "+2"}}, {"mail", {"anna"}}});
    directory.person("bert");
    directory.add("cn=dn,dc=t", {{"member", {"cn=bert,dc=t", url + "mail?base", anna}}});
    directory.add(
        "cn=urls,dc=t",
        {{"member", {url + "mobile,sn", url + "Mail", "cn=bert,dc=t", url + "mail,mobile?sub"}}});
    directory.add("cn=both,dc=t", {{"member", {"cn=urls,dc=t", anna, "cn=dn,dc=t"}}});
    for (bool const isReversed : {false, true}) {
        EXPECT_THAT(directory.resultsOf("dn", isReversed), ElementsAre("bert", "anna", "+1", "+2"));
        EXPECT_THAT(directory.resultsOf("urls", isReversed),
                    ElementsAre("+1", "+2", "anna", "bert"));
        EXPECT_THAT(directory.resultsOf("both", isReversed),
                    ElementsAre("+1", "+2", "anna", "bert"));
    }
}

TEST(AGroup, TellsWhichMembersDoNotExist)
{
    Directory directory;
    directory.group("all", {"gone", "anna"});
    directory.group("worse", {"all", "lost", "gone"});
    directory.person("anna");

    EXPECT_THAT(directory.resultsOf("all"), ElementsAre("anna"));
    EXPECT_EQ(directory.remark(), "member 'cn=gone,dc=t' does not exist");
    EXPECT_THAT(directory.resultsOf("worse", true), ElementsAre("anna"));
    EXPECT_EQ(directory.remark(), "2 members do not exist, such as 'cn=gone,dc=t'");
}

TEST(AGroup, HasMembersThatDifferInCase)
{
    auto const settings = groupSettings();
    ResultRules const rules(settings);
    std::string const key = "key";
    Expansion expansion(rules, settings, key);
    Expansion::Entries found = {
        entry("cn=all,dc=t", {{"member", {"xid=aB,dc=t", "xid=Ab,dc=t", "XID=aB, dc=t"}}})};
    expansion.begin(found, server);
    for (Expansion::Search search; expansion.next(search);) {
        Expansion::Entries one = {entry(search.request.base, {{"mail", {search.request.base}}})};
        expansion.take(search, one, server, false);
    }

    EXPECT_THAT(expansion.results(), ElementsAre("xid=aB,dc=t", "xid=Ab,dc=t"));
}

TEST(AGroup, WithAMemberThatIsNotReturnedIsRefused)
{
    auto const settings = groupSettings();
    ResultRules const rules(settings);
    std::string const key = "key";
    Expansion expansion(rules, settings, key);
    Expansion::Entries found = {entry("cn=all,dc=t", {{"member", {"cn=secret,dc=t"}}})};
    expansion.begin(found, server);
    Expansion::Search search;
    ASSERT_TRUE(expansion.next(search));
    Expansion::Entries nothing;
    expansion.take(search, nothing, "ldap://two", false);

    EXPECT_EQ(expansion.verdict().outcome, Outcome::Refused);
    EXPECT_EQ(expansion.verdict().code, 50);
    EXPECT_EQ(expansion.verdict().text, "ldap://two: member 'cn=secret,dc=t' was not returned: "
                                        "does this identity have the right to read it?");
}

TEST(AGroup, WithAnAttributeOfAnotherNameIsMisconfigured)
{
    Directory directory; // as a server answers if a setting has an alias or an OID
    directory.add("cn=all,dc=t", {{"uniqueMember", {"cn=anna,dc=t"}}, {"mail", {"all"}}});

    EXPECT_THAT(directory.resultsOf("all"), IsEmpty());
    EXPECT_EQ(directory.verdict().outcome, Outcome::Misconfigured);
    EXPECT_THAT(directory.verdict().text, HasSubstr("ldap://one: returned 'uniqueMember'"));
}

TEST(AGroup, WithAnEmptyMemberHasNoOtherResults)
{
    Directory directory;
    directory.add("cn=empty,dc=t", {{"mail", {"empty"}}, {"member", {""}}});

    EXPECT_THAT(directory.resultsOf("empty"), IsEmpty());
    EXPECT_THAT(directory.searches(), IsEmpty());
    EXPECT_TRUE(directory.verdict().isGood());
}

TEST(AGroup, EndsAtATerminalAttribute)
{
    auto settings = groupSettings();
    settings.attributes = {"cn"};
    settings.terminalResultAttributes = {"maildrop"};
    Directory directory(settings);
    directory.group("all", {"list", "anna"});
    directory.add("cn=list,dc=t", {{"cn", {"list"}},
                                   {"maildrop", {"list@host"}},
                                   {"mail", {"list"}},
                                   {"member", {"cn=bert,dc=t"}}});
    directory.add("cn=anna,dc=t", {{"cn", {"Anna"}}, {"mail", {"anna"}}});

    EXPECT_THAT(directory.resultsOf("all"), ElementsAre("list@host", "Anna", "anna"));
    EXPECT_THAT(directory.searches(), ElementsAre("cn=list,dc=t", "cn=anna,dc=t"));
}

TEST(AGroup, MayHaveResultsOfItsOwn)
{
    auto settings = groupSettings();
    settings.attributes = {"mail"};
    settings.leafResultAttributes.clear();
    settings.resultFormat = "%U:%s";
    Directory directory(settings);
    directory.group("all", {"anna"});
    directory.person("anna");

    EXPECT_THAT(directory.resultsOf("all"), ElementsAre("key:all", "key:anna"));
}

TEST(AGroup, BeyondALimitIsNotShortened)
{
    auto settings = groupSettings();
    settings.expansionLimit = 2;
    Directory few(settings);
    few.group("all", {"a", "b"});
    few.group("more", {"all", "c"});
    for (char const* const name : {"a", "b", "c"}) {
        few.person(name);
    }
    settings.expansionLimit = 0;
    settings.recursionLimit = 2;
    Directory flat(settings);
    flat.group("all", {"a", "b"});
    flat.group("more", {"all", "a"});
    flat.person("a");
    flat.person("b");

    EXPECT_THAT(few.resultsOf("all"), ElementsAre("a", "b"));
    EXPECT_THAT(few.resultsOf("more"), IsEmpty());
    EXPECT_EQ(few.verdict().outcome, Outcome::TryLater);
    EXPECT_EQ(few.verdict().text, "ldap://one: there are more than 2 values (expansion_limit)");
    EXPECT_THAT(flat.resultsOf("all"), ElementsAre("a", "b"));
    EXPECT_THAT(flat.resultsOf("more"), IsEmpty());
    EXPECT_EQ(flat.verdict().outcome, Outcome::TryLater);
    EXPECT_EQ(flat.verdict().text,
              "ldap://one: groups are nested deeper than 2 levels (recursion_limit), at member "
              "'cn=b,dc=t'");
}

TEST(AGroup, MayBeNestedDeeply)
{
    Directory directory;
    for (int level = 0; level < 900; ++level) {
        directory.group("g" + std::to_string(level), {"g" + std::to_string(level + 1)});
    }
    directory.person("g900");

    EXPECT_THAT(directory.resultsOf("g0"), ElementsAre("g900"));
}

// Ranges of an entry

namespace {

/// Takes a search for more values of `name`, and answers it with one more range.
void answerRange(Expansion& expansion, std::string const& asked, Attributes const& attributes,
                 std::string const& from = server)
{
    Expansion::Search search;
    ASSERT_TRUE(expansion.next(search));
    EXPECT_THAT(search.request.attributes, ElementsAre(asked));
    Expansion::Entries entries = {entry("cn=all,dc=t", attributes)};
    expansion.take(search, entries, from, false);
}

std::vector<std::string> valuesOf(LDAPAttribute const& attribute)
{
    return {attribute.value().begin(), attribute.value().end()};
}

} // namespace

class AnAttributeInRanges : public testing::Test {
protected:
    void begin(Attributes const& attributes)
    {
        entries.push_back(entry("cn=all,dc=t", attributes));
        expansion.begin(entries, server);
    }
    /// The attributes of the entry at the end, with their values.
    Attributes whole() const
    {
        Attributes all;
        for (LDAPAttribute const& attribute : entries.front().attributes().attributes()) {
            all.emplace_back(attribute.type().asString(), valuesOf(attribute));
        }
        return all;
    }

    static Settings requesting(std::vector<std::string> const& attributes)
    {
        Settings settings;
        settings.attributes = attributes;
        return settings;
    }

    Settings settings = requesting({"cn", "member", "member;range=2-3", "sn"});
    std::string key = "key";
    ResultRules rules{settings};
    Expansion expansion{rules, settings, key};
    Expansion::Entries entries;
};

TEST_F(AnAttributeInRanges, IsFetchedWhole)
{
    begin({{"cn", {"all"}}, {"member", {}}, {"member;range=0-1", {"a", "b"}}, {"sn", {"x"}}});
    answerRange(expansion, "member;range=2-*", {{"member;range=2-3", {"c", "d"}}});
    answerRange(expansion, "member;range=4-*", {{"member;range=4-*", {"e"}}});

    EXPECT_TRUE(expansion.isDone());
    EXPECT_TRUE(expansion.verdict().isGood());
    EXPECT_EQ(whole(),
              (Attributes{{"cn", {"all"}}, {"member", {"a", "b", "c", "d", "e"}}, {"sn", {"x"}}}));
    EXPECT_THAT(expansion.results(), IsEmpty());
}

TEST_F(AnAttributeInRanges, MayBeWholeAlready)
{
    begin({{"member;range=0-*", {"a", "b"}}});

    EXPECT_TRUE(expansion.isDone());
    EXPECT_EQ(whole(), (Attributes{{"member", {"a", "b"}}}));
}

TEST_F(AnAttributeInRanges, IsLeftAloneIfAPartWasAskedFor)
{
    begin({{"member;range=2-3", {"c", "d"}}});

    EXPECT_TRUE(expansion.isDone());
    EXPECT_EQ(whole(), (Attributes{{"member;range=2-3", {"c", "d"}}}));
}

// Two servers may have the values in different orders.
TEST_F(AnAttributeInRanges, IsReadAnewIfAnotherServerGoesOn)
{
    begin({{"member;range=0-1", {"a", "b"}}});
    answerRange(expansion, "member;range=2-*", {{"member;range=2-*", {"a"}}}, "ldap://two");
    answerRange(expansion, "member;range=0-*", {{"member;range=0-1", {"c", "b"}}}, "ldap://two");
    answerRange(expansion, "member;range=2-*", {{"member;range=2-*", {"a"}}}, "ldap://two");

    EXPECT_TRUE(expansion.isDone());
    EXPECT_EQ(whole(), (Attributes{{"member", {"c", "b", "a"}}}));
}

TEST_F(AnAttributeInRanges, IsNotShortenedIfTheRestDoesNotCome)
{
    begin({{"member;range=0-1", {"a", "b"}}});
    answerRange(expansion, "member;range=2-*", {{"member;range=3-*", {"d"}}});

    EXPECT_EQ(expansion.verdict().outcome, Outcome::TryLater);
    EXPECT_THAT(expansion.verdict().text,
                HasSubstr("ldap://one: the values of 'cn=all,dc=t' from number 2 of 'member' were "
                          "not returned"));
}

TEST(AGroupInRanges, WithAnInvalidRangeIsTriedLater)
{
    Attributes const ranges = {{"member;range=1-*", {"cn=anna,dc=t"}},
                               {"member;range=5-2", {"cn=anna,dc=t"}},
                               {"member;range=0-0x", {"cn=anna,dc=t"}},
                               {"Member;Range=0-99999999999999999999999", {"cn=anna,dc=t"}},
                               {"member;range=0-18446744073709551615", {"cn=anna,dc=t"}},
                               {"member;range=0-9", {"cn=anna,dc=t"}}};
    for (auto const& [name, values] : ranges) {
        Directory directory;
        directory.add("cn=all,dc=t", {{name, values}});
        directory.person("anna");

        EXPECT_THAT(directory.resultsOf("all"), IsEmpty()) << name;
        EXPECT_EQ(directory.verdict().outcome, Outcome::TryLater) << name;
        EXPECT_THAT(directory.verdict().text, HasSubstr("invalid range of values, '" + name));
    }
}

TEST(AGroupInRanges, IsExpandedWhole)
{
    auto const settings = groupSettings();
    ResultRules const rules(settings);
    std::string const key = "key";
    Expansion expansion(rules, settings, key);
    Expansion::Entries found = {entry("cn=top,dc=t", {{"member", {"cn=all,dc=t"}}})};
    expansion.begin(found, server);

    Expansion::Search search;
    ASSERT_TRUE(expansion.next(search));
    Expansion::Entries all = {
        entry("cn=all,dc=t", {{"mail", {"all"}}, {"member;range=0-0", {"cn=anna,dc=t"}}})};
    expansion.take(search, all, server, false);
    answerRange(expansion, "member;range=1-*", {{"member;range=1-*", {"cn=bert,dc=t"}}});
    for (char const* const name : {"anna", "bert"}) {
        ASSERT_TRUE(expansion.next(search));
        EXPECT_EQ(search.request.base, "cn=" + std::string(name) + ",dc=t");
        Expansion::Entries person = {entry(search.request.base, {{"mail", {name}}})};
        expansion.take(search, person, server, false);
    }

    EXPECT_TRUE(expansion.isDone());
    EXPECT_THAT(expansion.results(), ElementsAre("anna", "bert"));
}

} // namespace SolvaneTest
