// What bytes are fit to be shown, sent or written as text.
#ifndef SOLVANE_TOOL_TEXT_H
#define SOLVANE_TOOL_TEXT_H

#include <solvane/lookup/PlainText.h>

#include <string>
#include <string_view>

namespace Solvane::Tool {

using Lookup::describe;
using Lookup::faultIn;
using Lookup::isUtf8;
using Lookup::oneLine;
using Lookup::TextFault;

/// Appends `oneLine(text)`; without a copy where the text is a plain line.
void appendOneLine(std::string& out, std::string_view text);

/// Appends the bytes in base64 (RFC 4648 section 4).
void appendBase64(std::string& out, std::string_view bytes);

} // namespace Solvane::Tool

#endif
