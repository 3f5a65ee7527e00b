// Work in another thread, to find out whether it is blocked.
#ifndef SOLVANE_TESTS_UNIT_OTHER_THREAD_H
#define SOLVANE_TESTS_UNIT_OTHER_THREAD_H

#include <chrono>
#include <functional>
#include <future>
#include <list>

namespace SolvaneTest {

/// Runs work in threads of its own. Its destructor waits for all of them, so it must outlive what
/// may stand in their way.
class OtherThread {
public:
    /// True if `work` completes, false if it is still blocked after `limit`; it continues then.
    bool finishes(std::function<void()> const& work,
                  std::chrono::milliseconds limit = std::chrono::seconds(20))
    {
        m_running.push_back(std::async(std::launch::async, work));
        return m_running.back().wait_for(limit) == std::future_status::ready;
    }

    /// True when `work` is held up for a while.
    bool isHeldUp(std::function<void()> const& work)
    {
        return !finishes(work, std::chrono::milliseconds(50));
    }

private:
    std::list<std::future<void>> m_running;
};

} // namespace SolvaneTest

#endif
