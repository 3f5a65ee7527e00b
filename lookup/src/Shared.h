// The state shared by the pipelines of all threads.
#ifndef SOLVANE_LOOKUP_SRC_SHARED_H
#define SOLVANE_LOOKUP_SRC_SHARED_H

#include "Counters.h"
#include "KeyForms.h"
#include "Pool.h"

#include <solvane/lookup/QueryTemplate.h>
#include <solvane/lookup/Settings.h>

namespace Solvane::Lookup {

/// The settings, the objects prepared from them, and the pool. Thread-safe.
struct Shared {
    /// @param counts  must outlive it
    Shared(Settings const& given, Totals& counts);

    Settings const settings;
    QueryTemplate const queryTemplate;
    KeyForms const forms;
    SearchRequest const request;
    Totals& totals;
    Pool pool;
};

} // namespace Solvane::Lookup

#endif
