// Lookups of groups: members, nested groups, ranges of values, formats, and failures on the way.
#include "LdapMessages.h"
#include "Lookups.h"
#include "ScriptedServer.h"

#include <solvane/ldap.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <set>
#include <thread>

using namespace Solvane;
using Lookup::Outcome;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;
using Tree = std::map<std::string, std::vector<Attribute>>;
using Settings = LDAPLookup::Settings;

std::string dnOf(std::string const& name) { return "cn=" + name + ",dc=t"; }

/// A group with members by their names.
std::vector<Attribute> group(std::vector<std::string> members)
{
    std::transform(members.begin(), members.end(), members.begin(), dnOf);
    return {{"mail", {"group"}}, {"member", members}};
}

std::vector<Attribute> person(std::string const& name) { return {{"mail", {name + "@corp.test"}}}; }

/// all -> bert, sales, anna; sales -> anna, staff; staff -> carl, all
Tree nestedGroups()
{
    Tree tree = {{dnOf("all"), group({"bert", "sales", "anna"})},
                 {dnOf("sales"), group({"anna", "staff"})},
                 {dnOf("staff"), group({"carl", "all"})}};
    for (char const* const name : {"anna", "bert", "carl"}) {
        tree[dnOf(name)] = person(name);
    }
    return tree;
}

/// The name that a key's filter looks for: the filter's second element, up to the "@".
std::string nameIn(SearchContent const& search)
{
    std::string const filter = search.filter;
    auto const begin = filter.find("mail") + 6;
    return filter.substr(begin, filter.find('@', begin) - begin);
}

/// The answer of a directory: an entry by DN, or "no such object"; to a key, the entry of its name.
std::string answerOf(Tree const& tree, std::string const& request)
{
    int const id = messageIdOf(request);
    SearchContent const search = searchContentOf(request);
    bool const isKey = search.scope != 0;
    auto const found = tree.find(isKey ? dnOf(nameIn(search)) : search.base);
    if (found == tree.end()) {
        return searchDone(id, isKey ? 0 : 32);
    }
    return searchEntry(id, found->first, found->second) + searchDone(id);
}

OnSearch answering(Tree const& tree)
{
    return [tree](Peer& peer, std::string const& request) { peer.send(answerOf(tree, request)); };
}

/// Does something else instead for the searches at an entry.
OnSearch except(std::string const& dn, OnSearch const& other, OnSearch const& usual)
{
    return [=](Peer& peer, std::string const& request) {
        (searchContentOf(request).base == dn ? other : usual)(peer, request);
    };
}

OnSearch failing(int code)
{
    return [code](Peer& peer, std::string const& request) {
        peer.send(searchDone(messageIdOf(request), code));
    };
}

Settings groupSettings(std::vector<ScriptedServer*> const& servers)
{
    std::vector<unsigned int> ports;
    std::transform(servers.begin(), servers.end(), std::back_inserter(ports),
                   [](ScriptedServer const* server) { return server->port(); });
    auto settings = settingsFor(ports);
    settings.specialResultAttributes = {"member"};
    settings.leafResultAttributes = {"mail"};
    return settings;
}

/// The bases of the searches that read one entry.
std::vector<std::string> basesReadBy(ScriptedServer const& server)
{
    std::vector<std::string> bases;
    for (std::string const& message : server.received()) {
        if (operationOf(message) == SearchRequest && searchContentOf(message).scope == 0) {
            bases.push_back(searchContentOf(message).base);
        }
    }
    return bases;
}

LDAPLookup::Answer answerTo(std::string const& key, Settings const& settings)
{
    return LDAPLookup(settings).find(key);
}

} // namespace

TEST(AGroupOfADirectory, IsFoundWithAllItsMembers)
{
    ScriptedServer server(serving(answering(nestedGroups())));

    auto const answer = answerTo("all@corp.test", groupSettings({&server}));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_THAT(answer.results, ElementsAre("bert@corp.test", "anna@corp.test", "carl@corp.test"));
    ASSERT_THAT(answer.entries, SizeIs(1));
    EXPECT_EQ(answer.entries.front().dn(), dnOf("all"));
    EXPECT_EQ(answer.filter, "(mail=all@corp.test)");
    EXPECT_EQ(answer.text, "");
    EXPECT_THAT(basesReadBy(server),
                testing::UnorderedElementsAre(dnOf("bert"), dnOf("sales"), dnOf("anna"),
                                              dnOf("staff"), dnOf("carl")));
}

