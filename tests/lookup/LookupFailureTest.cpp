// Lookups and failover when servers are down, silent or slow, or send wrong answers.
#include "Eventually.h"
#include "LdapMessages.h"
#include "Lookups.h"
#include "ScriptedServer.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

using namespace Solvane;
using Lookup::Identity;
using Lookup::Outcome;
using std::chrono::milliseconds;
using testing::Each;
using testing::HasSubstr;
using testing::SizeIs;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

void neverAnswer(Peer& peer, std::string const&) { peer.receiveUntilClosed(); }
void hangUp(Peer& peer, std::string const&) { peer.reset(); }

/// Measures the duration of a call; compared only with generous bounds.
class Stopwatch {
public:
    milliseconds elapsed() const
    {
        return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - m_start);
    }

private:
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

} // namespace

// Down

TEST(LookupOnADeadServer, IsToBeTriedLaterAndNeverNotFound)
{
    RefusingPort const port;
    LDAPLookup lookup(settingsFor({port.number()}));

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::TryLater);
    EXPECT_EQ(answer.code, -1);
    EXPECT_EQ(answer.server, uriOf(port.number()));
    EXPECT_THAT(answer.text, HasSubstr("cannot connect: "));
    EXPECT_FALSE(answer.wasRepeated);
}

TEST(LookupOnADeadServer, GoesOnToTheNextOfTheList)
{
    RefusingPort const dead;
    ScriptedServer const live(serving(answerFound));
    LDAPLookup lookup(settingsFor({dead.number(), live.port()}));

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Found);
    EXPECT_EQ(answer.server, uriOf(live.port()));
}

TEST(LookupOnADeadServer, PassesASilentOneOverWhileItsBackOffLasts)
{
    ScriptedServer silent([](Peer& peer) { peer.receiveUntilClosed(); });
    ScriptedServer const live(serving(answerFound));
    auto settings = settingsFor({silent.port(), live.port()});
    settings.networkTimeout = 1;
    settings.backOff = settings.longestBackOff = std::chrono::hours(1);
    LDAPLookup lookup(settings);

    auto const first = lookup.find(addressOf(1));
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(lookup.find(addressOf(1)).outcome, Outcome::Found);
    }

    EXPECT_EQ(first.outcome, Outcome::Found);
    EXPECT_EQ(silent.connectionCount(), 1U);
}

TEST(LookupOnADeadServer, TriesItAgainWhenItsBackOffIsOver)
{
    std::atomic<bool> isBack{false};
    ScriptedServer first([&](Peer& peer) {
        if (isBack) {
            serving(answerFound)(peer);
        }
    });
    ScriptedServer const second(serving(answerFound));
    auto settings = settingsFor({first.port(), second.port()});
    settings.backOff = settings.longestBackOff = milliseconds(1);
    LDAPLookup lookup(settings);

    auto const meanwhile = lookup.find(addressOf(1));
    isBack = true;
    bool const returned =
        eventually([&] { return lookup.find(addressOf(1)).server == uriOf(first.port()); });

    EXPECT_EQ(meanwhile.server, uriOf(second.port()));
    EXPECT_TRUE(returned);
}

TEST(LookupOnADeadServer, RetriesOneThatRefusesAtOnceIfThereIsNoOther)
{
    Slapd slapd({"--users", "5"});
    auto settings = settingsFor({slapd.port()});
    settings.backOff = settings.longestBackOff = std::chrono::hours(1);
    LDAPLookup lookup(settings);

    slapd.kill();
    auto const down = lookup.find(addressOf(1));
    slapd.restart();
    auto const up = lookup.find(addressOf(1));

    EXPECT_EQ(down.outcome, Outcome::TryLater);
    EXPECT_EQ(up.outcome, Outcome::Found) << up.text;
}

