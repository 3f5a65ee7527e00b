// Failover of searches: one server fails and another one answers, or none does; also when a server
// is killed, and the kernel accepts its connections a moment longer.
#include "Eventually.h"
#include "LdapMessages.h"
#include "Lookups.h"
#include "ScriptedServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <vector>

using namespace Solvane;
using Lookup::Identity;
using Lookup::Outcome;
using std::chrono::milliseconds;
using testing::HasSubstr;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

OnSearch answering(int code)
{
    return [code](Peer& peer, std::string const& request) {
        peer.send(searchDone(messageIdOf(request), code));
    };
}

void hangUp(Peer& peer, std::string const&) { peer.reset(); }
void sayNothing(Peer& peer, std::string const&) { peer.receiveUntilClosed(); }

void sendWrongTag(Peer& peer, std::string const& request)
{
    peer.send(ldapMessage(messageIdOf(request), berElement(0x6f, "")));
}

void sendDamagedEntry(Peer& peer, std::string const& request)
{
    std::string const name("\x04\x04"
                           "cn=x");
    std::string const longer("\x04\x7F"
                             "cn=x");
    std::string entry = searchEntry(messageIdOf(request), "cn=x", {});
    entry.replace(entry.find(name), name.size(), longer);
    peer.send(entry + searchDone(messageIdOf(request)));
}

/// A way in which a server accepts the bind and fails the searches.
struct Way {
    char const* name;
    OnSearch onSearch;
};

Way const ways[] = {
    {"Cuts", hangUp},
    {"IsSilent", sayNothing},
    {"SendsAWrongTag", sendWrongTag},
    {"SendsADamagedEntry", sendDamagedEntry},
    {"OperationsError", answering(1)},
    {"ProtocolError", answering(2)},
    {"TimeLimitExceeded", answering(3)},
    {"AdminLimitExceeded", answering(11)},
    {"NoSuchObject", answering(32)},
    {"InsufficientAccess", answering(50)},
    {"Busy", answering(51)},
    {"Unavailable", answering(52)},
    {"UnwillingToPerform", answering(53)},
    {"Other", answering(80)},
};

LDAPLookup::Settings settingsOf(std::vector<ScriptedServer*> const& servers)
{
    std::vector<unsigned int> ports;
    std::transform(servers.begin(), servers.end(), std::back_inserter(ports),
                   [](ScriptedServer const* server) { return server->port(); });
    auto settings = SolvaneTest::settingsFor(ports);
    settings.networkTimeout = 1;
    settings.backOff = settings.longestBackOff = std::chrono::hours(1);
    return settings;
}

constexpr unsigned char extendedRequest = 0x77;

/// The scripts of the first connection and of all others.
ScriptedServer::Script inTurn(ScriptedServer::Script first, ScriptedServer::Script others)
{
    auto const count = std::make_shared<std::atomic<unsigned int>>(0);
    return [=](Peer& peer) { (count->fetch_add(1) == 0 ? first : others)(peer); };
}

/// Accepts a connection and closes it when the first request arrives.
void die(Peer& peer)
{
    peer.receiveMessage();
    peer.reset();
}

LDAPLookup::Settings withoutABind(std::vector<unsigned int> const& ports)
{
    LDAPLookup::Settings settings = settingsFor(ports);
    settings.bindDn.clear();
    settings.password.clear();
    return settings;
}

} // namespace

class AServerThatFailsSearches : public testing::TestWithParam<Way> {};

TEST_P(AServerThatFailsSearches, IsFollowedByTheNextForASingleKey)
{
    ScriptedServer failing(serving(GetParam().onSearch));
    ScriptedServer healthy(serving(answerFound));
    LDAPLookup lookup(settingsOf({&failing, &healthy}));

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(answer.server, uriOf(healthy));
    EXPECT_EQ(countOf(SearchRequest, failing.received()), 1U);
    EXPECT_TRUE(answer.wasRepeated);
}

TEST_P(AServerThatFailsSearches, IsFollowedByTheNextForManyKeys)
{
    ScriptedServer failing(serving(GetParam().onSearch));
    ScriptedServer healthy(serving(answerFound));
    LDAPLookup lookup(settingsOf({&failing, &healthy}));
    std::vector<std::string> keys;
    for (int user = 0; user < 200; ++user) {
        keys.push_back(addressOf(user));
    }

    auto const answers = answersTo(lookup, keys);

    ASSERT_EQ(answers.size(), keys.size());
    for (Answered const& each : answers) {
        EXPECT_EQ(each.answer.outcome, Outcome::Found) << each.answer.text;
        EXPECT_EQ(each.answer.server, uriOf(healthy));
    }
}

