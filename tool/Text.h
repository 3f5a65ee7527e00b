// What bytes are fit to be shown, sent or written as text.
#ifndef SOLVANE_TOOL_TEXT_H
#define SOLVANE_TOOL_TEXT_H

#include <optional>
#include <string>
#include <string_view>

namespace Solvane::Tool {

/// Why bytes are no plain line of text, and where.
struct TextFault {
    enum Kind { invalidUtf8, controlCharacter } kind;
    std::string_view::size_type position;
};

/// The first byte sequence that is not UTF-8 (RFC 3629: no surrogates, no overlong forms, nothing
/// above U+10FFFF) or is a control character (C0, DEL, C1); none when the text is a plain line.
std::optional<TextFault> faultIn(std::string_view text);

/// The fault as words for the user.
std::string describe(TextFault const& fault);

/// True for UTF-8, control characters included.
bool isUtf8(std::string_view bytes);

/// The text with every byte of a control character and of invalid UTF-8 as `\xNN`, so that it stays
/// on its line and does nothing to a terminal. What a server or user wrote is shown through it.
std::string oneLine(std::string_view text);

/// RFC 4648 section 4.
std::string base64(std::string_view bytes);

} // namespace Solvane::Tool

#endif
