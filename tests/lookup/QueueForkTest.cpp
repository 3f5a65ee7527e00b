// Processes that fork with a queue that has keys in flight.
#include "Eventually.h"
#include "Process.h"
#include "Queues.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

using namespace Solvane;
using Lookup::Outcome;
using std::chrono::milliseconds;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

/// What is wrong with a queue of the parent, used in a child.
std::string wrongInAChild(LDAPLookupQueue& queue)
{
    if (queue.pending() != 0) {
        return "keys of the parent are pending";
    }
    if (awaitReadable(queue.descriptor(), milliseconds(0))) {
        return "readable for the parent's keys";
    }
    QueueLoop loop(queue);
    queue.submit(addressOf(2), 2);
    if (!loop.runUntil(1)) {
        return "no answer";
    }
    return loop.answer(2).outcome == Outcome::Found ? std::string() : loop.answer(2).text;
}

} // namespace

TEST(AQueueInAForkedChild, StartsAfreshAndLeavesTheParentsAlone)
{
    std::atomic<int> searches{0};
    ScriptedServer server(serving([&](Peer& peer, std::string const& request) {
        if (++searches == 1) {
            peer.awaitCue();
        }
        answerFound(peer, request);
    }));
    LDAPLookup lookup(settingsFor({server.port()}));
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);
    for (Tag tag = 1; tag <= 10; ++tag) {
        queue.submit(addressOf(1), tag);
    }
    while (searches == 0) {
        awaitReadable(queue.descriptor(), milliseconds(10));
        loop.take();
    }

    ForkedProcess child([&] { return wrongInAChild(queue); });
    std::string const wrong = child.complaint();
    server.giveCue();
    bool const isAnswered = loop.runUntil(10);

    EXPECT_EQ(wrong, "");
    ASSERT_TRUE(isAnswered);
    EXPECT_EQ(loop.answer(10).outcome, Outcome::Found);
    EXPECT_EQ(lookup.statistics().repeated, 0U);
    EXPECT_EQ(lookup.statistics().opened, 1U);
}

TEST(AQueueInAForkedChild, MayBeDestroyedThere)
{
    ScriptedServer server(serving([](Peer& peer, std::string const& request) {
        peer.awaitCue();
        answerFound(peer, request);
    }));
    LDAPLookup lookup(settingsFor({server.port()}));
    auto queue = std::make_unique<LDAPLookupQueue>(lookup);
    queue->submit(addressOf(1), 1);
    while (countOf(SearchRequest, server.received()) == 0) {
        queue->next(milliseconds(10));
    }

    std::string const wrong = ForkedProcess([&]() -> std::string {
                                  queue.reset();
                                  return "";
                              }).complaint();
    server.giveCue();
    QueueLoop loop(*queue);
    bool const isAnswered = loop.runUntil(1);

    EXPECT_EQ(wrong, "");
    ASSERT_TRUE(isAnswered);
    EXPECT_EQ(loop.answer(1).outcome, Outcome::Found);
    EXPECT_EQ(countOf(UnbindRequest, server.received()), 0U);
}

// A child that lives on has copies of the parent's sockets, which then stay open in the kernel.
TEST(AQueueWhoseProcessForked, IsNotWokenByConnectionsThatItClosed)
{
    std::atomic<int> answered{0};
    ScriptedServer server(serving([&](Peer& peer, std::string const& request) {
        if (request.find(addressOf(1)) != std::string::npos) {
            peer.awaitCue();
        }
        answerFound(peer, request);
        ++answered;
    }));
    LDAPLookup lookup(settingsFor({server.port()}));
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);
    queue.submit(addressOf(1), 1);
    while (countOf(SearchRequest, server.received()) == 0) {
        awaitReadable(queue.descriptor(), milliseconds(10));
        loop.take();
    }
    Gate gate;
    ForkedProcess child([&]() -> std::string {
        gate.pass();
        return "";
    });

    queue.cancel(1); // closes the connection
    server.giveCue();
    bool const hasCome = eventually([&] { return answered == 1; });
    loop.runFor(milliseconds(300));
    std::size_t const wakeUps = loop.wakeUps();
    queue.submit(addressOf(2), 2);
    bool const isAnswered = loop.runUntil(1);
    gate.open();

    EXPECT_EQ(child.complaint(), "");
    EXPECT_TRUE(hasCome);
    EXPECT_LE(wakeUps, 1U);
    ASSERT_TRUE(isAnswered);
    EXPECT_EQ(loop.answer(2).outcome, Outcome::Found) << loop.answer(2).text;
}

} // namespace SolvaneTest