TEST(LookupOnADeadServer, DoesNotWaitAgainForOneThatKeptAnotherCallerWaiting)
{
    ScriptedServer silent([](Peer& peer) { peer.receiveUntilClosed(); });
    auto settings = settingsFor({silent.port()});
    settings.networkTimeout = 1;
    settings.backOff = settings.longestBackOff = std::chrono::hours(1);
    LDAPLookup lookup(settings);

    auto const first = lookup.find(addressOf(1));
    auto const second = lookup.find(addressOf(2));

    EXPECT_EQ(first.outcome, Outcome::TryLater);
    EXPECT_EQ(first.code, -5);
    EXPECT_THAT(first.text, HasSubstr("did not answer the bind within 1 s"));
    EXPECT_EQ(second.outcome, Outcome::TryLater);
    EXPECT_EQ(silent.connectionCount(), 1U);
}

// If only a wait of the whole network timeout started a back-off, it would never start here: a key
// gives each server but the last only a part of its time.
TEST(LookupOnADeadServer, GoesOnToTheNextAlsoWhereNoKeyHasTimeForTheNetworkTimeout)
{
    ScriptedServer silent([](Peer& peer) { peer.receiveUntilClosed(); });
    ScriptedServer const live(serving(answerFound));
    auto settings = settingsFor({silent.port(), live.port()});
    settings.networkTimeout = 30;
    settings.deadline = milliseconds(3000); // with half of it for the second server
    settings.backOff = settings.longestBackOff = std::chrono::hours(1);
    LDAPLookup lookup(settings);

    auto const first = lookup.find(addressOf(1));
    auto const second = lookup.find(addressOf(2));

    EXPECT_EQ(first.outcome, Outcome::Found) << first.text;
    EXPECT_EQ(second.outcome, Outcome::Found) << second.text;
    EXPECT_EQ(second.server, uriOf(live.port()));
    EXPECT_EQ(silent.connectionCount(), 1U);
}

// As a newly installed replica does: it has no entries yet, not even that of the bind DN.
TEST(LookupOnADeadServer, GoesOnToTheNextWhereOneRefusesABindThatTheNextHasTaken)
{
    std::atomic<bool> isBack{false};
    ScriptedServer first([&](Peer& peer) {
        if (isBack) {
            peer.send(bindResponse(messageIdOf(peer.receiveMessage()), 49));
            peer.receiveUntilClosed();
        }
    });
    ScriptedServer const second(serving(answerFound));
    auto settings = settingsFor({first.port(), second.port()});
    settings.backOff = settings.longestBackOff = milliseconds(1);
    LDAPLookup lookup(settings);
    auto const meanwhile = lookup.find(addressOf(1));
    isBack = true;

    std::vector<Outcome> outcomes;
    bool const wasAsked = eventually([&] {
        outcomes.push_back(lookup.find(addressOf(1)).outcome);
        return countOf(BindRequest, first.received()) != 0;
    });
    outcomes.push_back(lookup.find(addressOf(1)).outcome);

    EXPECT_EQ(meanwhile.outcome, Outcome::Found);
    EXPECT_TRUE(wasAsked);
    EXPECT_THAT(outcomes, Each(Outcome::Found));
}

// Broken connections

TEST(LookupOnABrokenConnection, IsRepeatedOnceOnANewOne)
{
    std::atomic<int> searches{0};
    ScriptedServer server(serving([&](Peer& peer, std::string const& request) {
        if (++searches == 1) {
            peer.reset();
        } else {
            answerFound(peer, request);
        }
    }));
    LDAPLookup lookup(settingsFor({server.port()}));

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Found);
    EXPECT_TRUE(answer.wasRepeated);
    EXPECT_EQ(server.connectionCount(), 2U);
    EXPECT_EQ(lookup.statistics().repeated, 1U);
}

