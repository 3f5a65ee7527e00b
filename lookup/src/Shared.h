// What the runs of all threads share.
#ifndef SOLVANE_LOOKUP_SRC_SHARED_H
#define SOLVANE_LOOKUP_SRC_SHARED_H

#include "KeyForms.h"
#include "Pool.h"

#include <solvane/lookup/QueryTemplate.h>
#include <solvane/lookup/Settings.h>

#include <atomic>

namespace Solvane::Lookup {

/// Settings, what was prepared from them once, and the pool. Thread-safe.
struct Shared {
    explicit Shared(Settings const& given);

    Settings const settings;
    QueryTemplate const queryTemplate;
    KeyForms const forms;
    SearchRequest const request;
    Pool pool;
    std::atomic<unsigned long> reused{0};
    std::atomic<unsigned long> repeated{0};
};

} // namespace Solvane::Lookup

#endif
