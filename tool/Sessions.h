// Sessions with a directory server, for commands that wait for each answer.
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

/// What a row of the server list stands for.
struct ServersFound {
    Lookup::Verdict verdict;
    std::vector<LDAPLookup::Server> servers; ///< in the order of trial; none after a bad verdict
};

/// A host is itself; a domain is asked for the servers that its SRV records name.
/// @param settings  name servers, and how long they may take
ServersFound serversOf(LDAPLookup::Server const& server, LDAPLookup::Settings const& settings,
                       Lookup::Clock::time_point deadline);

/// A session with one of the servers, as the settings say.
/// @param settings  lends its password; must outlive the session's bind
/// @param tls       null for a server without TLS
Lookup::SessionOptions sessionOptions(LDAPLookup::Settings const& settings,
                                      LDAPLookup::Server const& server,
                                      std::shared_ptr<Lookup::TlsContext> tls);

/// How a search ended, and what it found.
struct SearchEnd {
    Lookup::Verdict verdict;
    std::list<LDAPSearchResultEntry> entries;
    std::vector<std::string> references; ///< URIs: continuations, or where the whole search belongs
};

/// How long an answer is awaited.
struct Patience {
    Lookup::Clock::time_point since;    ///< the server owes something since then
    std::chrono::milliseconds silence;  ///< for it to send nothing at all
    Lookup::Clock::time_point deadline; ///< of the whole answer
};

/// Blocks until a message came, the connection broke, or patience ends: then it returns `nothing`.
Lookup::Session::Received awaitMessage(Lookup::Session& session, Patience const& patience,
                                       LDAPMessageBuffer& message, int& id);

/// Sends a search and takes its whole answer.
/// @param silence   how long the server may send nothing at all
/// @param deadline  of the whole answer
SearchEnd searchOn(Lookup::Session& session, Lookup::SearchRequest const& request,
                   std::string const& filter, std::chrono::milliseconds silence,
                   Lookup::Clock::time_point deadline);

/// What a message says that ends an operation (RFC 4511 section 4.1.9).
struct ResultMessage {
    int code = 0;                       ///< `LDAP_DECODING_ERROR` for a malformed message
    std::string text;                   ///< the server's own, in one line
    std::string matched;                ///< DN, in one line
    std::vector<std::string> referrals; ///< URIs
};

ResultMessage resultIn(Lookup::Session const& session, LDAPMessageBuffer const& message);

/// ", see URI" for each of them; each in one line.
std::string pointersTo(std::vector<std::string> const& uris);

} // namespace Solvane::Tool

#endif
