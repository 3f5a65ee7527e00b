// Counts forks. Compiled into both libraries, each of which counts for itself.
#include "CurrentProcess.h"

#include <atomic>

#include <pthread.h>

namespace Solvane {

namespace {

std::atomic<unsigned long> g_forks{0};

void countFork() { g_forks.fetch_add(1, std::memory_order_relaxed); }

// At load time: a child forked while another thread initialises a function's static variable would wait for
// that thread for ever.
[[maybe_unused]] int const g_watching = pthread_atfork(nullptr, nullptr, countFork);

} // namespace

unsigned long currentProcess() { return g_forks.load(std::memory_order_relaxed); }

} // namespace Solvane