TEST(AGroupOfADirectory, IsAskedForWithTheAttributesOfAllLists)
{
    ScriptedServer server(serving(answering(nestedGroups())));
    auto settings = groupSettings({&server});
    settings.attributes = {"cn"};
    settings.terminalResultAttributes = {"maildrop"};

    answerTo("sales@corp.test", settings);

    for (std::string const& message : server.received()) {
        if (operationOf(message) == SearchRequest) {
            EXPECT_THAT(searchContentOf(message).attributes,
                        ElementsAre("maildrop", "mail", "member", "cn"));
        }
    }
}

// Searches for members are in flight at the same time, but leave room for other keys.
TEST(AGroupOfADirectory, HasItsMembersSearchedAtTheSameTime)
{
    std::vector<std::string> names;
    Tree tree;
    for (int i = 0; i < 24; ++i) {
        names.push_back("m" + std::to_string(i));
        tree[dnOf(names.back())] = person(names.back());
    }
    tree[dnOf("all")] = group(names);
    std::vector<std::string> held;
    ScriptedServer server(serving([&](Peer& peer, std::string const& request) {
        if (searchContentOf(request).scope != 0) {
            peer.send(answerOf(tree, request));
            return;
        }
        held.push_back(request);
        for (; held.size() == 24; held.clear()) { // in the reverse order
            std::for_each(held.rbegin(), held.rend(),
                          [&](std::string const& each) { peer.send(answerOf(tree, each)); });
        }
    }));
    auto settings = groupSettings({&server});
    settings.connections = 1;
    settings.window = 32;

    auto const answer = answerTo("all@corp.test", settings);

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    std::vector<std::string> expected;
    std::transform(names.begin(), names.end(), std::back_inserter(expected),
                   [](std::string const& name) { return name + "@corp.test"; });
    EXPECT_EQ(answer.results, expected);
}

TEST(AGroupOfADirectory, IsFoundWithoutTheMembersThatDoNotExist)
{
    Tree tree = nestedGroups();
    tree.erase(dnOf("anna"));
    ScriptedServer server(serving(answering(tree)));
    ScriptedServer other(serving(answering(nestedGroups())));

    auto const answer = answerTo("all@corp.test", groupSettings({&server, &other}));

    EXPECT_EQ(answer.outcome, Outcome::Found);
    EXPECT_THAT(answer.results, ElementsAre("bert@corp.test", "carl@corp.test"));
    EXPECT_EQ(answer.text, "member '" + dnOf("anna") + "' does not exist");
    EXPECT_EQ(other.connectionCount(), 0U);
}

TEST(AGroupOfADirectory, MayBeFoundWithoutValues)
{
    Tree const tree = {{dnOf("empty"), {{"member", {""}}}}, {dnOf("anna"), {}}};
    ScriptedServer server(serving(answering(tree)));
    LDAPLookup lookup(groupSettings({&server}));

    for (char const* const key : {"empty@corp.test", "anna@corp.test"}) {
        auto const answer = lookup.find(key);
        EXPECT_EQ(answer.outcome, Outcome::Found);
        EXPECT_THAT(answer.results, IsEmpty());
        EXPECT_THAT(answer.entries, SizeIs(1));
    }
    EXPECT_EQ(lookup.find("nobody@corp.test").outcome, Outcome::NotFound);
}

/// A code for one member, and the outcome of the group.
struct MemberFailure {
    int code;
    Outcome outcome;
};

class AMemberThatFails : public testing::TestWithParam<MemberFailure> {};

