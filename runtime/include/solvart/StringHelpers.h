/// @file
/// Small operations on byte strings. Blanks are the C locale's white space, case is ASCII's,
/// whatever locale the process has chosen.
#ifndef SOLVART_STRING_HELPERS_H
#define SOLVART_STRING_HELPERS_H

#include <solvart/Export.h>

#include <string>

namespace Solvane {

class Buffer;

/// Replacements for characters that a character set lacks. The stand-in has none: UTF-8 holds all.
class SVLStaticCharSetFallbacks;

/// Removes leading blanks in place.
SOLVART_EXPORT void stringLeftTrim(std::string& text);
/// Removes trailing blanks in place.
SOLVART_EXPORT void stringRightTrim(std::string& text);
/// Lower-cases in place.
SOLVART_EXPORT void stringToLowerNoCopy(std::string& text);
/// Returns a lower-cased copy.
SOLVART_EXPORT std::string copyStringToLower(std::string const& text);

/// Compares without regard to case, byte by byte as unsigned numbers.
/// @param left    one text
/// @param right   the other
/// @param length  how many bytes to compare at the most; 0 compares the whole strings
/// @return negative, 0 or positive as `left` sorts before, with or after `right`
SOLVART_EXPORT int stringCompareNoCase(std::string const& left, std::string const& right,
                                       unsigned int length);
/// The same of a null-terminated text.
SOLVART_EXPORT int stringCompareNoCase(char const* left, std::string const& right,
                                       unsigned int length);

/// Appends `text` to `out`, converted from the process's character set (`LC_CTYPE`) to UTF-8.
///
/// What is valid UTF-8 (RFC 3629) stays as it is in a UTF-8 and in an ASCII ("C") process. A byte
/// that the character set does not define is taken as ISO 8859-1, so no text is refused or lost.
///
/// @param text       bytes in the process's character set
/// @param out        receives the UTF-8 behind what it holds already
/// @param fallbacks  unused here; may be null
/// @throws std::length_error  `out` would not fit 32 bits; it is unchanged
SOLVART_EXPORT void stringToUtf8(std::string const& text, Buffer& out,
                                 SVLStaticCharSetFallbacks const* fallbacks);

} // namespace Solvane

#endif
