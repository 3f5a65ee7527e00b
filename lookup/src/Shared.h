// The state shared by the pipelines of all threads.
#ifndef SOLVANE_LOOKUP_SRC_SHARED_H
#define SOLVANE_LOOKUP_SRC_SHARED_H

#include "KeyForms.h"
#include "Pool.h"

#include <solvane/lookup/QueryTemplate.h>
#include <solvane/lookup/Settings.h>

#include <atomic>

namespace Solvane::Lookup {

/// The settings, the objects prepared from them, and the pool. Thread-safe.
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
