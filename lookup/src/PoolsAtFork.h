// Protects all pools of the process during a fork.
#ifndef SOLVANE_LOOKUP_SRC_POOLS_AT_FORK_H
#define SOLVANE_LOOKUP_SRC_POOLS_AT_FORK_H

#include <atomic>
#include <list>
#include <mutex>

namespace Solvane::Lookup {

class Pool;

/// Locks every engine and pool before a fork and unlocks it afterwards (`pthread_atfork`), so that no lock is
/// held by a thread that does not exist in the child; and notifies the pools of the child. Counts
/// forks for objects of one thread. Thread-safe.
class PoolsAtFork {
public:
    static PoolsAtFork& instance();

    void add(Pool& pool);
    void remove(Pool& pool);
    /// The mutex of an engine; no other mutex may be locked under it.
    void add(std::mutex& mutex);
    void remove(std::mutex& mutex);

    /// How many forks made this process what it is: changes in a child.
    static unsigned long births() { return instance().m_births; }
    /// How often this process has forked.
    static unsigned long forks() { return instance().m_forks; }

private:
    PoolsAtFork();

    static void lockAll();
    static void unlockAll();
    static void unlockAllInParent();
    static void unlockAllInChild();

    std::mutex m_mutex; ///< locked before the pools' mutexes
    std::list<Pool*> m_pools;
    std::list<std::mutex*> m_engines;
    std::atomic<unsigned long> m_births{0};
    std::atomic<unsigned long> m_forks{0};
};

} // namespace Solvane::Lookup

#endif
