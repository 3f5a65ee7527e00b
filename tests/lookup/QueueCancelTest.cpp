// Keys that are cancelled in a queue.
#include "Eventually.h"
#include "Lookups.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Solvane;
using Lookup::Outcome;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace SolvaneTest {

using Peer = ScriptedServer::Peer;

TEST(ACancelledKey, IsNotSentIfItWaits)
{
    ScriptedServer server(serving(answerFound));
    LDAPLookup lookup(settingsFor({server.port()}));
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    queue.submit(addressOf(1), 1);
    queue.submit(addressOf(2), 2);
    queue.cancel(1);
    std::size_t const pending = queue.pending();
    ASSERT_TRUE(loop.runUntil(1));

    EXPECT_EQ(pending, 1U);
    EXPECT_EQ(loop.answers().count(1), 0U);
    EXPECT_EQ(countOf(SearchRequest, server.received()), 1U);
}

TEST(ACancelledKey, IsNotSentIfItsConnectionIsBeingOpened)
{
    ScriptedServer server([](Peer& peer) {
        peer.awaitCue();
        serving(answerFound)(peer);
    });
    LDAPLookup lookup(settingsFor({server.port()}));
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    queue.submit(addressOf(1), 1);
    loop.take();
    ASSERT_TRUE(eventually([&] { return server.connectionCount() == 1; }));
    queue.cancel(1);
    bool const isQuiet = !awaitReadable(queue.descriptor(), milliseconds(0));
    server.giveCue();
    queue.submit(addressOf(2), 2);
    ASSERT_TRUE(loop.runUntil(1));

    EXPECT_TRUE(isQuiet);
    EXPECT_EQ(loop.answers().count(1), 0U);
    EXPECT_EQ(countOf(SearchRequest, server.received()), 1U);
}

TEST(ACancelledKey, IsAbandonedInFlight)
{
    ScriptedServer server(serving([](Peer& peer, std::string const& request) {
        if (request.find(addressOf(1)) == std::string::npos) {
            answerFound(peer, request);
        }
    }));
    LDAPLookup lookup(settingsFor({server.port()}));
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    queue.submit(addressOf(1), 1);
    queue.submit(addressOf(2), 2);
    ASSERT_TRUE(loop.runUntil(1));
    queue.cancel(1);

    EXPECT_EQ(queue.pending(), 0U);
    EXPECT_TRUE(eventually([&] { return countOf(AbandonRequest, server.received()) == 1; }));
    EXPECT_FALSE(queue.next());
    EXPECT_FALSE(awaitReadable(queue.descriptor(), milliseconds(0)));
}

TEST(ACancelledKey, IsNotReturnedIfItIsAnswered)
{
    std::atomic<int> searches{0};
    ScriptedServer server(serving([&](Peer& peer, std::string const& request) {
        answerFound(peer, request);
        ++searches;
    }));
    auto settings = settingsFor({server.port()});
    settings.connections = 1;
    LDAPLookup lookup(settings);
    lookup.find(addressOf(1));
    LDAPLookupQueue queue(lookup);
    for (Tag tag = 1; tag <= 3; ++tag) {
        queue.submit(addressOf(1), tag);
    }
    EXPECT_FALSE(queue.next());
    ASSERT_TRUE(eventually([&] { return searches == 4; }));
    ASSERT_TRUE(awaitReadable(queue.descriptor()));
    std::set<Tag> left = {1, 2, 3};
    auto const first = queue.next(seconds(10)); // the others are here, too, or soon
    ASSERT_TRUE(first);
    left.erase(first->tag);

    Tag const cancelled = *left.begin();
    queue.cancel(cancelled);
    left.erase(cancelled);
    auto const last = queue.next(seconds(10));

    ASSERT_TRUE(last);
    EXPECT_EQ(last->tag, *left.begin());
    EXPECT_EQ(queue.pending(), 0U);
    EXPECT_FALSE(queue.next());
}

TEST(ACancelledKey, MakesRoomForOneThatWaits)
{
    ScriptedServer server(serving([](Peer& peer, std::string const& request) {
        if (request.find(addressOf(1)) == std::string::npos) {
            answerFound(peer, request);
        }
    }));
    auto settings = settingsFor({server.port()});
    settings.connections = 1;
    settings.window = 1;
    LDAPLookup lookup(settings);
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    queue.submit(addressOf(1), 1);
    queue.submit(addressOf(2), 2);
    while (countOf(SearchRequest, server.received()) == 0) {
        awaitReadable(queue.descriptor(), milliseconds(10));
        loop.take();
    }
    queue.cancel(1);
    ASSERT_TRUE(loop.runUntil(1));

    EXPECT_EQ(loop.answer(2).outcome, Outcome::Found);
}

TEST(ACancelledKey, MayHaveBeenSubmittedSeveralTimes)
{
    ScriptedServer server(serving(answerFound));
    LDAPLookup lookup(settingsFor({server.port()}));
    LDAPLookupQueue queue(lookup);
    for (int count = 0; count < 5; ++count) {
        queue.submit(addressOf(1), 7);
    }
    queue.next();

    queue.cancel(7);

    EXPECT_EQ(queue.pending(), 0U);
    queue.cancel(7); // unknown tags are ignored
    EXPECT_EQ(queue.pending(), 0U);
}

} // namespace SolvaneTest
