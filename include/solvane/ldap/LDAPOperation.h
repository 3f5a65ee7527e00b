/// @file
/// Base of the requests other than search and add: controls, and a cancel that abandons.
#ifndef SOLVANE_LDAP_OPERATION_H
#define SOLVANE_LDAP_OPERATION_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPConnection.h>
#include <solvane/ldap/LDAPRequest.h>

#include <list>
#include <string>

namespace Solvane {

/// Base of delete, compare, rename, modify, the binary add, extended operations and streamed searches.
///
/// `send`, `wait`, `result` and `cancel` are those of `LDAPRequest`, and differ from a search's and an
/// add's in the following:
///
/// - `send` may be called again. It then abandons the request that is still in flight, if any, and
///   clears result and response controls.
/// - `wait` returns false for a request that is complete, as often as it is called. Its timeout is for the
///   whole call: intermediate responses (RFC 4511 section 4.13) are dropped and do not prolong it.
/// - `cancel` abandons the request (RFC 4511 section 4.11): it is no longer in flight, `id` is 0, and
///   its response is dropped. The server may have carried it out nevertheless. If the abandon cannot be
///   sent, its error is recorded on the connection. Does nothing if no request is in flight.
/// - Once `wait` has thrown, other than for a referral, the request is no longer in flight, and `id` is
///   0. It is not abandoned: the server may have carried it out, or may do so yet.
/// - Destroying the last handle of a request in flight does not abandon it, except for a stream.
/// - An error of OpenLDAP, and a response that cannot be decoded, are recorded on the connection
///   (`openldapErrorCode`), so that the pool drops it.
///
/// The result has the server's code; a code other than 0 is not an exception. Texts with a zero byte,
/// which OpenLDAP would truncate, are refused; values may have zero bytes.
///
/// `send` throws `LDAPException`
/// - code 1, type 0, Operation.cpp:61: the connection is a null handle;
/// - code 2, type 0, Operation.cpp:70: a DN, an attribute description or an object identifier has a
///   zero byte, and nothing is sent;
/// - of the line that each class names: OpenLDAP refuses to send, as for a dead connection.
///
/// `wait` throws `LDAPException`
/// - code 2, type 0, Operation.cpp:92: no request is in flight: not sent, canceled, or an earlier `wait`
///   has thrown;
/// - of the line that each class names: the wait failed, as for a connection that broke;
/// - code 4, type 6, Operation.cpp:103: the response is of another operation, and the connection can no
///   longer be used;
/// - code 1, type 6, Operation.cpp:112: OpenLDAP cannot parse the response or its controls;
/// - code 4, type 5, Result.cpp:624: the response is a referral. The result is complete, with code 10
///   and the URIs. A response that has URIs and code 0 is malformed: there is no result.
///
/// Copies share one body. Not thread-safe, and neither are other requests on the same connection.
class SOLVANE_LDAP_EXPORT LDAPOperation : public LDAPRequest {
public:
    /// A control (RFC 4511 section 4.1.11): what a request asks for besides its operation, or what a
    /// response says besides its result.
    ///
    /// A value: copies are independent. Thread-safe for reading.
    class SOLVANE_LDAP_EXPORT Control {
    public:
        /// A control without a value.
        /// @param oid       object identifier, such as "2.16.840.1.113730.3.4.2"
        /// @param critical  true: a server that does not support it refuses the request with code 12;
        ///                  false: it ignores the control
        Control(std::string const& oid, bool critical);
        /// A control with a value.
        /// @param oid       object identifier
        /// @param critical  as above
        /// @param value     the bytes, which may include zero bytes; an empty value is sent as such
        Control(std::string const& oid, bool critical, std::string const& value);
        /// An independent copy.
        Control(Control const& other);
        /// An independent copy.
        Control& operator=(Control const& other);
        ~Control();

        /// The object identifier.
        std::string const& oid() const { return m_oid; }
        /// Whether the server must support it.
        bool isCritical() const { return m_isCritical; }
        /// Whether there is a value, which may be empty.
        bool hasValue() const { return m_hasValue; }
        /// The bytes of the value; empty if there is none.
        std::string const& value() const { return m_value; }

    private:
        std::string m_oid;
        std::string m_value;
        bool m_isCritical;
        bool m_hasValue;
    };

    ~LDAPOperation() override;

    /// The controls to send; you may change the list until `send`.
    /// @throws LDAPException  code 1, type 0, Operation.cpp:34: null handle
    std::list<Control>& controls();
    /// The controls of the response, none of them critical; empty before it has arrived.
    /// @throws LDAPException  code 1, type 0, Operation.cpp:43: null handle
    std::list<Control> const& responseControls() const;

protected:
    /// A null handle.
    LDAPOperation();
    /// Shares the body.
    LDAPOperation(LDAPOperation const& other);
    /// Releases its body and shares that of `other`.
    LDAPOperation& operator=(LDAPOperation const& other);
};

} // namespace Solvane

#endif
