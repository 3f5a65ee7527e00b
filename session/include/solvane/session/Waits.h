/// @file
/// What a caller waits for: descriptors and a time.
#ifndef SOLVANE_SESSION_WAITS_H
#define SOLVANE_SESSION_WAITS_H

#include <solvane/session/Export.h>
#include <solvane/session/Verdict.h>

#include <vector>

#include <poll.h>

namespace Solvane::Lookup {

/// Descriptors to poll, and the latest time to wake up. Cleared and filled before each wait by
/// everything that has work under way. Not thread-safe.
class SOLVANE_LOOKUP_EXPORT Waits {
public:
    /// Removes all descriptors and the time.
    void clear();
    /// Waits for `events` (POLLIN, POLLOUT) of a descriptor; -1 adds nothing.
    void add(int descriptor, short events);
    /// Waits at most until this time; the earliest of several calls counts.
    void until(Clock::time_point moment);

    /// Blocks until a descriptor is ready or the time has come. A signal may end it early. Returns
    /// at once if there is nothing to wait for.
    void wait();

    /// The descriptors to poll; after `wait` with their events.
    std::vector<pollfd>& descriptors() { return m_descriptors; }
    /// The time to wake up; `Clock::time_point::max()` if none is set.
    Clock::time_point moment() const { return m_moment; }

private:
    std::vector<pollfd> m_descriptors;
    Clock::time_point m_moment = Clock::time_point::max();
};

} // namespace Solvane::Lookup

#endif
