/// @file
/// What a lookup is told: servers, credentials, search, limits.
#ifndef SOLVANE_LOOKUP_SETTINGS_H
#define SOLVANE_LOOKUP_SETTINGS_H

#include <solvane/session/Export.h>
#include <solvane/session/TlsPolicy.h>

#include <solvane/ldap/LDAPConnection.h>
#include <solvane/ldap/LDAPRequest.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace Solvane::Lookup {

/// One server of the list, or a domain whose SRV records name the servers.
struct Server {
    /// Name or address, IPv6 without brackets. Empty if `srvDomain` is set.
    std::string host;
    unsigned int port = 389;                               ///< TCP port
    bool secure = false;                                   ///< TLS from the first byte ("ldaps://")
    LDAPConnection::Protocol version = LDAPConnection::V3; ///< of LDAP
    /// A domain whose servers are found by their SRV records (RFC 2782): `_ldap._tcp`, or
    /// `_ldaps._tcp` if `secure`. Host and port are then not used.
    std::string srvDomain = std::string();
};

/// What of an address is put into the template, in the order in which a mail server tries.
enum class Form {
    full,   ///< `user+ext@domain`
    noext,  ///< `user@domain`
    bare,   ///< `user`
    domain, ///< `@domain`
};

/// What an answer means that holds no entry, but references to servers that were not asked.
enum class References {
    defer,  ///< `TryLater`: the entry may be there
    ignore, ///< `NotFound`: those parts of the directory are not looked through
};

/// Where to look and how. A value; the engine keeps a copy of its own, with the password.
struct Settings {
    std::vector<Server> servers; ///< in order of preference
    /// Seconds for each step of opening a connection, and how long a server may be silent while
    /// searches are in flight before it counts as failed.
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
    /// Domains that are served, case ignored, in Unicode or in ASCII ("xn--..."); keys of others
    /// and keys without a domain are skipped. An empty list serves all; an empty domain is refused.
    std::vector<std::string> domains;
    unsigned int entryLimit = 1000;            ///< for one key; more is `TryLater`; 0: no limit
    unsigned int timeLimit = 0;                ///< seconds that a server may search; 0: no limit
    std::chrono::milliseconds deadline{15000}; ///< for one key as a whole; a year at most
    TlsPolicy tls;                             ///< of secure servers
    unsigned int connections = 4;              ///< at most, of all threads together
    unsigned int window = 32; ///< searches in flight on each connection of `findAll`, at most
    /// How long a server that failed is skipped at first; doubled each time.
    std::chrono::milliseconds backOff{1000};
    std::chrono::milliseconds longestBackOff{30000}; ///< at most

    /// "address" or "address:port" of the name servers to ask; empty: the system's.
    std::vector<std::string> nameServers = {};
    std::size_t keyBytes = 1000;                  ///< of a key; a longer one is `BadKey`
    std::size_t entryBytes = 16UL * 1024 * 1024;  ///< of one message of a server
    std::size_t answerBytes = 64UL * 1024 * 1024; ///< of all entries for one key
    std::chrono::milliseconds refusedHold{60000}; ///< no bind for so long after a refused one
    References references = References::defer;    ///< see there
    /// A domain with characters beyond ASCII is also asked for in its ASCII form (RFC 5891), and
    /// one in ASCII form in Unicode.
    bool asciiDomains = true;
};

/// Validates settings without asking a server.
/// @throws LDAPException  code 2, type 0, LDAPLookup.cpp:20: settings that no lookup could succeed
///                        with; the text names the setting
SOLVANE_LOOKUP_EXPORT void validate(Settings const& settings);

} // namespace Solvane::Lookup

#endif
