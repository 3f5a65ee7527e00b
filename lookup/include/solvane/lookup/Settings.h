/// @file
/// The settings of lookups: servers, credentials, search, limits.
#ifndef SOLVANE_LOOKUP_SETTINGS_H
#define SOLVANE_LOOKUP_SETTINGS_H

#include <solvane/lookup/Observer.h>
#include <solvane/session/Export.h>
#include <solvane/session/Mechanism.h>
#include <solvane/session/TlsPolicy.h>

#include <solvane/ldap/LDAPConnection.h>
#include <solvane/ldap/LDAPRequest.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Solvane::Lookup {

/// One server of the list, or a domain whose SRV records name the servers.
struct Server {
    /// Name or address, IPv6 without brackets. Empty if `srvDomain` or `socketPath` is set.
    std::string host;
    unsigned int port = 389;                               ///< TCP port
    bool secure = false;                                   ///< TLS from the first byte ("ldaps://")
    LDAPConnection::Protocol version = LDAPConnection::V3; ///< of LDAP
    /// A domain whose servers are found by their SRV records (RFC 2782): `_ldap._tcp`, or
    /// `_ldaps._tcp` if `secure`. Host and port are then ignored.
    std::string srvDomain = std::string();
    /// TLS by StartTLS on the plain port (RFC 4511 section 4.14), required: a server that refuses
    /// it is `Refused`, and nothing else is sent before it. Not together with `secure`.
    bool startTls = false;
    /// Path of the server's UNIX socket ("ldapi://"). Host and port are then ignored.
    std::string socketPath = std::string();

    /// Whether its connections are encrypted, from the first byte or by StartTLS.
    bool usesTls() const { return secure || startTls; }
};

/// The forms of an address that can be looked up, in the order in which a mail server tries them.
enum class Form {
    full,   ///< `user+ext@domain`
    noext,  ///< `user@domain`
    bare,   ///< `user`
    domain, ///< `@domain`
};

/// How to treat an answer without entries but with references to servers that were not asked.
enum class References {
    defer,  ///< `TryLater`: the entry may exist there
    ignore, ///< `NotFound`: those parts of the directory do not count
};

/// The settings of lookups. A value; the engine keeps its own copy, including the password.
struct Settings {
    std::vector<Server> servers; ///< in order of preference
    /// Seconds for each step of opening a connection, and for which a server may send nothing while
    /// searches are in flight before it counts as failed.
    unsigned int networkTimeout = 10;
    Mechanism mechanism = Mechanism::simple; ///< how connections authenticate
    std::string authorizationId; ///< of a SASL bind, as "dn:..." or "u:..."; empty: the server's
    std::string bindDn;          ///< of a simple bind; empty: anonymous
    std::string password;        ///< of `bindDn`; set both or neither
    std::string base;            ///< search base
    LDAPSearch::Scope scope = LDAPSearch::ScopeSubtree; ///< search scope
    LDAPSearch::Deref deref = LDAPSearch::DerefNever;   ///< when to dereference aliases
    std::string queryTemplate; ///< for `LDAPUtil::sv_ldap_expand_query`, or as `postfixRules` says
    std::string bValue;        ///< value of `$b`
    std::string gValue;        ///< value of `$g`
    /// To return; empty asks for all user attributes. With groups or a format, those whose values
    /// are results.
    std::vector<std::string> attributes;
    /// Looked up in this order until an entry is found. Equal forms are looked up once.
    std::vector<Form> forms = {Form::full};
    char extensionDelimiter = '+'; ///< separates user and extension; 0: none
    /// Domains that are served, case ignored, in Unicode or in ASCII ("xn--..."); keys of others
    /// and keys without a domain are skipped. An empty list serves all; an empty domain is refused.
    std::vector<std::string> domains;
    unsigned int entryLimit = 1000;            ///< for one search; more is `TryLater`; 0: no limit
    unsigned int timeLimit = 0;                ///< seconds for the server's search; 0: no limit
    std::chrono::milliseconds deadline{15000}; ///< for one key in total; at most a year
    TlsPolicy tls;                             ///< for servers with `secure` or `startTls`
    unsigned int connections = 4;              ///< maximum for all threads together; up to 65536
    /// Maximum of searches in flight on each connection of `findAll`; up to 65536.
    unsigned int window = 32;
    /// First back-off of a failed server; doubled after each further failure.
    std::chrono::milliseconds backOff{1000};
    std::chrono::milliseconds longestBackOff{30000}; ///< maximum of the back-off

