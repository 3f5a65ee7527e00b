// Threads that share a pool while a server is in trouble or its established connections are silent.
#include "Eventually.h"
#include "LdapMessages.h"
#include "Lookups.h"
#include "ScriptedServer.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <limits>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace Solvane;
using Lookup::Outcome;
using std::chrono::milliseconds;
using testing::Each;
using testing::Field;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

/// Looks up addresses in several threads at once, each the first ones in turn.
std::vector<LDAPLookup::Answer> findOnThreads(LDAPLookup& lookup, std::size_t threads,
                                              int times = 1)
{
    std::vector<std::vector<LDAPLookup::Answer>> found(threads);
    std::vector<std::thread> running;
    for (auto& answers : found) {
        running.emplace_back([&lookup, &answers, times] {
            for (int i = 1; i <= times; ++i) {
                answers.push_back(lookup.find(addressOf(i)));
            }
        });
    }
    for (std::thread& thread : running) {
        thread.join();
    }
    std::vector<LDAPLookup::Answer> all;
    for (auto& answers : found) {
        all.insert(all.end(), answers.begin(), answers.end());
    }
    return all;
}

/// The number of searches that a lookup has in flight at once, at most this many.
std::size_t searchesAtOnce(LDAPLookup& lookup, ScriptedServer& server, std::size_t wanted)
{
    std::size_t const before = countOf(SearchRequest, server.received());
    std::vector<std::thread> running;
    for (std::size_t i = 0; i < wanted; ++i) {
        running.emplace_back([&lookup] { lookup.find(addressOf(1)); });
    }
    std::size_t atOnce = 0;
    eventually([&] {
        atOnce = countOf(SearchRequest, server.received()) - before;
        return atOnce == wanted;
    });
    server.giveCue();
    for (std::thread& thread : running) {
        thread.join();
    }
    return atOnce;
}

/// An address with one or several servers, whose connections can be made to hang.
class SilentConnection : public testing::Test {
protected:
    SilentConnection()
    {
        m_settings = settingsFor({m_server.port()});
        m_settings.networkTimeout = 1;
        m_settings.connections = 8;
        m_settings.backOff = m_settings.longestBackOff = std::chrono::hours(1);
    }

    /// Fills the pool with connections that have answered a search.
    void openConnections(LDAPLookup& lookup, std::size_t count)
    {
        std::thread opener([&] { findOnThreads(lookup, count); });
        bool const areOpen = eventually([&] { return searchCount() == count; });
        m_server.giveCue();
        opener.join();
        ASSERT_TRUE(areOpen);
        ASSERT_EQ(m_server.connectionCount(), count);
    }

    /// Open connections stop answering searches.
    void hangOpenConnections() { m_lastHanging = m_server.connectionCount(); }
    /// All connections answer binds and no searches.
    void hangSearches() { m_lastHanging = std::numeric_limits<std::size_t>::max(); }
    /// Only the kernel accepts connections.
    void hang()
    {
        hangSearches();
        m_bindsHang = true;
    }
    void dripBinds() { m_bindsDrip = true; }

    std::size_t searchCount() const { return countOf(SearchRequest, m_server.received()); }
    std::size_t connectionCount() const { return m_server.connectionCount(); }

    LDAPLookup::Settings m_settings;

private:
    void play(Peer& peer)
    {
        std::size_t const number = ++m_connections;
        if (m_bindsHang) {
            return peer.receiveUntilClosed();
        }
        if (m_bindsDrip) {
            peer.drip(bindResponse(messageIdOf(peer.receiveMessage())));
        }
        serving([this, number](Peer& answering, std::string const& request) {
            answering.awaitCue();
            if (number > m_lastHanging) {
                answerFound(answering, request);
            }
        })(peer);
    }

    std::atomic<std::size_t> m_connections{0};
    std::atomic<std::size_t> m_lastHanging{0};
    std::atomic<bool> m_bindsHang{false};
    std::atomic<bool> m_bindsDrip{false};
    ScriptedServer m_server{[this](Peer& peer) { play(peer); }};
};

} // namespace

// A thread waits for one server

