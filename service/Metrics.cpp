// Writes the counts as text.
#include "Metrics.h"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>

namespace Solvane::Service {

namespace {

constexpr char prefix[] = "solvane_ldapd_";

/// The value of a label, in quotes.
std::string quoted(std::string const& value)
{
    std::string made = "\"";
    for (char const character : value) {
        if (character == '\n') {
            made += "\\n";
            continue;
        }
        if (character == '"' || character == '\\') {
            made += '\\';
        }
        made += character;
    }
    return made + '"';
}

void describe(std::string& text, char const* name, char const* type, char const* help)
{
    text += fmt::format("# HELP {0}{1} {3}\n# TYPE {0}{1} {2}\n", prefix, name, type, help);
}

template <typename Number>
void append(std::string& text, char const* name, std::string const& labels, Number value)
{
    text +=
        fmt::format("{}{}{} {}\n", prefix, name, labels.empty() ? "" : '{' + labels + '}', value);
}

template <typename Number>
void appendOne(std::string& text, char const* name, char const* type, char const* help,
               Number value)
{
    describe(text, name, type, help);
    append(text, name, "", value);
}

/// One metric of each server of each pool.
template <typename Value>
void appendServers(std::string& text, std::vector<PoolState> const& pools, char const* name,
                   char const* type, char const* help, Value value)
{
    describe(text, name, type, help);
    for (PoolState const& pool : pools) {
        for (auto const& server : pool.servers) {
            append(text, name,
                   fmt::format("pool={},server={}", quoted(pool.pool), quoted(server.uri)),
                   value(server));
        }
    }
}

void appendPools(std::string& text, std::vector<PoolState> const& pools)
{
    using Server = LDAPLookup::ServerStatistics;
    appendServers(text, pools, "server_up", "gauge", "Whether the server is used",
                  [](Server const& server) { return server.state == Server::State::up ? 1 : 0; });
    appendServers(text, pools, "server_backoff_seconds", "gauge",
                  "Time until a server that failed is tried again", [](Server const& server) {
                      return static_cast<double>(server.untilNextTry.count()) / 1000;
                  });
    appendServers(text, pools, "connections_idle", "gauge", "Connections that are idle",
                  [](Server const& server) { return server.idle; });
    appendServers(text, pools, "connections_in_use", "gauge", "Connections in use, or being opened",
                  [](Server const& server) { return server.inUse; });
    appendServers(text, pools, "connections_opened_total", "counter", "Connections opened",
                  [](Server const& server) { return server.opened; });
    appendServers(text, pools, "connections_failed_total", "counter",
                  "Connections that could not be opened",
                  [](Server const& server) { return server.failed; });
    appendServers(text, pools, "searches_answered_total", "counter", "Searches answered",
                  [](Server const& server) { return server.answered; });
    appendServers(text, pools, "searches_repeated_total", "counter",
                  "Searches that the server failed, sent again",
                  [](Server const& server) { return server.repeated; });
}

using MetricsByMap = std::map<std::string, std::shared_ptr<MapMetrics>>;

void appendRequests(std::string& text, MetricsByMap const& maps)
{
    describe(text, "requests_total", "counter", "Requests answered, by outcome");
    for (auto const& [map, metrics] : maps) {
        for (std::size_t i = 0; i < MapMetrics::outcomes; ++i) {
            auto const outcome = static_cast<Lookup::Outcome>(i);
            append(text, "requests_total",
                   fmt::format("map={},outcome=\"{}\"", quoted(map), Lookup::name(outcome)),
                   metrics->requests[i].load());
        }
    }
}

void appendMaps(std::string& text, MetricsByMap const& maps)
{
    struct Row {
        char const* name;
        char const* help;
        Counter MapMetrics::*member;
    };
    constexpr Row rows[] = {
        {"found_without_value_total", "Requests whose entry has no value",
         &MapMetrics::withoutValue},
        {"cache_hits_total", "Requests answered from the cache", &MapMetrics::cacheHits},
        {"shared_answers_total", "Requests answered with an equal one that was under way",
         &MapMetrics::shared},
    };
    for (Row const& row : rows) {
        describe(text, row.name, "counter", row.help);
        for (auto const& [map, metrics] : maps) {
            append(text, row.name, "map=" + quoted(map), (metrics.get()->*row.member).load());
        }
    }
    describe(text, "request_seconds", "histogram", "Time of lookups in the directory");
    for (auto const& [map, metrics] : maps) {
        metrics->latency.appendTo(text, std::string(prefix) + "request_seconds",
                                  "map=" + quoted(map));
    }
}

} // namespace

void LatencyHistogram::add(double milliseconds)
{
    auto const* const bound = std::lower_bound(bounds.begin(), bounds.end(), milliseconds / 1000);
    m_counts[static_cast<std::size_t>(bound - bounds.begin())].fetch_add(1);
    m_microseconds.fetch_add(static_cast<unsigned long>(std::lround(milliseconds * 1000)));
}

void LatencyHistogram::appendTo(std::string& text, std::string const& name,
                                std::string const& labels) const
{
    std::string const separator = labels.empty() ? "" : ",";
    std::string const braces = labels.empty() ? "" : '{' + labels + '}';
    unsigned long total = 0;
    for (std::size_t i = 0; i < bounds.size(); ++i) {
        total += m_counts[i].load();
        text += fmt::format("{}_bucket{{{}{}le=\"{}\"}} {}\n", name, labels, separator, bounds[i],
                            total);
    }
    total += m_counts.back().load();
    text += fmt::format("{}_bucket{{{}{}le=\"+Inf\"}} {}\n", name, labels, separator, total);
    text += fmt::format("{}_sum{} {:.6f}\n", name, braces,
                        static_cast<double>(m_microseconds.load()) / 1e6);
    text += fmt::format("{}_count{} {}\n", name, braces, total);
}

std::shared_ptr<MapMetrics> Metrics::map(std::string const& name)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    auto& metrics = m_maps[name];
    if (!metrics) {
        metrics = std::make_shared<MapMetrics>();
    }
    return metrics;
}

