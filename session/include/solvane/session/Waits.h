/// @file
/// What a caller waits for: descriptors, and a moment.
#ifndef SOLVANE_SESSION_WAITS_H
#define SOLVANE_SESSION_WAITS_H

#include <solvane/session/Export.h>
#include <solvane/session/Verdict.h>

#include <vector>

#include <poll.h>

namespace Solvane::Lookup {

/// Descriptors to poll, and when to go on at the latest. Filled anew before each wait, by all that
/// have something under way. Not thread-safe.
class SOLVANE_LOOKUP_EXPORT Waits {
public:
    /// Forgets all.
    void clear();
    /// Waits for `events` (POLLIN, POLLOUT) of a descriptor; -1 adds nothing.
    void add(int descriptor, short events);
    /// Waits until this moment at most; the earliest one counts.
    void until(Clock::time_point moment);

    /// Blocks until a descriptor is ready or the moment has come. A signal may end it early. Returns at
    /// once if there is nothing to wait for.
    void wait();

    /// What is polled; after `wait` with what happened.
    std::vector<pollfd>& descriptors() { return m_descriptors; }
    /// `Clock::time_point::max()` without a moment.
    Clock::time_point moment() const { return m_moment; }

private:
    std::vector<pollfd> m_descriptors;
    Clock::time_point m_moment = Clock::time_point::max();
};

} // namespace Solvane::Lookup

#endif