TEST(PoolWithAPausedServer, DelaysNoCallerThatCanFailOver)
{
    enum State { down, paused };
    std::atomic<State> state{down};
    ScriptedServer first([&](Peer& peer) {
        if (state == paused) {
            peer.awaitCue();
        }
    });
    ScriptedServer const second(serving(answerFound));
    auto settings = settingsFor({first.port(), second.port()});
    settings.networkTimeout = 30;
    settings.deadline = std::chrono::seconds(60);
    settings.backOff = settings.longestBackOff = milliseconds(1);
    LDAPLookup lookup(settings);
    lookup.find(addressOf(1));
    std::size_t const before = first.connectionCount();
    state = paused;
    LDAPLookup::Answer waiters;
    std::atomic<bool> hasWaited{false};

    std::thread waiter([&] {
        bool const isWaiting = eventually([&] {
            waiters = lookup.find(addressOf(1));
            return first.connectionCount() != before;
        });
        hasWaited = isWaiting;
    });
    bool const isWaiting = eventually([&] { return first.connectionCount() != before; });
    auto const others = findOnThreads(lookup, 3, 20);
    bool const wasStillWaiting = !hasWaited;
    first.giveCue();
    waiter.join();

    EXPECT_TRUE(isWaiting);
    EXPECT_TRUE(wasStillWaiting);
    for (LDAPLookup::Answer const& answer : others) {
        EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    }
    EXPECT_EQ(first.connectionCount(), before + 1);
    EXPECT_EQ(waiters.outcome, Outcome::Found) << waiters.text;
}

TEST(PoolWithAPausedServer, LetsAllThreadsGoOnToTheOther)
{
    Slapd first({"--users", "20"});
    Slapd const second({"--users", "20"});
    auto settings = settingsFor({first.port(), second.port()});
    settings.networkTimeout = 1;
    settings.connections = 8;
    LDAPLookup lookup(settings);
    findOnThreads(lookup, 8, 2); // leaves connections to the first one in the pool

    first.pause();
    auto const answers = findOnThreads(lookup, 8, 20);
    first.resume();

    EXPECT_EQ(answers.size(), 160U);
    for (LDAPLookup::Answer const& answer : answers) {
        EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
        EXPECT_EQ(answer.server, "ldap://127.0.0.1:" + std::to_string(second.port()));
        EXPECT_LT(answer.milliseconds, 10000);
    }
}

// One of the servers behind a balancer hangs

class PoolBehindABalancer : public testing::Test {
protected:
    /// The first connection answers drop by drop until all is over; of the others, these are
    /// silent.
    void expectAnother(std::set<std::size_t> const& silent, Outcome outcome)
    {
        m_silent = silent;
        auto settings = settingsFor({m_balancer.port()});
        settings.connections = 2;
        settings.networkTimeout = 1;
        settings.entryLimit = 0;
        settings.backOff = settings.longestBackOff = std::chrono::hours(1);
        LDAPLookup lookup(settings);
        LDAPLookup::Answer first;

        std::thread running([&] { first = lookup.find(addressOf(1)); });
        ASSERT_TRUE(eventually([&] { return countOf(SearchRequest, m_balancer.received()) == 1; }));
        auto const second = lookup.find(addressOf(2));
        m_isOver = true;
        running.join();
        auto const third = lookup.find(addressOf(3));

        EXPECT_EQ(second.outcome, outcome) << second.text;
        EXPECT_EQ(first.outcome, Outcome::Found) << first.text;
        EXPECT_EQ(third.outcome, Outcome::Found) << third.text;
    }

private:
    void play(Peer& peer)
    {
        std::size_t const number = ++m_connections;
        if (m_silent.count(number) != 0) {
            return peer.receiveUntilClosed();
        }
        serving([&](Peer& answering, std::string const& request) {
            while (number == 1 && !m_isOver) {
                answering.send(searchEntry(messageIdOf(request), "cn=drop", {}));
                std::this_thread::sleep_for(milliseconds(20));
            }
            answerFound(answering, request);
        })(peer);
    }

    std::set<std::size_t> m_silent;
    std::atomic<std::size_t> m_connections{0};
    std::atomic<bool> m_isOver{false};
    ScriptedServer m_balancer{[this](Peer& peer) { play(peer); }};
};

TEST_F(PoolBehindABalancer, TriesAgainWhereOneOfTheServersHangs)
{
    expectAnother({2}, Outcome::Found);
}

TEST_F(PoolBehindABalancer, KeepsTheConnectionsToThoseThatAnswer)
{
    expectAnother({2, 3}, Outcome::TryLater);
}

// More threads than connections

TEST(PoolOfOneConnection, ServesAllThreadsInTurn)
{
    ScriptedServer const server(serving(answerFound));
    auto settings = settingsFor({server.port()});
    settings.connections = 1;
    LDAPLookup lookup(settings);

    auto const answers = findOnThreads(lookup, 8, 500);

    for (LDAPLookup::Answer const& answer : answers) {
        EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
        EXPECT_LT(answer.milliseconds, 5000); // of a deadline of 15 s
    }
    EXPECT_EQ(lookup.statistics().opened, 1U);
}

// Opening fails

class PoolAfterFailedOpens : public testing::Test {
protected:
    static constexpr unsigned int connections = 3;

    enum class Trouble { none, hangsUp, refusesTheBind, isNobody };

    LDAPLookup::Settings settings() const
    {
        auto settings = settingsFor({m_server.port()});
        settings.connections = connections;
        settings.backOff = settings.longestBackOff = milliseconds(0);
        settings.refusedHold = milliseconds(0);
        return settings;
    }

