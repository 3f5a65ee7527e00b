/// @file
/// Entries out of messages.
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

/// Appends the entry of a search result entry to a list. Reads the message once from front to end, so
/// the time grows with its size alone, and every attribute has the values that stand with it.
///
/// @param content  of the operation: name and attributes (RFC 4511 section 4.5.2), as
///                 `Session::Message` has it
/// @param to       receives the entry
/// @return true; false if the entry is damaged, and then `to` is as it was
SOLVANE_LOOKUP_EXPORT bool readEntry(std::string_view content,
                                     std::list<LDAPSearchResultEntry>& to);

/// The same of a message that OpenLDAP parsed.
///
/// @param session  that received the message
/// @param message  of type search entry (0x64); stays the caller's, but is changed by reading and is not
///                 to be read again
/// @param to       receives the entry
/// @return true; false if the entry is damaged, and then `to` is as it was
SOLVANE_LOOKUP_EXPORT bool readEntry(LDAP* session, LDAPMessage* message,
                                     std::list<LDAPSearchResultEntry>& to);

} // namespace Solvane::Lookup

#endif
