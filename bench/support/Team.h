// A pool of threads that do jobs together.
#ifndef SOLVANE_BENCH_TEAM_H
#define SOLVANE_BENCH_TEAM_H

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace SolvaneBench {

/// `size` threads, which sleep between jobs.
class Team {
public:
    /// The work of the thread with this number.
    using Job = std::function<void(unsigned int member)>;

    explicit Team(unsigned int size)
    {
        for (unsigned int member = 0; member < size; ++member) {
            m_threads.emplace_back([this, member] { serve(member); });
        }
    }
    Team(Team const&) = delete;
    Team& operator=(Team const&) = delete;
    ~Team()
    {
        announce(nullptr);
        for (std::thread& thread : m_threads) {
            thread.join();
        }
    }

    /// Makes every thread do its part; returns when all are done.
    void run(Job const& job)
    {
        announce(&job);
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_busy == 0; });
    }

private:
    void announce(Job const* job)
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_job = job;
        m_busy = m_threads.size();
        ++m_number;
        m_changed.notify_all();
    }

    void serve(unsigned int member)
    {
        for (unsigned long done = 0;; ++done) {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait(lock, [&] { return m_number > done; });
            Job const* const job = m_job;
            lock.unlock();
            if (job == nullptr) {
                return;
            }
            (*job)(member);
            lock.lock();
            if (--m_busy == 0) {
                m_changed.notify_all();
            }
        }
    }

    std::mutex m_mutex; // guards everything below except m_threads
    std::condition_variable m_changed;
    Job const* m_job = nullptr; ///< null: end
    unsigned long m_number = 0; ///< of jobs announced
    std::size_t m_busy = 0;     ///< members that have not done the last job
    std::vector<std::thread> m_threads;
};

} // namespace SolvaneBench

#endif
