// The pipeline of one connection: its window adapts to the server's limit of pending requests, and
// keys end in time while other callers have the connections, or while OpenLDAP is initialised.
#include "Pipeline.h"
#include "Lookups.h"
#include "Window.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

using namespace Solvane;
using namespace Solvane::Lookup;
using Solvane::Lookup::Window;
using testing::Contains;
using testing::HasSubstr;

namespace {

int g_ownNames = 0; ///< how often OpenLDAP asked for the name of this host

} // namespace

/// In place of the system's, also for OpenLDAP: it resolves the name next, which may take long.
extern "C" int gethostname(char* name, std::size_t length) noexcept
{
    ++g_ownNames;
    return std::snprintf(name, length, "localhost") < 0 ? -1 : 0;
}

namespace SolvaneTest {

TEST(TheWindow, BeginsAtItsLongest)
{
    Window const window(32);

    EXPECT_EQ(window.limit(), 32U);
    EXPECT_FALSE(window.isNarrow());
}

TEST(TheWindow, NarrowsWhenAConnectionIsLost)
{
    struct {
        char const* shows;
        std::size_t longest;
        std::size_t lost;
        bool hadAnswered;
        std::size_t limit;
    } const cases[] = {
        {"it is halved when the connection had answered", 128, 128, true, 64},
        {"it begins anew when the connection never answered", 128, 128, false, 1},
        {"it stays when a search was alone", 32, 1, false, 32},
    };
    for (auto const& row : cases) {
        Window window(row.longest);

        window.lost(row.lost, row.hadAnswered);

        EXPECT_EQ(window.limit(), row.limit) << row.shows;
    }
}

TEST(TheWindow, DoublesUpToHalfOfWhatWasLostAndGrowsByOneFromThere)
{
    Window window(128);
    window.lost(8, false);

    window.answered(3);
    EXPECT_EQ(window.limit(), 4U);
    window.answered(3);
    EXPECT_EQ(window.limit(), 4U);
    window.answered(1);
    EXPECT_EQ(window.limit(), 5U);
    window.answered(5);
    EXPECT_EQ(window.limit(), 6U);
}

TEST(TheWindow, NeverGrowsBeyondItsLongest)
{
    Window window(4);
    window.lost(4, true);

    window.answered(1000);

    EXPECT_EQ(window.limit(), 4U);
    EXPECT_FALSE(window.isNarrow());
}

TEST(TheWindow, GetsNarrowerWithEachLossDownToOne)
{
    Window window(1000);
    int losses = 0;

    for (; window.limit() > 1; ++losses) {
        window.lost(window.limit(), true);
    }

    EXPECT_LE(losses, 10);
}

// Keys whose time ends while other callers have the connections, driven step by step.

using Peer = ScriptedServer::Peer;

// The first server has said that the base does not exist; the second might have known the key.
TEST(AKeyThatGetsNoConnectionToTheOtherServer, IsToBeTriedLaterWhateverTheFirstSaid)
{
    int turns[2];
    ASSERT_EQ(pipe2(turns, O_CLOEXEC), 0);
    Descriptor const readEnd(turns[0]); // closed after the script has ended
    ScriptedServer const first(serving([&](Peer& peer, std::string const& request) {
        if (request.find(addressOf(1)) != std::string::npos) {
            peer.send(searchDone(messageIdOf(request), 32));
            return;
        }
        // The other caller's answer has no end; an entry for each turn shows that it goes on.
        for (char turn; read(readEnd.number(), &turn, 1) == 1;) {
            peer.send(searchEntry(messageIdOf(request), people, {{"cn", {"x"}}}));
        }
    }));
    ScriptedServer const second(serving(answerFound));
    auto settings = settingsFor({first.port(), second.port()});
    settings.connections = 1;
    settings.deadline = std::chrono::seconds(1);
    Shared shared(settings, std::make_shared<Totals>(), nullptr);
    Pipeline one(shared, 1, 1);
    Pipeline other(shared, 1, 1);

    one.push(addressOf(1));
    other.push(addressOf(2)); // waits for the connection, and keeps it until its own deadline
    Waits waits;
    auto nextTurn = Clock::now();
    while (!one.hasAnswer()) {
        waits.clear();
        one.waits(waits);
        other.waits(waits);
        waits.until(nextTurn);
        waits.wait();
        one.run();
        other.run();
        if (Clock::now() >= nextTurn) {
            EXPECT_EQ(write(turns[1], "", 1), 1);
            nextTurn = Clock::now() + std::chrono::milliseconds(20);
        }
    }
    close(turns[1]);

    Answer const answer = one.front().answer;
    EXPECT_THAT(first.received(), Contains(HasSubstr(addressOf(2))));
    EXPECT_EQ(second.connectionCount(), 0U);
    EXPECT_EQ(answer.outcome, Outcome::TryLater);
    EXPECT_THAT(answer.text, HasSubstr("no other server was asked within the deadline of 1 s"));
}

TEST(OpenLdap, IsInitializedBeforeTheDeadlineOfAKeyBegins)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // in a process of its own
    auto const asksWhenTheEngineIsMade = [] {
        int const before = g_ownNames;
        LDAPLookup const lookup(settingsFor({1}));
        std::exit(before == 0 && g_ownNames == 1 ? 0 : 1);
    };

    EXPECT_EXIT(asksWhenTheEngineIsMade(), testing::ExitedWithCode(0), "");
}

} // namespace SolvaneTest