std::string Metrics::text(std::vector<PoolState> const& pools) const
{
    MetricsByMap const maps = [this] {
        std::lock_guard<std::mutex> const lock(m_mutex);
        return m_maps;
    }();
    std::string text;
    describe(text, "info", "gauge", "Version of the program");
    append(text, "info", "version=" + quoted(SOLVANE_SERVICE_VERSION), 1);
    appendOne(text, "start_time_seconds", "gauge", "When it started, in seconds since 1970",
              std::chrono::system_clock::to_time_t(started));
    appendOne(text, "clients", "gauge", "Connected clients", clients.load());
    appendOne(text, "clients_accepted_total", "counter", "Clients that connected", accepted.load());
    appendOne(text, "clients_turned_away_total", "counter",
              "Clients closed at once, as there were too many", turnedAway.load());
    appendOne(text, "protocol_errors_total", "counter", "Clients closed as they broke the protocol",
              broken.load());
    appendOne(text, "unknown_map_total", "counter", "Requests for maps that do not exist",
              unknownMaps.load());
    appendOne(text, "reloads_total", "counter", "Reloads of the settings", reloads.load());
    appendOne(text, "reloads_failed_total", "counter", "Reloads refused for invalid settings",
              failedReloads.load());
    appendRequests(text, maps);
    appendMaps(text, maps);
    describe(text, "logins_total", "counter", "Logins answered, by outcome");
    for (std::size_t i = 0; i < verifyOutcomes; ++i) {
        auto const outcome = static_cast<Lookup::VerifyOutcome>(i);
        append(text, "logins_total", fmt::format("outcome=\"{}\"", Lookup::name(outcome)),
               logins[i].load());
    }
    appendOne(text, "logins_limited_total", "counter",
              "Logins that were not tried, after too many failures", limitedLogins.load());
    describe(text, "login_seconds", "histogram", "Time of logins");
    loginLatency.appendTo(text, std::string(prefix) + "login_seconds", "");
    appendPools(text, pools);
    return text;
}

} // namespace Solvane::Service
