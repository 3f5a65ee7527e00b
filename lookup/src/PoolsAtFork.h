// All pools of the process, whose locks must not be held by another thread when it forks.
#ifndef SOLVANE_LOOKUP_SRC_POOLS_AT_FORK_H
#define SOLVANE_LOOKUP_SRC_POOLS_AT_FORK_H

#include <list>
#include <mutex>

namespace Solvane::Lookup {

class Pool;

/// Takes every pool's lock before a fork and releases it after (`pthread_atfork`), and tells the
/// pools of the child that they are in another process.
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

    std::mutex m_mutex; ///< taken before the pools' own
    std::list<Pool*> m_pools;
};

} // namespace Solvane::Lookup

#endif
