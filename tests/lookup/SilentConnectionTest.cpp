// Established connections that fall silent: when their server is tried again at once, by whom, and
// what the others do meanwhile.
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

/// An address, with one server behind it or several, whose connections can be made to hang.
class SilentConnection : public testing::Test {
protected:
    SilentConnection()
    {
        m_settings = settingsFor({m_server.port()});
        m_settings.networkTimeout = 1;
        m_settings.connections = 8;
        m_settings.backOff = m_settings.longestBackOff = std::chrono::hours(1);
    }

    /// Looks an address up on each of so many threads at once.
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

    /// Leaves so many connections in the pool; each has answered a search.
    void openConnections(LDAPLookup& lookup, std::size_t count)
    {
        std::thread opener([&] { findAtOnce(lookup, count); });
        bool const areOpen = eventually([&] { return searchCount() == count; });
        m_server.giveCue();
        opener.join();
        ASSERT_TRUE(areOpen);
        ASSERT_EQ(m_server.connectionCount(), count);
    }

    /// Those that are open do not answer searches any more.
    void hangOpenConnections() { m_lastHanging = m_server.connectionCount(); }
    /// Binds are answered, searches are not, on whatever connection.
    void hangSearches() { m_lastHanging = std::numeric_limits<std::size_t>::max(); }
    /// Connections are accepted by the kernel.
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

// All that a balancer gave us hangs, or a firewall has forgotten our connections; the server that a
// new connection leads to is well. Lookups failed at once then for the whole back-off.
TEST_F(SilentConnection, IsReplacedAtOnceWhereThereIsNoOtherServer)
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

// Each of their steps wakes the others, who would ask it without end.
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

// All of them have waited for the network timeout when the first one has. They need not do so again.
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

// As a server does whose database hangs: each new connection would cost as much as the last one.
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
