/// @file
/// What a lookup came to, and why.
#ifndef SOLVANE_LOOKUP_ANSWER_H
#define SOLVANE_LOOKUP_ANSWER_H

#include <solvane/session/ResultCodes.h>
#include <solvane/session/Verdict.h>

#include <solvane/ldap/LDAPResult.h>

#include <list>
#include <string>

namespace Solvane::Lookup {

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
