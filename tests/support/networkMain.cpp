// Runs the tests under a watchdog.
#include "Watchdog.h"

#include <gtest/gtest.h>

#include <csignal>

int main(int argumentCount, char** arguments)
{
    testing::InitGoogleTest(&argumentCount, arguments);
    // The parent process may ignore it; here a SIGPIPE raised by the library must end the tests.
    std::signal(SIGPIPE, SIG_DFL);
    testing::UnitTest::GetInstance()->listeners().Append(
        new SolvaneTest::Watchdog(std::chrono::seconds(60)));
    return RUN_ALL_TESTS();
}
