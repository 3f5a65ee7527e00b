/// @file
/// Comparing a value with those of an entry.
#ifndef SOLVANE_LDAP_COMPARE_H
#define SOLVANE_LDAP_COMPARE_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPOperation.h>

#include <string>

namespace Solvane {

/// Whether an entry has a value (RFC 4511 section 4.10), by the equality rule of the attribute.
///
/// The server answers with code 6 (true) or 5 (false); any other code means that it did not compare: 16
/// the entry lacks the attribute, 32 there is no such entry, and so on. `send` and `wait` throw what
/// `LDAPOperation` lists and
/// - code 4, type 11, Changes.cpp:61: OpenLDAP refuses to send;
/// - code 4, type 11, Changes.cpp:68: the wait failed.
class SOLVANE_LDAP_EXPORT LDAPCompare : public LDAPOperation {
public:
    /// What the response says.
    enum Outcome : int {
        CompareOther = 0, ///< no response yet, or the server did not compare
        CompareTrue = 1,  ///< the entry has the value
        CompareFalse = 2  ///< the entry has the attribute, without this value
    };

    /// A null handle.
    LDAPCompare();
    /// Compares on `connection`. Sends nothing.
    /// @param connection  shared with the request
    /// @param dn          the entry
    /// @param type        attribute description
    /// @param value       the value, with all its bytes
    LDAPCompare(LDAPConnection const& connection, std::string const& dn, std::string const& type,
                std::string const& value);
    /// Shares the body.
    LDAPCompare(LDAPCompare const& other);
    /// Releases its body and shares that of `other`.
    LDAPCompare& operator=(LDAPCompare const& other);
    ~LDAPCompare() override;

    /// What the response says.
    /// @throws LDAPException  code 1, type 0, Changes.cpp:52: null handle
    Outcome outcome() const;
};

} // namespace Solvane

#endif
