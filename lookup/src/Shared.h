// The state shared by the pipelines of all threads.
#ifndef SOLVANE_LOOKUP_SRC_SHARED_H
#define SOLVANE_LOOKUP_SRC_SHARED_H

#include "Counters.h"
#include "KeyForms.h"
#include "Pool.h"

#include <solvane/lookup/QueryTemplate.h>
#include <solvane/lookup/Settings.h>

#include <memory>

namespace Solvane::Lookup {

/// The settings, the objects prepared from them, and the pool. Thread-safe.
struct Shared {
    /// @param counts  must outlive it
    Shared(Settings const& given, Totals& counts);

private:
    /// Without `logins`.
    /// @param tls  of another pool; null: its own
    Shared(Settings const& given, Totals& counts, std::shared_ptr<TlsContext> const& tls);

public:
    Settings const settings;
    QueryTemplate const queryTemplate;
    KeyForms const forms;
    SearchRequest const request;
    SearchRequest const entryRequest; ///< for the DN alone, and whether there are several
    Totals& totals;
    Pool pool;
    std::unique_ptr<Shared> logins; ///< of the connections on which users bind; null in itself
};

} // namespace Solvane::Lookup

#endif
