// Percentiles and bars of latencies.
#include "CheckReport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using Solvane::Tool::Histogram;
using testing::ElementsAre;

namespace {

Histogram of(std::initializer_list<double> measured)
{
    Histogram histogram;
    for (double const milliseconds : measured) {
        histogram.add(milliseconds);
    }
    return histogram;
}

} // namespace

TEST(HistogramOfOne, HasItAsEveryPercentile)
{
    Histogram const histogram = of({3});

    EXPECT_EQ(histogram.percentile(0), 3);
    EXPECT_EQ(histogram.percentile(50), 3);
    EXPECT_EQ(histogram.percentile(100), 3);
}

TEST(HistogramOfMany, TakesPercentilesFromTheMeasurements)
{
    Histogram histogram;
    for (int i = 100; i > 0; --i) {
        histogram.add(i);
    }

    EXPECT_EQ(histogram.percentile(0), 1);
    EXPECT_EQ(histogram.percentile(50), 50);
    EXPECT_EQ(histogram.percentile(99), 99);
    EXPECT_EQ(histogram.percentile(100), 100);
}

TEST(HistogramOfMany, TellsItsFigures)
{
    EXPECT_EQ(of({4, 1.25, 2, 0.76}).summary(), "min 0.8, p50 1.2, p99 4.0, max 4.0 ms");
}

TEST(HistogramBars, StandForTheRangesFromTheFirstToTheLastInUse)
{
    std::string const blanks(20, ' ');
    std::string const half(20, '#');

    auto const bars = of({1, 1.5, 7, 7}).bars();

    EXPECT_THAT(bars, ElementsAre("    < 2 ms  " + half + blanks + "  2",
                                  "    < 5 ms  " + blanks + blanks + "  0",
                                  "   < 10 ms  " + half + blanks + "  2"));
}

TEST(HistogramBars, AreSeenHoweverSmallTheirShare)
{
    Histogram histogram = of({9000});
    for (int i = 0; i < 1000; ++i) {
        histogram.add(4000);
    }

    auto const bars = histogram.bars();

    ASSERT_EQ(bars.size(), 2U);
    EXPECT_EQ(bars.back(), ">= 5000 ms  #" + std::string(39, ' ') + "  1");
}
