// Counts forks. Compiled into both libraries, each of which counts for itself.
#include "CurrentProcess.h"

#include <atomic>
#include <new>

#include <pthread.h>

namespace Solvane {

namespace {

std::atomic<unsigned long> g_forks{0};

void countFork() { g_forks.fetch_add(1, std::memory_order_relaxed); }

bool watchForks()
{
    if (pthread_atfork(nullptr, nullptr, countFork) != 0) {
        throw std::bad_alloc(); // its only error; the next caller tries again
    }
    return true;
}

} // namespace

unsigned long currentProcess()
{
    static bool const isWatching = watchForks();
    static_cast<void>(isWatching);
    return g_forks.load(std::memory_order_relaxed);
}

} // namespace Solvane
