// The state of an LDAPLookup.
#ifndef SOLVANE_LOOKUP_SRC_ENGINE_H
#define SOLVANE_LOOKUP_SRC_ENGINE_H

#include "Counters.h"
#include "Shared.h"

#include <solvane/ldap/RefCounted.h>

#include <memory>

namespace Solvane::Lookup {

/// The settings in use, and what outlives them. Each caller owns a share of the settings that it
/// began with. Thread-safe.
class Engine : public NonCopyable {
public:
    /// @throws LDAPException  invalid settings
    explicit Engine(Settings const& settings);

    /// The settings in use, with their pool.
    std::shared_ptr<Shared> current() const { return m_current; }
    Totals const& totals() const { return m_totals; }

private:
    Totals m_totals;
    std::shared_ptr<Shared> m_current;
};

} // namespace Solvane::Lookup

#endif
