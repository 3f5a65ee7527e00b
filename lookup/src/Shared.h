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

/// The settings, the objects prepared from them, and the pool. Thread-safe.
struct Shared {
    /// @param counts  must outlive it
    /// @param before  that of the earlier settings; null: there are none
    Shared(Settings const& given, Totals& counts, Shared* before);

private:
    /// Without `logins`.
    /// @param tls  of another pool; null: its own
    Shared(Settings const& given, Totals& counts, std::shared_ptr<TlsContext> const& tls,
           Pool* before);

    OwnSettings m_ownSettings;

public:
    Settings const& settings;
    QueryTemplate const queryTemplate;
    KeyForms const forms;
    ResultRules const rules;
    SearchRequest const request;
    SearchRequest const entryRequest; ///< for the DN alone, and whether there are several
    Totals& totals;
    Pool pool;
    std::unique_ptr<Shared> logins; ///< of the connections on which users bind; null in itself
};

} // namespace Solvane::Lookup

#endif
