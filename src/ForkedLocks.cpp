// Takes all locks around each fork.
#include "ForkedLocks.h"

#include <new>
#include <vector>

#include <pthread.h>

namespace Solvane {

namespace {

struct Registry {
    std::mutex mutex;
    std::vector<std::mutex*> locks; // guarded by mutex
};

/// Never destroyed: the process may fork during static destruction.
Registry& registry()
{
    static Registry& everyLock = *new Registry;
    return everyLock;
}

void lockAll()
{
    registry().mutex.lock();
    for (std::mutex* const lock : registry().locks) {
        lock->lock();
    }
}

void unlockAll()
{
    for (std::mutex* const lock : registry().locks) {
        lock->unlock();
    }
    registry().mutex.unlock();
}

bool watchForks()
{
    if (pthread_atfork(lockAll, unlockAll, unlockAll) != 0) {
        throw std::bad_alloc(); // the only way in which it fails
    }
    return true;
}

} // namespace

void keepFreeOverForks(std::mutex& lock)
{
    static bool const isWatching = watchForks();
    static_cast<void>(isWatching);
    std::lock_guard<std::mutex> const guard(registry().mutex);
    registry().locks.push_back(&lock);
}

} // namespace Solvane
