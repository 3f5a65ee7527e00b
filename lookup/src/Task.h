// A key and the state of its lookup.
#ifndef SOLVANE_LOOKUP_SRC_TASK_H
#define SOLVANE_LOOKUP_SRC_TASK_H

#include "Expansion.h"
#include "Failover.h"
#include "Login.h"
#include "ServerRecord.h"

#include <solvane/lookup/Answer.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Solvane::Lookup {

struct Lane;

struct MemberSearch;

/// Waits for a lane, then is in flight on it, and is done when it has its answer. A key with
/// members is not done then: its expansion makes further tasks, which share its deadline.
struct Task {
    std::string key;
    std::unique_ptr<Login> login;           ///< its password is to be verified; null: a lookup
    std::unique_ptr<MemberSearch> member;   ///< searches this instead of the key
    std::unique_ptr<Expansion> expansion;   ///< of a key whose members are searched
    std::unique_ptr<SearchRequest> request; ///< with a base of its own; null: as for all keys
    std::uint64_t tag = 0;                  ///< the owner's name for it
    std::vector<std::string> forms;         ///< empty: only the key itself
    std::size_t form = 0;                   ///< index of the current form
    Clock::time_point start;
    Clock::time_point deadline;
    Answer answer;
    bool isDone = false;

    // The search in flight.
    Lane* lane = nullptr; ///< null: none
    int messageId = 0;
    Clock::time_point sentAt;
    std::size_t bytes = 0;    ///< of its entries, and of a key's members
    bool isReferred = false;  ///< the answer has references to other servers
    bool hasRanges = false;   ///< attributes came in part
    bool wasOnProven = false; ///< its session had answered a search before

    // Earlier attempts.
    std::vector<Failure> failures;         ///< servers that must not be asked again
    ServerRecord const* brokeOn = nullptr; ///< the server whose connection broke last
    Clock::time_point brokeAt;
    ServerRecord const* lostOn =
        nullptr;              ///< already repeated there once; the next loss is the search's fault
    bool hasReopened = false; ///< a new session to a load-balanced address was already tried

    /// Whether nothing was tried for it yet.
    bool isFresh() const { return failures.empty() && brokeOn == nullptr; }
    /// URI of the server that has to be asked as long as it is up; null: any.
    std::string const* preference() const
    {
        bool const hasOne = login != nullptr && failures.empty() && !login->server.empty();
        return hasOne ? &login->server : nullptr;
    }
    /// Whether the pool treats both alike.
    bool isLike(Task const& other) const
    {
        std::string const* const mine = preference();
        std::string const* const its = other.preference();
        return (mine == nullptr || its == nullptr ? mine == its : *mine == *its) &&
               brokeOn == other.brokeOn &&
               std::equal(failures.begin(), failures.end(), other.failures.begin(),
                          other.failures.end(), [](Failure const& one, Failure const& another) {
                              return one.server == another.server;
                          });
    }
    std::string const& text() const { return forms.empty() ? key : forms[form]; }
};

/// What a task searches on behalf of a key.
struct MemberSearch {
    Task& key;
    Expansion::Search search;
    bool isMissing = false; ///< the server has no such entry
};

} // namespace Solvane::Lookup

#endif
