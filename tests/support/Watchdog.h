// Ends a hanging test: the library must never hang.
#ifndef SOLVANE_TESTS_SUPPORT_WATCHDOG_H
#define SOLVANE_TESTS_SUPPORT_WATCHDOG_H

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace SolvaneTest {

/// Watches every test and every suite's set-up of a test program. If one takes longer than the
/// limit, the program prints its name and ends with SIGABRT, so that a debugger or a core file
/// shows where it hung.
class Watchdog : public testing::EmptyTestEventListener {
public:
    explicit Watchdog(std::chrono::seconds limit);
    ~Watchdog() override;

private:
    void OnTestSuiteStart(testing::TestSuite const& suite) override;
    void OnTestStart(testing::TestInfo const& test) override;
    void OnTestEnd(testing::TestInfo const& test) override;
    void OnTestSuiteEnd(testing::TestSuite const& suite) override;

    void watch(std::string const& what);
    void run();

    std::chrono::seconds const m_limit;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::string m_watched; ///< guarded by m_mutex; empty: nothing
    unsigned int m_turn;   ///< guarded by m_mutex; counts calls of watch()
    bool m_isDone;         ///< guarded by m_mutex
    std::thread m_thread;
};

} // namespace SolvaneTest

#endif
