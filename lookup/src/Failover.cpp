// Combines the verdicts of several servers.
#include "Failover.h"

#include <algorithm>

#include <ldap.h>

namespace Solvane::Lookup {

namespace {

/// The distinct causes of all servers.
std::string textOf(std::vector<Failure> const& failures)
{
    std::string text;
    for (auto failure = failures.begin(); failure != failures.end(); ++failure) {
        bool const isKnown = std::any_of(failures.begin(), failure, [&](Failure const& other) {
            return other.why.text == failure->why.text;
        });
        if (!isKnown && !failure->why.text.empty()) {
            text += (text.empty() ? "" : "; ") + failure->why.text;
        }
    }
    return text;
}

} // namespace

Conclusion conclude(std::vector<Failure> const& failures)
{
    if (failures.empty()) {
        return {{Outcome::TryLater, -1, "no server could be asked"}, std::string()};
    }
    auto taken = std::find_if(failures.begin(), failures.end(),
                              [](Failure const& failure) { return failure.isFinal; });
    if (taken != failures.end()) {
        return {taken->why, taken->uri};
    }
    auto const first = failures.begin();
    bool const areAlike = std::all_of(first, failures.end(), [&](Failure const& failure) {
        return failure.why.outcome == first->why.outcome;
    });
    taken = std::find_if(first, failures.end(), [](Failure const& failure) {
        return failure.why.outcome == Outcome::TryLater;
    });
    if (taken == failures.end()) {
        taken = std::find_if(first, failures.end(), [](Failure const& failure) {
            return failure.why.code != LDAP_NO_SUCH_OBJECT;
        });
    }
    Failure const& source = taken != failures.end() ? *taken : *first;
    Outcome const outcome = areAlike ? source.why.outcome : Outcome::TryLater;
    return {{outcome, source.why.code, textOf(failures)}, source.uri};
}

} // namespace Solvane::Lookup
