// What the text forms of DNs, filters and LDIF have in common: UTF-8, hexadecimal digits, and the names of
// attribute types.
#ifndef SOLVANE_LDAP_SRC_VALUE_TEXT_H
#define SOLVANE_LDAP_SRC_VALUE_TEXT_H

#include "ThrowSite.h"

#include <string>
#include <string_view>

namespace Solvane {

/// Bytes of the UTF-8 character that `text` begins with (RFC 3629: no surrogates, no overlong forms,
/// nothing above U+10FFFF); 0 if it begins with none.
std::size_t characterLength(std::string_view text);
/// True for valid UTF-8, including control characters.
bool isUtf8(std::string_view text);

/// The value of a hexadecimal digit; -1 for any other character.
int hexDigit(char character);
/// Appends a byte as two digits, in upper case.
void appendHex(std::string& out, char byte);
/// Appends a backslash and the two digits of a byte.
void appendHexPair(std::string& out, char byte);

/// The text for a message: at most 64 bytes, without control characters and invalid UTF-8.
std::string shown(std::string_view text);

bool isControl(char character);
bool isAlphanumeric(char character);
/// With ASCII letters in lower case; other bytes are unchanged.
std::string lowerCased(std::string_view text);
/// Whether the texts are equal, ignoring the case of ASCII letters.
bool isSame(std::string_view left, std::string_view right);

/// Whether the text names an attribute type or a matching rule: a letter followed by letters, digits and
/// "-" (RFC 4512 section 1.4), or numbers separated by dots. Leading zeros, and a single number, are left
/// to the server.
bool isTypeName(std::string_view text);
/// Whether the text is a type name, followed by options of letters, digits and "-", each after a ";" (RFC
/// 4512 section 2.5).
bool isDescription(std::string_view text);

/// Reads a text by a grammar, from the left to the right. Its errors have the position.
class TextScanner {
protected:
    /// @param site  reports an error
    /// @param what  the text is, as "DN"
    TextScanner(std::string_view text, ThrowSite const& site, char const* what)
        : m_text(text), m_site(site), m_what(what)
    {
    }

    [[noreturn]] void refuse(char const* cause) const { refuse(cause, m_position); }
    [[noreturn]] void refuse(char const* cause, std::size_t position) const;

    std::size_t position() const { return m_position; }
    bool isAtEnd() const { return m_position == m_text.size(); }
    bool isAt(char character) const { return !isAtEnd() && m_text[m_position] == character; }
    bool isAtOneOf(std::string_view characters) const
    {
        return !isAtEnd() && characters.find(m_text[m_position]) != std::string_view::npos;
    }
    /// Skips the next character if it is this one.
    bool skip(char character);
    /// Skips all that follow each other.
    void skipAll(std::string_view characters);

    /// Letters, digits and `others`; may be empty.
    std::string takeName(std::string_view others);
    /// A byte, which must not be at the end.
    char takeByte() { return m_text[m_position++]; }
    /// Two hexadecimal digits.
    char takeHexPair();
    /// Appends the next character, which must be UTF-8.
    void takeCharacter(std::string& value);
    bool isAtHexDigit() const { return !isAtEnd() && hexDigit(m_text[m_position]) >= 0; }

private:
    std::string_view m_text;
    ThrowSite const& m_site;
    char const* m_what;
    std::size_t m_position = 0;
};

} // namespace Solvane

#endif
