// Passwords: their sources, and the lifetime of their bytes.
#ifndef SOLVANE_TOOL_SECRET_H
#define SOLVANE_TOOL_SECRET_H

#include <string>
#include <string_view>

namespace Solvane::Tool {

/// Owns a password; the destructor overwrites it. Never copied, never shown. Not thread-safe.
class Secret {
public:
    /// Whose password it is, for prompts and failures.
    enum class Owner {
        bindDn,           ///< the DN of the options
        user,             ///< the user whose password is verified
        oldPassword,      ///< the user whose password is changed
        newPassword,      ///< likewise
        repeatedPassword, ///< the same, typed again
    };

    explicit Secret(Owner owner = Owner::bindDn);
    ~Secret();
    Secret(Secret const&) = delete;
    Secret& operator=(Secret const&) = delete;

    /// Reads a file that others cannot read (`requirePrivate`).
    /// @throws Failure  "configuration": it cannot be read, others can read it, or the password is
    ///                  invalid (empty, with a NUL byte, or longer than `longest` bytes). An empty
    ///                  one of a user is "badInput"
    void readFile(std::string const& path);
    /// Reads an open descriptor to its end.
    /// @throws Failure  "configuration": it cannot be read, or the password is invalid
    void readDescriptor(int descriptor);
    /// Asks at the terminal, without echo. Asks again if a signal stopped the process meanwhile.
    /// @throws Failure  "configuration": there is no terminal, or the password is invalid
    void ask(std::string const& name);

    /// Copies bytes that were read elsewhere, in place of the password.
    /// @param source  their origin, for the text of a failure
    /// @throws Failure  "configuration": the password is invalid
    void assign(std::string_view bytes, std::string const& source);

    bool isEmpty() const { return m_text.empty(); }
    std::string const& text() const { return m_text; }

    static constexpr std::string::size_type longest = 1024; ///< bytes

private:
    void readToEnd(int descriptor, std::string const& source);
    bool askOnce(int terminal, std::string const& prompt);
    bool readByte(int descriptor, std::string const& source, char& byte);
    void append(char byte, std::string const& source);
    void finish(std::string const& source);

    Owner m_owner;
    std::string m_text; ///< reserved once: growing would leave copies in memory
};

} // namespace Solvane::Tool

#endif
