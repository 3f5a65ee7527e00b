// The shared state of one server.
#ifndef SOLVANE_LOOKUP_SRC_SERVER_RECORD_H
#define SOLVANE_LOOKUP_SRC_SERVER_RECORD_H

#include "Counters.h"
#include "ServerHealth.h"
#include "Window.h"

#include <solvane/lookup/Settings.h>

#include <solvane/session/Address.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace Solvane::Lookup {

/// One server of the list. Its address is stable, so sessions refer to it.
struct ServerRecord {
    ServerRecord(std::size_t number, Server const& server, std::string uriText,
                 ServerHealth::Limits const& limits, std::size_t longestWindow)
        : index(number), settings(server), uri(std::move(uriText)), windowLimit(longestWindow),
          health(limits), window(longestWindow)
    {
    }

    std::size_t const index; ///< in order of preference
    Server const settings;
    std::string const uri; ///< with the host as configured

    // Accessed without a lock, for each answer.
    std::atomic<Clock::rep> heardAt{Clock::time_point::min().time_since_epoch().count()};
    std::atomic<Clock::rep> answeredAt{Clock::time_point::min().time_since_epoch().count()};
    std::atomic<std::size_t> windowLimit;    ///< `window.limit()`
    std::atomic<bool> awaitsAnswer{false};   ///< `health.awaitsAnswer()`
    std::atomic<bool> isWindowNarrow{false}; ///< `window.isNarrow()`

    std::shared_ptr<ServerCounters> counters; ///< shared with records of other settings

    // Guarded by the pool's mutex.
    ServerHealth health;
    unsigned long toldBackOffs = 0; ///< to the observer
    bool isToldDown = false;        ///< and not told that it recovered
    std::size_t inUse = 0;          ///< sessions in use and being opened
    Window window;
    std::vector<Address> addresses; ///< of the host, once resolved; cleared when the server fails
    Clock::time_point openedAt = Clock::time_point::min(); ///< of the last session
};

/// Takes a moment unless a later one is there: threads come in any order.
inline void storeLatest(std::atomic<Clock::rep>& to, Clock::time_point moment)
{
    Clock::rep const latest = moment.time_since_epoch().count();
    Clock::rep known = to.load(std::memory_order_relaxed);
    while (known < latest && !to.compare_exchange_weak(known, latest, std::memory_order_relaxed)) {
    }
}

inline Clock::time_point load(std::atomic<Clock::rep> const& from)
{
    return Clock::time_point(Clock::duration(from.load(std::memory_order_relaxed)));
}

} // namespace Solvane::Lookup

#endif