TEST_P(AServerThatFailsSearches, IsSkippedOnceAnotherAnsweredInItsPlace)
{
    ScriptedServer failing(serving(GetParam().onSearch));
    ScriptedServer healthy(serving(answerFound));
    LDAPLookup lookup(settingsOf({&failing, &healthy}));

    for (int user = 0; user < 5; ++user) {
        EXPECT_EQ(lookup.find(addressOf(user)).outcome, Outcome::Found);
    }

    EXPECT_EQ(countOf(SearchRequest, failing.received()), 1U);
    EXPECT_EQ(failing.connectionCount(), 1U);
}

// Its back-off doubles although it accepts connections and binds each time.
TEST_P(AServerThatFailsSearches, IsAskedMoreAndMoreSeldom)
{
    ScriptedServer failing(serving(GetParam().onSearch));
    ScriptedServer healthy(serving(answerFound));
    auto settings = settingsOf({&failing, &healthy});
    settings.deadline = milliseconds(1000);
    settings.backOff = milliseconds(1);
    LDAPLookup lookup(settings);

    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(lookup.find(addressOf(i)).outcome, Outcome::Found);
    }

    EXPECT_LE(countOf(SearchRequest, failing.received()), 20U); // 2^20 ms
}

INSTANTIATE_TEST_SUITE_P(EachWay, AServerThatFailsSearches, testing::ValuesIn(ways),
                         [](testing::TestParamInfo<Way> const& way) {
                             return std::string(way.param.name);
                         });

TEST(AServerThatFailedSearches, IsUsedAgainWhenItAnswers)
{
    std::atomic<bool> isBack{false};
    ScriptedServer first(serving([&](Peer& peer, std::string const& request) {
        (isBack ? answerFound : answering(80))(peer, request);
    }));
    ScriptedServer second(serving(answerFound));
    auto settings = settingsOf({&first, &second});
    settings.backOff = settings.longestBackOff = milliseconds(1);
    LDAPLookup lookup(settings);

    auto const meanwhile = lookup.find(addressOf(1));
    isBack = true;
    bool const returned =
        eventually([&] { return lookup.find(addressOf(1)).server == uriOf(first); });

    EXPECT_EQ(meanwhile.server, uriOf(second));
    EXPECT_TRUE(returned);
}

TEST(AKeyThatEveryServerFails, IsMisconfiguredIfNoneHasTheBase)
{
    ScriptedServer first(serving(answering(32)));
    ScriptedServer second(serving(answering(32)));
    LDAPLookup lookup(settingsOf({&first, &second}));

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Misconfigured);
    EXPECT_EQ(answer.code, 32);
    EXPECT_THAT(answer.text, HasSubstr(uriOf(first)));
    EXPECT_THAT(answer.text, HasSubstr(uriOf(second)));
}

TEST(AKeyThatEveryServerFails, IsNotFoundIfItMakesABaseThatNoneHas)
{
    std::pair<OnSearch, Outcome> const seconds[] = {
        {answering(32), Outcome::NotFound},     {answering(0), Outcome::NotFound},
        {answering(2), Outcome::Misconfigured}, {answering(50), Outcome::TryLater},
        {answering(51), Outcome::TryLater},     {hangUp, Outcome::TryLater}};
    for (auto const& [onSearch, outcome] : seconds) {
        ScriptedServer first(serving(answering(32)));
        ScriptedServer second(serving(onSearch));
        auto settings = settingsOf({&first, &second});
        settings.postfixRules = true;
        settings.base = "ou=%d,dc=t";
        settings.queryTemplate = "(mail=%s)";
        LDAPLookup lookup(settings);

        auto const answer = lookup.find(addressOf(1));

        EXPECT_EQ(answer.outcome, outcome) << answer.text;
    }
}

TEST(AKeyThatEveryServerFails, IsRefusedIfAllRefuse)
{
    ScriptedServer first(serving(answering(50)));
    ScriptedServer second(serving(answering(50)));
    LDAPLookup lookup(settingsOf({&first, &second}));

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Refused);
    EXPECT_EQ(answer.code, 50);
}

