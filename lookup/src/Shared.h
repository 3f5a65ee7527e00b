// The state shared by the pipelines of all threads.
#ifndef SOLVANE_LOOKUP_SRC_SHARED_H
#define SOLVANE_LOOKUP_SRC_SHARED_H

#include "Counters.h"
#include "KeyForms.h"
#include "Pool.h"
#include "ResultRules.h"

#include <solvane/lookup/QueryTemplate.h>
#include <solvane/lookup/Settings.h>
#include <solvane/session/PlainText.h>

#include <memory>
#include <utility>

namespace Solvane::Lookup {

/// A copy of settings, whose password is wiped at its end.
class OwnSettings : public NonCopyable {
public:
    explicit OwnSettings(Settings const& given) : m_settings(given) {}
    ~OwnSettings() { wipe(m_settings.password); }

    Settings const& get() const { return m_settings; }

private:
    Settings m_settings;
};

/// A pool, with what it refers to. Several lookups may share it. Thread-safe.
struct SharedPool : public NonCopyable {
    /// @param tls     of another pool; null: its own
    /// @param before  the pool of the earlier settings; null: there are none
    SharedPool(std::shared_ptr<OwnSettings const> given, std::shared_ptr<Totals> counts,
               std::shared_ptr<TlsContext> const& tls, Pool* before)
        : settings(std::move(given)), totals(std::move(counts)),
          pool(settings->get(), *totals, tls, before)
    {
    }

    std::shared_ptr<OwnSettings const> const settings;
    std::shared_ptr<Totals> const totals;
    Pool pool;
};

/// The settings, the objects prepared from them, and the pool. Thread-safe.
struct Shared {
    /// @param before  that of the earlier settings; null: there are none
    Shared(Settings const& given, std::shared_ptr<Totals> const& counts, Shared* before);
    /// On the connections of another one.
    /// @param given  differs from its settings only in what `haveSameConnections` allows
    Shared(Settings const& given, Shared const& other);

private:
    // Without `logins`.
    Shared(std::shared_ptr<OwnSettings const> const& own, std::shared_ptr<Totals> const& counts,
           std::shared_ptr<TlsContext> const& tls, Pool* before);
    Shared(std::shared_ptr<OwnSettings const> own, std::shared_ptr<SharedPool> shared);

    std::shared_ptr<OwnSettings const> const m_ownSettings;
    std::shared_ptr<SharedPool> const m_sharedPool;

public:
    Settings const& settings;
    QueryTemplate const queryTemplate;
    KeyForms const forms;
    std::unique_ptr<ResultFormat const> const baseFormat; ///< null if all keys have the same base
    ResultRules const rules;
    bool const needsParts; ///< some keys may lack a part that is inserted
    SearchRequest const request;
    SearchRequest const entryRequest; ///< for the DN alone, and whether there are several
    Totals& totals;
    Pool& pool;
    std::unique_ptr<Shared> logins; ///< of the connections on which users bind; null in itself
};

} // namespace Solvane::Lookup

#endif