    /// Name servers, "address" or "address:port"; empty: the system's.
    std::vector<std::string> nameServers = {};
    std::size_t keyBytes = 1000;                 ///< maximum of a key; a longer one is `BadKey`
    std::size_t entryBytes = 16UL * 1024 * 1024; ///< maximum of one message of a server
    std::size_t answerBytes =
        64UL * 1024 * 1024; ///< maximum of all entries for one key, members too
    std::chrono::milliseconds refusedHold{60000}; ///< pause between a refused bind and the next one
    References references = References::defer;    ///< how to treat references
    /// Looks up a non-ASCII domain also in its ASCII form (RFC 5891), and one in ASCII form also in
    /// Unicode.
    bool asciiDomains = true;
    /// Maximum of connections on which `verify` and queues bind as users, for all threads together.
    /// They are no others than these, so it is also the maximum of binds at a time.
    unsigned int verifyConnections = 2;
    /// Is told what happens to connections and servers; null: nobody is.
    std::shared_ptr<Observer> observer = nullptr;

    // Results: groups and formats, as Postfix's ldap_table(5) has them

    /// Attributes that name members of a group, by DN or by LDAP URL (RFC 4516): the search goes on
    /// there, for the same attributes. They are in none of the other lists.
    std::vector<std::string> specialResultAttributes = {};
    /// Attributes that are results only of an entry without values of `specialResultAttributes`.
    std::vector<std::string> leafResultAttributes = {};
    /// If an entry has values of these attributes, they are its only results, and the search does
    /// not go on at its members.
    std::vector<std::string> terminalResultAttributes = {};
    unsigned int expansionLimit = 0; ///< results of one key; more is `TryLater`; 0: no limit
    /// Levels of entries: 1 is those of the search itself, 2 also their members; more is
    /// `TryLater`.
    unsigned int recursionLimit = 1000;
    /// The text that each value becomes: `%s` is the value, `%u` and `%d` its user and domain, `%S`,
    /// `%U`, `%D` the same of the key, `%1` to `%9` the labels of the key's domain from the right,
    /// `%%` a percent sign. A value without the part is left out; a key without it is `NotFound`.
    /// Empty is "%s".
    std::string resultFormat = "%s";

    /// Keys as in Postfix's ldap_table(5). `queryTemplate` and `base` have the specifiers of
    /// `resultFormat`, and all of them insert parts of the key, escaped; `$` is plain text. Keys are
    /// looked up in lower case and in no other form: `forms` must be {full}, `asciiDomains` has no
    /// effect. A key that lacks a part is `NotFound` and not searched, and so is one for which
    /// `base` becomes a DN that no server has. With `domains`, a key without a user is skipped.
    bool postfixRules = false;

    /// Whether answers have results: groups, a format or an expansion limit are set.
    bool makesResults() const
    {
        return !specialResultAttributes.empty() || !leafResultAttributes.empty() ||
               !terminalResultAttributes.empty() || expansionLimit != 0 ||
               (!resultFormat.empty() && resultFormat != "%s");
    }

    /// Whether connections send no bind.
    bool isAnonymous() const { return Lookup::isAnonymous(mechanism, bindDn); }
};

/// Validates settings without contacting a server. Thread-safe.
/// @throws LDAPException  code 2, type 0, LDAPLookup.cpp:20: invalid settings; the text names the
///                        setting
SOLVANE_LOOKUP_EXPORT void validate(Settings const& settings);

/// The base of all keys; none if it is made from each key (`Settings::postfixRules`). Thread-safe.
SOLVANE_LOOKUP_EXPORT std::optional<std::string> baseOfAllKeys(Settings const& settings);

/// Whether lookups with these settings can use the same connections: they differ at most in what
/// is searched for (`base`, `scope`, `deref`, `queryTemplate`, `bValue`, `gValue`, `attributes`,
/// `forms`, `extensionDelimiter`, `domains`, `asciiDomains`, `references`, `postfixRules`), in what
/// becomes of it (groups and their limits, `resultFormat`) and in the limits of one key
/// (`entryLimit`, `timeLimit`, `keyBytes`, `answerBytes`). Also in `window`: that of the first
/// lookup is where each server's own limit begins. Thread-safe.
SOLVANE_LOOKUP_EXPORT bool haveSameConnections(Settings const& one, Settings const& another);

} // namespace Solvane::Lookup

#endif
