// The one mutex, its handlers at a fork, and what is initialised under it.
#include "ProcessDefaults.h"

#include "OpenLDAP.h"

#include <pthread.h>

namespace Solvane {

namespace {

std::mutex g_mutex; // initialised at compile time, and without a destructor that does anything

void lock() { g_mutex.lock(); }
void unlock() { g_mutex.unlock(); }

[[maybe_unused]] int const g_watching = pthread_atfork(lock, unlock, unlock);

} // namespace

std::mutex& processDefaults() { return g_mutex; }

void initializeTls()
{
    static bool isInitialized = false;
    if (!isInitialized) {
        isInitialized = ldap_pvt_tls_init(0) == 0; // with 0, as OpenLDAP does
    }
}

} // namespace Solvane
