// Reads service.conf and the maps.
#include "ServiceSettings.h"

#include "Files.h"
#include "SettingValues.h"
#include "SettingsFile.h"
#include "Text.h"

#include <solvane/ldap/LDAPException.h>

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <set>
#include <string_view>
#include <utility>

namespace Solvane::Service {

namespace {

using Tool::Failure;
using Tool::Outcome;
using Faults = std::vector<Failure>;

[[noreturn]] void refuse(std::string const& cause, std::string const& remedy)
{
    throw Failure(Outcome::usage, cause, remedy);
}

// Values

std::vector<Endpoint> endpointsIn(std::string const& text)
{
    std::vector<Endpoint> endpoints;
    for (std::string const& word : Tool::wordsIn(text)) {
        endpoints.push_back(Tool::endpointIn(word));
    }
    return endpoints;
}

mode_t modeIn(std::string const& text)
{
    bool const isOctal = !text.empty() && text.size() <= 4 &&
                         text.find_first_not_of("01234567") == std::string::npos;
    unsigned long const mode = isOctal ? std::stoul(text, nullptr, 8) : 01000;
    if (mode > 0777) {
        refuse(fmt::format("invalid mode '{}'", Tool::oneLine(text)), "write it as in 0660");
    }
    return static_cast<mode_t>(mode);
}

gid_t groupIn(std::string const& text)
{
    auto const found = Tool::groupNamed(text);
    if (!found) {
        refuse(fmt::format("there is no group '{}'", Tool::oneLine(text)),
               "create it, or name another");
    }
    return *found;
}

AuthSession::Trouble troubleIn(std::string const& text)
{
    if (text != "close" && text != "fail") {
        refuse(fmt::format("unsupported value '{}'", Tool::oneLine(text)), "choose close or fail");
    }
    return text == "fail" ? AuthSession::Trouble::fail : AuthSession::Trouble::close;
}

unsigned int countIn(std::string const& text) { return Tool::numberIn(text, 1, 1000000); }

std::string mapNameIn(std::string const& text)
{
    if (text.empty() || !Tool::isAlphanumeric(text, "-_.")) {
        refuse(fmt::format("invalid name of a map '{}'", Tool::oneLine(text)),
               "use letters, digits, '-', '_' and '.'");
    }
    return text;
}

// The table of service.conf

using Assignment = std::function<void(ServiceSettings&, std::string const&)>;

template <typename Value, typename Read>
Assignment storing(Value ServiceSettings::*member, Read read)
{
    return [member, read](ServiceSettings& settings, std::string const& text) {
        settings.*member = read(text);
    };
}

struct Row {
    std::string_view name;
    Assignment assign;
};

// clang-format off
std::vector<Row> const& table()
{
    using S = ServiceSettings;
    static std::vector<Row> const rows = {
        { "listen_socketmap",    storing(&S::socketmap, endpointsIn) },
        { "listen_auth",         storing(&S::auth, endpointsIn) },
        { "stats_socket",        storing(&S::stats, endpointsIn) },
        { "socket_mode",         [](S& s, std::string const& text) { s.access.mode = modeIn(text); } },
        { "socket_group",        [](S& s, std::string const& text) { s.access.group = groupIn(text); } },
        { "auth_map",            storing(&S::authMap, mapNameIn) },
        { "auth_trouble",        storing(&S::authTrouble, troubleIn) },
        { "auth_needs_tls",      storing(&S::authNeedsTls, Tool::booleanIn) },
        { "auth_failures",       storing(&S::authFailures, Tool::numberBetween(0, 1000000)) },
        { "auth_failures_time",  storing(&S::authFailuresTime, Tool::durationIn) },
        { "threads",             storing(&S::threads, Tool::numberBetween(1, 64)) },
        { "clients",             storing(&S::clients, countIn) },
        { "client_requests",     storing(&S::clientRequests, countIn) },
        { "idle_time",           storing(&S::idleTime, Tool::durationIn) },
        { "cache_time",          storing(&S::cacheTime, Tool::holdIn) },
        { "cache_negative_time", storing(&S::cacheNegativeTime, Tool::holdIn) },
        { "cache_entries",       storing(&S::cacheEntries, countIn) },
        { "stop_time",           storing(&S::stopTime, Tool::durationIn) },
        { "log_requests",        storing(&S::logsRequests, Tool::booleanIn) },
    };
    return rows;
}
// clang-format on

/// Calls `read`; what it throws becomes a fault.
template <typename Read> void collecting(Faults& faults, Read const& read)
{
    try {
        read();
    } catch (Failure const& failure) {
        faults.push_back(failure);
    }
}

void readService(std::string const& path, ServiceSettings& settings, Faults& faults)
{
    std::set<std::string_view> given;
    Tool::SettingLines lines(path);
    lines.read(
        [&](std::string_view name, std::string const& value) {
            auto const row = std::find_if(table().begin(), table().end(),
                                          [&](Row const& each) { return each.name == name; });
            if (row == table().end()) {
                refuse(fmt::format("unknown setting '{}'", Tool::oneLine(name)),
                       "solvane-ldapd(8) lists the names");
            }
            if (!given.insert(row->name).second) {
                refuse(fmt::format("{} is set twice", name), "remove one of the lines");
            }
            Tool::explainedBy(std::string(name), Outcome::configuration,
                              [&] { row->assign(settings, value); });
        },
        faults);
}

/// Values are returned by the name under which a server sends them: "*" has none, and an OID is sent
/// back as a name.
void requireNames(LDAPLookup::Settings const& lookup)
{
    for (auto const& [setting, attributes] :
         {std::pair("result_attribute", &lookup.attributes),
          std::pair("special_result_attribute", &lookup.specialResultAttributes),
          std::pair("leaf_result_attribute", &lookup.leafResultAttributes),
          std::pair("terminal_result_attribute", &lookup.terminalResultAttributes)}) {
        for (std::string const& attribute : *attributes) {
            if (!Tool::isAlphanumeric(attribute.substr(0, 1), "") ||
                std::isdigit(static_cast<unsigned char>(attribute.front())) != 0) {
                refuse(fmt::format("{}: '{}' is not the name of an attribute", setting,
                                   Tool::oneLine(attribute)),
                       "write the name under which the server returns it, such as uid");
            }
        }
    }
}

/// What a map needs besides valid settings.
void requireComplete(Tool::Draft const& draft, bool hasPassword, bool isForLogins)
{
    LDAPLookup::Settings const& lookup = draft.lookup;
    bool const isSimple = lookup.mechanism == Lookup::Mechanism::simple;
    for (char const* const name : {"server_host", "search_base", "query_filter"}) {
        if (!draft.has(name)) {
            refuse(fmt::format("{} is not set", name), "add it");
        }
    }
    bool const hasResults = !lookup.attributes.empty() || !lookup.leafResultAttributes.empty() ||
                            !lookup.terminalResultAttributes.empty();
    if (!hasResults && !isForLogins) {
        refuse("result_attribute is not set", "name the attributes whose values are returned");
    }
    requireNames(lookup);
    if (isSimple && !lookup.bindDn.empty() && !hasPassword) {
        refuse("bind_dn needs a password", "add bind_pw");
    }
    if (!isSimple && !lookup.bindDn.empty()) {
        refuse("a SASL bind has no DN", "remove bind_dn or sasl_mechanism");
    }
    if (isSimple && !lookup.authorizationId.empty()) {
        refuse("sasl_authz_id needs a SASL bind", "add sasl_mechanism");
    }
}

void readMap(std::filesystem::path const& path, MapSettings& map, std::string const& authMap,
             Faults& faults)
{
    map.name = mapNameIn(path.stem());
    std::size_t const before = faults.size();
    Tool::SettingsFile const file(path, Tool::Privacy::group, faults);
    if (faults.size() != before) {
        return;
    }
    Tool::Draft const& draft = file.draft();
    map.lookup = draft.lookup;
    map.lookup.servers = draft.serverList();
    bool const isBound = !map.lookup.bindDn.empty();
    requireComplete(draft, !file.password().isEmpty(), map.name == authMap);
    if (isBound) {
        map.lookup.password = file.password().text();
    }
    try {
        Lookup::validate(map.lookup);
    } catch (LDAPException const& fault) {
        refuse(fault.stringParameter(), "correct the settings");
    }
}

void readMaps(std::filesystem::path const& folder, Configuration& configuration, Faults& faults)
{
    std::error_code error;
    std::set<std::filesystem::path> paths; // in the order of their names
    for (auto entry = std::filesystem::directory_iterator(folder, error);
         !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        if (entry->path().extension() == ".conf") {
            paths.insert(entry->path());
        }
    }
    if (error) {
        throw Tool::unusableFile("the folder of maps", folder, error.value());
    }
    if (paths.empty()) {
        refuse(fmt::format("{} has no map", folder.string()), "write a file NAME.conf for each");
    }
    for (auto const& path : paths) {
        configuration.maps.emplace_back();
        collecting(faults, [&] {
            Tool::explainedBy(path, Outcome::configuration, [&] {
                readMap(path, configuration.maps.back(), configuration.service.authMap, faults);
            });
        });
    }
}

void requireAuthMap(Configuration const& configuration)
{
    ServiceSettings const& service = configuration.service;
    bool const isKnown =
        std::any_of(configuration.maps.begin(), configuration.maps.end(),
                    [&](MapSettings const& map) { return map.name == service.authMap; });
    if (service.authMap.empty() && !service.auth.empty()) {
        refuse("listen_auth needs a map for logins", "set auth_map");
    }
    if (!service.authMap.empty() && !isKnown) {
        refuse(fmt::format("auth_map: there is no map '{}'", service.authMap),
               "name one of the files in maps/, without .conf");
    }
}

} // namespace

MapSettings::~MapSettings() { Lookup::wipe(lookup.password); }

std::shared_ptr<Configuration const> readConfiguration(std::string const& folder,
                                                       std::vector<Tool::Failure>& faults)
{
    auto configuration = std::make_shared<Configuration>();
    std::filesystem::path const path(folder);
    std::string const service = path / "service.conf";
    collecting(faults, [&] { readService(service, configuration->service, faults); });
    collecting(faults, [&] { readMaps(path / "maps", *configuration, faults); });
    collecting(faults, [&] {
        Tool::explainedBy(service, Outcome::configuration, [&] { requireAuthMap(*configuration); });
    });
    return configuration;
}

std::vector<std::string> needingRestart(ServiceSettings const& running,
                                        ServiceSettings const& changed)
{
    auto const differ = [](std::vector<Endpoint> const& left, std::vector<Endpoint> const& right) {
        return !std::equal(left.begin(), left.end(), right.begin(), right.end(),
                           [](Endpoint const& one, Endpoint const& another) {
                               return one.text() == another.text();
                           });
    };
    std::vector<std::string> names;
    for (auto const& [name, differs] :
         {std::pair("listen_socketmap", differ(running.socketmap, changed.socketmap)),
          std::pair("listen_auth", differ(running.auth, changed.auth)),
          std::pair("stats_socket", differ(running.stats, changed.stats)),
          std::pair("socket_mode", running.access.mode != changed.access.mode),
          std::pair("socket_group", running.access.group != changed.access.group),
          std::pair("threads", running.threads != changed.threads)}) {
        if (differs) {
            names.emplace_back(name);
        }
    }
    return names;
}

} // namespace Solvane::Service
