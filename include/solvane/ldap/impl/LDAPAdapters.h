/// @file
/// Adapters: the arguments of OpenLDAP's functions, for the duration of one call.
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

/// The arguments of `ldap_search_ext`. Copies no text: the pointers refer to the search's parameters,
/// which must not change during the call. Not thread-safe.
class SOLVANE_LDAP_EXPORT LDAPSearchAdapter : public NonCopyable {
public:
    /// Reads and validates the parameters.
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
    char const* base;   ///< the base DN of the parameters
    int scope;          ///< `LDAP_SCOPE_...`
    int deref;          ///< `LDAP_DEREF_...`
    char const* filter; ///< null if the filter is empty
    char** attrs;       ///< null-terminated, owned; null if no attribute is requested
    int attrsonly;      ///< 1: types without values
};

/// Text values as a null-terminated array of strings, whose characters the list owns.
class SOLVANE_LDAP_EXPORT StringValueAdapter : public NonCopyable {
public:
    /// An array of the texts.
    /// @param source  must outlive the adapter, unchanged
    explicit StringValueAdapter(std::list<std::string> const& source);
    ~StringValueAdapter();

    std::uint64_t count; ///< number of values
    char** values;       ///< null-terminated, owned
};

/// Binary values as a null-terminated array of counted values, whose bytes the list owns.
class SOLVANE_LDAP_EXPORT BerValueAdapter : public NonCopyable {
public:
    /// An array of the values.
    /// @param source  must outlive the adapter, unchanged
    explicit BerValueAdapter(std::list<Buffer> const& source);
    ~BerValueAdapter();

    std::uint64_t count; ///< number of values
    berval** values;     ///< null-terminated, owned
};

/// Attributes as a null-terminated array of modifications, in the container's order.
///
/// Values of descriptions with the option "binary" are sent with their length, all others as strings,
/// which end at their first zero byte. Nothing is copied: the container must outlive the adapter,
/// unchanged.
/// @note If the constructor throws, what it built before leaks.
class SOLVANE_LDAP_EXPORT LDAPModAdapter : public NonCopyable {
public:
    /// A modification for each attribute.
    /// @param attributes  the attributes to send
    /// @param operation   LDAP_MOD_ADD and the like
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:247: a null attribute;
    ///                        code 1, type 0, Attribute.cpp:41: one with a null type
    LDAPModAdapter(LDAPAttributeContainer const& attributes, int operation);
    ~LDAPModAdapter();

    std::uint64_t count;                           ///< number of modifications
    LDAPMod** mods;                                ///< null-terminated, owned
    std::list<BerValueAdapter*> binaryAdapters;    ///< owned; values of binary attributes
    std::list<StringValueAdapter*> stringAdapters; ///< owned; values of the others

private:
    void fill(LDAPMod& modification, LDAPAttribute const& attribute);
};

/// The arguments of `ldap_add_ext` (RFC 4511 section 4.7). The request must outlive the adapter,
/// unchanged.
class SOLVANE_LDAP_EXPORT LDAPAddAdapter : public NonCopyable {
public:
    /// Reads the request.
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