TEST_P(AMemberThatFails, FailsTheGroup)
{
    ScriptedServer server(
        serving(except(dnOf("staff"), failing(GetParam().code), answering(nestedGroups()))));
    auto const settings = groupSettings({&server});

    auto const single = answerTo("all@corp.test", settings);
    LDAPLookup lookup(settings);
    auto const many = answersTo(lookup, {"anna@corp.test", "all@corp.test", "bert@corp.test"});

    EXPECT_EQ(single.outcome, GetParam().outcome) << single.text;
    EXPECT_EQ(single.code, GetParam().code);
    EXPECT_THAT(single.results, IsEmpty());
    EXPECT_THAT(single.text, HasSubstr("member '" + dnOf("staff") + "': " + uriOf(server)));
    ASSERT_THAT(many, SizeIs(3));
    EXPECT_THAT(many[0].answer.results, ElementsAre("anna@corp.test"));
    EXPECT_EQ(many[1].answer.outcome, GetParam().outcome);
    EXPECT_THAT(many[1].answer.results, IsEmpty());
    EXPECT_THAT(many[2].answer.results, ElementsAre("bert@corp.test"));
}

INSTANTIATE_TEST_SUITE_P(
    EachCode, AMemberThatFails,
    testing::Values(MemberFailure{3, Outcome::TryLater}, MemberFailure{4, Outcome::TryLater},
                    MemberFailure{10, Outcome::Refused}, MemberFailure{34, Outcome::Misconfigured},
                    MemberFailure{50, Outcome::Refused}, MemberFailure{51, Outcome::TryLater},
                    MemberFailure{80, Outcome::TryLater}),
    [](auto const& failure) { return "Code" + std::to_string(failure.param.code); });

TEST(AGroupOfADirectory, FailsOverOnTheWay)
{
    ScriptedServer cut(serving(except(
        dnOf("staff"), [](Peer& peer, std::string const&) { peer.reset(); },
        answering(nestedGroups()))));
    ScriptedServer other(serving(answering(nestedGroups())));

    auto const answer = answerTo("all@corp.test", groupSettings({&cut, &other}));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_THAT(answer.results, ElementsAre("bert@corp.test", "anna@corp.test", "carl@corp.test"));
    EXPECT_TRUE(answer.wasRepeated);
    EXPECT_EQ(answer.server, uriOf(cut));
}

// Half an answer counts for nothing once the search is repeated.
TEST(AGroupOfADirectory, HasEachMemberOnceAlthoughItsSearchWasCut)
{
    Tree const tree = nestedGroups();
    ScriptedServer cut(serving(except(
        dnOf("anna"),
        [&](Peer& peer, std::string const& request) {
            peer.send(searchEntry(messageIdOf(request), dnOf("anna"), {{"mail", {"old"}}}));
            peer.reset();
        },
        answering(tree))));
    ScriptedServer other(serving(answering(tree)));

    auto const answer = answerTo("sales@corp.test", groupSettings({&cut, &other}));

    EXPECT_THAT(answer.results, ElementsAre("anna@corp.test", "carl@corp.test", "bert@corp.test"))
        << answer.text;
}

// The second server has the group without one of its members: it may lag behind the first.
TEST(AGroupOfADirectory, IsNotShortenedByAnotherServerThatLacksAMember)
{
    Tree lagging = nestedGroups();
    lagging.erase(dnOf("carl"));
    ScriptedServer cut(serving(except(
        dnOf("carl"), [](Peer& peer, std::string const&) { peer.reset(); },
        answering(nestedGroups()))));
    ScriptedServer other(serving(answering(lagging)));

    auto const answer = answerTo("all@corp.test", groupSettings({&cut, &other}));

    EXPECT_EQ(answer.outcome, Outcome::TryLater) << answer.text;
    EXPECT_THAT(answer.results, IsEmpty());
}

