/// @file
/// String functions. They use the white space of the C locale and ASCII case, in every locale.
#ifndef SOLVART_STRING_HELPERS_H
#define SOLVART_STRING_HELPERS_H

#include <solvart/Export.h>

#include <string>

namespace Solvane {

class Buffer;

/// Replacements for characters that a character set lacks. Not used by the stand-in.
class SVLStaticCharSetFallbacks;

/// Removes leading blanks in place.
SOLVART_EXPORT void stringLeftTrim(std::string& text);
/// Removes trailing blanks in place.
SOLVART_EXPORT void stringRightTrim(std::string& text);
/// Converts to lower case in place.
SOLVART_EXPORT void stringToLowerNoCopy(std::string& text);
/// Returns a copy in lower case.
SOLVART_EXPORT std::string copyStringToLower(std::string const& text);

/// Compares bytes, ignoring case.
/// @param left    one text
/// @param right   the other
/// @param length  maximum number of bytes to compare; 0 compares the whole strings
/// @return negative, 0 or positive if `left` sorts before, equal to or after `right`
SOLVART_EXPORT int stringCompareNoCase(std::string const& left, std::string const& right,
                                       unsigned int length);
/// The same for a null-terminated text.
SOLVART_EXPORT int stringCompareNoCase(char const* left, std::string const& right,
                                       unsigned int length);

/// Appends `text` to `out`, converted from the process's character set (`LC_CTYPE`) to UTF-8.
///
/// Valid UTF-8 (RFC 3629) is unchanged if the process uses UTF-8 or ASCII ("C"). A byte that the
/// character set does not define is converted from ISO 8859-1, so every text can be converted.
///
/// @param text       bytes in the process's character set
/// @param out        the UTF-8 text is appended to it
/// @param fallbacks  not used by the stand-in; may be null
/// @throws std::length_error  the length of `out` would exceed 32 bits; it is unchanged
SOLVART_EXPORT void stringToUtf8(std::string const& text, Buffer& out,
                                 SVLStaticCharSetFallbacks const* fallbacks);

} // namespace Solvane

#endif
