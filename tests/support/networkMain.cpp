// Runs the tests under a watchdog.
#include "Watchdog.h"

#include <gtest/gtest.h>

#include <csignal>

int main(int argumentCount, char** arguments)
{
    testing::InitGoogleTest(&argumentCount, arguments);
    // The caller may have had it ignored; the tests are to die where the library raises it.
    std::signal(SIGPIPE, SIG_DFL);
    testing::UnitTest::GetInstance()->listeners().Append(
        new SolvaneTest::Watchdog(std::chrono::seconds(60)));
    return RUN_ALL_TESTS();
}
