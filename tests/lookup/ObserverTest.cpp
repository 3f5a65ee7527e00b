// What an observer is told, and what is counted for each server.
#include "Eventually.h"
#include "Lookups.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

using namespace Solvane;
using Lookup::Event;
using Lookup::Outcome;
using std::chrono::milliseconds;
using testing::Contains;
using testing::ElementsAre;
using testing::SizeIs;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;
using Kind = Event::Kind;

/// Keeps what it is told.
class Notes : public Lookup::Observer {
public:
    void happened(Event const& event) override
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_events.push_back(event);
    }

    std::vector<Event> events() const
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        return m_events;
    }

    std::vector<Kind> kinds() const
    {
        std::vector<Kind> kinds;
        for (Event const& event : events()) {
            kinds.push_back(event.kind);
        }
        return kinds;
    }

    long count(Kind kind) const
    {
        auto const all = kinds();
        return std::count(all.begin(), all.end(), kind);
    }

private:
    mutable std::mutex m_mutex;
    std::vector<Event> m_events; ///< guarded by m_mutex
};

class Thrower : public Lookup::Observer {
public:
    void happened(Event const&) override
    {
        ++calls;
        throw std::runtime_error("the log is full");
    }
    std::atomic<int> calls{0};
};

} // namespace

TEST(AnObserver, IsToldOfAConnectionAndNothingElseOfAnAnswer)
{
    ScriptedServer server(serving(answerFound));
    auto const notes = std::make_shared<Notes>();
    auto settings = settingsFor({server.port()});
    settings.observer = notes;
    LDAPLookup lookup(settings);

    lookup.find(addressOf(1));
    lookup.find(addressOf(1));

    ASSERT_THAT(notes->kinds(), ElementsAre(Kind::connected));
    EXPECT_EQ(notes->events()[0].server, "ldap://127.0.0.1:" + std::to_string(server.port()));
    EXPECT_TRUE(notes->events()[0].why.isGood());
}

