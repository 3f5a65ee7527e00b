// The settings of the service: service.conf, and a settings file for each map.
#ifndef SOLVANE_SERVICE_SERVICE_SETTINGS_H
#define SOLVANE_SERVICE_SERVICE_SETTINGS_H

#include "AuthSession.h"
#include "Listener.h"
#include "Outcome.h"

#include <solvane/lookup/LDAPLookup.h>

#include <chrono>
#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <vector>

namespace Solvane::Service {

/// The settings of service.conf.
struct ServiceSettings {
    std::vector<Endpoint> socketmap; ///< where mail servers ask for keys
    std::vector<Endpoint> auth;      ///< where they ask for logins
    std::vector<Endpoint> stats;     ///< where metrics are read
    SocketAccess access;             ///< to UNIX sockets
    std::string authMap;             ///< the map whose entries log in; empty: none
    AuthSession::Trouble authTrouble = AuthSession::Trouble::close;
    bool authNeedsTls = true;
    unsigned int authFailures =
        10; ///< of a user or an address within `authFailuresTime`; 0: no limit
    std::chrono::seconds authFailuresTime{300};
    unsigned int threads = 1;
    unsigned int clients = 1000;
    unsigned int clientRequests = 16;          ///< of one client at the same time
    std::chrono::seconds idleTime{300};        ///< until a client without requests is closed
    std::chrono::seconds cacheTime{0};         ///< for values; 0: not at all
    std::chrono::seconds cacheNegativeTime{0}; ///< for "not found"; 0: not at all
    unsigned int cacheEntries = 10000;         ///< of each map and thread
    std::chrono::seconds stopTime{20};         ///< for requests under way when the service stops
    bool logsRequests = false;
};

/// The settings of a map. The destructor overwrites the password.
struct MapSettings {
    MapSettings() = default;
    ~MapSettings();
    MapSettings(MapSettings const&) = delete;
    MapSettings& operator=(MapSettings const&) = delete;

    std::string name;
    LDAPLookup::Settings lookup;
};

/// All settings. Immutable once read.
struct Configuration {
    ServiceSettings service;
    std::list<MapSettings> maps; ///< in the order of their names
};

/// Reads FOLDER/service.conf and FOLDER/maps/*.conf.
/// @param faults  receives everything that is wrong, each with its file and line
/// @return what could be read; not to be used if there are faults
std::shared_ptr<Configuration const> readConfiguration(std::string const& folder,
                                                       std::vector<Tool::Failure>& faults);

/// The names of the settings that differ, of those that a running service cannot change.
std::vector<std::string> needingRestart(ServiceSettings const& running,
                                        ServiceSettings const& changed);

} // namespace Solvane::Service

#endif
