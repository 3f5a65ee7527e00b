// A count that children raise.
#include "Forks.h"

#include <pthread.h>

namespace Solvane::Lookup {

std::atomic<unsigned long> Forks::s_count{0};

unsigned long Forks::count()
{
    static bool const isCounting = pthread_atfork(nullptr, nullptr, counted) == 0;
    static_cast<void>(isCounting);
    return s_count.load(std::memory_order_relaxed);
}

void Forks::counted() { s_count.fetch_add(1, std::memory_order_relaxed); }

} // namespace Solvane::Lookup
