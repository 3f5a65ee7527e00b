/// @file
/// The result of verifying a password.
#ifndef SOLVANE_LOOKUP_VERIFICATION_H
#define SOLVANE_LOOKUP_VERIFICATION_H

#include <solvane/session/Export.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace Solvane::Lookup {

/// The outcome of verifying a password. Only `Accepted` lets a user in. `Denied` and `NotFound` are
/// answers of the directory; every later value means that the question was not answered.
enum class VerifyOutcome {
    Accepted,      ///< a server accepted a bind as the entry with this password
    Denied,        ///< a server refused it; see `Verification::denial`
    NotFound,      ///< there is no such entry
    Skipped,       ///< the domain is not served here; no server was asked
    BadKey,        ///< the key or the password is invalid (an empty password, for example)
    TryLater,      ///< temporary: unreachable, no answer in time, busy, or a limit hit
    Refused,       ///< the server refuses to answer, or its certificate is not accepted
    Misconfigured, ///< invalid settings, or several entries match the key
};

/// Why a server denied a bind, as far as it says so: by its result code or the password policy
/// control (draft-behera-ldap-password-policy-11).
enum class Denial {
    none,       ///< it did not deny it
    password,   ///< wrong password, or the server does not tell
    expired,    ///< the password has expired
    locked,     ///< the account is locked or disabled
    mustChange, ///< the password must be changed first
};

/// The result of verifying a password. A value.
struct Verification {
    VerifyOutcome outcome = VerifyOutcome::TryLater; ///< whether to let the user in
    Denial denial = Denial::none;                    ///< if `Denied`
    std::string dn;                                  ///< of the entry, once found
    std::string server; ///< URI of the server that answered or failed last
    int code = 0;       ///< as in `Verdict`
    std::string text;   ///< cause, one line; never contains the password
    /// With `Accepted`: when the password expires, if the server warns of it.
    std::optional<std::chrono::seconds> expiresIn;
    /// With `Accepted`: how many more binds the server grants with this expired password.
    std::optional<unsigned int> graceLogins;
    double milliseconds = 0; ///< from start to end
};

/// Whether a password may be sent to a server, as a bind as the entry `dn`. Called in the thread that
/// runs the verification, just before the bind; again for each server that is asked, if one cannot
/// answer. Must not throw.
using BindGuard = std::function<bool(std::string const& dn)>;

/// The name of an outcome, as "denied".
SOLVANE_LOOKUP_EXPORT char const* name(VerifyOutcome outcome);

} // namespace Solvane::Lookup

#endif
