/// @file
/// State and counts of one server.
#ifndef SOLVANE_LOOKUP_SERVER_STATISTICS_H
#define SOLVANE_LOOKUP_SERVER_STATISTICS_H

#include <solvane/session/Verdict.h>

#include <chrono>
#include <cstddef>
#include <string>

namespace Solvane::Lookup {

/// State and counts of one server. A value. Counts go on when the settings change.
struct ServerStatistics {
    /// Whether lookups use it.
    enum class State {
        up,         ///< it is used
        backingOff, ///< it has failed, and is skipped for `untilNextTry`
        onTrial,    ///< it has failed, and one caller tries it
    };
    std::string uri;                           ///< with the host as configured
    State state = State::up;                   ///< whether lookups use it
    std::chrono::milliseconds untilNextTry{0}; ///< until its back-off ends
    Verdict lastFailure;                       ///< cause of its last failure; good if none
    std::size_t idle = 0;                      ///< connections idle now
    std::size_t inUse = 0;                     ///< connections in use, or being opened
    unsigned long opened = 0;                  ///< connections opened and bound
    unsigned long failed = 0;                  ///< connections that could not be opened
    unsigned long answered = 0;                ///< searches answered with success
    unsigned long repeated = 0;                ///< searches that it failed, sent again
};

} // namespace Solvane::Lookup

#endif