TEST(AGroupOfADirectory, EndsAtItsDeadline)
{
    ScriptedServer server(serving(except(
        dnOf("carl"), [](Peer&, std::string const&) {}, answering(nestedGroups()))));
    auto settings = groupSettings({&server});
    settings.deadline = milliseconds(300);
    LDAPLookup lookup(settings);

    auto const single = lookup.find("all@corp.test");
    auto const many = answersTo(lookup, {"all@corp.test", "anna@corp.test"});

    EXPECT_EQ(single.outcome, Outcome::TryLater);
    EXPECT_EQ(single.text,
              uriOf(server) + ": the members were not complete within the deadline of 0.300 s");
    EXPECT_THAT(single.results, IsEmpty());
    ASSERT_THAT(many, SizeIs(2));
    EXPECT_EQ(many[0].answer.outcome, Outcome::TryLater);
    EXPECT_THAT(many[1].answer.results, ElementsAre("anna@corp.test"));
}

TEST(AGroupOfADirectory, BeyondALimitIsTriedLater)
{
    Tree tree = nestedGroups();
    tree[dnOf("anna")].push_back({"mail", {std::string(600, 'x')}});
    tree[dnOf("bert")].push_back({"mail", {std::string(600, 'x')}});
    ScriptedServer server(serving(answering(tree)));
    auto levels = groupSettings({&server});
    levels.recursionLimit = 3;
    auto values = groupSettings({&server});
    values.expansionLimit = 4;
    auto bytes = groupSettings({&server});
    bytes.answerBytes = 1024;

    for (auto const& [settings, text] :
         {std::make_pair(levels, "nested deeper than 3 levels (recursion_limit)"),
          std::make_pair(values, "more than 4 values (expansion_limit)"),
          std::make_pair(bytes, "larger than 1024 bytes (answer_bytes)")}) {
        auto const answer = answerTo("all@corp.test", settings);
        EXPECT_EQ(answer.outcome, Outcome::TryLater);
        EXPECT_EQ(answer.code, 4);
        EXPECT_THAT(answer.text, HasSubstr(text));
        EXPECT_THAT(answer.results, IsEmpty());
    }
}

// Dynamic groups

namespace {

/// A group whose members an LDAP URL finds, and what the server sends for it.
ScriptedServer::Script dynamicGroup(std::string const& url, std::string const& before = {})
{
    return serving([=](Peer& peer, std::string const& request) {
        int const id = messageIdOf(request);
        SearchContent const search = searchContentOf(request);
        if (search.base != "ou=staff,dc=t") {
            peer.send(searchEntry(id, dnOf("all"), {{"member", {url}}}) + searchDone(id));
            return;
        }
        EXPECT_EQ(search.scope, 1);
        EXPECT_THAT(search.filter, HasSubstr("title"));
        std::string reference;
        if (!before.empty()) {
            reference = ldapMessage(id, berElement(0x73, berElement(0x04, before)));
        }
        peer.send(reference + searchEntry(id, dnOf("anna"), person("anna")) +
                  searchEntry(id, dnOf("bert"), person("bert")) + searchDone(id));
    });
}

constexpr char url[] = "ldap:///ou=staff,dc=t??one?(title=boss)";

} // namespace

TEST(ADynamicGroup, IsWhatItsUrlFinds)
{
    ScriptedServer server(dynamicGroup(url));

    auto const answer = answerTo("all@corp.test", groupSettings({&server}));

    EXPECT_THAT(answer.results, ElementsAre("anna@corp.test", "bert@corp.test")) << answer.text;
}

TEST(ADynamicGroup, OfAnotherServerIsMisconfigured)
{
    ScriptedServer server(dynamicGroup("ldap://elsewhere.corp.test/dc=t"));

    auto const answer = answerTo("all@corp.test", groupSettings({&server}));

    EXPECT_EQ(answer.outcome, Outcome::Misconfigured);
    EXPECT_THAT(answer.text, HasSubstr("names another server, 'elsewhere.corp.test'"));
    EXPECT_THAT(answer.results, IsEmpty());
}

TEST(ADynamicGroup, WithReferencesIsTriedLaterUnlessTheyAreIgnored)
{
    ScriptedServer server(dynamicGroup(url, "ldap://elsewhere.corp.test/dc=t"));
    auto settings = groupSettings({&server});

    auto const deferred = answerTo("all@corp.test", settings);
    settings.references = Lookup::References::ignore;
    auto const ignored = answerTo("all@corp.test", settings);

    EXPECT_EQ(deferred.outcome, Outcome::TryLater);
    EXPECT_THAT(deferred.text, HasSubstr("references to other servers"));
    EXPECT_THAT(ignored.results, ElementsAre("anna@corp.test", "bert@corp.test"));
}

