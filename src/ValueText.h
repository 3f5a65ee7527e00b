// What the text forms of DNs, filters and LDIF have in common: UTF-8, hexadecimal digits, and the names of
// attribute types.
#ifndef SOLVANE_LDAP_SRC_VALUE_TEXT_H
#define SOLVANE_LDAP_SRC_VALUE_TEXT_H

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

} // namespace Solvane

#endif
