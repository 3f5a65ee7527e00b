// A lock that callers share, and that a fork takes for itself.
#include "SaslAtFork.h"

#include <pthread.h>

namespace Solvane::Lookup {

namespace {

// Initialised at compile time. A fork goes before new callers, or it might wait for ever.
pthread_rwlock_t g_lock = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;

void lock() { pthread_rwlock_wrlock(&g_lock); }
void unlock() { pthread_rwlock_unlock(&g_lock); }
/// The lock belongs to a thread id that the child does not have: it starts with a new one.
void renew()
{
    constexpr pthread_rwlock_t unlocked = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
    g_lock = unlocked;
}

[[maybe_unused]] int const g_watching = pthread_atfork(lock, unlock, renew);

} // namespace

SaslAtFork::Guard::Guard() { pthread_rwlock_rdlock(&g_lock); }
SaslAtFork::Guard::~Guard() { unlock(); }

} // namespace Solvane::Lookup
