// One bound session with one server, and the searches made on it.
#ifndef SOLVANE_TOOL_DIRECTORY_SESSION_H
#define SOLVANE_TOOL_DIRECTORY_SESSION_H

#include "Outcome.h"
#include "ServerUri.h"

#include <solvane/ldap.h>

#include <list>
#include <optional>
#include <string>

namespace Solvane::Tool {

class Secret;

/// Whom to ask, and as whom.
struct ServerSettings {
    ServerUri uri;
    LDAPConnection::Protocol protocol;
    unsigned int timeoutSeconds; ///< for connecting, and for each message awaited
    std::string bindDn;          ///< empty: anonymous
    Secret const& password;
};

/// What came of one search.
struct Answer {
    Outcome outcome = Outcome::internal;
    std::optional<int> code; ///< LDAP result code, or OpenLDAP's below 0
    std::string text;        ///< cause of an outcome other than found and notFound
    std::string remedy;
    std::list<LDAPSearchResultEntry> entries; ///< also those that came before a failure
};

/// A connection whose bind was answered with success: only then does "no such entry" mean anything.
class DirectorySession {
public:
    /// Connects and binds.
    /// @throws Failure  "tryLater", "denied", "refused", "configuration", "badInput"
    explicit DirectorySession(ServerSettings const& settings);

    Answer search(LDAPSearch::Parameter const& parameter);

    /// False when the connection broke: no further search can succeed.
    bool isAlive() const { return m_isAlive; }

private:
    void bind(ServerSettings const& settings);
    void awaitBind();
    LDAPResult const* bindResponse() const;
    Answer answerOf(LDAPResult const& result) const;
    Answer answerOf(LDAPException const& fault, LDAPResult const& result);
    std::string uri() const;

    unsigned int m_timeoutSeconds;
    LDAPConnection m_connection;
    bool m_isAlive;
};

} // namespace Solvane::Tool

#endif
