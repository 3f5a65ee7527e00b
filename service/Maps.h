// The maps of one state of the settings, which all threads share.
#ifndef SOLVANE_SERVICE_MAPS_H
#define SOLVANE_SERVICE_MAPS_H

#include "Metrics.h"
#include "ServiceSettings.h"

#include <solvane/lookup/LDAPLookup.h>

#include <list>
#include <memory>
#include <string>
#include <vector>

namespace Solvane::Service {

/// A map: a search, on a pool of connections that it may share with other maps.
struct Map {
    MapSettings const& settings;
    LDAPLookup lookup;
    std::shared_ptr<MapMetrics> metrics;
    bool hasOwnPool; ///< no earlier map has the same
};

/// Makes an engine for each map; those with the same servers and identity share one pool. After a
/// reload, maps also share the pools of the maps before, so that there are never more connections
/// than the settings say; except with TLS, whose files are to be read anew. Thread-safe once made.
class Maps {
public:
    /// @param observer  is told what happens to servers
    /// @param before    the maps in use; null: there are none
    /// @throws LDAPException  invalid settings
    Maps(std::shared_ptr<Configuration const> configuration, Metrics& metrics,
         std::shared_ptr<Lookup::Observer> const& observer, Maps const* before);
    Maps(Maps const&) = delete;
    Maps& operator=(Maps const&) = delete;

    std::list<Map>& all() { return m_maps; }
    ServiceSettings const& service() const { return m_configuration->service; }
    /// The servers of each pool; logins have one of their own.
    std::vector<PoolState> pools() const;

private:
    LDAPLookup const* sharedBy(LDAPLookup::Settings const& settings) const;

    std::shared_ptr<Configuration const> const m_configuration;
    std::list<Map> m_maps;
};

} // namespace Solvane::Service

#endif
