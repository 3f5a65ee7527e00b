// Keys whose time ends while other callers have the connections, driven step by step.
#include "Lookups.h"

#include "Pipeline.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

using namespace Solvane;
using namespace Solvane::Lookup;
using testing::Contains;
using testing::HasSubstr;

namespace SolvaneTest {

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
    Totals totals;
    Shared shared(settings, totals, nullptr);
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

} // namespace SolvaneTest
