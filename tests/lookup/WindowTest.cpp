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

} // namespace SolvaneTest
