// Many threads verify passwords and look up addresses while servers are killed and paused.
#include "Eventually.h"
#include "Lookups.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using namespace Solvane;
using Lookup::Outcome;
using Lookup::VerifyOutcome;

namespace SolvaneTest {

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int threads = 16;
#else
constexpr int threads = 64;
#endif
constexpr int users = 40;

std::string passwordOf(int user) { return "pw-" + addressOf(user).substr(0, 11); }

/// What all threads were told.
struct Tally {
    std::atomic<int> accepted{0};
    std::atomic<int> denied{0};
    std::atomic<int> found{0};
    std::atomic<int> unanswered{0};
    std::atomic<int> wrong{0}; ///< anything that is not true

    int answers() const { return accepted + denied + found; }
};

/// Whether the outcome says nothing about the user.
bool isOpen(VerifyOutcome outcome) { return outcome == VerifyOutcome::TryLater; }

void verifyOnce(LDAPLookup& lookup, Tally& tally, int user, bool isRight)
{
    // The wrong one is the right one of another user.
    auto const verification = lookup.verify(addressOf(user), passwordOf(isRight ? user : user + 1));
    if (isOpen(verification.outcome)) {
        ++tally.unanswered;
    } else if (isRight && verification.outcome == VerifyOutcome::Accepted) {
        ++tally.accepted;
    } else if (!isRight && verification.outcome == VerifyOutcome::Denied) {
        ++tally.denied;
    } else {
        ++tally.wrong;
        ADD_FAILURE() << (isRight ? "right" : "wrong")
                      << " password: " << name(verification.outcome) << ' ' << verification.text;
    }
}

void findOnce(LDAPLookup& lookup, Tally& tally, int user)
{
    auto const answer = lookup.find(addressOf(user));
    if (answer.outcome == Outcome::TryLater) {
        ++tally.unanswered;
    } else if (answer.outcome == Outcome::Found && answer.identity == Lookup::Identity::Confirmed) {
        ++tally.found;
    } else {
        ++tally.wrong;
        ADD_FAILURE() << Lookup::name(answer.outcome) << ' ' << answer.text;
    }
}

} // namespace

TEST(VerifyUnderTrouble, NeverAcceptsAWrongPasswordNorDeniesARightOne)
{
    Slapd first({"--users", std::to_string(users + 1)});
    Slapd second({"--users", std::to_string(users + 1)});
    auto settings = settingsFor({first.port(), second.port()});
    settings.connections = settings.verifyConnections = 8;
    settings.networkTimeout = 1;
    settings.deadline = std::chrono::seconds(5);
    settings.backOff = std::chrono::milliseconds(50);
    settings.longestBackOff = std::chrono::milliseconds(200);
    LDAPLookup lookup(settings);
    Tally tally;
    std::atomic<bool> isOver{false};
    std::vector<std::thread> running;
    auto const awaitAnswers = [&](int count) {
        int const wanted = tally.answers() + count;
        EXPECT_TRUE(eventually([&] { return tally.answers() >= wanted; }));
    };

    for (int thread = 0; thread < threads; ++thread) {
        running.emplace_back([&, thread] {
            for (int i = thread; !isOver; ++i) {
                int const user = 1 + i % users;
                i % 3 == 0 ? findOnce(lookup, tally, user)
                           : verifyOnce(lookup, tally, user, i % 3 == 1);
            }
        });
    }
    awaitAnswers(100);
    first.kill();
    awaitAnswers(100);
    first.restart();
    awaitAnswers(100);
    first.pause();
    awaitAnswers(100);
    first.resume();
    second.pause();
    awaitAnswers(100);
    first.kill();
    second.resume();
    awaitAnswers(100);
    second.kill();
    first.restart();
    awaitAnswers(100);
    isOver = true;
    for (std::thread& thread : running) {
        thread.join();
    }

    EXPECT_EQ(tally.wrong, 0);
    EXPECT_GT(tally.accepted, 0);
    EXPECT_GT(tally.denied, 0);
    EXPECT_GT(tally.found, 0);
}

} // namespace SolvaneTest