TEST(AKeyThatEveryServerFails, IsToBeTriedLaterIfTheyDiffer)
{
    ScriptedServer first(serving(answering(32)));
    ScriptedServer second(serving(answering(50)));
    LDAPLookup lookup(settingsOf({&first, &second}));

    EXPECT_EQ(lookup.find(addressOf(1)).outcome, Outcome::TryLater);
}

TEST(AKeyThatEveryServerFails, IsToBeTriedLaterIfOneIsDown)
{
    ScriptedServer first(serving(answering(32)));
    RefusingPort const down;
    auto settings = settingsOf({&first});
    settings.servers.push_back(settings.servers.front());
    settings.servers.back().port = down.number();
    LDAPLookup lookup(settings);

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::TryLater);
    EXPECT_EQ(answer.code, -1);
}

// An address that servers refuse must not put them into back-off.
TEST(AKeyThatEveryServerFails, DoesNotMakeThemCountAsFailed)
{
    OnSearch const picky = [](Peer& peer, std::string const& request) {
        bool const isDisliked = request.find("poison") != std::string::npos;
        (isDisliked ? answering(53) : answerFound)(peer, request);
    };
    ScriptedServer first(serving(picky));
    ScriptedServer second(serving(picky));
    LDAPLookup lookup(settingsOf({&first, &second}));

    auto const poison = lookup.find("poison@corp.test");
    auto const good = lookup.find(addressOf(1));

    EXPECT_EQ(poison.outcome, Outcome::Refused);
    EXPECT_EQ(good.outcome, Outcome::Found);
    EXPECT_EQ(good.server, uriOf(first));
}

TEST(AnIdleConnectionThatWasLost, IsReplacedByOneToTheSameServer)
{
    std::atomic<int> searches{0};
    ScriptedServer first(serving([&](Peer& peer, std::string const& request) {
        (++searches == 2 ? hangUp : answerFound)(peer, request);
    }));
    ScriptedServer second(serving(answerFound));
    LDAPLookup lookup(settingsOf({&first, &second}));
    lookup.find(addressOf(1));

    auto const answer = lookup.find(addressOf(2));

    EXPECT_EQ(answer.outcome, Outcome::Found);
    EXPECT_EQ(answer.server, uriOf(first));
    EXPECT_TRUE(answer.wasRepeated);
    EXPECT_EQ(second.connectionCount(), 0U);
}

// References

TEST(AnAnswerOfReferencesOnly, IsToBeTriedLater)
{
    ScriptedServer server(serving(answerElsewhere));
    LDAPLookup lookup(settingsOf({&server}));

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::TryLater);
    EXPECT_THAT(answer.text, HasSubstr("returned references to other servers"));
    EXPECT_THAT(answer.text, HasSubstr("references = ignore"));
}

// A form that may be found elsewhere must not be skipped for a less exact one.
TEST(AnAnswerOfReferencesOnly, EndsTheFormsOfTheKey)
{
    ScriptedServer server(serving(answerElsewhere));
    auto settings = settingsOf({&server});
    settings.forms = {LDAPLookup::Form::full, LDAPLookup::Form::domain};
    LDAPLookup lookup(settings);

    EXPECT_EQ(lookup.find(addressOf(1)).outcome, Outcome::TryLater);
    EXPECT_EQ(countOf(SearchRequest, server.received()), 1U);
}

TEST(AnAnswerOfReferencesOnly, IsNotFoundIfThatIsSet)
{
    ScriptedServer server(serving(answerElsewhere));
    auto settings = settingsOf({&server});
    settings.references = LDAPLookup::References::ignore;
    LDAPLookup lookup(settings);

    EXPECT_EQ(lookup.find(addressOf(1)).outcome, Outcome::NotFound);
}

TEST(AnAnswerOfReferencesOnly, DoesNotMatterBesideAnEntry)
{
    ScriptedServer server(serving([](Peer& peer, std::string const& request) {
        peer.send(searchEntry(messageIdOf(request), "cn=x", {}));
        answerElsewhere(peer, request);
    }));
    LDAPLookup lookup(settingsOf({&server}));

    EXPECT_EQ(lookup.find(addressOf(1)).outcome, Outcome::Found);
}

// Repeated searches when a server is killed: the kernel accepts connections a moment longer.

