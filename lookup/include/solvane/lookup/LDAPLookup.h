/// @file
/// One call that answers "who has this address?", over a list of servers, from any thread.
#ifndef SOLVANE_LOOKUP_LDAP_LOOKUP_H
#define SOLVANE_LOOKUP_LDAP_LOOKUP_H

#include <solvane/lookup/Answer.h>
#include <solvane/lookup/Certificate.h>
#include <solvane/lookup/Export.h>

#include <solvane/ldap/LDAPConnection.h>
#include <solvane/ldap/LDAPRequest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Solvane {

/// Looks keys (e-mail addresses) up in a directory that several servers hold.
///
/// One object serves all threads of a program: it keeps bound connections, looks at each before it
/// is used, repeats a lookup once when a connection broke, passes over servers that failed, and
/// ends each key at its deadline. It has no threads of its own. Whatever happens is an `Answer`;
/// the calls throw nothing but `std::bad_alloc`, and what a source or sink throws.
class SOLVANE_LOOKUP_EXPORT LDAPLookup : public NonCopyable {
public:
    using Answer = Lookup::Answer;     ///< what a key came to
    using Outcome = Lookup::Outcome;   ///< of a key
    using Identity = Lookup::Identity; ///< of the connection that answered

    /// One server of the list.
    struct Server {
        std::string host;        ///< name or address, IPv6 without brackets
        unsigned int port = 389; ///< TCP port
        bool secure = false;     ///< TLS from the first byte ("ldaps://")
        LDAPConnection::Protocol version = LDAPConnection::V3; ///< of LDAP
    };

    /// What of an address is put into the template, in the order in which a mail server tries.
    enum class Form {
        full,   ///< `user+ext@domain`
        noext,  ///< `user@domain`
        bare,   ///< `user`
        domain, ///< `@domain`
    };

    /// Where to look and how. A value; the engine keeps a copy of its own, with the password.
    struct Settings {
        std::vector<Server> servers; ///< in order of trial
        /// Seconds for connecting and for the TLS handshake, for a bind's answer, and for a server
        /// to be silent about a search before it counts as failed.
        unsigned int networkTimeout = 10;
        std::string bindDn;   ///< empty: anonymous
        std::string password; ///< of `bindDn`; one is refused without the other
        std::string base;     ///< where searches start
        LDAPSearch::Scope scope = LDAPSearch::ScopeSubtree; ///< how deep they look
        LDAPSearch::Deref deref = LDAPSearch::DerefNever;   ///< which aliases are followed
        std::string queryTemplate;           ///< as `LDAPUtil::sv_ldap_expand_query` takes it
        std::string bValue;                  ///< what `$b` inserts
        std::string gValue;                  ///< what `$g` inserts
        std::vector<std::string> attributes; ///< to return; empty asks for all user attributes
        /// Tried in this order until one is found. Forms that are the same text are asked once.
        std::vector<Form> forms = {Form::full};
        char extensionDelimiter = '+'; ///< between user and extension; 0: addresses have none
        /// Domains that are served, case ignored; keys of others and keys without a domain are
        /// skipped. Empty: all are served.
        std::vector<std::string> domains;
        unsigned int entryLimit = 1000; ///< for one key; more is `TryLater`; 0: no limit
        unsigned int timeLimit = 0;     ///< seconds that a server may search; 0: no limit
        std::chrono::milliseconds deadline{15000}; ///< for one key as a whole; a year at most
        Lookup::TlsPolicy tls;                     ///< of secure servers
        unsigned int connections = 4;              ///< at most, of all threads together
        unsigned int window = 32; ///< searches in flight on each connection of `findAll`
        /// How long a server that failed is passed over at first; doubled each time.
        std::chrono::milliseconds backOff{1000};
        std::chrono::milliseconds longestBackOff{30000}; ///< at most
    };

    /// Checks the settings; no server is asked before the first lookup.
    /// @throws LDAPException  code 2, type 0, LDAPLookup.cpp:20: settings that no lookup could
    ///                        succeed with; the text names the setting
    explicit LDAPLookup(Settings const& settings);
    ~LDAPLookup();

    /// Looks one key up, within the deadline. For any number of threads at once.
    Answer find(std::string const& address);

    /// What a source did when it was asked for a key.
    enum class Supply {
        key,     ///< gave one
        nothing, ///< has none yet; only where it was told not to wait
        end,     ///< will give no more
    };
    /// Gives the next key. Asked to wait only when every answer has been given out, so that the
    /// other end of a pipe may see an answer before it asks again.
    using Source = std::function<Supply(std::string& key, bool mayWait)>;
    /// Takes the answer to a key, in the order of the keys. False: stop, no more are wanted.
    using Sink = std::function<bool(std::string const& key, Answer&& answer)>;

    /// Looks up every key of `source`, from this thread, with up to `window` searches in flight on
    /// each of up to `connections` connections. Each key has the deadline for itself, counted from
    /// its start; what the source and the sink take of it is added. Where other callers wait for a
    /// connection, it takes turns with them.
    void findAll(Source const& source, Sink const& sink);

    /// Counted since the object was made.
    struct Statistics {
        unsigned long opened = 0;   ///< connections opened and bound
        unsigned long reused = 0;   ///< lookups on a connection that was there
        unsigned long stale = 0;    ///< connections found closed before use
        unsigned long repeated = 0; ///< lookups repeated since their connection broke
    };
    /// What has been counted. For any thread.
    Statistics statistics() const;

private:
    class Engine;
    std::unique_ptr<Engine> m_engine;
};

} // namespace Solvane

#endif
