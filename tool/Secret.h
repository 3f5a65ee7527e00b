// Passwords: where they come from, and how long their bytes live.
#ifndef SOLVANE_TOOL_SECRET_H
#define SOLVANE_TOOL_SECRET_H

#include <string>
#include <string_view>

namespace Solvane::Tool {

/// A password, overwritten at its end. Never copied, never shown.
class Secret {
public:
    Secret();
    ~Secret();
    Secret(Secret const&) = delete;
    Secret& operator=(Secret const&) = delete;

    /// Reads a file that only its owner can read.
    /// @throws Failure  "configuration": it cannot be read or others can read it, or what all
    ///                  sources refuse: nothing in it, a NUL byte, more than `longest` bytes
    void readFile(std::string const& path);
    /// Reads an open descriptor to its end.
    /// @throws Failure  "configuration"
    void readDescriptor(int descriptor);
    /// Asks at the terminal, without echo; again after a signal that stopped the process meanwhile.
    /// @throws Failure  "configuration": there is no terminal, or what all sources refuse
    void ask(std::string const& dn);

    /// Takes bytes that were read elsewhere.
    /// @param source  where they are from, for a failure's text
    /// @throws Failure  "configuration": what all sources refuse
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

    std::string m_text; ///< its memory is reserved once: growing would leave copies behind
};

} // namespace Solvane::Tool

#endif
