// Combines the failures of several servers into one outcome of a key.
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
    /// A search failed; otherwise no session could be opened.
    bool isOfSearch = false;
    Clock::time_point sentAt; ///< when the search was sent
    Clock::duration cost{0};  ///< time until it failed
    /// Another server cannot help: the credentials or a setting are wrong.
    bool isFinal = false;
};

/// The outcome of a key that no server answered. If all servers failed with the same outcome, it is
/// that one. Otherwise it is `TryLater`: the server that could have answered may be temporarily
/// down. Example: one replica refuses the base (`Misconfigured`), another one is down (`TryLater`).
/// A final failure (wrong credentials, invalid setting) decides alone. The code is that of a base
/// that does not exist only if all servers said so: it may mean that the key does not exist.
struct Conclusion {
    Verdict verdict;
    std::string server; ///< the URI of the server that it comes from
};
Conclusion conclude(std::vector<Failure> const& failures);

} // namespace Solvane::Lookup

#endif
