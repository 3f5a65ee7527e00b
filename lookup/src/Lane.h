// A session and the searches in flight on it.
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
    Clock::time_point begunAt; ///< when opening began
    Clock::time_point openBy;  ///< deadline for opening
    bool needsFlush = false;   ///< searches were queued since the last flush
    /// Not to be used again: more of an abandoned answer may arrive, or a bind failed strangely.
    bool isDoubtful = false;
    bool isLeaving = false;    ///< gets no more searches
    bool wasHeldUp = false;    ///< while opening, by what its owner did meanwhile
    Clock::duration heldUp{0}; ///< by the owner's loop, since its last call

    bool isOpen() const { return lease->isOpen; }
    /// Whether the task may be sent on this lane.
    bool suits(Task const& task) const;
    /// Whether the lane has room for one more search, with this window.
    bool hasRoom(std::size_t window) const;
    /// When the server will count as silent, unless bytes arrive before.
    Clock::time_point silentAt(Clock::duration limit) const;

    void add(Task& task);
    void remove(Task& task);
    /// The search to which a message belongs; null if it was abandoned.
    Task* find(int messageId) const;
    void waits(Waits& waits, Clock::duration silence) const;
    /// Returns the session to the pool, or closes it if more of an answer may arrive.
    void end();
};

} // namespace Solvane::Lookup

#endif
