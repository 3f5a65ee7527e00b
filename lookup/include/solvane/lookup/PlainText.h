/// @file
/// What bytes are fit to be sent, shown or written as text.
#ifndef SOLVANE_LOOKUP_PLAIN_TEXT_H
#define SOLVANE_LOOKUP_PLAIN_TEXT_H

#include <solvane/lookup/Export.h>

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

} // namespace Solvane::Lookup

#endif
