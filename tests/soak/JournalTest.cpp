// Stretches, outages, and the shares of a histogram.
#include "Journal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::DoubleNear;

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

TEST(Latencies, AreExactWhereTheyAreShort)
{
    Latencies latencies;

    latencies.add(microseconds(40));

    EXPECT_DOUBLE_EQ(latencies.milliseconds(1), 0.041); // the end of the range
    EXPECT_EQ(latencies.count(), 1U);
}

TEST(Latencies, AreWithinAThirtysecondWhereTheyAreLong)
{
    for (int const length : {64, 100, 999, 1000, 65535, 65536, 5000000}) {
        Latencies latencies;

        latencies.add(microseconds(length));

        double const seen = latencies.milliseconds(1) * 1000;
        EXPECT_GT(seen, length);
        EXPECT_LE(seen, length * 33.0 / 32 + 1) << length;
    }
}

TEST(Latencies, TellTheShareThatIsDone)
{
    Latencies latencies;
    for (int count = 1; count <= 1000; ++count) {
        latencies.add(microseconds(count <= 990 ? 10 : 2000));
    }

    EXPECT_DOUBLE_EQ(latencies.milliseconds(0.5), 0.011);
    EXPECT_DOUBLE_EQ(latencies.milliseconds(0.99), 0.011);
    EXPECT_THAT(latencies.milliseconds(0.991), DoubleNear(2.0, 0.07));
}

TEST(Latencies, AddUp)
{
    Latencies one;
    Latencies other;
    one.add(microseconds(5));
    other.add(microseconds(5));
    other.add(milliseconds(3));

    one.add(other);

    EXPECT_EQ(one.count(), 3U);
    EXPECT_THAT(one.milliseconds(0.66), DoubleNear(0.005, 0.002));
    EXPECT_THAT(one.milliseconds(0.67), DoubleNear(3.0, 0.1));
}

TEST(Latencies, TakeWhatIsBeyondAllRanges)
{
    Latencies latencies;

    latencies.add(std::chrono::hours(24 * 365 * 100));

    EXPECT_EQ(latencies.count(), 1U);
    EXPECT_GT(latencies.milliseconds(1), 1e9);
}

} // namespace SolvaneTest
