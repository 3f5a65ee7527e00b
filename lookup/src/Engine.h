// The state of an LDAPLookup.
#ifndef SOLVANE_LOOKUP_SRC_ENGINE_H
#define SOLVANE_LOOKUP_SRC_ENGINE_H

#include "Counters.h"
#include "Shared.h"

#include <solvane/ldap/RefCounted.h>

#include <atomic>
#include <memory>
#include <mutex>

namespace Solvane::Lookup {

/// @throws LDAPException  `haveSameConnections` is false
void requireSameConnections(Settings const& settings, Settings const& other);

/// The settings in use, and what outlives them. Each caller shares what it began with, so a change
/// does not touch keys in flight: earlier settings, with their pool and its connections, end with
/// their last user. Thread-safe.
class Engine : public NonCopyable {
public:
    /// @throws LDAPException  invalid settings
    explicit Engine(Settings const& settings);
    /// On the connections of another one.
    /// @throws LDAPException  invalid settings, or such that need other connections
    Engine(Settings const& settings, Engine const& other);
    ~Engine();

    /// The settings in use, with their pool.
    std::shared_ptr<Shared> current() const;
    /// Whether these settings are in use.
    bool isCurrent(Shared const& shared) const
    {
        return m_newest.load(std::memory_order_relaxed) == &shared;
    }
    /// Puts other settings into use.
    /// @throws LDAPException  invalid settings; nothing has changed
    void reconfigure(Settings const& settings);
    Totals const& totals() const { return *m_totals; }

private:
    std::shared_ptr<Totals> const m_totals;
    mutable std::mutex m_mutex;
    std::shared_ptr<Shared> m_current;   ///< guarded by m_mutex
    std::atomic<Shared const*> m_newest; ///< `m_current`, written under m_mutex
};

} // namespace Solvane::Lookup

#endif
