/// @file
/// Requests turned into the argument lists of OpenLDAP's calls, for the length of one call.
#ifndef SOLVANE_LDAP_ADAPTERS_H
#define SOLVANE_LDAP_ADAPTERS_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPRequest.h>
#include <solvane/ldap/RefCounted.h>

struct ldap;
typedef struct ldap LDAP;

namespace Solvane {

class LDAPSearchImpl;

/// The arguments of `ldap_search_ext`. Copies no text: every pointer leads into the search's
/// record, which must stay unchanged meanwhile.
class SOLVANE_LDAP_EXPORT LDAPSearchAdapter : public NonCopyable {
public:
    /// @throws LDAPException  code 2, type 0: scope or alias mode out of range; code 1, type 0:
    /// null
    ///                        connection, or a null attribute type in the list
    explicit LDAPSearchAdapter(LDAPSearchImpl& request);
    ~LDAPSearchAdapter();

    /// OpenLDAP's number for a scope (`LDAP_SCOPE_...`).
    /// @throws LDAPException  code 2, type 0: out of range
    static int fromScope(LDAPSearch::Scope scope);
    /// @throws LDAPException  code 2, type 0: out of range
    static LDAPSearch::Scope toScope(int scope);
    /// OpenLDAP's number for an alias mode (`LDAP_DEREF_...`).
    /// @throws LDAPException  code 2, type 0: out of range
    static int fromDeref(LDAPSearch::Deref deref);
    /// @throws LDAPException  code 2, type 0: out of range
    static LDAPSearch::Deref toDeref(int deref);

    LDAP* ld;
    char const* base;
    int scope;
    int deref;
    char const* filter; ///< null where the record's filter is empty
    char** attrs;       ///< null-terminated, owned; null where no attribute is named
    int attrsonly;
};

} // namespace Solvane

#endif
