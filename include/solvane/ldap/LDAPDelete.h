/// @file
/// Deleting an entry.
#ifndef SOLVANE_LDAP_DELETE_H
#define SOLVANE_LDAP_DELETE_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPOperation.h>

#include <string>

namespace Solvane {

/// Deleting one entry (RFC 4511 section 4.8), which must have no entries below it.
///
/// The result has the server's code: 0 deleted, 32 there is no such entry, 66 there are entries below it,
/// and so on. `send` and `wait` throw what `LDAPOperation` lists and
/// - code 4, type 9, Changes.cpp:31: OpenLDAP refuses to send;
/// - code 4, type 9, Changes.cpp:38: the wait failed. The entry may or may not exist.
class SOLVANE_LDAP_EXPORT LDAPDelete : public LDAPOperation {
public:
    /// A null handle.
    LDAPDelete();
    /// Deletes the entry `dn` on `connection`. Sends nothing.
    /// @param connection  shared with the request
    /// @param dn          copied
    LDAPDelete(LDAPConnection const& connection, std::string const& dn);
    /// Shares the body.
    LDAPDelete(LDAPDelete const& other);
    /// Releases its body and shares that of `other`.
    LDAPDelete& operator=(LDAPDelete const& other);
    ~LDAPDelete() override;
};

} // namespace Solvane

#endif
