// The names of outcomes.
#include <solvane/lookup/Verification.h>

namespace Solvane::Lookup {

char const* name(VerifyOutcome outcome)
{
    switch (outcome) {
    case VerifyOutcome::Accepted:
        return "accepted";
    case VerifyOutcome::Denied:
        return "denied";
    case VerifyOutcome::NotFound:
        return "not found";
    case VerifyOutcome::Skipped:
        return "skipped";
    case VerifyOutcome::BadKey:
        return "bad key";
    case VerifyOutcome::TryLater:
        return "try later";
    case VerifyOutcome::Refused:
        return "refused";
    case VerifyOutcome::Misconfigured:
        return "misconfigured";
    }
    return "unknown";
}

} // namespace Solvane::Lookup