TEST(LookupOnABrokenConnection, IsRepeatedExactlyOnce)
{
    ScriptedServer server(serving(hangUp));
    LDAPLookup lookup(settingsFor({server.port()}));

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::TryLater);
    EXPECT_EQ(answer.code, -1);
    EXPECT_TRUE(answer.wasRepeated);
    EXPECT_EQ(countOf(SearchRequest, server.received()), 2U);
}

TEST(LookupOnABrokenConnection, IsRepeatedOnTheNextServerWhereItsOwnIsDown)
{
    Slapd first({"--users", "5"});
    ScriptedServer second(serving(answerFound));
    LDAPLookup lookup(settingsFor({first.port(), second.port()}));
    auto const before = lookup.find(addressOf(1));

    first.kill();
    auto const after = lookup.find(addressOf(2));

    EXPECT_EQ(before.server, uriOf(first.port()));
    EXPECT_EQ(after.outcome, Outcome::Found);
    EXPECT_EQ(after.server, uriOf(second.port()));
}

TEST(LookupOnABrokenConnection, DropsAPooledOneThatTheServerClosedWithoutRepeating)
{
    Slapd slapd({"--users", "5"});
    LDAPLookup lookup(settingsFor({slapd.port()}));
    lookup.find(addressOf(1));

    slapd.kill();
    slapd.restart();
    auto const answer = lookup.find(addressOf(2));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_FALSE(answer.wasRepeated);
    EXPECT_EQ(lookup.statistics().stale, 1U);
    EXPECT_EQ(lookup.statistics().opened, 2U);
}

TEST(LookupOnABrokenConnection, DropsAPooledOneOnWhichTheServerSpokeUnasked)
{
    std::atomic<int> connections{0};
    ScriptedServer server([&](Peer& peer) {
        bool const isFirst = ++connections == 1;
        serving([&](Peer& answering, std::string const& request) {
            int const id = messageIdOf(request);
            std::string const answer = searchEntry(id, "cn=x", {}) + searchDone(id);
            answering.send(isFirst ? answer + noticeOfDisconnection() : answer);
        })(peer);
    });
    LDAPLookup lookup(settingsFor({server.port()}));
    lookup.find(addressOf(1));

    bool const wasDropped = eventually([&] {
        lookup.find(addressOf(2));
        return lookup.statistics().stale == 1;
    });

    EXPECT_TRUE(wasDropped);
    EXPECT_EQ(lookup.statistics().repeated, 0U);
}

TEST(LookupOnABrokenConnection, TakesNoEntryThatIsDamagedInside)
{
    std::string const name("\x04\x04"
                           "cn=x");
    std::string const longer("\x04\x7F"
                             "cn=x");
    ScriptedServer const server(serving([&](Peer& peer, std::string const& request) {
        int const id = messageIdOf(request);
        std::string entry = searchEntry(id, "cn=x", {});
        entry.replace(entry.find(name), name.size(), longer);
        peer.send(entry + searchDone(id));
    }));
    LDAPLookup lookup(settingsFor({server.port()}));

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::TryLater);
    EXPECT_EQ(answer.code, -4) << answer.text;
    EXPECT_TRUE(answer.wasRepeated);
}

TEST(LookupOnABrokenConnection, TakesAnEntryWithoutAttributes)
{
    ScriptedServer const server(serving([](Peer& peer, std::string const& request) {
        int const id = messageIdOf(request);
        peer.send(searchEntry(id, "cn=x", {}) + searchDone(id));
    }));
    LDAPLookup lookup(settingsFor({server.port()}));

    EXPECT_EQ(lookup.find(addressOf(1)).outcome, Outcome::Found);
}

// Identity

TEST(LookupOnADowngradedConnection, NeverSaysNotFound)
{
    ScriptedServer server(serving(answerEmpty, ""));
    LDAPLookup lookup(settingsFor({server.port()}));

    auto const answer = lookup.find("nobody@corp.test");

    EXPECT_EQ(answer.outcome, Outcome::Refused);
    EXPECT_EQ(answer.code, 48);
    EXPECT_THAT(answer.text, HasSubstr("anonymous"));
    EXPECT_EQ(countOf(SearchRequest, server.received()), 0U);
}

