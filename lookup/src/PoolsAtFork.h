// Protects all pools of the process during a fork.
#ifndef SOLVANE_LOOKUP_SRC_POOLS_AT_FORK_H
#define SOLVANE_LOOKUP_SRC_POOLS_AT_FORK_H

#include <list>
#include <mutex>

namespace Solvane::Lookup {

class Pool;

/// Locks every pool before a fork and unlocks it afterwards (`pthread_atfork`), so that no lock is
/// held by a thread that does not exist in the child; and notifies the pools of the child.
/// Thread-safe.
class PoolsAtFork {
public:
    static PoolsAtFork& instance();

    void add(Pool& pool);
    void remove(Pool& pool);

private:
    PoolsAtFork();

    static void lockAll();
    static void unlockAll();
    static void unlockAllInChild();

    std::mutex m_mutex; ///< locked before the pools' mutexes
    std::list<Pool*> m_pools;
};

} // namespace Solvane::Lookup

#endif
