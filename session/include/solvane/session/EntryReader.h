/// @file
/// Converts messages into entries.
#ifndef SOLVANE_SESSION_ENTRY_READER_H
#define SOLVANE_SESSION_ENTRY_READER_H

#include <solvane/session/Export.h>

#include <solvane/ldap/LDAPResult.h>

#include <list>
#include <string_view>

/// @cond of OpenLDAP
typedef struct ldap LDAP;
typedef struct ldapmsg LDAPMessage;
/// @endcond

namespace Solvane::Lookup {

/// Converts a search result entry and appends it to a list. Reads the message once from front to
/// end: the time is linear in its size, and each attribute keeps its own values even if a type is
/// repeated. Not thread-safe.
///
/// @param content  of the operation: name and attributes (RFC 4511 section 4.5.2), as in
///                 `Session::Message`
/// @param to       receives the entry
/// @return false if the entry is malformed; `to` is then unchanged
SOLVANE_LOOKUP_EXPORT bool readEntry(std::string_view content,
                                     std::list<LDAPSearchResultEntry>& to);

/// The same for a message parsed by OpenLDAP.
///
/// @param session  that received the message
/// @param message  of type search entry (0x64); owned by the caller. Reading changes it, so it
///                 cannot be read again
/// @param to       receives the entry
/// @return false if the entry is malformed; `to` is then unchanged
SOLVANE_LOOKUP_EXPORT bool readEntry(LDAP* session, LDAPMessage* message,
                                     std::list<LDAPSearchResultEntry>& to);

} // namespace Solvane::Lookup

#endif
