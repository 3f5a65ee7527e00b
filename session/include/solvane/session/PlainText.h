/// @file
/// Checks and formats text for messages and requests.
#ifndef SOLVANE_SESSION_PLAIN_TEXT_H
#define SOLVANE_SESSION_PLAIN_TEXT_H

#include <solvane/session/Export.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace Solvane::Lookup {

/// Why bytes are not a plain line of text, and where.
struct TextFault {
    /// Kind of fault.
    enum Kind { invalidUtf8, controlCharacter } kind; ///< kind of fault
    std::string_view::size_type position;             ///< of the first invalid byte
};

/// The first byte sequence that is not UTF-8 (RFC 3629: no surrogates, no overlong forms, nothing
/// above U+10FFFF) or is a control character (C0, DEL, C1); empty if the text is a plain line.
SOLVANE_LOOKUP_EXPORT std::optional<TextFault> faultIn(std::string_view text);

/// Describes the fault for a message, as "invalid UTF-8 at byte 7".
SOLVANE_LOOKUP_EXPORT std::string describe(TextFault const& fault);

/// True for valid UTF-8, including control characters.
SOLVANE_LOOKUP_EXPORT bool isUtf8(std::string_view bytes);

/// The text with every byte of a control character, of a bidirectional control (which reorders what
/// a reader sees) and of invalid UTF-8 as `\xNN`, so that it stays on one line and is safe to print
/// on a terminal. Use it for all text from servers and users.
SOLVANE_LOOKUP_EXPORT std::string oneLine(std::string_view text);

/// Whether `oneLine` returns the text unchanged.
SOLVANE_LOOKUP_EXPORT bool isPrintable(std::string_view text);

/// True if the text has only blanks, tabs and line ends.
SOLVANE_LOOKUP_EXPORT bool isBlank(std::string_view text);

/// True if the text has a NUL byte, at which OpenLDAP would cut it.
SOLVANE_LOOKUP_EXPORT bool hasNul(std::string_view text);

/// A duration for messages, as "10 s" or "0.250 s".
SOLVANE_LOOKUP_EXPORT std::string inSeconds(std::chrono::milliseconds time);

/// Overwrites a secret and clears the string; does not reach other copies.
SOLVANE_LOOKUP_EXPORT void wipe(std::string& secret);

} // namespace Solvane::Lookup

#endif
