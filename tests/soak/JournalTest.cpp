// Stretches and outages.
#include "Journal.h"

#include <gtest/gtest.h>

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace SolvaneTest {

namespace {

Clock::time_point const start = Clock::time_point(seconds(1000));

long millisecondsOf(Clock::duration duration)
{
    return std::chrono::duration_cast<milliseconds>(duration).count();
}

} // namespace

TEST(SuccessTimes, TellTheLongStretchesBetweenThem)
{
    SuccessTimes times(start, seconds(1));
    for (int const moment : {50, 90, 400, 401, 450}) {
        times.add(start + milliseconds(moment));
    }

    auto const stretches = times.stretchesWithout(milliseconds(100), start + milliseconds(500));

    ASSERT_EQ(stretches.size(), 1U);
    EXPECT_EQ(millisecondsOf(stretches[0].from - start), 90);
    EXPECT_EQ(millisecondsOf(stretches[0].to - start), 400);
}

TEST(SuccessTimes, CountTheBeginningAndTheEnd)
{
    SuccessTimes times(start, seconds(1));
    times.add(start + milliseconds(300));

    auto const stretches = times.stretchesWithout(milliseconds(200), start + seconds(1));

    ASSERT_EQ(stretches.size(), 2U);
    EXPECT_EQ(millisecondsOf(stretches[0].to - stretches[0].from), 300);
    EXPECT_EQ(millisecondsOf(stretches[1].to - stretches[1].from), 700);
}

TEST(SuccessTimes, LeaveOutWhatIsBeyondTheirLength)
{
    SuccessTimes times(start, milliseconds(100));
    times.add(start - milliseconds(1));
    times.add(start + milliseconds(100));

    auto const stretches = times.stretchesWithout(milliseconds(50), start + milliseconds(100));

    EXPECT_EQ(stretches.size(), 1U);
}

TEST(Outages, LastFromTheFirstLookupThatFailedToTheOneThatDidNot)
{
    Outages outages(milliseconds(100));
    outages.asked(start);
    outages.asked(start + milliseconds(300)); // as the first one failed
    outages.answered(start + milliseconds(350));

    ASSERT_EQ(outages.spans().size(), 1U);
    EXPECT_EQ(millisecondsOf(outages.spans()[0].from - start), 0);
    EXPECT_EQ(millisecondsOf(outages.spans()[0].to - start), 350);
}

TEST(Outages, AreEmptyIfAnswersComeAtOnce)
{
    Outages outages(milliseconds(100));
    for (int second = 0; second != 5; ++second) {
        outages.asked(start + seconds(second));
        outages.answered(start + seconds(second) + milliseconds(80));
    }

    EXPECT_TRUE(outages.spans().empty());
}

TEST(Outages, DoNotCountTheTimeWithoutLookups)
{
    Outages outages(milliseconds(100));
    outages.asked(start);
    outages.paused();
    outages.asked(start + seconds(9));
    outages.answered(start + seconds(9) + milliseconds(1));

    EXPECT_TRUE(outages.spans().empty());
}

} // namespace SolvaneTest
