// What became of a key on the servers that could not answer it, and what follows from all of them.
#ifndef SOLVANE_LOOKUP_SRC_FAILOVER_H
#define SOLVANE_LOOKUP_SRC_FAILOVER_H

#include <solvane/session/Verdict.h>

#include <cstddef>
#include <string>
#include <vector>

namespace Solvane::Lookup {

/// A server that could not answer a key.
struct Failure {
    std::size_t server = 0; ///< its index
    std::string uri;
    Verdict why;
    /// Its search failed; otherwise no session could be opened.
    bool isOfSearch = false;
    Clock::time_point sentAt; ///< that search
    Clock::duration cost{0};  ///< how long it took to fail
    /// No other server would answer: the fault is in the credentials or in a setting.
    bool isFinal = false;
};

/// The outcome of a key that no server answered. It is what the servers say if all say the same;
/// otherwise it is to be tried later, as the one that can answer may be the one that is away.
struct Conclusion {
    Verdict verdict;
    std::string server; ///< the URI of the one that it is taken from
};
Conclusion conclude(std::vector<Failure> const& failures);

} // namespace Solvane::Lookup

#endif