    /// Fails in every thread, more often than there are connections; none may leak.
    void expectAllConnectionsAfter(Trouble trouble)
    {
        LDAPLookup lookup(settings());
        m_trouble = trouble;

        auto const failed = findOnThreads(lookup, 4, 5);
        m_trouble = Trouble::none;
        bool const isBack =
            eventually([&] { return lookup.find(addressOf(1)).outcome == Outcome::Found; });
        m_holdsAnswers = true;
        std::size_t const atOnce = searchesAtOnce(lookup, m_server, connections);

        for (LDAPLookup::Answer const& answer : failed) {
            EXPECT_NE(answer.outcome, Outcome::Found);
            EXPECT_NE(answer.outcome, Outcome::NotFound);
        }
        EXPECT_TRUE(isBack);
        EXPECT_EQ(atOnce, connections);
        EXPECT_EQ(lookup.statistics().opened, connections);
    }

private:
    void answer(Peer& peer, std::string const& request)
    {
        if (m_holdsAnswers) {
            peer.awaitCue();
        }
        answerFound(peer, request);
    }

    void play(Peer& peer)
    {
        switch (m_trouble.load()) {
        case Trouble::none:
            return serving([this](Peer& answering, std::string const& request) {
                answer(answering, request);
            })(peer);
        case Trouble::hangsUp:
            return;
        case Trouble::refusesTheBind:
            peer.send(bindResponse(messageIdOf(peer.receiveMessage()), 49));
            return peer.receiveUntilClosed();
        case Trouble::isNobody:
            return serving(answerFound, std::string())(peer);
        }
    }

    std::atomic<Trouble> m_trouble{Trouble::none};
    std::atomic<bool> m_holdsAnswers{false};
    ScriptedServer m_server{[this](Peer& peer) { play(peer); }};
};

TEST_F(PoolAfterFailedOpens, HasRoomForAllAgainWhereTheServerHungUp)
{
    expectAllConnectionsAfter(Trouble::hangsUp);
}

TEST_F(PoolAfterFailedOpens, HasRoomForAllAgainWhereTheServerRefusedTheBind)
{
    expectAllConnectionsAfter(Trouble::refusesTheBind);
}

TEST_F(PoolAfterFailedOpens, HasRoomForAllAgainAfterAnAnonymousIdentity)
{
    expectAllConnectionsAfter(Trouble::isNobody);
}

TEST_F(PoolAfterFailedOpens, HasRoomForAllAgainAfterRefusedConnections)
{
    Slapd slapd({"--users", "20"});
    auto settings = settingsFor({slapd.port()});
    settings.connections = connections;
    settings.backOff = settings.longestBackOff = milliseconds(0);
    LDAPLookup lookup(settings);
    findOnThreads(lookup, 4, 5);
    auto const before = lookup.statistics().opened;

    slapd.kill();
    findOnThreads(lookup, 4, 5);
    slapd.restart();
    auto const answers = findOnThreads(lookup, 8, 20);

    EXPECT_GE(before, 1U);
    for (LDAPLookup::Answer const& answer : answers) {
        EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    }
}

// Established connections that fall silent: when their server is retried at once, by which caller,
// and what the other callers do meanwhile.

// The server chosen by a balancer hangs, or a firewall has dropped our connections; a new
// connection reaches a healthy server. Lookups used to fail at once for the whole back-off.
TEST_F(SilentConnection, IsReplacedAtOnceIfThereIsNoOtherServer)
{
    LDAPLookup lookup(m_settings);
    openConnections(lookup, 3);

    hangOpenConnections();
    auto const repeated = lookup.find(addressOf(1));
    auto const next = lookup.find(addressOf(2));

    EXPECT_EQ(repeated.outcome, Outcome::Found) << repeated.text;
    EXPECT_TRUE(repeated.wasRepeated);
    EXPECT_EQ(next.outcome, Outcome::Found) << next.text;
    EXPECT_FALSE(next.wasRepeated);
    EXPECT_EQ(connectionCount(), 4U);
    EXPECT_EQ(searchCount(), 6U);
}

TEST_F(SilentConnection, IsReplacedAtOnceEachTimeWhereTheLastOneHasAnswered)
{
    LDAPLookup lookup(m_settings);
    openConnections(lookup, 1);
    std::vector<LDAPLookup::Answer> answers;

    for (int i = 0; i < 2; ++i) {
        hangOpenConnections();
        answers.push_back(lookup.find(addressOf(1)));
    }

    EXPECT_THAT(answers, Each(Field(&LDAPLookup::Answer::outcome, Outcome::Found)));
    EXPECT_EQ(connectionCount(), 3U);
}

