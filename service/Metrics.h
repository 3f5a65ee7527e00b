// The counts of the service, in Prometheus' text format.
#ifndef SOLVANE_SERVICE_METRICS_H
#define SOLVANE_SERVICE_METRICS_H

#include <solvane/lookup/LDAPLookup.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Solvane::Service {

/// A count that only grows. Thread-safe.
using Counter = std::atomic<unsigned long>;

/// How long requests took. Thread-safe.
class LatencyHistogram {
public:
    void add(double milliseconds);
    /// Appends the lines of one series.
    /// @param labels  as `map="users"`
    void appendTo(std::string& text, std::string const& name, std::string const& labels) const;

    /// Upper bounds of the buckets, in seconds.
    static constexpr std::array<double, 13> bounds = {
        0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 10};

private:
    std::array<Counter, bounds.size() + 1> m_counts{}; ///< the last one: above all bounds
    std::atomic<unsigned long> m_microseconds{0};
};

/// The counts of one map. Thread-safe.
struct MapMetrics {
    static constexpr std::size_t outcomes = 7; ///< values of `Lookup::Outcome`

    std::array<Counter, outcomes> requests{}; ///< by outcome
    Counter withoutValue{0};                  ///< found, but without a value
    Counter cacheHits{0};                     ///< answered from the cache
    Counter shared{0};                        ///< answered with an equal one under way
    LatencyHistogram latency;                 ///< of requests that asked the directory
};

/// The state of the servers of one pool of connections.
struct PoolState {
    std::string pool; ///< its name: that of its first map
    std::vector<LDAPLookup::ServerStatistics> servers;
};

/// All counts. Thread-safe.
class Metrics {
public:
    /// The counts of a map, which outlive a reload.
    std::shared_ptr<MapMetrics> map(std::string const& name);

    static constexpr std::size_t verifyOutcomes = 8; ///< values of `Lookup::VerifyOutcome`

    std::chrono::system_clock::time_point const started = std::chrono::system_clock::now();
    std::array<Counter, verifyOutcomes> logins{}; ///< by outcome
    Counter limitedLogins{0};                     ///< not tried, after too many failures
    LatencyHistogram loginLatency;
    std::atomic<long> clients{0}; ///< connected now
    Counter accepted{0};          ///< clients
    Counter turnedAway{0};        ///< clients, as there were too many
    Counter broken{0};            ///< connections closed as the client broke the protocol
    Counter unknownMaps{0};       ///< requests for maps that do not exist
    Counter reloads{0};           ///< with success
    Counter failedReloads{0};

    /// The text, with the state of the servers.
    std::string text(std::vector<PoolState> const& pools) const;

private:
    mutable std::mutex m_mutex;
    std::map<std::string, std::shared_ptr<MapMetrics>> m_maps; ///< guarded by m_mutex
};

} // namespace Solvane::Service

#endif
