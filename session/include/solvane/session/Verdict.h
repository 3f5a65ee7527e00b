/// @file
/// How a step towards an answer ended.
#ifndef SOLVANE_SESSION_VERDICT_H
#define SOLVANE_SESSION_VERDICT_H

#include <chrono>
#include <string>

namespace Solvane::Lookup {

/// Deadlines are moments of this clock, which is never set.
using Clock = std::chrono::steady_clock;

/// What a lookup, or a step on the way to it, ended with. Only `NotFound` says that there is no such
/// entry; every later value means that the question was not answered.
enum class Outcome {
    Found,         ///< entries; of a step: it is done
    NotFound,      ///< a server answered completely, and there is no entry
    Skipped,       ///< the domain is not served here; no server was asked
    BadKey,        ///< the key cannot be looked up; no server was asked
    TryLater,      ///< unreachable, no answer in time, busy, or a limit hit
    Refused,       ///< the server refuses, refers elsewhere, or its certificate is not accepted
    Misconfigured, ///< the settings are wrong: template, filter, base, a file
};

/// As whom the answers of a connection are given.
enum class Identity {
    Anonymous,   ///< no bind was asked for, so there is nothing to confirm
    Confirmed,   ///< the server said so ("Who am I?", RFC 4532)
    Unconfirmed, ///< the server does not support the question
};

/// How a step ended. `code` is an LDAP result code (RFC 4511 appendix A), or OpenLDAP's own below 0:
/// -1 the server is down or the connection broke, -2 this process cannot open a connection, -4 an
/// invalid message, -5 no answer in time, -7 an invalid filter, -9 an unusable setting, -10 no memory is
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