TEST(LookupOnADowngradedConnection, SaysThatItIsUnconfirmedWhereTheQuestionIsUnknown)
{
    ScriptedServer server(servingWithoutWhoAmI(answerEmpty, 2));
    LDAPLookup lookup(settingsFor({server.port()}));

    auto const answer = lookup.find("nobody@corp.test");

    EXPECT_EQ(answer.outcome, Outcome::NotFound);
    EXPECT_EQ(answer.identity, Identity::Unconfirmed);
    EXPECT_THAT(answer.text, HasSubstr("did not confirm the identity of the bind"));
}

TEST(LookupOnADowngradedConnection, AsksWhoWeAreOncePerConnection)
{
    ScriptedServer server(serving(answerEmpty));
    LDAPLookup lookup(settingsFor({server.port()}));

    lookup.find("one@corp.test");
    lookup.find("two@corp.test");

    constexpr unsigned char extendedRequest = 0x77;
    EXPECT_EQ(countOf(extendedRequest, server.received()), 1U);
    EXPECT_EQ(countOf(SearchRequest, server.received()), 2U);
}

TEST(LookupOnAPartOfTheDirectory, SaysWithNotFoundThatOtherServersWereNotAsked)
{
    ScriptedServer const server(serving(answerElsewhere));
    auto settings = settingsFor({server.port()});
    settings.references = LDAPLookup::References::ignore;
    LDAPLookup lookup(settings);

    auto const answer = lookup.find("nobody@corp.test");

    EXPECT_EQ(answer.outcome, Outcome::NotFound);
    EXPECT_EQ(answer.text,
              uriOf(server.port()) + " returned references to servers that were not asked");
}

TEST(LookupOnAPartOfTheDirectory, SaysSoAlsoWhereTheServerCannotConfirmTheIdentity)
{
    ScriptedServer const server(servingWithoutWhoAmI(answerElsewhere, 2));
    auto settings = settingsFor({server.port()});
    settings.references = LDAPLookup::References::ignore;
    LDAPLookup lookup(settings);

    auto const answer = lookup.find("nobody@corp.test");

    EXPECT_EQ(answer.outcome, Outcome::NotFound);
    EXPECT_EQ(answer.text, uriOf(server.port()) +
                               " did not confirm the identity of the bind and returned references "
                               "to servers that were not asked");
}

// Time

TEST(LookupUnderADeadline, EndsWhereTheServerNeverAnswersTheSearch)
{
    ScriptedServer server(serving(neverAnswer));
    auto settings = settingsFor({server.port()});
    settings.deadline = milliseconds(300);
    LDAPLookup lookup(settings);
    Stopwatch const time;

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::TryLater);
    EXPECT_EQ(answer.code, -5);
    EXPECT_THAT(answer.text, HasSubstr("within the deadline of 0.300 s"));
    EXPECT_GE(time.elapsed(), milliseconds(300));
    EXPECT_GE(answer.milliseconds, 300);
}

TEST(LookupUnderADeadline, EndsAlsoWhereTheServerDripsOneEntryAtATime)
{
    ScriptedServer server(serving([](Peer& peer, std::string const& request) {
        for (int i = 0; i < 60; ++i) {
            peer.send(searchEntry(messageIdOf(request), "cn=" + std::to_string(i), {}));
            std::this_thread::sleep_for(milliseconds(50)); // the drip itself
        }
    }));
    auto settings = settingsFor({server.port()});
    settings.deadline = milliseconds(400);
    LDAPLookup lookup(settings);

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::TryLater);
    EXPECT_EQ(answer.code, -5);
    EXPECT_FALSE(answer.entries.empty());
    EXPECT_LT(answer.milliseconds, 10000);
}

