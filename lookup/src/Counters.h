// Counts that outlive a change of the settings.
#ifndef SOLVANE_LOOKUP_SRC_COUNTERS_H
#define SOLVANE_LOOKUP_SRC_COUNTERS_H

#include <atomic>
#include <cstdint>

namespace Solvane::Lookup {

/// `LDAPLookup::Statistics`, as threads count it.
struct Totals {
    std::atomic<unsigned long> opened{0};
    std::atomic<unsigned long> reused{0};
    std::atomic<unsigned long> stale{0};
    std::atomic<unsigned long> repeated{0};
    std::atomic<std::uint64_t> events{0}; ///< told to an observer
};

/// `ServerStatistics`, as threads count them.
struct ServerCounters {
    std::atomic<unsigned long> opened{0};
    std::atomic<unsigned long> failed{0};
    std::atomic<unsigned long> answered{0};
    std::atomic<unsigned long> repeated{0};
};

} // namespace Solvane::Lookup

#endif