// Ranges

namespace {

/// The members m0, m1, ... in ranges of two, as Active Directory sends them.
OnSearch inRanges(std::size_t count)
{
    return [count](Peer& peer, std::string const& request) {
        int const id = messageIdOf(request);
        SearchContent const search = searchContentOf(request);
        std::size_t begin = 0;
        if (search.scope == 0) {
            if (search.base != dnOf("all")) {
                peer.send(answerOf({{search.base, {{"mail", {search.base}}}}}, request));
                return;
            }
            std::string const& asked = search.attributes.front();
            begin = std::stoul(asked.substr(asked.find('=') + 1));
        }
        std::size_t const end = std::min(begin + 2, count);
        std::vector<std::string> values;
        for (std::size_t i = begin; i < end; ++i) {
            values.push_back(dnOf("m" + std::to_string(i)));
        }
        std::string const range = "member;range=" + std::to_string(begin) + '-' +
                                  (end == count ? "*" : std::to_string(end - 1));
        peer.send(searchEntry(id, dnOf("all"), {{"member", {}}, {range, values}}) + searchDone(id));
    };
}

} // namespace

TEST(AGroupInRanges, IsReadWhole)
{
    ScriptedServer server(serving(inRanges(5)));
    auto settings = settingsFor({server.port()});
    settings.attributes = {"member"};

    auto const answer = answerTo("all@corp.test", settings);

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_THAT(answer.values("member"),
                ElementsAre(dnOf("m0"), dnOf("m1"), dnOf("m2"), dnOf("m3"), dnOf("m4")));
    EXPECT_THAT(answer.results, IsEmpty());
    EXPECT_EQ(countOf(SearchRequest, server.received()), 3U);
}

TEST(AGroupInRanges, IsExpandedWhole)
{
    ScriptedServer server(serving(inRanges(5)));

    auto const answer = answerTo("all@corp.test", groupSettings({&server}));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_THAT(answer.results,
                ElementsAre(dnOf("m0"), dnOf("m1"), dnOf("m2"), dnOf("m3"), dnOf("m4")));
}

// Formats

TEST(AFormat, IsAppliedToEachValue)
{
    ScriptedServer server(serving(answering(nestedGroups())));
    auto settings = settingsFor({server.port()});
    settings.attributes = {"mail"};
    settings.resultFormat = "smtp:[%d] for %U";

    EXPECT_THAT(answerTo("anna@corp.test", settings).results,
                ElementsAre("smtp:[corp.test] for anna"));
    EXPECT_THAT(answerTo("sales@corp.test", settings).results, IsEmpty()); // "group" has no domain
}

TEST(AFormat, WithAPartThatTheKeyLacksAsksNoServer)
{
    ScriptedServer server(serving(answering(nestedGroups())));
    auto settings = settingsFor({server.port()});
    settings.attributes = {"mail"};
    settings.resultFormat = "%s.%D";

    auto const answer = answerTo("anna", settings);

    EXPECT_EQ(answer.outcome, Outcome::NotFound);
    EXPECT_EQ(answer.text, "the key has no domain, which the result format inserts");
    EXPECT_EQ(server.connectionCount(), 0U);
}

TEST(APassword, IsVerifiedWithoutTheMembersOfTheEntry)
{
    ScriptedServer server(serving(answering(nestedGroups())));
    LDAPLookup lookup(groupSettings({&server}));

    auto const verification = lookup.verify("all@corp.test", "secret");

    EXPECT_EQ(verification.outcome, Lookup::VerifyOutcome::Accepted) << verification.text;
    EXPECT_THAT(basesReadBy(server), IsEmpty());
}

// Many keys