TEST(LookupUnderADeadline, EndsAlsoWhereTheServerDripsOneByteAtATime)
{
    ScriptedServer server(serving([](Peer& peer, std::string const& request) {
        for (char const byte : searchEntry(messageIdOf(request), "cn=somebody", {})) {
            peer.send(std::string(1, byte));
            std::this_thread::sleep_for(milliseconds(50)); // the drip itself
        }
    }));
    auto settings = settingsFor({server.port()});
    settings.deadline = milliseconds(300);
    LDAPLookup lookup(settings);

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::TryLater);
    EXPECT_EQ(answer.code, -5);
    EXPECT_THAT(answer.text, HasSubstr("within the deadline"));
    EXPECT_LT(answer.milliseconds, 10000);
}

// The next key would have to wait for the rest of an abandoned answer.
TEST(LookupUnderADeadline, ClosesTheConnectionOnWhichAnAnswerIsStillComing)
{
    std::atomic<bool> drips{true};
    ScriptedServer server(serving([&](Peer& peer, std::string const& request) {
        bool const isFirst = drips.exchange(false);
        for (int i = 0; isFirst && i < 60; ++i) {
            peer.send(searchEntry(messageIdOf(request), "cn=" + std::to_string(i), {}));
            std::this_thread::sleep_for(milliseconds(20)); // the drip itself
        }
        answerFound(peer, request);
    }));
    auto settings = settingsFor({server.port()});
    settings.deadline = milliseconds(300);
    LDAPLookup lookup(settings);

    auto const dripped = lookup.find(addressOf(1));
    auto const next = lookup.find(addressOf(2));

    EXPECT_EQ(dripped.outcome, Outcome::TryLater);
    EXPECT_EQ(next.outcome, Outcome::Found) << next.text;
    EXPECT_EQ(server.connectionCount(), 2U);
}

// A single slow (unindexed) search must not mark a server as failed that answers all others.
TEST(LookupUnderADeadline, LeavesTheServerToOthersWhereOnlyOneSearchIsSlow)
{
    ScriptedServer const server(serving([](Peer& peer, std::string const& request) {
        if (request.find("slow") == std::string::npos) {
            answerFound(peer, request);
        }
    }));
    auto settings = settingsFor({server.port()});
    settings.deadline = milliseconds(500);
    settings.backOff = settings.longestBackOff = std::chrono::hours(1);
    LDAPLookup lookup(settings);
    std::atomic<bool> isOver{false};
    Outcome slow = Outcome::Found;
    std::thread asker([&] {
        slow = lookup.find("slow@corp.test").outcome;
        isOver = true;
    });

    std::vector<Outcome> others;
    while (!isOver) {
        others.push_back(lookup.find(addressOf(1)).outcome);
    }
    asker.join();
    others.push_back(lookup.find(addressOf(1)).outcome);

    EXPECT_EQ(slow, Outcome::TryLater);
    EXPECT_THAT(others, Each(Outcome::Found));
}

TEST(LookupUnderADeadline, StopsAFloodOfEntriesAtTheLimit)
{
    ScriptedServer server(serving([](Peer& peer, std::string const& request) {
        for (int i = 0; i < 100; ++i) {
            peer.send(searchEntry(messageIdOf(request), "cn=" + std::to_string(i), {}));
        }
    }));
    auto settings = settingsFor({server.port()});
    settings.entryLimit = 10;
    LDAPLookup lookup(settings);

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::TryLater);
    EXPECT_EQ(answer.code, 4);
    EXPECT_THAT(answer.entries, SizeIs(10));
}

