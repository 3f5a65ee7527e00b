// What a run of the tool can come to, what the process's exit status says of it, and which of them
// each LDAP result code means.
#ifndef SOLVANE_TOOL_OUTCOME_H
#define SOLVANE_TOOL_OUTCOME_H

namespace Solvane::Lookup {
struct Answer;
struct Verdict;
} // namespace Solvane::Lookup

namespace Solvane::Tool {

/// In the order of their weight: of several keys, the worst decides the exit status.
enum class Outcome {
    found,
    notFound,      ///< the directory answered, and has no such entry
    exists,        ///< an entry that is to be added is there already
    badInput,      ///< template, filter, key, LDIF or DN
    refused,       ///< for good, or referred elsewhere
    tryLater,      ///< down, no answer in time, busy, a limit hit
    denied,        ///< credentials, access or certificate
    configuration, ///< base missing, a file that cannot be used
    usage,         ///< the command line
    outputFailed,  ///< standard output cannot be written
    internal,      ///< a fault of the tool itself
};

/// Exit status of the process (sysexits.h's numbers, and 0 and 1).
int exitStatusOf(Outcome outcome);

Outcome worse(Outcome left, Outcome right);

/// The outcome of a key. One that was skipped has no entry, and counts as not found.
Outcome outcomeOf(Lookup::Answer const& answer);
/// The outcome of a step on the way to an answer, as a connect or a bind.
Outcome outcomeOf(Lookup::Verdict const& verdict);
/// The outcome of an add that was answered with `code`, or could not be sent for it.
Outcome outcomeOfAdd(int code);

/// What the user can do about it; empty where nothing is wrong.
char const* remedyFor(Lookup::Answer const& answer);
char const* remedyFor(Lookup::Verdict const& verdict);
char const* remedyForAdd(int code);

} // namespace Solvane::Tool

#endif
