/// @file
/// Lookups and verifications of passwords for programs with an event loop.
#ifndef SOLVANE_LOOKUP_LDAP_LOOKUP_QUEUE_H
#define SOLVANE_LOOKUP_LDAP_LOOKUP_QUEUE_H

#include <solvane/lookup/Answer.h>
#include <solvane/lookup/LDAPLookup.h>
#include <solvane/lookup/Verification.h>

#include <solvane/ldap/RefCounted.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace Solvane {

/// Looks up any number of keys and verifies any number of passwords at the same time, in one thread
/// that also does other work. No call blocks, except `next` if it is told to, and an identity by
/// Kerberos, which asks its KDC.
///
/// The caller polls one descriptor for input. When it is readable, the caller takes answers with
/// `next`, until there is none: `next` does all the network work. The queue uses the connections
/// of its `LDAPLookup` as `findAll` does: up to `connections`, with up to `window` searches in
/// flight on each; none while no key is under way; fewer while other callers wait for one. Binds
/// are sent on up to `verifyConnections`, one at a time on each. It has no thread of its own. Not
/// thread-safe: one thread at a time may use it.
///
/// In a forked child, the queue is empty: the keys are the parent's. Ask for its descriptor again,
/// which does not affect the parent's.
class SOLVANE_LOOKUP_EXPORT LDAPLookupQueue : public NonCopyable {
public:
    using Tag = std::uint64_t; ///< the caller's name for a key

    /// A key with its answer, or with the verification of its password.
    struct Result {
        Tag tag = 0;     ///< as submitted
        std::string key; ///< as submitted
        /// Its answer, if it came by `submit`; otherwise an empty one, with `TryLater`.
        Lookup::Answer answer;
        /// Set if it came by `submitVerify`.
        std::optional<Lookup::Verification> verification;
    };

    /// Contacts no server.
    /// @param lookup  whose settings, connections and servers it uses; it must outlive the queue,
    ///                and may be moved meanwhile
    /// @throws std::system_error  the process has no descriptor left; the queue needs three
    explicit LDAPLookupQueue(LDAPLookup& lookup);
    /// Gives up all keys and wipes their passwords; closes connections with requests in flight.
    ~LDAPLookupQueue();

    /// Adds a key and starts its deadline. Sends nothing: `descriptor` is readable, and `next`
    /// sends it. The queue has no limit: a key waits in it, up to its deadline, while all
    /// connections are full.
    /// @param key  as for `LDAPLookup::find`
    /// @param tag  returned with the answer; several keys may have the same
    void submit(std::string key, Tag tag);

    /// Adds a key whose password is to be verified, as `LDAPLookup::verify` does it, and starts its
    /// deadline, which includes search and bind. Sends nothing, as `submit`. At most
    /// `verifyConnections` binds are under way for all callers together; further passwords wait in
    /// the queue, and lookups do not wait for them.
    /// @param key       as for `LDAPLookup::find`; exactly one entry must match
    /// @param password  as for `LDAPLookup::verify`. The queue's copy is wiped before the
    ///                  verification is returned, and by `cancel` and the destructor
    /// @param tag       returned with the verification
    /// @param mayBind   asked just before the bind, when its DN is known; if it returns false,
    ///                  nothing is sent, and the outcome is `TryLater`. So a caller can limit the
    ///                  attempts on an account, however its key is spelled. Empty: always
    void submitVerify(std::string key, std::string const& password, Tag tag,
                      Lookup::BindGuard mayBind = nullptr);

    /// The descriptor to poll for input (poll, select, epoll). Owned by the queue, and the same
    /// for its lifetime. Readable while `next` can return an answer or do something.
    /// @throws std::system_error  in a forked child: the process has no descriptor left
    int descriptor() const;

    /// Does all network work that is possible now, and returns an answer or a verification, in any
    /// order.
    /// @param timeout  how long to wait for one; 0 or less returns at once
    /// @return empty: there is none within the timeout, or no key is pending
    std::optional<Result> next(std::chrono::milliseconds timeout = std::chrono::milliseconds(0));

    /// Gives up all keys with this tag: nothing is returned for them. Their searches are abandoned;
    /// a bind cannot be, so its connection is closed. A wrong password that was sent may have been
    /// counted. Takes time in proportion to `pending`.
    void cancel(Tag tag);

    /// The number of keys submitted and neither returned nor cancelled.
    std::size_t pending() const;

private:
    class State;
    std::unique_ptr<State> m_state;
};

} // namespace Solvane

#endif