TEST_F(SilentConnection, IsReplacedByOneCallerWhileTheOthersAwaitItsSuccess)
{
    m_settings.networkTimeout = 30; // the others wait for a tenth of it
    m_settings.deadline = std::chrono::milliseconds(2500);
    LDAPLookup lookup(m_settings);
    openConnections(lookup, 1);
    hangOpenConnections();
    dripBinds();

    auto const silent = lookup.find(addressOf(1));
    auto const answers = findOnThreads(lookup, 8);

    EXPECT_EQ(silent.outcome, Outcome::TryLater);
    EXPECT_THAT(answers, Each(Field(&LDAPLookup::Answer::outcome, Outcome::Found)));
}

// Each step of one wakes the others, which would ask it in an endless loop.
TEST_F(SilentConnection, IsReplacedByOneCallerWhileTheOthersLeaveARefusingServerAlone)
{
    constexpr std::size_t callers = 8;
    ScriptedServer const refusing([](Peer& peer) { peer.reset(); });
    m_settings.servers.insert(m_settings.servers.begin(),
                              settingsFor({refusing.port()}).servers.front());
    m_settings.networkTimeout = 30;
    m_settings.deadline = std::chrono::milliseconds(2500);
    LDAPLookup lookup(m_settings);
    openConnections(lookup, 1);
    hangOpenConnections();
    dripBinds();

    auto const silent = lookup.find(addressOf(1));
    std::size_t const before = refusing.connectionCount();
    auto const answers = findOnThreads(lookup, callers);

    EXPECT_EQ(silent.outcome, Outcome::TryLater);
    EXPECT_THAT(answers, Each(Field(&LDAPLookup::Answer::outcome, Outcome::Found)));
    EXPECT_LE(refusing.connectionCount(), before + callers);
}

// When the first one has waited for the network timeout, so have all others; they must not wait
// again.
TEST_F(SilentConnection, OfADeadServerIsReplacedByOneCallerInVain)
{
    LDAPLookup lookup(m_settings);
    openConnections(lookup, 8);

    hang();
    auto const answers = findOnThreads(lookup, 8);
    auto const next = lookup.find(addressOf(1));

    EXPECT_THAT(answers, Each(Field(&LDAPLookup::Answer::outcome, Outcome::TryLater)));
    EXPECT_EQ(next.outcome, Outcome::TryLater);
    EXPECT_EQ(connectionCount(), 9U);
    EXPECT_EQ(searchCount(), 16U);
}

TEST_F(SilentConnection, OfADeadServerIsReplacedByOneCallerAlsoOfThoseWhoWaitForAConnection)
{
    m_settings.connections = 1;
    m_settings.networkTimeout = 2;
    LDAPLookup lookup(m_settings);
    openConnections(lookup, 1);

    hang();
    auto const answers = findOnThreads(lookup, 3);

    EXPECT_THAT(answers, Each(Field(&LDAPLookup::Answer::outcome, Outcome::TryLater)));
    EXPECT_EQ(std::count_if(answers.begin(), answers.end(),
                            [](LDAPLookup::Answer const& answer) {
                                return answer.text.find("the bind") != std::string::npos;
                            }),
              1);
    EXPECT_EQ(connectionCount(), 2U);
    EXPECT_EQ(searchCount(), 2U);
}

// As with a hanging database: each new connection would cost another network timeout.
TEST_F(SilentConnection, ThatReplacedAnotherAndNeverAnsweredIsNotReplacedAtOnce)
{
    LDAPLookup lookup(m_settings);
    openConnections(lookup, 1);

    hangSearches();
    auto const repeated = lookup.find(addressOf(1));
    auto const next = lookup.find(addressOf(1));

    EXPECT_EQ(repeated.outcome, Outcome::TryLater);
    EXPECT_TRUE(repeated.wasRepeated);
    EXPECT_EQ(next.outcome, Outcome::TryLater);
    EXPECT_EQ(connectionCount(), 2U);
    EXPECT_EQ(searchCount(), 3U);
}

TEST_F(SilentConnection, IsNotReplacedAtOnceWhereThereIsAnotherServer)
{
    ScriptedServer const other(serving(answerFound));
    m_settings.servers.push_back(settingsFor({other.port()}).servers.front());
    LDAPLookup lookup(m_settings);
    openConnections(lookup, 1);

    hangOpenConnections();
    std::vector<LDAPLookup::Answer> answers;
    for (int i = 0; i < 3; ++i) {
        answers.push_back(lookup.find(addressOf(1)));
    }

    std::string const otherUri = "ldap://127.0.0.1:" + std::to_string(other.port());
    EXPECT_THAT(answers, Each(Field(&LDAPLookup::Answer::outcome, Outcome::Found)));
    EXPECT_THAT(answers, Each(Field(&LDAPLookup::Answer::server, otherUri)));
    EXPECT_EQ(connectionCount(), 1U);
}

} // namespace SolvaneTest
