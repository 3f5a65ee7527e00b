// Appends text to the output.
#include "Text.h"

#include <algorithm>

namespace Solvane::Tool {

bool isAlphanumeric(std::string_view text, std::string_view others)
{
    return std::all_of(text.begin(), text.end(), [others](char character) {
        return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
               (character >= '0' && character <= '9') ||
               others.find(character) != std::string_view::npos;
    });
}

void appendOneLine(std::string& out, std::string_view text)
{
    if (isPrintable(text)) {
        out.append(text);
    } else {
        out.append(oneLine(text));
    }
}

void appendField(std::string& out, std::string_view text, std::string_view separators)
{
    constexpr char digits[] = "0123456789ABCDEF";
    for (;;) {
        auto const special = std::find_if(text.begin(), text.end(), [&](char character) {
            return character == '\\' || separators.find(character) != std::string_view::npos;
        });
        auto const length = static_cast<std::string_view::size_type>(special - text.begin());
        appendOneLine(out, text.substr(0, length));
        if (special == text.end()) {
            return;
        }
        auto const byte = static_cast<unsigned char>(*special);
        out.append("\\x").append({digits[byte >> 4], digits[byte & 0x0F]});
        text.remove_prefix(length + 1);
    }
}

void appendBase64(std::string& out, std::string_view bytes)
{
    constexpr char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    out.reserve(out.size() + (bytes.size() + 2) / 3 * 4);
    while (!bytes.empty()) {
        std::string_view const group = bytes.substr(0, 3);
        unsigned long bits = 0;
        for (unsigned int i = 0; i < 3; ++i) {
            bits = (bits << 8) | (i < group.size() ? static_cast<unsigned char>(group[i]) : 0U);
        }
        for (unsigned int i = 0; i < 4; ++i) {
            out.push_back(i <= group.size() ? digits[(bits >> (18 - 6 * i)) & 0x3F] : '=');
        }
        bytes.remove_prefix(group.size());
    }
}

} // namespace Solvane::Tool
