/// @file
/// Outcomes and verdicts of lookups and their steps.
#ifndef SOLVANE_SESSION_VERDICT_H
#define SOLVANE_SESSION_VERDICT_H

#include <chrono>
#include <string>

namespace Solvane::Lookup {

/// The monotonic clock of all deadlines.
using Clock = std::chrono::steady_clock;

/// The outcome of a lookup, or of one of its steps. Only `NotFound` means that there is no such
/// entry; every later value means that the question was not answered.
enum class Outcome {
    Found,         ///< entries were found; of a step: done
    NotFound,      ///< a server answered completely: no entry
    Skipped,       ///< the domain is not served here; no server was asked
    BadKey,        ///< the key is invalid; no server was asked
    TryLater,      ///< temporary: unreachable, no answer in time, busy, or a limit hit
    Refused,       ///< refused, referred to another server, or the certificate is not accepted
    Misconfigured, ///< invalid settings: template, filter, base, a file
};

/// Whether the server confirmed the identity for which it answers.
enum class Identity {
    Anonymous,   ///< no bind was requested, so there is nothing to confirm
    Confirmed,   ///< the server confirmed it ("Who am I?", RFC 4532)
    Unconfirmed, ///< the server does not support "Who am I?"
};

/// How a step ended. `code` is an LDAP result code (RFC 4511 appendix A), or OpenLDAP's own below 0:
/// -1 the server is down or the connection broke, -2 this process cannot open a connection, -4 an
/// invalid message, -5 no answer in time, -6 Kerberos failed, -7 an invalid filter, -9 an unusable setting, -10 no memory is
/// left, -11 the server's certificate is not accepted.
struct Verdict {
    Outcome outcome = Outcome::Found; ///< `Found`: the step is done
    int code = 0;                     ///< 0 if all went well
    std::string text; ///< one line, empty if all went well; never contains a password

    /// True when the step is done.
    bool isGood() const { return outcome == Outcome::Found; }
};

} // namespace Solvane::Lookup

#endif