TEST(LookupUnderADeadline, GoesToTheNextServerWhenTheFirstOneStopsAnswering)
{
    Slapd first({"--users", "5"});
    ScriptedServer second(serving(answerFound));
    auto settings = settingsFor({first.port(), second.port()});
    settings.networkTimeout = 1;
    LDAPLookup lookup(settings);
    auto const before = lookup.find(addressOf(1));

    first.pause();
    auto const during = lookup.find(addressOf(2));
    first.resume();

    EXPECT_EQ(before.server, uriOf(first.port()));
    EXPECT_EQ(during.outcome, Outcome::Found) << during.text;
    EXPECT_EQ(during.server, uriOf(second.port()));
    EXPECT_TRUE(during.wasRepeated);
}

TEST(LookupUnderADeadline, GivesUpWhereNoConnectionComesFree)
{
    ScriptedServer const server(serving(answerFound));
    auto settings = settingsFor({server.port()});
    settings.connections = 1;
    settings.deadline = milliseconds(200);
    LDAPLookup lookup(settings);
    LDAPLookup::Answer waiting;

    // The run keeps its connection while its answer is being taken.
    lookup.findAll(sourceOf({addressOf(1)}), [&](std::string const&, LDAPLookup::Answer&&) {
        waiting = lookup.find(addressOf(2));
        return true;
    });

    EXPECT_EQ(waiting.outcome, Outcome::TryLater);
    EXPECT_EQ(waiting.code, -5);
    EXPECT_THAT(waiting.text, HasSubstr("no connection became free"));
    EXPECT_EQ(lookup.find(addressOf(3)).outcome, Outcome::Found);
}

TEST(LookupUnderADeadline, WaitsForAConnectionThatComesFree)
{
    ScriptedServer server(serving([](Peer& peer, std::string const& request) {
        peer.awaitCue();
        answerFound(peer, request);
    }));
    auto settings = settingsFor({server.port()});
    settings.connections = 1;
    LDAPLookup lookup(settings);
    LDAPLookup::Answer holders;
    LDAPLookup::Answer waiters;
    std::thread holder([&] { holders = lookup.find(addressOf(1)); });
    ASSERT_TRUE(eventually([&] { return countOf(SearchRequest, server.received()) == 1; }));
    std::thread waiter([&] { waiters = lookup.find(addressOf(2)); });

    server.giveCue();
    holder.join();
    waiter.join();

    EXPECT_EQ(holders.outcome, Outcome::Found);
    EXPECT_EQ(waiters.outcome, Outcome::Found);
    EXPECT_EQ(server.connectionCount(), 1U);
}

// Lies

TEST(LookupOnALyingServer, DoesNotTakeAnAnswerToAnotherQuestion)
{
    ScriptedServer server(serving([](Peer& peer, std::string const& request) {
        int const id = messageIdOf(request);
        peer.send(searchEntry(id + 1, "cn=somebody else", {}) + searchDone(id + 1));
        peer.send(searchDone(id));
    }));
    LDAPLookup lookup(settingsFor({server.port()}));

    auto const answer = lookup.find(addressOf(1));

    EXPECT_NE(answer.outcome, Outcome::Found);
    EXPECT_TRUE(answer.entries.empty());
}

TEST(LookupOnALyingServer, IsToBeTriedLaterIfTheAnswerIsNotLdap)
{
    ScriptedServer server(serving([](Peer& peer, std::string const&) {
        peer.send("HTTP/1.1 400 Bad Request\r\n\r\n");
        peer.receiveUntilClosed();
    }));
    auto settings = settingsFor({server.port()});
    settings.deadline = milliseconds(1000);
    LDAPLookup lookup(settings);

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::TryLater) << answer.text;
}

TEST(LookupOnALyingServer, AsksTheNextOneWhereItIsBusy)
{
    ScriptedServer busy(serving([](Peer& peer, std::string const& request) {
        peer.send(searchDone(messageIdOf(request), 51));
    }));
    ScriptedServer second(serving(answerFound));
    LDAPLookup lookup(settingsFor({busy.port(), second.port()}));

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Found);
    EXPECT_EQ(answer.server, uriOf(second.port()));
    EXPECT_TRUE(answer.wasRepeated);
}

} // namespace SolvaneTest
