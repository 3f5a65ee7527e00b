// The fork handlers.
#include "PoolsAtFork.h"

#include "Pool.h"

#include <pthread.h>

namespace Solvane::Lookup {

namespace {

// Made at load time: not by a thread that a child may lack.
[[maybe_unused]] PoolsAtFork const& g_atLoad = PoolsAtFork::instance();

} // namespace

/// Never destroyed: the process may fork during static destruction.
PoolsAtFork& PoolsAtFork::instance()
{
    static auto* const registry = new PoolsAtFork;
    return *registry;
}

PoolsAtFork::PoolsAtFork() { (void)pthread_atfork(lockAll, unlockAllInParent, unlockAllInChild); }

void PoolsAtFork::add(Pool& pool)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_pools.push_back(&pool);
}

void PoolsAtFork::remove(Pool& pool)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_pools.remove(&pool);
}

void PoolsAtFork::add(std::mutex& mutex)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_engines.push_back(&mutex);
}

void PoolsAtFork::remove(std::mutex& mutex)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_engines.remove(&mutex);
}

void PoolsAtFork::lockAll()
{
    PoolsAtFork& registry = instance();
    registry.m_mutex.lock();
    for (Pool* const pool : registry.m_pools) {
        pool->m_mutex.lock();
    }
    for (std::mutex* const engine : registry.m_engines) {
        engine->lock(); // cppcheck-suppress localMutex  // unlocked by unlockAll
    }
}

void PoolsAtFork::unlockAll()
{
    PoolsAtFork& registry = instance();
    for (std::mutex* const engine : registry.m_engines) {
        engine->unlock();
    }
    for (Pool* const pool : registry.m_pools) {
        pool->m_mutex.unlock();
    }
    registry.m_mutex.unlock();
}

void PoolsAtFork::unlockAllInParent()
{
    ++instance().m_forks;
    unlockAll();
}

void PoolsAtFork::unlockAllInChild()
{
    ++instance().m_births;
    for (Pool* const pool : instance().m_pools) {
        ++pool->m_process;
    }
    unlockAll();
}

} // namespace Solvane::Lookup
