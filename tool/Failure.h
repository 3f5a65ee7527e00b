// The tool's exception: an outcome, and one line for the user.
#ifndef SOLVANE_TOOL_FAILURE_H
#define SOLVANE_TOOL_FAILURE_H

#include "Outcome.h"

#include <optional>
#include <stdexcept>
#include <string>

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
