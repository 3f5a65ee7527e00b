// Counts that outlive a change of the settings.
#ifndef SOLVANE_LOOKUP_SRC_COUNTERS_H
#define SOLVANE_LOOKUP_SRC_COUNTERS_H

#include <atomic>

namespace Solvane::Lookup {

/// `LDAPLookup::Statistics`, as threads count it.
struct Totals {
    std::atomic<unsigned long> opened{0};
    std::atomic<unsigned long> reused{0};
    std::atomic<unsigned long> stale{0};
    std::atomic<unsigned long> repeated{0};
};

} // namespace Solvane::Lookup

#endif
