// A key on its way to its answer.
#ifndef SOLVANE_LOOKUP_SRC_TASK_H
#define SOLVANE_LOOKUP_SRC_TASK_H

#include "Failover.h"
#include "ServerRecord.h"

#include <solvane/lookup/Answer.h>

#include <algorithm>
#include <string>
#include <vector>

namespace Solvane::Lookup {

struct Lane;

/// It waits for a lane, is in flight on one, and is done when it has its answer.
struct Task {
    std::string key;
    std::vector<std::string> forms; ///< empty: the key alone
    std::size_t form = 0;           ///< index of the one that is asked for
    Clock::time_point start;
    Clock::time_point deadline;
    Answer answer;
    bool isDone = false;

    // The search that is in flight.
    Lane* lane = nullptr; ///< null: none is
    int messageId = 0;
    Clock::time_point sentAt;
    std::size_t bytes = 0;    ///< of its entries
    bool isReferred = false;  ///< for a part of the base, to a server that is not asked
    bool wasOnProven = false; ///< its session had answered a search before

    // What was tried before.
    std::vector<Failure> failures;         ///< servers that are not asked again
    ServerRecord const* brokeOn = nullptr; ///< the server whose connection broke last
    Clock::time_point brokeAt;
    ServerRecord const* lostOn =
        nullptr;              ///< it was repeated there once, and would be its own fault
    bool hasReopened = false; ///< a session to one of several servers at an address was tried anew

    /// Whether nothing was tried for it yet.
    bool isFresh() const { return failures.empty() && brokeOn == nullptr; }
    /// Whether the pool treats both alike.
    bool isLike(Task const& other) const
    {
        return brokeOn == other.brokeOn &&
               std::equal(failures.begin(), failures.end(), other.failures.begin(),
                          other.failures.end(), [](Failure const& one, Failure const& another) {
                              return one.server == another.server;
                          });
    }
    std::string const& text() const { return forms.empty() ? key : forms[form]; }
};

} // namespace Solvane::Lookup

#endif
