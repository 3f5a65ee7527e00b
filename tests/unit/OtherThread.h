// Work done by another thread, to find out whether something stands in its way.
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
    /// True when `work` gets done, false when it is still held up after `limit`; it goes on then.
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
