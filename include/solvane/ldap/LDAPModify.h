/// @file
/// Modifying an entry.
#ifndef SOLVANE_LDAP_MODIFY_H
#define SOLVANE_LDAP_MODIFY_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPAttribute.h>
#include <solvane/ldap/LDAPOperation.h>

#include <list>
#include <string>

namespace Solvane {

/// Modifying the attributes of an entry (RFC 4511 section 4.6): a list of changes, which the server
/// applies in order, all or none.
///
/// Every value is sent with all its bytes, including zero bytes. The result has the server's code: 0
/// modified, 16 no such attribute, 20 the value exists already, 32 there is no such entry, and so on. `send`
/// and `wait` throw what `LDAPOperation` lists and
/// - code 4, type 8, Changes.cpp:158: OpenLDAP refuses to send;
/// - code 4, type 8, Changes.cpp:165: the wait failed. The entry may or may not be modified;
/// - code 1, type 0, Attribute.cpp:247: a null attribute, and nothing is sent;
/// - code 1, type 0, Attribute.cpp:41: an attribute with a null description, and nothing is sent.
class SOLVANE_LDAP_EXPORT LDAPModify : public LDAPOperation {
public:
    /// A null handle.
    LDAPModify();
    /// Modifies the entry `dn` on `connection`, without changes yet. Sends nothing.
    /// @param connection  shared with the request
    /// @param dn          copied
    LDAPModify(LDAPConnection const& connection, std::string const& dn);
    /// Shares the body.
    LDAPModify(LDAPModify const& other);
    /// Releases its body and shares that of `other`.
    LDAPModify& operator=(LDAPModify const& other);
    ~LDAPModify() override;

    /// Adds values, and the attribute if the entry lacks it. The attribute's body is shared.
    /// @throws LDAPException  code 1, type 0, Changes.cpp:112: null handle
    void add(LDAPAttribute const& attribute);
    /// The same with copies. `type` is an attribute description, sent as it is.
    /// @throws LDAPException      code 1, type 0, Changes.cpp:112: null handle
    /// @throws std::length_error  a value has 4 GiB or more
    void add(std::string const& type, std::list<std::string> const& values);

    /// Deletes values or, if `attribute` has none, **the whole attribute**. The attribute's body is
    /// shared.
    /// @throws LDAPException  code 1, type 0, Changes.cpp:121: null handle
    void remove(LDAPAttribute const& attribute);
    /// Deletes these values or, if the list is empty, **the whole attribute**.
    /// @throws LDAPException      code 1, type 0, Changes.cpp:121: null handle
    /// @throws std::length_error  a value has 4 GiB or more
    void remove(std::string const& type, std::list<std::string> const& values);

    /// Replaces all values of an attribute; without values, deletes it if the entry has it. The
    /// attribute's body is shared.
    /// @throws LDAPException  code 1, type 0, Changes.cpp:130: null handle
    void replace(LDAPAttribute const& attribute);
    /// The same with copies.
    /// @throws LDAPException      code 1, type 0, Changes.cpp:130: null handle
    /// @throws std::length_error  a value has 4 GiB or more
    void replace(std::string const& type, std::list<std::string> const& values);

    /// Adds `amount`, which may be negative, to each value of an attribute (RFC 4525).
    /// @throws LDAPException  code 1, type 0, Changes.cpp:139: null handle
    void increment(std::string const& type, long amount);
};

} // namespace Solvane

#endif
