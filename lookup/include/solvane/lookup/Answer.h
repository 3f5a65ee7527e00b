/// @file
/// What a lookup came to, and why.
#ifndef SOLVANE_LOOKUP_ANSWER_H
#define SOLVANE_LOOKUP_ANSWER_H

#include <solvane/lookup/Export.h>

#include <solvane/ldap/LDAPResult.h>

#include <list>
#include <string>

namespace Solvane::Lookup {

/// What a lookup, or a step on the way to it, came to. Only `NotFound` says that there is no such
/// entry; everything that stands behind it says that nobody knows.
enum class Outcome {
    Found,         ///< entries; of a step: it is done
    NotFound,      ///< a server answered completely, and there is no entry
    Skipped,       ///< the key's domain is none that is served; nobody was asked
    BadKey,        ///< the key cannot be looked up; nobody was asked
    TryLater,      ///< down, no answer in time, busy, or a limit hit
    Refused,       ///< the server refuses, refers elsewhere, or its certificate is not accepted
    Misconfigured, ///< the settings are wrong: template, filter, base, a file
};

/// Whether it is known as whom a connection's answers are given.
enum class Identity {
    Anonymous,   ///< no bind was asked for, so there is nothing to confirm
    Confirmed,   ///< the server said so ("Who am I?", RFC 4532)
    Unconfirmed, ///< the server does not support the question
};

/// How a step ended. `code` is an LDAP result code (RFC 4511 appendix A), or OpenLDAP's own below 0:
/// -1 the server is down or the connection broke, -4 what it sent is no LDAP, -5 no answer in time,
/// -7 a filter that is none, -9 a setting that cannot be used, -11 the server's certificate is not
/// accepted.
struct Verdict {
    Outcome outcome = Outcome::Found; ///< `Found`: the step is done
    int code = 0;                     ///< 0 where all went well
    std::string text; ///< one line, empty where all went well; never holds a password

    /// True when the step is done.
    bool isGood() const { return outcome == Outcome::Found; }
};

/// What a result code of a search means; never `NotFound`, which is for the entries to say.
SOLVANE_LOOKUP_EXPORT Outcome outcomeOfSearch(int code);
/// The same for a bind, where 32 speaks of the bind DN.
SOLVANE_LOOKUP_EXPORT Outcome outcomeOfBind(int code);

/// The answer to one key. A value, but for its entries, which copies share; those are for one thread
/// at a time, also for reading.
struct Answer {
    Outcome outcome = Outcome::TryLater; ///< what the key came to
    /// What was found; with `TryLater`, what came before a limit was hit. Handles: copies share.
    std::list<LDAPSearchResultEntry> entries;
    std::string filter; ///< of the last search, or of the one that could not be made; may be empty
    std::string server; ///< URI of the server that answered or failed last; empty: none was asked
    int code = 0;       ///< as in `Verdict`
    std::string text;   ///< why, in one line; may hold a remark where the outcome is `NotFound`
    Identity identity = Identity::Anonymous; ///< of the connection that answered
    bool wasRepeated = false;                ///< on a new connection, as the first one broke
    double milliseconds = 0;                 ///< from the key's start to its answer
};

} // namespace Solvane::Lookup

#endif
