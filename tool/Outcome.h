// The outcomes of a run, the exit status of each, and the outcome of each LDAP result code.
#ifndef SOLVANE_TOOL_OUTCOME_H
#define SOLVANE_TOOL_OUTCOME_H

namespace Solvane::Lookup {
struct Answer;
struct Verdict;
} // namespace Solvane::Lookup

namespace Solvane::Tool {

/// In ascending severity: with several keys, the worst one decides the exit status.
enum class Outcome {
    found,
    notFound,      ///< a server answered: no such entry
    exists,        ///< the entry to add already exists
    badInput,      ///< invalid template, filter, key, LDIF or DN
    refused,       ///< permanently, or referred to another server
    tryLater,      ///< temporary: down, no answer in time, busy, a limit hit
    denied,        ///< credentials, access or certificate refused
    configuration, ///< base missing, or an unusable file
    usage,         ///< invalid command line
    outputFailed,  ///< cannot write to standard output
    internal,      ///< an error of the tool itself
};

/// Exit status of the process (sysexits.h's numbers, and 0 and 1).
int exitStatusOf(Outcome outcome);

Outcome worse(Outcome left, Outcome right);

/// The outcome of a key; a skipped one counts as not found.
Outcome outcomeOf(Lookup::Answer const& answer);
/// The outcome of a step, such as a connect or a bind.
Outcome outcomeOf(Lookup::Verdict const& verdict);
/// The outcome of an add that was answered with `code`, or that could not be sent.
Outcome outcomeOfAdd(int code);

/// What the user can do about it; empty unless something failed.
char const* remedyFor(Lookup::Answer const& answer);
char const* remedyFor(Lookup::Verdict const& verdict);
char const* remedyForAdd(int code);

} // namespace Solvane::Tool

#endif
