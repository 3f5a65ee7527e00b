// Servers: every transition of a server's state once, by name, and its times; and the failures of
// several servers combined into one outcome.
#include "ServerHealth.h"
#include "Failover.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tuple>

using namespace Solvane::Lookup;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace SolvaneTest {

namespace {

using State = ServerHealth::State;
using Event = ServerHealth::Event;
using Action = ServerHealth::Action;

struct Row {
    char const* name;
    State state;
    Event event;
    State next;
    Action action;
};

// clang-format off
Row const rows[] = {
    { "UpClaimed",            State::up,         Event::claimed,    State::up,         Action::none            },
    { "UpAbandoned",          State::up,         Event::abandoned,  State::up,         Action::none            },
    { "UpConnected",          State::up,         Event::connected,  State::up,         Action::none            },
    { "UpProved",             State::up,         Event::proved,     State::up,         Action::forget          },
    { "UpFailed",             State::up,         Event::failed,     State::backingOff, Action::backOff         },
    { "UpFellSilent",         State::up,         Event::fellSilent, State::backingOff, Action::backOffSilent   },
    { "BackingOffClaimed",    State::backingOff, Event::claimed,    State::onTrial,    Action::beginTrial      },
    { "BackingOffAbandoned",  State::backingOff, Event::abandoned,  State::backingOff, Action::none            },
    { "BackingOffConnected",  State::backingOff, Event::connected,  State::backingOff, Action::none            },
    { "BackingOffProved",     State::backingOff, Event::proved,     State::up,         Action::forget          },
    { "BackingOffFailed",     State::backingOff, Event::failed,     State::backingOff, Action::join            },
    { "BackingOffFellSilent", State::backingOff, Event::fellSilent, State::backingOff, Action::join            },
    { "OnTrialClaimed",       State::onTrial,    Event::claimed,    State::onTrial,    Action::beginTrial      },
    { "OnTrialAbandoned",     State::onTrial,    Event::abandoned,  State::backingOff, Action::endTrialUnknown },
    { "OnTrialConnected",     State::onTrial,    Event::connected,  State::onTrial,    Action::none            },
    { "OnTrialProved",        State::onTrial,    Event::proved,     State::up,         Action::forget          },
    { "OnTrialFailed",        State::onTrial,    Event::failed,     State::backingOff, Action::backOff         },
    { "OnTrialFellSilent",    State::onTrial,    Event::fellSilent, State::backingOff, Action::backOff         },
};
// clang-format on

Verdict const refused = {Outcome::TryLater, -1, "refused"};
constexpr milliseconds quick(1);
constexpr milliseconds slow(500);

Failure failure(std::size_t server, Outcome outcome, int code, bool isFinal = false)
{
    std::string const uri = "ldap://server" + std::to_string(server);
    Failure result;
    result.server = server;
    result.uri = uri;
    result.why = {outcome, code, uri + ": " + std::to_string(code)};
    result.isFinal = isFinal;
    return result;
}

} // namespace

class ServerStates : public testing::TestWithParam<Row> {};

TEST_P(ServerStates, Change)
{
    Row const& row = GetParam();

    auto const transition = ServerHealth::transition(row.state, row.event);

    EXPECT_EQ(transition.next, row.next);
    EXPECT_EQ(transition.action, row.action);
}

INSTANTIATE_TEST_SUITE_P(ByTable, ServerStates, testing::ValuesIn(rows),
                         [](testing::TestParamInfo<Row> const& row) {
                             return std::string(row.param.name);
                         });

TEST(ServerStatesTable, NamesEachTransitionOnce)
{
    std::set<std::pair<State, Event>> named;
    for (Row const& row : rows) {
        named.insert({row.state, row.event});
    }

    EXPECT_EQ(named.size(), std::size(rows));
    EXPECT_EQ(named.size(), std::size_t{ServerHealth::states} * ServerHealth::events);
}

class AServer : public testing::Test {
protected:
    ServerHealth health{{seconds(10), seconds(1), seconds(30)}};
    Clock::time_point const now = Clock::now();

    Clock::time_point in(milliseconds time) const { return now + time; }
};

TEST_F(AServer, IsUsedAtFirst)
{
    EXPECT_TRUE(health.isEligible(now));
    EXPECT_FALSE(health.claim(now));
    EXPECT_EQ(health.state(), State::up);
}

TEST_F(AServer, IsSkippedUntilItsBackOffExpires)
{
    health.unreachable(refused, slow, now);

    EXPECT_FALSE(health.isEligible(in(milliseconds(999))));
    EXPECT_TRUE(health.isEligible(in(milliseconds(1000))));
    EXPECT_EQ(health.why().text, "refused");
}

TEST_F(AServer, IsTriedByOneCaller)
{
    health.unreachable(refused, slow, now);
    auto const later = in(seconds(1));

    EXPECT_TRUE(health.claim(later));
    EXPECT_FALSE(health.isEligible(later));
    EXPECT_EQ(health.state(), State::onTrial);
}

TEST_F(AServer, IsTriedByTheNextCallerWhenTheTrialWasGivenUp)
{
    health.unreachable(refused, slow, now);
    auto const later = in(seconds(1));
    health.claim(later);

    health.abandon(later);

    EXPECT_TRUE(health.isEligible(later));
}

TEST_F(AServer, IsTriedByTheNextCallerWhenTheTrialNeverEnds)
{
    health.unreachable(refused, slow, now);
    health.claim(in(seconds(1)));

    EXPECT_FALSE(health.isEligible(in(milliseconds(10999))));
    EXPECT_TRUE(health.isEligible(in(seconds(11))));
}

TEST_F(AServer, BacksOffForTwiceAsLongAfterEachTrialUpToTheLongest)
{
    health.unreachable(refused, slow, now);
    auto time = now;
    std::vector<seconds> backOffs;

    for (int i = 0; i < 6; ++i) {
        backOffs.push_back(std::chrono::duration_cast<seconds>(health.retryAt() - time));
        time = health.retryAt();
        health.claim(time);
        health.unreachable(refused, slow, time);
    }

    EXPECT_THAT(backOffs, testing::ElementsAre(seconds(1), seconds(2), seconds(4), seconds(8),
                                               seconds(16), seconds(30)));
}

TEST_F(AServer, BeginsWithTheFirstBackOffAgainOnceItWasReached)
{
    health.unreachable(refused, slow, now);
    health.claim(in(seconds(1)));
    health.unreachable(refused, slow, in(seconds(1)));
    health.claim(in(seconds(3)));
    health.connected(in(seconds(3)));

    health.unreachable(refused, slow, in(seconds(4)));

    EXPECT_EQ(health.retryAt(), in(seconds(5)));
}

TEST_F(AServer, CountsCallersThatFailedTogetherAsOneFailure)
{
    health.unreachable(refused, slow, now);

    for (int i = 0; i < 5; ++i) {
        health.unreachable(refused, slow, in(milliseconds(i)));
    }

    EXPECT_EQ(health.retryAt(), in(seconds(1)));
}

TEST_F(AServer, StaysOnTrialUntilASearchIsAnsweredWhenItsSearchesFailed)
{
    health.searchFailed(refused, slow, now);
    health.claim(in(seconds(1)));

    health.connected(in(seconds(1)));
    EXPECT_EQ(health.state(), State::onTrial);
    health.answered(in(seconds(1)));

    EXPECT_EQ(health.state(), State::up);
    EXPECT_FALSE(health.awaitsAnswer());
}

TEST_F(AServer, BacksOffLongerAndLongerWhileItConnectsAndFailsItsSearches)
{
    health.searchFailed(refused, slow, now);
    health.claim(in(seconds(1)));
    health.connected(in(seconds(1)));

    health.searchFailed(refused, slow, in(seconds(1)));

    EXPECT_EQ(health.retryAt(), in(seconds(3)));
}

// The caller of the trial returns its session after another server has answered instead.
TEST_F(AServer, BacksOffLongerAlsoWhenTheTrialHadEndedBeforeItsSearchWasProvedToFail)
{
    health.searchFailed(refused, slow, now);
    health.claim(in(seconds(1)));
    health.abandon(in(seconds(1)));

    health.searchFailed(refused, slow, in(seconds(1)));

    EXPECT_EQ(health.retryAt(), in(seconds(3)));
}

TEST_F(AServer, FailsPromptlyWhenItKeptNoCallerWaiting)
{
    health.unreachable(refused, quick, now);

    EXPECT_TRUE(health.failsPromptly());
}

TEST_F(AServer, IsNotAskedAgainAtOnceForWhatItRefused)
{
    health.unreachable({Outcome::Refused, 48, "anonymous"}, quick, now);

    EXPECT_FALSE(health.failsPromptly());
}

TEST_F(AServer, IsHeldForAsLongAsIsAsked)
{
    health.hold({Outcome::Refused, 49, "wrong"}, seconds(60), now);

    EXPECT_FALSE(health.isEligible(in(milliseconds(59999))));
    EXPECT_TRUE(health.isEligible(in(seconds(60))));
    EXPECT_FALSE(health.failsPromptly());
}

TEST_F(AServer, MayBeTriedAnewAtOnceWhenItFellSilentAfterAnswers)
{
    health.fellSilent(refused, slow, now, now - seconds(10));

    EXPECT_TRUE(health.isRetryDue());
    EXPECT_TRUE(health.claim(now));
    EXPECT_FALSE(health.isRetryDue());
    EXPECT_EQ(health.trialEnd(), in(seconds(1)));
}

TEST_F(AServer, IsNotTriedAnewAtOnceWhenItNeverAnswered)
{
    health.fellSilent(refused, slow, now, Clock::time_point::min());

    EXPECT_FALSE(health.isRetryDue());
}

TEST_F(AServer, IsNotTriedAnewAtOnceASecondTimeWithoutAnAnswerBetween)
{
    health.fellSilent(refused, slow, now, now - seconds(10));
    health.claim(now);
    health.connected(now);

    health.fellSilent(refused, slow, in(seconds(1)), now - seconds(10));

    EXPECT_FALSE(health.isRetryDue());
    EXPECT_EQ(health.retryAt(), in(seconds(2)));
}

// Combining the failures of several servers into one outcome.

TEST(AKeyThatNoServerAnswered, IsMisconfiguredIfAllSaySo)
{
    auto const conclusion =
        conclude({failure(0, Outcome::Misconfigured, 32), failure(1, Outcome::Misconfigured, 32)});

    EXPECT_EQ(conclusion.verdict.outcome, Outcome::Misconfigured);
    EXPECT_EQ(conclusion.verdict.code, 32);
    EXPECT_EQ(conclusion.verdict.text, "ldap://server0: 32; ldap://server1: 32");
    EXPECT_EQ(conclusion.server, "ldap://server0");
}

TEST(AKeyThatNoServerAnswered, HasNoBaseOnlyIfAllSaySo)
{
    for (auto const& [one, another] : {std::pair(32, 2), std::pair(2, 32)}) {
        auto const conclusion = conclude(
            {failure(0, Outcome::Misconfigured, one), failure(1, Outcome::Misconfigured, another)});

        EXPECT_EQ(conclusion.verdict.outcome, Outcome::Misconfigured);
        EXPECT_EQ(conclusion.verdict.code, 2);
    }
}

TEST(AKeyThatNoServerAnswered, IsRefusedIfAllRefuse)
{
    auto const conclusion =
        conclude({failure(0, Outcome::Refused, 50), failure(1, Outcome::Refused, 53)});

    EXPECT_EQ(conclusion.verdict.outcome, Outcome::Refused);
    EXPECT_EQ(conclusion.verdict.code, 50);
}

TEST(AKeyThatNoServerAnswered, IsToBeTriedLaterIfTheyDiffer)
{
    auto const conclusion =
        conclude({failure(0, Outcome::Refused, 50), failure(1, Outcome::Misconfigured, 32)});

    EXPECT_EQ(conclusion.verdict.outcome, Outcome::TryLater);
}

TEST(AKeyThatNoServerAnswered, IsToBeTriedLaterIfOneCouldNotBeAsked)
{
    auto const conclusion =
        conclude({failure(0, Outcome::Misconfigured, 32), failure(1, Outcome::TryLater, -1)});

    EXPECT_EQ(conclusion.verdict.outcome, Outcome::TryLater);
    EXPECT_EQ(conclusion.verdict.code, -1);
    EXPECT_EQ(conclusion.server, "ldap://server1");
}

TEST(AKeyThatNoServerAnswered, IsRefusedIfTheCredentialsAreHeld)
{
    auto const conclusion =
        conclude({failure(0, Outcome::TryLater, -1), failure(1, Outcome::Refused, 49, true)});

    EXPECT_EQ(conclusion.verdict.outcome, Outcome::Refused);
    EXPECT_EQ(conclusion.verdict.code, 49);
}

TEST(AKeyThatNoServerAnswered, IsToBeTriedLaterIfNoneIsKnown)
{
    EXPECT_EQ(conclude({}).verdict.outcome, Outcome::TryLater);
}

} // namespace SolvaneTest
