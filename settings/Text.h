// Helpers for text that is printed, sent or written.
#ifndef SOLVANE_TOOL_TEXT_H
#define SOLVANE_TOOL_TEXT_H

#include <solvane/session/PlainText.h>

#include <string>
#include <string_view>

namespace Solvane::Tool {

using Lookup::describe;
using Lookup::faultIn;
using Lookup::hasNul;
using Lookup::isPrintable;
using Lookup::isUtf8;
using Lookup::oneLine;
using Lookup::TextFault;
using Lookup::wipe;

/// Whether the text has only ASCII letters, ASCII digits and characters of `others`.
bool isAlphanumeric(std::string_view text, std::string_view others);

/// Joins the texts.
template <typename Texts> std::string joined(Texts const& texts, char const* separator)
{
    std::string all;
    for (std::string const& text : texts) {
        all += (all.empty() ? "" : separator) + text;
    }
    return all;
}

/// Appends `oneLine(text)`; without a copy if the text is already a plain line.
void appendOneLine(std::string& out, std::string_view text);

/// Appends a text that can be restored: `oneLine(text)` with `\` and the ASCII characters of
/// `separators` as `\xNN`, too.
void appendField(std::string& out, std::string_view text, std::string_view separators);

/// Appends the bytes in base64 (RFC 4648 section 4).
void appendBase64(std::string& out, std::string_view bytes);

} // namespace Solvane::Tool

#endif
