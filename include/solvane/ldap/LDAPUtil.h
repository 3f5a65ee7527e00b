/// @file
/// Search filters from values and from administrators' templates.
#ifndef SOLVANE_LDAP_UTIL_H
#define SOLVANE_LDAP_UTIL_H

#include <solvane/ldap/Export.h>

#include <solvart/EmailAddress.h>

#include <string>

namespace Solvane {

/// Filter utilities. All static, usable from any thread; an object of it holds nothing.
class SOLVANE_LDAP_EXPORT LDAPUtil {
public:
    LDAPUtil();
    virtual ~LDAPUtil();

    /// Escapes a value for use inside a search filter (RFC 2254 section 4): `*`, `(`, `)` and `\`
    /// become a backslash and two hexadecimal digits; every other byte, NUL included, is copied. A
    /// special character without an escape would be code 2, type 0, Utility.cpp:230; there is none.
    static std::string formalizeQueryFilter(std::string const& value);

    /// Expands a query template into a filter.
    ///
    /// `$u` user, `$d` domain ("#" for an empty one), `$m` `user@domain`; `$n` and `$a` are `$u` and
    /// `$m` in lower case, `$N` and `$A` in upper case; `$b` and `$g` the optional values; `$c`
    /// nothing. `${text}` removes the last occurrence of `text` from what was inserted last,
    /// `${^text}` the first. Text before `$c`, before `${` and before an empty `$b` or `$g` is
    /// dropped with it. Values are escaped, the template's own text is not.
    /// @param query   the template; blanks round it are dropped
    /// @param user    local part of the address
    /// @param domain  domain of the address
    /// @param bValue  what `$b` inserts
    /// @param gValue  what `$g` inserts
    /// @throws LDAPException  code 2, type 0, Utility.cpp:160: no `}` behind `${`;
    ///                        code 2, type 0, Utility.cpp:169: an unknown specifier;
    ///                        code 2, type 0, Utility.cpp:180: a `$` at the end. The text names the
    ///                        template
    static std::string sv_ldap_expand_query(std::string const& query, std::string const& user,
                                            std::string const& domain, std::string const& bValue,
                                            std::string const& gValue);

    /// Expands a template, up to its first NUL byte, for one address, with `$b` and `$g` empty.
    /// @throws LDAPException  as `sv_ldap_expand_query`
    static std::string instanceFilterTemplate(std::string const& filterTemplate,
                                              EmailAddress const& address);
};

} // namespace Solvane

#endif
