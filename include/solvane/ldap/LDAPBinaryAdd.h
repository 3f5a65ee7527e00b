/// @file
/// Adding an entry whose values may have zero bytes.
#ifndef SOLVANE_LDAP_BINARY_ADD_H
#define SOLVANE_LDAP_BINARY_ADD_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPAttribute.h>
#include <solvane/ldap/LDAPOperation.h>

#include <list>
#include <string>

namespace Solvane {

/// Adding one entry (RFC 4511 section 4.7), like `LDAPAdd`, with every value sent with all its bytes.
///
/// `LDAPAdd` truncates values at their first zero byte unless their description has the option
/// "binary". The result has the server's code: 0 added, 68 the entry exists already, and so on. `send` and
/// `wait` throw what `LDAPOperation` lists and
/// - code 4, type 7, Changes.cpp:228: OpenLDAP refuses to send;
/// - code 4, type 7, Changes.cpp:235: the wait failed. The entry may or may not exist;
/// - code 1, type 0, Attribute.cpp:247: a null attribute, and nothing is sent;
/// - code 1, type 0, Attribute.cpp:41: an attribute with a null description, and nothing is sent.
class SOLVANE_LDAP_EXPORT LDAPBinaryAdd : public LDAPOperation {
public:
    /// A null handle.
    LDAPBinaryAdd();
    /// Adds the entry `dn` on `connection`, without attributes yet. Sends nothing.
    /// @param connection  shared with the request
    /// @param dn          copied
    LDAPBinaryAdd(LDAPConnection const& connection, std::string const& dn);
    /// Shares the body.
    LDAPBinaryAdd(LDAPBinaryAdd const& other);
    /// Releases its body and shares that of `other`.
    LDAPBinaryAdd& operator=(LDAPBinaryAdd const& other);
    ~LDAPBinaryAdd() override;

    /// The DN of the entry; you may change it until `send`.
    /// @throws LDAPException  code 1, type 0, Changes.cpp:182: null handle
    std::string& name();
    /// Appends attributes, whose bodies are shared.
    /// @throws LDAPException  code 1, type 0, Changes.cpp:191: null handle
    void attributes(std::list<LDAPAttribute> const& attributes);
    /// Replaces the attributes by those of `container`, which is shared: attributes added to it before
    /// `send` are sent too.
    /// @throws LDAPException  code 1, type 0, Changes.cpp:200: null handle
    void attributes(LDAPAttributeContainer const& container);
    /// The attributes to be sent.
    /// @throws LDAPException  code 1, type 0, Changes.cpp:209: null handle
    LDAPAttributeContainer const& attributes() const;
};

} // namespace Solvane

#endif