// A group fills the window of a server more than once.
TEST(AGroupOfADirectory, LeavesTheConnectionToAnotherLookup)
{
    constexpr std::size_t size = 400;
    Tree tree = nestedGroups();
    std::vector<std::string> names;
    for (std::size_t i = 0; i < size; ++i) {
        names.push_back("m" + std::to_string(i));
        tree[dnOf(names.back())] = person(names.back());
    }
    tree[dnOf("large")] = group(names);
    std::atomic<std::size_t> members(0);
    std::promise<void> hasBegun;
    std::promise<void> cue;
    ScriptedServer server(serving([&](Peer& peer, std::string const& request) {
        if (searchContentOf(request).scope == 0) {
            if (++members == 10) {
                hasBegun.set_value();
                cue.get_future().wait();
            }
            std::this_thread::sleep_for(milliseconds(2)); // so that it does not end at once
        }
        peer.send(answerOf(tree, request));
    }));
    auto settings = groupSettings({&server});
    settings.connections = 1;
    settings.deadline = std::chrono::minutes(1);
    settings.window = 2;
    LDAPLookup other(settings);
    settings.window = 32;
    LDAPLookup lookup(settings, other);
    auto large = std::async(std::launch::async, [&] { return lookup.find("large@corp.test"); });
    hasBegun.get_future().wait();
    auto small = std::async(std::launch::async, [&] {
        cue.set_value();
        auto answer = other.find("anna@corp.test");
        return std::make_pair(std::move(answer), members.load());
    });

    auto const [answer, membersBefore] = small.get();

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_LT(membersBefore, size);
    EXPECT_THAT(large.get().results, SizeIs(size));
    EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(AQueueWithGroups, AnswersOtherKeysBeforeALargeGroup)
{
    Tree tree = nestedGroups();
    std::vector<std::string> names;
    for (int i = 0; i < 3000; ++i) {
        names.push_back("m" + std::to_string(i));
        tree[dnOf(names.back())] = person(names.back());
    }
    tree[dnOf("large")] = group(names);
    ScriptedServer server(serving(answering(tree)));
    auto settings = groupSettings({&server});
    settings.connections = 1;
    settings.deadline = std::chrono::minutes(1);
    LDAPLookup lookup(settings);
    LDAPLookupQueue queue(lookup);
    queue.submit("large@corp.test", 0);
    for (Tag tag = 1; tag <= 40; ++tag) {
        queue.submit(tag % 2 == 0 ? "all@corp.test" : "anna@corp.test", tag);
    }

    std::vector<LDAPLookupQueue::Result> results;
    while (auto result = queue.next(std::chrono::seconds(30))) {
        results.push_back(std::move(*result));
    }

    ASSERT_THAT(results, SizeIs(41));
    EXPECT_EQ(results.back().tag, 0U);
    EXPECT_THAT(results.back().answer.results, SizeIs(3000));
    for (auto const& result : results) {
        EXPECT_EQ(result.answer.outcome, Outcome::Found) << result.answer.text;
        if (result.tag != 0) {
            EXPECT_THAT(result.answer.results, SizeIs(result.tag % 2 == 0 ? 3 : 1));
        }
    }
}

TEST(AQueueWithGroups, GivesUpTheMembersOfACancelledGroup)
{
    ScriptedServer server(serving(except(
        dnOf("carl"), [](Peer&, std::string const&) {}, answering(nestedGroups()))));
    LDAPLookup lookup(groupSettings({&server}));
    LDAPLookupQueue queue(lookup);
    queue.submit("all@corp.test", 1);
    while (basesReadBy(server).size() < 5) {
        EXPECT_FALSE(queue.next(milliseconds(10)));
    }
    queue.submit("anna@corp.test", 2);

    queue.cancel(1);
    auto const result = queue.next(std::chrono::seconds(10));

    ASSERT_TRUE(result);
    EXPECT_EQ(result->tag, 2U);
    EXPECT_THAT(result->answer.results, ElementsAre("anna@corp.test"));
    EXPECT_EQ(queue.pending(), 0U);
    EXPECT_EQ(countOf(AbandonRequest, server.received()), 1U);
}

} // namespace SolvaneTest
