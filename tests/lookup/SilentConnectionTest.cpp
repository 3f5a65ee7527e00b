// Established connections that fall silent: when their server is retried at once, by which caller,
// and what the other callers do meanwhile.
#include "Eventually.h"
#include "LdapMessages.h"
#include "Lookups.h"
#include "ScriptedServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <limits>
#include <string>
#include <thread>
#include <vector>

using namespace Solvane;
using Lookup::Outcome;
using testing::Each;
using testing::Field;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

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

    /// Looks up an address in each of several threads at once.
    static std::vector<LDAPLookup::Answer> findAtOnce(LDAPLookup& lookup, std::size_t threads)
    {
        std::vector<LDAPLookup::Answer> answers(threads);
        std::vector<std::thread> running;
        for (LDAPLookup::Answer& answer : answers) {
            running.emplace_back([&] { answer = lookup.find(addressOf(1)); });
        }
        for (std::thread& thread : running) {
            thread.join();
        }
        return answers;
    }

    /// Fills the pool with connections that have answered a search.
    void openConnections(LDAPLookup& lookup, std::size_t count)
    {
        std::thread opener([&] { findAtOnce(lookup, count); });
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
    auto const answers = findAtOnce(lookup, 8);

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
    auto const answers = findAtOnce(lookup, callers);

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
    auto const answers = findAtOnce(lookup, 8);
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
    auto const answers = findAtOnce(lookup, 3);

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
