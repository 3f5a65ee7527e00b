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

/// @cond of OpenLDAP
struct berval;
struct ldap;
struct ldapmod;
typedef struct ldap LDAP;
typedef struct ldapmod LDAPMod;
/// @endcond

namespace Solvane {

class LDAPAddImpl;
class LDAPSearchImpl;

/// The arguments of `ldap_search_ext`. Copies no text: every pointer leads into the search's
/// record, which must stay unchanged meanwhile. For the length of one call, in one thread.
class SOLVANE_LDAP_EXPORT LDAPSearchAdapter : public NonCopyable {
public:
    /// Looks at the record and checks its numbers.
    /// @throws LDAPException  code 2, type 0, Attribute.cpp:531: scope out of range;
    ///                        code 2, type 0, Attribute.cpp:579: alias mode out of range;
    ///                        code 1, type 0, Connection.cpp:129: null connection;
    ///                        code 1, type 0, Attribute.cpp:41: a null attribute type in the list
    explicit LDAPSearchAdapter(LDAPSearchImpl& request);
    ~LDAPSearchAdapter();

    /// OpenLDAP's number for a scope (`LDAP_SCOPE_...`).
    /// @throws LDAPException  code 2, type 0, Attribute.cpp:531: out of range
    static int fromScope(LDAPSearch::Scope scope);
    /// The scope for OpenLDAP's number.
    /// @throws LDAPException  code 2, type 0, Attribute.cpp:553: out of range
    static LDAPSearch::Scope toScope(int scope);
    /// OpenLDAP's number for an alias mode (`LDAP_DEREF_...`).
    /// @throws LDAPException  code 2, type 0, Attribute.cpp:579: out of range
    static int fromDeref(LDAPSearch::Deref deref);
    /// The alias mode for OpenLDAP's number.
    /// @throws LDAPException  code 2, type 0, Attribute.cpp:605: out of range
    static LDAPSearch::Deref toDeref(int deref);

    LDAP* ld;           ///< the connection's session
    char const* base;   ///< the record's base DN
    int scope;          ///< `LDAP_SCOPE_...`
    int deref;          ///< `LDAP_DEREF_...`
    char const* filter; ///< null where the record's filter is empty
    char** attrs;       ///< null-terminated, owned; null where no attribute is named
    int attrsonly;      ///< 1: types without values
};

/// Text values as a null-terminated array of strings. The characters stay the list's.
class SOLVANE_LDAP_EXPORT StringValueAdapter : public NonCopyable {
public:
    /// An array of the list's texts.
    /// @param source  must stay unchanged meanwhile
    explicit StringValueAdapter(std::list<std::string> const& source);
    ~StringValueAdapter();

    std::uint64_t count; ///< of the values
    char** values;       ///< null-terminated, owned
};

/// Binary values as a null-terminated array of counted values. The bytes stay the list's.
class SOLVANE_LDAP_EXPORT BerValueAdapter : public NonCopyable {
public:
    /// An array of the list's values.
    /// @param source  must stay unchanged meanwhile
    explicit BerValueAdapter(std::list<Buffer> const& source);
    ~BerValueAdapter();

    std::uint64_t count; ///< of the values
    berval** values;     ///< null-terminated, owned
};

/// Attributes as a null-terminated array of modifications, in the container's order.
///
/// Values of descriptions with the option "binary" travel as counted bytes, all others as strings,
/// which end at their first zero byte. Nothing is copied: the container must stay unchanged
/// meanwhile.
/// @note What was built when a constructor fails is not given back.
class SOLVANE_LDAP_EXPORT LDAPModAdapter : public NonCopyable {
public:
    /// A modification for each attribute.
    /// @param attributes  what is to be sent
    /// @param operation   LDAP_MOD_ADD and the like
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:247: a null attribute;
    ///                        code 1, type 0, Attribute.cpp:41: one with a null type
    LDAPModAdapter(LDAPAttributeContainer const& attributes, int operation);
    ~LDAPModAdapter();

    std::uint64_t count;                           ///< of the modifications
    LDAPMod** mods;                                ///< null-terminated, owned
    std::list<BerValueAdapter*> binaryAdapters;    ///< owned: the values of binary attributes
    std::list<StringValueAdapter*> stringAdapters; ///< owned: the values of the others

private:
    void fill(LDAPMod& modification, LDAPAttribute const& attribute);
};

/// The arguments of `ldap_add_ext` (RFC 4511 section 4.7). The request must stay unchanged meanwhile.
class SOLVANE_LDAP_EXPORT LDAPAddAdapter : public NonCopyable {
public:
    /// Looks at the request.
    /// @throws LDAPException  code 1, type 0, Connection.cpp:129: null connection; what
    ///                        `LDAPModAdapter` throws
    explicit LDAPAddAdapter(LDAPAddImpl& request);
    ~LDAPAddAdapter();

    LDAP* handle;                 ///< the connection's session
    char const* dn;               ///< the request's
    LDAPModAdapter modifications; ///< the request's attributes
};

} // namespace Solvane

#endif
