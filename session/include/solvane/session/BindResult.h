/// @file
/// The result of a bind that was sent as a request.
#ifndef SOLVANE_SESSION_BIND_RESULT_H
#define SOLVANE_SESSION_BIND_RESULT_H

#include <solvane/session/Export.h>
#include <solvane/session/Session.h>

#include <chrono>
#include <optional>
#include <string>

namespace Solvane::Lookup {

/// What a server says in its response to a bind: the result, and the state of the password and the
/// account, if the server reports it. A value.
struct BindResult {
    /// The error of the password policy control (draft-behera-ldap-password-policy-11 section 6.2),
    /// as far as it concerns a bind.
    enum class PolicyError {
        none,            ///< no control, no error, or one that does not concern a bind
        passwordExpired, ///< 0
        accountLocked,   ///< 1
        changeAfterReset ///< 2
    };

    int code = 0; ///< LDAP result code
    /// The server's diagnostic message, as sent; not safe to print. Like `words`, it may repeat the
    /// password of the bind: search both for it before they are shown or logged.
    std::string serverText;
    /// Text of the code and everything that the server added, on one line.
    std::string words;
    bool hasPolicy = false;                      ///< the response has a password policy control
    PolicyError policyError = PolicyError::none; ///< from that control
    /// Until the password expires, from the password policy control or Netscape's "password
    /// expiring" (2.16.840.1.113730.3.4.5).
    std::optional<std::chrono::seconds> expiresIn;
    std::optional<unsigned int> graceLogins; ///< binds that are left with an expired password
    bool isMarkedExpired = false; ///< Netscape's "password expired" (2.16.840.1.113730.3.4.4)
};

/// Reads the response to a bind (RFC 4511 section 4.2.2).
/// @param session  that received the message
/// @param message  as received, parsed by OpenLDAP
/// @param result   receives the result
/// @return false if the message is not a bind response, is malformed, or contradicts itself: a
///         success with referrals, or with a password policy control that cannot be read
SOLVANE_LOOKUP_EXPORT bool readBindResult(Session const& session, Session::Message const& message,
                                          BindResult& result);

} // namespace Solvane::Lookup

#endif
