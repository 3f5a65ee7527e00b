// The window adapts to the server's limit of pending requests.
#include "Window.h"

#include <gtest/gtest.h>

using Solvane::Lookup::Window;

namespace SolvaneTest {

TEST(TheWindow, BeginsAtItsLongest)
{
    Window const window(32);

    EXPECT_EQ(window.limit(), 32U);
    EXPECT_FALSE(window.isNarrow());
}

TEST(TheWindow, IsHalvedWhenAConnectionThatAnsweredIsLost)
{
    Window window(128);

    window.lost(128, true);

    EXPECT_EQ(window.limit(), 64U);
}

TEST(TheWindow, BeginsAnewWhenAConnectionThatNeverAnsweredIsLost)
{
    Window window(128);

    window.lost(128, false);

    EXPECT_EQ(window.limit(), 1U);
}

TEST(TheWindow, StaysWhenASearchWasAlone)
{
    Window window(32);

    window.lost(1, false);

    EXPECT_EQ(window.limit(), 32U);
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

} // namespace SolvaneTest
