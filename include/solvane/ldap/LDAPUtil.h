/// @file
/// Search filters from values and templates.
#ifndef SOLVANE_LDAP_UTIL_H
#define SOLVANE_LDAP_UTIL_H

#include <solvane/ldap/Export.h>

#include <solvart/EmailAddress.h>

#include <string>

namespace Solvane {

/// Filter utilities. All functions are static and thread-safe; objects have no state.
class SOLVANE_LDAP_EXPORT LDAPUtil {
public:
    LDAPUtil();
    virtual ~LDAPUtil();

    /// Escapes a value for use in a search filter (RFC 2254 section 4): `*`, `(`, `)` and `\` become a
    /// backslash and two hexadecimal digits; every other byte, including NUL, is copied. An internal
    /// check reports code 2, type 0, Utility.cpp:230; no input causes it.
    static std::string formalizeQueryFilter(std::string const& value);

    /// Expands a query template into a filter.
    ///
    /// `$u` inserts the user, `$d` the domain ("#" if it is empty), `$m` `user@domain`; `$n` and `$a` are
    /// `$u` and `$m` in lower case, `$N` and `$A` in upper case; `$b` and `$g` insert the optional
    /// values, `$c` nothing. `${text}` removes the last occurrence of `text` from the value inserted
    /// last, `${^text}` the first. Text before `$c`, before `${` and before an empty `$b` or `$g` is
    /// deleted. Values are escaped; the template's own text is not.
    /// @param query   the template; surrounding white space is removed
    /// @param user    local part of the address
    /// @param domain  domain of the address
    /// @param bValue  what `$b` inserts
    /// @param gValue  what `$g` inserts
    /// @throws LDAPException  code 2, type 0, Utility.cpp:160: `${` without `}`;
    ///                        code 2, type 0, Utility.cpp:169: an unknown specifier;
    ///                        code 2, type 0, Utility.cpp:180: a `$` at the end. The text contains
    ///                        the template
    static std::string sv_ldap_expand_query(std::string const& query, std::string const& user,
                                            std::string const& domain, std::string const& bValue,
                                            std::string const& gValue);

    /// Expands a template for one address, with empty `$b` and `$g`. The template is truncated at its
    /// first NUL byte.
    /// @throws LDAPException  as `sv_ldap_expand_query`
    static std::string instanceFilterTemplate(std::string const& filterTemplate,
                                              EmailAddress const& address);
};

} // namespace Solvane

#endif
