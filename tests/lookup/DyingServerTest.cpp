// Repeated searches when a server is killed: the kernel accepts connections a moment longer.
#include "LdapMessages.h"
#include "Lookups.h"
#include "ScriptedServer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <vector>

using namespace Solvane;
using Lookup::Identity;
using Lookup::Outcome;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

constexpr unsigned char extendedRequest = 0x77;

/// The scripts of the first connection and of all others.
ScriptedServer::Script inTurn(ScriptedServer::Script first, ScriptedServer::Script others)
{
    auto const count = std::make_shared<std::atomic<unsigned int>>(0);
    return [=](Peer& peer) { (count->fetch_add(1) == 0 ? first : others)(peer); };
}

void hangUp(Peer& peer, std::string const&) { peer.reset(); }

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
