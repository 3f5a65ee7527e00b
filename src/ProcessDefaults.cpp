// The one mutex, and its handlers at a fork.
#include "ProcessDefaults.h"

#include <pthread.h>

namespace Solvane {

namespace {

std::mutex g_mutex; // initialised at compile time, and without a destructor that does anything

void lock() { g_mutex.lock(); }
void unlock() { g_mutex.unlock(); }

} // namespace

std::mutex& processDefaults()
{
    // Fails without memory only; then a child may find the mutex locked.
    static int const isWatching = pthread_atfork(lock, unlock, unlock);
    static_cast<void>(isWatching);
    return g_mutex;
}

} // namespace Solvane
