/// @file
/// Extended operations.
#ifndef SOLVANE_LDAP_EXTENDED_H
#define SOLVANE_LDAP_EXTENDED_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPOperation.h>

#include <string>

namespace Solvane {

/// An extended operation (RFC 4511 section 4.12), with protocol version 3 only: an object identifier and
/// bytes there and back.
///
/// Static functions build those of RFC 4532, 3062 and 3909. `startTls` of the connection is one too, but
/// must not be sent by this class. The result has the server's code: 0 done, 2 the server does not know
/// the operation, and so on. `send` and `wait` throw what `LDAPOperation` lists and
/// - code 4, type 12, Extended.cpp:84: OpenLDAP refuses to send;
/// - code 4, type 12, Extended.cpp:91: the wait failed;
/// - code 2, type 0, Extended.cpp:75: the object identifier is empty, and nothing is sent;
/// - code 2, type 0, Extended.cpp:126: passwords are not sent twice; build a new request.
class SOLVANE_LDAP_EXPORT LDAPExtended : public LDAPOperation {
public:
    /// A null handle.
    LDAPExtended();
    /// An operation without a value. Sends nothing.
    /// @param connection  shared with the request
    /// @param oid         object identifier of the operation
    LDAPExtended(LDAPConnection const& connection, std::string const& oid);
    /// An operation with a value. Sends nothing.
    /// @param connection  shared with the request
    /// @param oid         object identifier of the operation
    /// @param value       the bytes; an empty value is sent as such
    LDAPExtended(LDAPConnection const& connection, std::string const& oid,
                 std::string const& value);
    /// Shares the body.
    LDAPExtended(LDAPExtended const& other);
    /// Releases its body and shares that of `other`.
    LDAPExtended& operator=(LDAPExtended const& other);
    ~LDAPExtended() override;

    /// Asks who the connection is bound as ("Who am I?", RFC 4532). `responseValue` is then the
    /// authorization identity, such as "dn:uid=anna,dc=example,dc=com"; empty if anonymous.
    static LDAPExtended whoAmI(LDAPConnection const& connection);

    /// Changes a user's password (RFC 3062). The result has the server's code: 49 or 53 the old
    /// password is wrong, 50 not permitted, 19 the new one is against a policy, and so on.
    ///
    /// The passwords are sent with all their bytes; use TLS. This library writes them to no log and no
    /// exception. It wipes its copy and OpenLDAP's when the request is written; a network timeout of 0,
    /// with which OpenLDAP may write it later, leaves OpenLDAP's.
    /// @param connection   shared with the request
    /// @param user         the user's DN, or another name that the server understands; empty: the
    ///                     identity that the connection is bound as
    /// @param oldPassword  the present password; empty: not sent
    /// @param newPassword  the new password
    /// @throws LDAPException  code 2, type 0, Extended.cpp:108: the new password is empty, which would
    ///                        ask the server to generate one
    static LDAPExtended modifyPassword(LDAPConnection const& connection, std::string const& user,
                                       std::string const& oldPassword,
                                       std::string const& newPassword);
    /// The same with a password that the server generates; `generatedPassword` has it. OpenLDAP frees
    /// the response, with that password, without wiping it.
    static LDAPExtended generatePassword(LDAPConnection const& connection, std::string const& user,
                                         std::string const& oldPassword);

    using LDAPRequest::cancel;
    /// Cancels another request in flight (RFC 3909). Unlike an abandon, both requests get a response:
    /// this one says whether the other was canceled (0) or was not (118 to 121), and that one ends with
    /// code 118 if it was.
    /// @param connection  that of the other request; shared with the request
    /// @param messageId   `id` of the other request
    /// @throws LDAPException  code 2, type 0, Extended.cpp:117: the id is not of a request in flight
    static LDAPExtended cancel(LDAPConnection const& connection, int messageId);

    /// The object identifier of the response; empty if there is none.
    /// @throws LDAPException  code 1, type 0, Extended.cpp:33: null handle
    std::string const& responseOid() const;
    /// Whether the response has a value, which may be empty.
    /// @throws LDAPException  code 1, type 0, Extended.cpp:42: null handle
    bool hasResponseValue() const;
    /// The bytes of the response's value; empty if there is none. Wiped with the body.
    /// @throws LDAPException  code 1, type 0, Extended.cpp:51: null handle
    std::string const& responseValue() const;
    /// The password in the response to `generatePassword`; empty if there is none. The caller wipes it.
    /// @throws LDAPException  code 1, type 0, Extended.cpp:60: null handle;
    ///                        code 1, type 6, Extended.cpp:135: the response's value is malformed
    std::string generatedPassword() const;
};

} // namespace Solvane

#endif
