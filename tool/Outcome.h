// The outcomes of a run, the exit status of each, and the outcome of each LDAP result code; the tool's
// exception, which has one.
#ifndef SOLVANE_TOOL_OUTCOME_H
#define SOLVANE_TOOL_OUTCOME_H

#include <optional>
#include <stdexcept>
#include <string>

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

namespace Solvane::Tool {

/// An error with its cause and its remedy; `what()` joins both. Never contains a password.
class Failure : public std::runtime_error {
public:
    /// @param code  LDAP result code, if a server or OpenLDAP reported one
    Failure(Outcome outcome, std::string const& cause, std::string const& remedy,
            std::optional<int> code = std::nullopt)
        : std::runtime_error(cause + "; " + remedy), m_outcome(outcome), m_cause(cause),
          m_remedy(remedy), m_code(code)
    {
    }

    Outcome outcome() const { return m_outcome; }
    std::string const& cause() const { return m_cause; }
    std::string const& remedy() const { return m_remedy; }
    std::optional<int> code() const { return m_code; }

private:
    Outcome m_outcome;
    std::string m_cause;
    std::string m_remedy;
    std::optional<int> m_code;
};

} // namespace Solvane::Tool

#endif
