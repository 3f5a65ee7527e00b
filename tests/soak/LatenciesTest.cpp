// The histogram's shares and its resolution.
#include "Latencies.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using std::chrono::microseconds;
using std::chrono::milliseconds;
using testing::DoubleNear;

namespace SolvaneTest {

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
