/// @file
/// Renaming and moving an entry.
#ifndef SOLVANE_LDAP_RENAME_H
#define SOLVANE_LDAP_RENAME_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPOperation.h>

#include <string>

namespace Solvane {

/// Renaming an entry, or moving it below another one, with all entries below it (modify DN, RFC 4511
/// section 4.9).
///
/// The result has the server's code: 0 renamed, 32 there is no such entry, 68 the new name exists already,
/// and so on. `send` and `wait` throw what `LDAPOperation` lists and
/// - code 4, type 10, Changes.cpp:91: OpenLDAP refuses to send;
/// - code 4, type 10, Changes.cpp:98: the wait failed. The entry may have either name.
class SOLVANE_LDAP_EXPORT LDAPRename : public LDAPOperation {
public:
    /// What happens to the values of the old RDN.
    enum OldRdn : int {
        KeepOldRdn = 0,  ///< they stay as values of the entry
        DeleteOldRdn = 1 ///< they are deleted from the entry
    };

    /// A null handle.
    LDAPRename();
    /// Renames an entry on `connection`. Sends nothing.
    /// @param connection   shared with the request
    /// @param dn           the entry
    /// @param newRdn       its new RDN, such as "uid=anna", escaped as RFC 4514 says
    /// @param oldRdn       what happens to the old one
    /// @param newSuperior  DN of the entry below which it moves; empty: it stays below its superior
    LDAPRename(LDAPConnection const& connection, std::string const& dn, std::string const& newRdn,
               OldRdn oldRdn, std::string const& newSuperior = std::string());
    /// Shares the body.
    LDAPRename(LDAPRename const& other);
    /// Releases its body and shares that of `other`.
    LDAPRename& operator=(LDAPRename const& other);
    ~LDAPRename() override;
};

} // namespace Solvane

#endif
