/// @file
/// Texts: what bytes are fit to be sent, shown or written, and small ones that messages are made of.
#ifndef SOLVANE_SESSION_PLAIN_TEXT_H
#define SOLVANE_SESSION_PLAIN_TEXT_H

#include <solvane/session/Export.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace Solvane::Lookup {

/// Why bytes are no plain line of text, and where.
struct TextFault {
    /// What is wrong.
    enum Kind { invalidUtf8, controlCharacter } kind; ///< what is wrong
    std::string_view::size_type position;             ///< of the first byte concerned
};

/// The first byte sequence that is not UTF-8 (RFC 3629: no surrogates, no overlong forms, nothing
/// above U+10FFFF) or is a control character (C0, DEL, C1); none when the text is a plain line.
SOLVANE_LOOKUP_EXPORT std::optional<TextFault> faultIn(std::string_view text);

/// The fault as words for the user, as "invalid UTF-8 at byte 7".
SOLVANE_LOOKUP_EXPORT std::string describe(TextFault const& fault);

/// True for UTF-8, control characters included.
SOLVANE_LOOKUP_EXPORT bool isUtf8(std::string_view bytes);

/// The text with every byte of a control character and of invalid UTF-8 as `\xNN`, so that it stays
/// on its line and does nothing to a terminal. What a server or user wrote is shown through it.
SOLVANE_LOOKUP_EXPORT std::string oneLine(std::string_view text);

/// True if there is nothing but blanks, tabs and line ends.
SOLVANE_LOOKUP_EXPORT bool isBlank(std::string_view text);

/// True if there is a NUL byte, where OpenLDAP would cut the text.
SOLVANE_LOOKUP_EXPORT bool hasNul(std::string_view text);

/// A time for messages, as "10 s" or "0.250 s".
SOLVANE_LOOKUP_EXPORT std::string inSeconds(std::chrono::milliseconds time);

/// Overwrites a secret and empties the string. Copies elsewhere stay.
SOLVANE_LOOKUP_EXPORT void wipe(std::string& secret);

} // namespace Solvane::Lookup

#endif
