// The state shared by the pipelines of all threads.
#ifndef SOLVANE_LOOKUP_SRC_SHARED_H
#define SOLVANE_LOOKUP_SRC_SHARED_H

#include "KeyForms.h"
#include "Pool.h"

#include <solvane/lookup/QueryTemplate.h>
#include <solvane/lookup/Settings.h>

#include <atomic>
#include <memory>

namespace Solvane::Lookup {

/// The settings, the objects prepared from them, and the pool. Thread-safe.
struct Shared {
    explicit Shared(Settings const& given);

private:
    /// Without `logins`.
    /// @param tls  of another pool; null: its own
    Shared(Settings const& given, std::shared_ptr<TlsContext> const& tls);

public:
    Settings const settings;
    QueryTemplate const queryTemplate;
    KeyForms const forms;
    SearchRequest const request;
    SearchRequest const entryRequest; ///< for the DN alone, and whether there are several
    Pool pool;
    std::unique_ptr<Shared> logins; ///< of the connections on which users bind; null in itself
    std::atomic<unsigned long> reused{0};
    std::atomic<unsigned long> repeated{0};
};

} // namespace Solvane::Lookup

#endif
