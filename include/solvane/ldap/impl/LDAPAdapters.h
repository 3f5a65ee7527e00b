/// @file
/// Requests turned into the argument lists of OpenLDAP's calls, for the length of one call.
#ifndef SOLVANE_LDAP_ADAPTERS_H
#define SOLVANE_LDAP_ADAPTERS_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPAttribute.h>
#include <solvane/ldap/LDAPRequest.h>
#include <solvane/ldap/RefCounted.h>

#include <solvart/Buffer.h>

#include <cstdint>
#include <list>
#include <string>

struct berval;
struct ldap;
struct ldapmod;
typedef struct ldap LDAP;
typedef struct ldapmod LDAPMod;

namespace Solvane {

class LDAPAddImpl;
class LDAPSearchImpl;

/// The arguments of `ldap_search_ext`. Copies no text: every pointer leads into the search's
/// record, which must stay unchanged meanwhile.
class SOLVANE_LDAP_EXPORT LDAPSearchAdapter : public NonCopyable {
public:
    /// @throws LDAPException  code 2, type 0: scope or alias mode out of range; code 1, type 0:
    ///                        null connection, or a null attribute type in the list
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

/// Text values as a null-terminated array of strings. The characters stay the list's.
class SOLVANE_LDAP_EXPORT StringValueAdapter : public NonCopyable {
public:
    explicit StringValueAdapter(std::list<std::string> const& source);
    ~StringValueAdapter();

    std::uint64_t count;
    char** values;
};

/// Binary values as a null-terminated array of counted values. The bytes stay the list's.
class SOLVANE_LDAP_EXPORT BerValueAdapter : public NonCopyable {
public:
    explicit BerValueAdapter(std::list<Buffer> const& source);
    ~BerValueAdapter();

    std::uint64_t count;
    berval** values;
};

/// Attributes as a null-terminated array of modifications, in the container's order.
///
/// Values of descriptions with the option "binary" travel as counted bytes, all others as strings,
/// which end at their first zero byte. Nothing is copied: the container must stay unchanged
/// meanwhile.
/// @note What was built when a constructor fails is not given back.
class SOLVANE_LDAP_EXPORT LDAPModAdapter : public NonCopyable {
public:
    /// @param operation  LDAP_MOD_ADD and the like
    /// @throws LDAPException  code 1, type 0: a null attribute, or one with a null type
    LDAPModAdapter(LDAPAttributeContainer const& attributes, int operation);
    ~LDAPModAdapter();

    std::uint64_t count;
    LDAPMod** mods;
    std::list<BerValueAdapter*> binaryAdapters;
    std::list<StringValueAdapter*> stringAdapters;

private:
    void fill(LDAPMod& modification, LDAPAttribute const& attribute);
};

/// The arguments of `ldap_add_ext`.
class SOLVANE_LDAP_EXPORT LDAPAddAdapter : public NonCopyable {
public:
    /// @throws LDAPException  code 1, type 0: null connection; what `LDAPModAdapter` throws
    explicit LDAPAddAdapter(LDAPAddImpl& request);
    ~LDAPAddAdapter();

    LDAP* handle;
    char const* dn;
    LDAPModAdapter modifications;
};

} // namespace Solvane

#endif