TEST(AnObserver, IsToldOnceThatAServerIsSkippedAndThatItRecovered)
{
    std::atomic<bool> isUp{false};
    ScriptedServer server([&](Peer& peer) {
        if (isUp) {
            serving(answerFound)(peer);
        } else {
            peer.reset();
        }
    });
    auto const notes = std::make_shared<Notes>();
    auto settings = settingsFor({server.port()});
    settings.observer = notes;
    settings.backOff = settings.longestBackOff = std::chrono::hours(1);
    settings.connections = 8;
    LDAPLookup lookup(settings);
    std::list<std::thread> threads;
    for (int thread = 0; thread < 8; ++thread) {
        threads.emplace_back([&] { lookup.find(addressOf(1)); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    long const backOffs = notes->count(Kind::backOff);
    isUp = true;
    auto const answer = lookup.find(addressOf(1)); // tried at once: it fails at once

    EXPECT_EQ(backOffs, 1);
    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(notes->count(Kind::recovered), 1);
    EXPECT_GE(notes->count(Kind::connectFailed), 1);
    for (Event const& event : notes->events()) {
        if (event.kind == Kind::backOff) {
            EXPECT_GT(event.backOff, std::chrono::minutes(59));
            EXPECT_FALSE(event.why.text.empty());
        }
    }
}

TEST(AnObserver, IsToldOfALostConnectionAndWhatIsRepeated)
{
    std::atomic<int> searches{0};
    ScriptedServer server(serving([&](Peer& peer, std::string const& request) {
        if (++searches == 1) {
            peer.reset();
        } else {
            answerFound(peer, request);
        }
    }));
    auto const notes = std::make_shared<Notes>();
    auto settings = settingsFor({server.port()});
    settings.observer = notes;
    LDAPLookup lookup(settings);

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_THAT(notes->kinds(),
                ElementsAre(Kind::connected, Kind::disconnected, Kind::repeated, Kind::connected));
    EXPECT_EQ(notes->events()[2].why.code, -1);
    std::uint64_t number = 0;
    for (Event const& event : notes->events()) {
        EXPECT_EQ(event.number, ++number);
    }
}

TEST(AnObserver, IsToldOfRefusedCredentials)
{
    ScriptedServer server(
        [](Peer& peer) { peer.send(bindResponse(messageIdOf(peer.receiveMessage()), 49)); });
    auto const notes = std::make_shared<Notes>();
    auto settings = settingsFor({server.port()});
    settings.observer = notes;
    LDAPLookup lookup(settings);

    lookup.find(addressOf(1));

    EXPECT_THAT(notes->kinds(), Contains(Kind::credentialsRefused).Times(1));
}

TEST(AnObserver, ThatThrowsDoesNoHarm)
{
    ScriptedServer server(serving(answerFound));
    auto const thrower = std::make_shared<Thrower>();
    auto settings = settingsFor({server.port()});
    settings.observer = thrower;
    LDAPLookup lookup(settings);

    EXPECT_EQ(lookup.find(addressOf(1)).outcome, Outcome::Found);
    EXPECT_EQ(thrower->calls, 1);
}

TEST(CountsOfServers, TellWhatEachDid)
{
    RefusingPort const first;
    ScriptedServer second(serving(answerFound));
    auto settings = settingsFor({first.number(), second.port()});
    settings.backOff = settings.longestBackOff = std::chrono::hours(1);
    LDAPLookup lookup(settings);
    lookup.find(addressOf(1));
    lookup.find(addressOf(1));

    auto const servers = lookup.servers();

    ASSERT_THAT(servers, SizeIs(2));
    EXPECT_EQ(servers[0].uri, "ldap://127.0.0.1:" + std::to_string(first.number()));
    EXPECT_EQ(servers[0].state, Lookup::ServerStatistics::State::backingOff);
    EXPECT_GT(servers[0].untilNextTry, std::chrono::minutes(59));
    EXPECT_EQ(servers[0].lastFailure.code, -1);
    EXPECT_EQ(servers[0].failed, 1U);
    EXPECT_EQ(servers[0].answered, 0U);
    EXPECT_EQ(servers[1].state, Lookup::ServerStatistics::State::up);
    EXPECT_EQ(servers[1].untilNextTry.count(), 0);
    EXPECT_EQ(servers[1].opened, 1U);
    EXPECT_EQ(servers[1].answered, 2U);
    EXPECT_EQ(servers[1].idle, 1U);
    EXPECT_EQ(servers[1].inUse, 0U);
}

TEST(CountsOfServers, TellWhichConnectionsAreInUse)
{
    ScriptedServer server(serving([](Peer& peer, std::string const& request) {
        peer.awaitCue();
        answerFound(peer, request);
    }));
    LDAPLookup lookup(settingsFor({server.port()}));
    std::thread finder([&] { lookup.find(addressOf(1)); });
    EXPECT_TRUE(eventually([&] { return countOf(SearchRequest, server.received()) == 1; }));

    auto const during = lookup.servers();
    server.giveCue();
    finder.join();
    auto const after = lookup.servers();

    EXPECT_EQ(during[0].inUse, 1U);
    EXPECT_EQ(during[0].idle, 0U);
    EXPECT_EQ(after[0].inUse, 0U);
    EXPECT_EQ(after[0].idle, 1U);
}

TEST(CountsOfServers, GoOnWithNewSettings)
{
    ScriptedServer server(serving(answerFound));
    auto settings = settingsFor({server.port()});
    LDAPLookup lookup(settings);
    lookup.find(addressOf(1));

    settings.window = 1;
    lookup.reconfigure(settings);
    lookup.find(addressOf(1));

    EXPECT_EQ(lookup.servers()[0].opened, 2U);
    EXPECT_EQ(lookup.servers()[0].answered, 2U);
    EXPECT_EQ(lookup.servers()[0].idle, 1U);
}

} // namespace SolvaneTest
