// Waits for an effect of another process or thread.
#ifndef SOLVANE_TESTS_SUPPORT_EVENTUALLY_H
#define SOLVANE_TESTS_SUPPORT_EVENTUALLY_H

#include <chrono>
#include <thread>

namespace SolvaneTest {

/// Returns true as soon as `condition` is true, false if it is still false after ten seconds.
template <typename Condition> bool eventually(Condition condition)
{
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

} // namespace SolvaneTest

#endif
