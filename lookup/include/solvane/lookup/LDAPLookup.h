/// @file
/// Looks up addresses in a directory; the engine's main interface.
#ifndef SOLVANE_LOOKUP_LDAP_LOOKUP_H
#define SOLVANE_LOOKUP_LDAP_LOOKUP_H

#include <solvane/lookup/Answer.h>
#include <solvane/lookup/ServerStatistics.h>
#include <solvane/lookup/Settings.h>
#include <solvane/lookup/Verification.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Solvane {

namespace Lookup {
class Engine;
} // namespace Lookup

/// Looks up keys (e-mail addresses) in a directory held by several servers.
///
/// One object serves all threads of a program. It pools bound connections, validates each on
/// checkout, fails over to the next server, skips failed servers until their back-off expires, and
/// ends each key at its deadline. It starts no threads. Every result is an `Answer`; the calls
/// throw only `std::bad_alloc` and whatever a source or sink throws. Thread-safe, except for moving
/// and destroying. After a fork, the child opens its own connections.
class SOLVANE_LOOKUP_EXPORT LDAPLookup {
public:
    using Answer = Lookup::Answer;         ///< to a key
    using Outcome = Lookup::Outcome;       ///< of a key
    using Identity = Lookup::Identity;     ///< of the connection that answered
    using Server = Lookup::Server;         ///< of the server list
    using Form = Lookup::Form;             ///< of an address
    using References = Lookup::References; ///< how to treat them
    using Settings = Lookup::Settings;     ///< of all lookups

    /// Validates the settings; connects at the first lookup.
    /// @throws LDAPException  code 2, type 0, LDAPLookup.cpp:20: invalid settings; the text names
    ///                        the setting
    explicit LDAPLookup(Settings const& settings);
    /// Another search on the connections of `other`: both together have at most `connections`, and
    /// know the same about the servers; `statistics` and `servers` are those of both. Each may be
    /// destroyed first. After `reconfigure` of one of them, that one has connections of its own.
    /// @throws LDAPException  code 2, type 0, LDAPLookup.cpp:20: invalid settings, or
    ///                        `Lookup::haveSameConnections` is false
    LDAPLookup(Settings const& settings, LDAPLookup const& other);
    ~LDAPLookup();

    /// Takes the connections and statistics of `other`, which then may only be assigned to or
    /// destroyed. Not thread-safe.
    LDAPLookup(LDAPLookup&& other) noexcept;
    /// Closes its own connections, then does the same. Not thread-safe.
    LDAPLookup& operator=(LDAPLookup&& other) noexcept;

    /// Looks up one key; blocks until the deadline at most. Thread-safe.
    Answer find(std::string const& address);

    /// Result of a source.
    enum class Supply {
        key,     ///< returned a key
        nothing, ///< no key yet; allowed only if `mayWait` is false
        end,     ///< there are no more keys
    };
    /// Returns the next key. `mayWait` is true only after all answers were passed to the sink, so
    /// that a client on a pipe sees each answer before it sends the next key.
    using Source = std::function<Supply(std::string& key, bool mayWait)>;
    /// Receives the answer to a key, in the order of the keys. Returns false to stop.
    using Sink = std::function<bool(std::string const& key, Answer&& answer)>;

    /// Looks up every key of `source`, in this thread, with up to `window` searches in flight on
    /// each of up to `connections` connections. Each key has its own deadline, counted from its
    /// start, without the time spent in source and sink. If other callers wait for a connection, it
    /// shares them. Thread-safe.
    void findAll(Source const& source, Sink const& sink);

    /// The same for a source that reads a descriptor, such as a pipe or a socket: a key is sent as
    /// soon as it arrives, even while others are in flight.
    /// @param source      never asked to wait. After `nothing` it is called again when `descriptor`
    ///                    is readable or closed, so it must first return all keys that it has
    ///                    buffered
    /// @param descriptor  polled only; owned by the caller
    /// @param sink        receives each answer, in the order of the keys
    void findAll(Source const& source, int descriptor, Sink const& sink);

    using Verification = Lookup::Verification;   ///< of a password
    using VerifyOutcome = Lookup::VerifyOutcome; ///< of a verification
    using Denial = Lookup::Denial;               ///< why a server denied a bind

    /// Verifies a password: finds the entry of the key as `find` does, and binds as it, on a
    /// connection that is used for nothing else. Blocks until the deadline at most, which includes
    /// both. Thread-safe; at most `verifyConnections` binds are under way, further callers wait.
    ///
    /// The bind goes to the server that returned the entry. What a server answers about the
    /// password is final; if it cannot answer, the next one is asked, so a wrong password counts
    /// once for each server that is reached. The copies of the password in this library and in
    /// OpenLDAP are wiped, and no text contains it.
    /// @param key       as for `find`; exactly one entry must match
    /// @param password  UTF-8, of 1 to 1024 bytes, not blank, without NUL; `BadKey` otherwise, with
    ///                  nothing sent
    Verification verify(std::string const& key, std::string const& password);

    /// Changes the settings. Keys that begin later use the new ones, also those of a `findAll` or
    /// a queue under way; keys in flight end with those that they began with. The new settings
    /// have connections of their own, so there may be up to `connections` of each for a while; idle
    /// connections of earlier settings are closed as soon as no key uses these settings. Files of
    /// the TLS settings are read anew. The servers count as up; of credentials that stay the same,
    /// a refusal is still known. The earlier password is wiped from memory. Thread-safe.
    /// @throws LDAPException  as the constructor; nothing has changed then
    void reconfigure(Settings const& settings);

    /// Counts since construction.
    struct Statistics {
        unsigned long opened = 0;   ///< connections opened and bound
        unsigned long reused = 0;   ///< lookups on a pooled connection
        unsigned long stale = 0;    ///< connections found closed before use
        unsigned long repeated = 0; ///< searches repeated, on a new connection or another server
    };
    /// The current counts. Thread-safe.
    Statistics statistics() const;

    using ServerStatistics = Lookup::ServerStatistics; ///< of one server
    /// State and counts of each server of the settings in use, in order of preference. Servers of
    /// a domain are listed once they are known. Without the connections of `verify`. Thread-safe.
    std::vector<ServerStatistics> servers() const;
    /// The same for the connections of `verify`; its `answered` counts binds. Thread-safe.
    std::vector<ServerStatistics> verifyServers() const;

private:
    friend class LDAPLookupQueue;

    std::unique_ptr<Lookup::Engine> m_engine;
};

} // namespace Solvane

#endif
