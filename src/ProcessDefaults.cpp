// The one mutex, and its handlers at a fork.
#include "ProcessDefaults.h"

#include <pthread.h>

namespace Solvane {

namespace {

std::mutex g_mutex; // initialised at compile time, and without a destructor that does anything

void lock() { g_mutex.lock(); }
void unlock() { g_mutex.unlock(); }

[[maybe_unused]] int const g_watching = pthread_atfork(lock, unlock, unlock);

} // namespace

std::mutex& processDefaults() { return g_mutex; }

} // namespace Solvane
