/// @file
/// One call that answers "who has this address?", over a list of servers, from any thread.
#ifndef SOLVANE_LOOKUP_LDAP_LOOKUP_H
#define SOLVANE_LOOKUP_LDAP_LOOKUP_H

#include <solvane/lookup/Answer.h>
#include <solvane/lookup/Settings.h>

#include <functional>
#include <memory>
#include <string>

namespace Solvane {

/// Looks keys (e-mail addresses) up in a directory that several servers hold.
///
/// One object serves all threads of a program: it keeps bound connections, validates each on
/// checkout, fails over to the next server, skips servers that failed until their back-off expires, and
/// ends each key at its deadline. It has no threads of its own. Whatever happens is an `Answer`; the
/// calls throw nothing but `std::bad_alloc`, and what a source or sink throws. Thread-safe, except for
/// moving and destroying. In a child process it opens connections of its own.
class SOLVANE_LOOKUP_EXPORT LDAPLookup {
public:
    using Answer = Lookup::Answer;         ///< to a key
    using Outcome = Lookup::Outcome;       ///< of a key
    using Identity = Lookup::Identity;     ///< of the connection that answered
    using Server = Lookup::Server;         ///< of the list
    using Form = Lookup::Form;             ///< of an address
    using References = Lookup::References; ///< what they mean
    using Settings = Lookup::Settings;     ///< where to look and how

    /// Validates the settings; no server is asked before the first lookup.
    /// @throws LDAPException  code 2, type 0, LDAPLookup.cpp:20: settings that no lookup could
    ///                        succeed with; the text names the setting
    explicit LDAPLookup(Settings const& settings);
    ~LDAPLookup();

    /// Takes the connections and counts of `other`, which can only be assigned to or destroyed then.
    /// Not thread-safe.
    LDAPLookup(LDAPLookup&& other) noexcept;
    /// Lets go of its own connections, then the same. Not thread-safe.
    LDAPLookup& operator=(LDAPLookup&& other) noexcept;

    /// Looks one key up, within the deadline. Thread-safe.
    Answer find(std::string const& address);

    /// What a source did when it was asked for a key.
    enum class Supply {
        key,     ///< gave one
        nothing, ///< has none yet; only if it was told not to wait
        end,     ///< will give no more
    };
    /// Gives the next key. Asked to wait only when every answer has been given out, so that the
    /// other end of a pipe may see an answer before it asks again.
    using Source = std::function<Supply(std::string& key, bool mayWait)>;
    /// Takes the answer to a key, in the order of the keys. False: stop, no more are wanted.
    using Sink = std::function<bool(std::string const& key, Answer&& answer)>;

    /// Looks up every key of `source`, from this thread, with up to `window` searches in flight on
    /// each of up to `connections` connections. Each key has the deadline for itself, counted from
    /// its start; what the source and the sink take of it is added. While other callers wait for a
    /// connection, it takes turns with them. Thread-safe.
    void findAll(Source const& source, Sink const& sink);

    /// The same for a source that reads from a descriptor, as a pipe or a socket: a key is sent as soon
    /// as it is there, also while others are in flight.
    /// @param source      never asked to wait; after `nothing` it is asked again when `descriptor` is
    ///                    readable or closed, so it must return whole keys that it has read before
    /// @param descriptor  stays the caller's
    /// @param sink        takes each answer, in the order of the keys
    void findAll(Source const& source, int descriptor, Sink const& sink);

    /// Counted since the object was made.
    struct Statistics {
        unsigned long opened = 0;   ///< connections opened and bound
        unsigned long reused = 0;   ///< lookups on a connection that was there
        unsigned long stale = 0;    ///< connections found closed before use
        unsigned long repeated = 0; ///< searches repeated, on a new connection or another server
    };
    /// What has been counted. Thread-safe.
    Statistics statistics() const;

private:
    class Engine;
    std::unique_ptr<Engine> m_engine;
};

} // namespace Solvane

#endif
