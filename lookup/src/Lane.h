// A session with the searches that are in flight on it.
#ifndef SOLVANE_LOOKUP_SRC_LANE_H
#define SOLVANE_LOOKUP_SRC_LANE_H

#include "Pool.h"
#include "Task.h"

#include <solvane/session/Waits.h>

#include <vector>

namespace Solvane::Lookup {

/// One session of a pipeline, being opened or open.
struct Lane {
    explicit Lane(Pool::Lease taken) : lease(std::move(taken)), server(&lease->server) {}

    Pool::Lease lease;
    ServerRecord* server;
    std::vector<Task*> tasks;  ///< searches in flight, in the order of sending
    Clock::time_point begunAt; ///< opening
    Clock::time_point openBy;  ///< opening has to end
    bool needsFlush = false;   ///< searches were sent since the last flush
    bool hasAbandoned = false; ///< a search; the rest of its answer may still come
    bool isLeaving = false;    ///< gets no more searches
    bool wasHeldUp = false;    ///< while opening, by what its owner did meanwhile

    bool isOpen() const { return lease->isOpen; }
    /// Whether the task may be asked here at all.
    bool suits(Task const& task) const;
    /// Whether it takes one more search, of a window of so many.
    bool hasRoom(std::size_t window) const;
    /// When it has kept its oldest search waiting for so long that the server counts as silent.
    Clock::time_point silentAt(Clock::duration limit) const;

    void add(Task& task);
    void remove(Task& task);
    /// The search that a message belongs to; null if it was abandoned.
    Task* find(int messageId) const;
    void waits(Waits& waits, Clock::duration silence) const;
    /// Returns the session to the pool, or closes it if more of an answer may come.
    void end();
};

} // namespace Solvane::Lookup

#endif
