// Blocking use of sessions, for commands that wait for each answer.
#ifndef SOLVANE_TOOL_SESSIONS_H
#define SOLVANE_TOOL_SESSIONS_H

#include <solvane/lookup/LDAPLookup.h>
#include <solvane/session/Session.h>

#include <solvane/ldap/LDAPResult.h>

#include <chrono>
#include <list>
#include <memory>
#include <string>
#include <vector>

namespace Solvane::Tool {

class Diagnostics;

/// The servers of one row of the server list.
struct ServersFound {
    Lookup::Verdict verdict;
    std::vector<LDAPLookup::Server>
        servers; ///< in the order to try them; empty unless the verdict is good
};

/// Returns a host as it is; for a domain, looks up its SRV records. Blocks until the deadline at
/// most.
/// @param settings  name servers, and the network timeout for them
ServersFound serversOf(LDAPLookup::Server const& server, LDAPLookup::Settings const& settings,
                       Lookup::Clock::time_point deadline);

/// How the settings authenticate, as "anonymous", "as cn=reader" or "with GSSAPI".
std::string identityIn(LDAPLookup::Settings const& settings);

/// The options of a session with one of the servers.
/// @param settings  its password is borrowed; must outlive the session's bind
/// @param tls       null for a server without TLS
Lookup::SessionOptions sessionOptions(LDAPLookup::Settings const& settings,
                                      LDAPLookup::Server const& server,
                                      std::shared_ptr<Lookup::TlsContext> tls);

/// Connects to the first reachable server of the list, up to the step `last`. A refused bind ends the
/// search: trying the next server would count as another failed login and could lock the account.
/// @param settings     borrowed; must outlive the session's bind
/// @param diagnostics  is told why a server is skipped
/// @throws Failure  no server can be reached, or one refuses
std::unique_ptr<Lookup::Session> openFirst(LDAPLookup::Settings const& settings,
                                           std::shared_ptr<Lookup::TlsContext> const& tls,
                                           Lookup::Step last, Diagnostics const& diagnostics);

/// How a search ended, and what it found.
struct SearchEnd {
    Lookup::Verdict verdict;
    std::list<LDAPSearchResultEntry> entries;
    std::vector<std::string> references; ///< URIs: of continuation references or referrals
};

/// How long to wait for an answer.
struct Patience {
    Lookup::Clock::time_point since;    ///< when the server began to owe an answer
    std::chrono::milliseconds silence;  ///< longest time without a byte from the server
    Lookup::Clock::time_point deadline; ///< for the whole answer
};

/// Blocks until a message arrives or the connection breaks. Returns `nothing` when patience runs
/// out, or when `input` can be read.
/// @param input  a descriptor, or -1
Lookup::Session::Received awaitMessage(Lookup::Session& session, Patience const& patience,
                                       LDAPMessageBuffer& message, int& id, int input = -1);

/// Sends a search and blocks until its whole answer has arrived.
/// @param silence   longest time without a byte from the server
/// @param deadline  for the whole answer
SearchEnd searchOn(Lookup::Session& session, Lookup::SearchRequest const& request,
                   std::string const& filter, std::chrono::milliseconds silence,
                   Lookup::Clock::time_point deadline);

/// The LDAPResult that ends an operation (RFC 4511 section 4.1.9).
struct ResultMessage {
    int code = 0;                       ///< `LDAP_DECODING_ERROR` for a malformed message
    std::string text;                   ///< diagnostic message, on one line
    std::string matched;                ///< matched DN, on one line
    std::vector<std::string> referrals; ///< URIs
};

ResultMessage resultIn(Lookup::Session const& session, LDAPMessageBuffer const& message);

/// ", see URI" for each URI, on one line.
std::string pointersTo(std::vector<std::string> const& uris);

} // namespace Solvane::Tool

#endif
