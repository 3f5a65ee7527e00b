// Makes the engines of maps.
#include "Maps.h"

#include <solvane/session/PlainText.h>

#include <algorithm>
#include <utility>

namespace Solvane::Service {

namespace {

bool usesTls(LDAPLookup::Settings const& settings)
{
    return std::any_of(settings.servers.begin(), settings.servers.end(),
                       [](LDAPLookup::Server const& server) { return server.usesTls(); });
}

/// A copy of settings with an observer. The destructor overwrites its password.
class ObservedSettings {
public:
    ObservedSettings(LDAPLookup::Settings const& settings,
                     std::shared_ptr<Lookup::Observer> const& observer)
        : m_settings(settings)
    {
        m_settings.observer = observer;
    }
    ~ObservedSettings() { Lookup::wipe(m_settings.password); }
    ObservedSettings(ObservedSettings const&) = delete;
    ObservedSettings& operator=(ObservedSettings const&) = delete;

    LDAPLookup::Settings const& get() const { return m_settings; }

private:
    LDAPLookup::Settings m_settings;
};

} // namespace

Maps::Maps(std::shared_ptr<Configuration const> configuration, Metrics& metrics,
           std::shared_ptr<Lookup::Observer> const& observer, Maps const* before)
    : m_configuration(std::move(configuration))
{
    for (MapSettings const& map : m_configuration->maps) {
        LDAPLookup const* shared = sharedBy(map.lookup);
        bool const hasOwnPool = shared == nullptr;
        if (shared == nullptr && before != nullptr && !usesTls(map.lookup)) {
            shared = before->sharedBy(map.lookup);
        }
        ObservedSettings const settings(map.lookup, observer);
        m_maps.push_back(
            {map,
             shared == nullptr ? LDAPLookup(settings.get()) : LDAPLookup(settings.get(), *shared),
             metrics.map(map.name), hasOwnPool});
    }
}

/// The lookup of a map on whose connections these settings may be used; null if there is none.
LDAPLookup const* Maps::sharedBy(LDAPLookup::Settings const& settings) const
{
    auto const found = std::find_if(m_maps.begin(), m_maps.end(), [&](Map const& map) {
        return Lookup::haveSameConnections(map.settings.lookup, settings);
    });
    return found == m_maps.end() ? nullptr : &found->lookup;
}

std::vector<PoolState> Maps::pools() const
{
    std::vector<PoolState> pools;
    for (Map const& map : m_maps) {
        if (map.hasOwnPool) {
            pools.push_back({map.settings.name, map.lookup.servers()});
        }
        if (map.settings.name == service().authMap) {
            pools.push_back({map.settings.name + " (logins)", map.lookup.verifyServers()});
        }
    }
    return pools;
}

} // namespace Solvane::Service