TEST(ARepeatedSearchWithoutABind, GoesToTheNextServerAtOnceFromAConnectionThatWasNew)
{
    ScriptedServer dying(inTurn(serving(hangUp), die));
    ScriptedServer const live(serving(answerFound, std::string()));
    LDAPLookup lookup(withoutABind({dying.port(), live.port()}));

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(answer.server, "ldap://127.0.0.1:" + std::to_string(live.port()));
    EXPECT_TRUE(answer.wasRepeated);
    EXPECT_EQ(dying.connectionCount(), 1U);
}

TEST(ARepeatedSearchWithoutABind, GoesToTheNextServerWhereTheFirstTakesConnectionsAndDies)
{
    std::atomic<int> searches{0};
    OnSearch const second = [&](Peer& peer, std::string const& request) {
        (++searches == 1 ? answerFound : hangUp)(peer, request);
    };
    ScriptedServer dying(inTurn(serving(second), die));
    ScriptedServer const live(serving(answerFound, std::string()));
    LDAPLookup lookup(withoutABind({dying.port(), live.port()}));
    lookup.find(addressOf(1)); // the connection was idle then, and may have been lost unnoticed

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(answer.server, "ldap://127.0.0.1:" + std::to_string(live.port()));
    EXPECT_TRUE(answer.wasRepeated);
    EXPECT_EQ(dying.connectionCount(), 2U);
}

TEST(ARepeatedSearchWithoutABind, IsAskedOfAServerThatIsThereAgain)
{
    ScriptedServer server(inTurn(serving(hangUp), serving(answerFound, std::string())));
    LDAPLookup lookup(withoutABind({server.port()}));

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(answer.identity, Identity::Anonymous);
    EXPECT_TRUE(answer.wasRepeated);
    EXPECT_EQ(countOf(extendedRequest, server.received()), 1U);
    EXPECT_EQ(countOf(SearchRequest, server.received()), 2U);
}

TEST(ARepeatedSearchWithoutABind, IsAskedOfAServerThatCannotTellWhoAsks)
{
    ScriptedServer server(inTurn(serving(hangUp), servingWithoutWhoAmI(answerFound, 2)));
    LDAPLookup lookup(withoutABind({server.port()}));

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(answer.identity, Identity::Anonymous);
}

TEST(ARepeatedSearchWithoutABind, GoesToTheNextServerWhereTheFirstSaysThatItIsUnavailable)
{
    constexpr int unavailable = 52;
    ScriptedServer const leaving(
        inTurn(serving(hangUp), servingWithoutWhoAmI(answerEmpty, unavailable)));
    ScriptedServer const live(serving(answerFound, std::string()));
    LDAPLookup lookup(withoutABind({leaving.port(), live.port()}));

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(answer.server, "ldap://127.0.0.1:" + std::to_string(live.port()));
}

TEST(ASearchWithoutABind, IsSentWithoutAnotherQuestionAtFirst)
{
    ScriptedServer server(serving(answerFound, std::string()));
    LDAPLookup lookup(withoutABind({server.port()}));

    EXPECT_EQ(lookup.find(addressOf(1)).outcome, Outcome::Found);
    EXPECT_EQ(countOf(extendedRequest, server.received()), 0U);
}

// In one run, with many searches on the connections that break.
TEST(ManySearchesWithoutABind, AreAllFoundWhereTheFirstServerDies)
{
    std::atomic<bool> isDying{false};
    std::atomic<unsigned int> searches{0};
    ScriptedServer const dying([&](Peer& peer) {
        if (isDying) {
            die(peer);
            return;
        }
        serving([&](Peer& asking, std::string const& request) {
            if (searches.fetch_add(1) >= 100) {
                isDying = true;
                asking.reset();
            } else {
                answerFound(asking, request);
            }
        })(peer);
    });
    ScriptedServer const live(serving(answerFound, std::string()));
    auto settings = withoutABind({dying.port(), live.port()});
    settings.connections = 4;
    settings.window = 32;
    LDAPLookup lookup(settings);
    std::vector<std::string> keys;
    for (int user = 0; user < 1000; ++user) {
        keys.push_back(addressOf(user));
    }

    std::vector<Answered> const answers = answersTo(lookup, keys);

    ASSERT_EQ(answers.size(), keys.size());
    for (Answered const& each : answers) {
        EXPECT_EQ(each.answer.outcome, Outcome::Found) << each.key << ": " << each.answer.text;
    }
}

} // namespace SolvaneTest
