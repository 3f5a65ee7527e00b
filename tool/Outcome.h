// What a run of the tool can come to, what the process's exit status says of it, and which of them
// each LDAP result code means.
#ifndef SOLVANE_TOOL_OUTCOME_H
#define SOLVANE_TOOL_OUTCOME_H

namespace Solvane::Tool {

/// In the order of their weight: of several keys, the worst decides the exit status.
enum class Outcome {
    found,
    notFound,      ///< the directory answered, and has no such entry
    badInput,      ///< template, filter, key or DN
    refused,       ///< for good, or referred elsewhere
    tryLater,      ///< down, no answer in time, busy, a limit hit
    denied,        ///< credentials or access
    configuration, ///< base missing, a file that cannot be used
    usage,         ///< the command line
    outputFailed,  ///< standard output cannot be written
    internal,      ///< a fault of the tool itself
};

/// Exit status of the process (sysexits.h's numbers, and 0 and 1).
int exitStatusOf(Outcome outcome);

Outcome worse(Outcome left, Outcome right);

/// What a result code means for the one who asked, and what he can do about it.
struct Verdict {
    Outcome outcome;
    char const* remedy;
};

/// @param code  LDAP result code of a search (RFC 4511 appendix A), or OpenLDAP's own below 0.
/// Never
///              "found" or "notFound": those are for the entries to say.
Verdict verdictOnSearch(int code);
/// The same for a bind, where 32 speaks of the bind DN.
Verdict verdictOnBind(int code);

} // namespace Solvane::Tool

#endif
