// The UTF-8 decoder and what is built on it.
#include "Text.h"

#include <fmt/format.h>

namespace Solvane::Tool {

namespace {

struct Decoded {
    std::string_view::size_type length; ///< 0 when the bytes are not UTF-8
    char32_t character;
};

/// The lead byte's length, the bits of the character in it, and the least character of that length.
struct Form {
    std::string_view::size_type length;
    unsigned char bits;
    char32_t least;
};

Form formOf(unsigned char lead)
{
    if (lead < 0x80) {
        return {1, 0x7F, 0};
    }
    if ((lead & 0xE0) == 0xC0) {
        return {2, 0x1F, 0x80};
    }
    if ((lead & 0xF0) == 0xE0) {
        return {3, 0x0F, 0x800};
    }
    if ((lead & 0xF8) == 0xF0) {
        return {4, 0x07, 0x10000};
    }
    return {0, 0, 0};
}

Decoded decode(std::string_view text)
{
    auto const lead = static_cast<unsigned char>(text.front());
    Form const form = formOf(lead);
    if (form.length == 0 || text.size() < form.length) {
        return {0, 0};
    }
    char32_t character = lead & form.bits;
    for (char const byte : text.substr(1, form.length - 1)) {
        auto const next = static_cast<unsigned char>(byte);
        if ((next & 0xC0) != 0x80) {
            return {0, 0};
        }
        character = (character << 6) | (next & 0x3F);
    }
    bool const isSurrogate = character >= 0xD800 && character <= 0xDFFF;
    if (character < form.least || character > 0x10FFFF || isSurrogate) {
        return {0, 0};
    }
    return {form.length, character};
}

bool isControl(char32_t character)
{
    return character < 0x20 || (character >= 0x7F && character <= 0x9F);
}

} // namespace

std::optional<TextFault> faultIn(std::string_view text)
{
    std::string_view::size_type position = 0;
    while (position < text.size()) {
        Decoded const next = decode(text.substr(position));
        if (next.length == 0) {
            return TextFault{TextFault::invalidUtf8, position};
        }
        if (isControl(next.character)) {
            return TextFault{TextFault::controlCharacter, position};
        }
        position += next.length;
    }
    return std::nullopt;
}

std::string describe(TextFault const& fault)
{
    return fmt::format("{} at byte {}",
                       fault.kind == TextFault::invalidUtf8 ? "invalid UTF-8"
                                                            : "a control character",
                       fault.position);
}

bool isUtf8(std::string_view bytes)
{
    while (!bytes.empty()) {
        Decoded const next = decode(bytes);
        if (next.length == 0) {
            return false;
        }
        bytes.remove_prefix(next.length);
    }
    return true;
}

std::string oneLine(std::string_view text)
{
    std::string shown;
    while (!text.empty()) {
        Decoded const next = decode(text);
        bool const isPlain = next.length != 0 && !isControl(next.character);
        std::string_view const bytes = text.substr(0, next.length == 0 ? 1 : next.length);
        if (isPlain) {
            shown.append(bytes);
        } else {
            for (char const byte : bytes) {
                shown.append(fmt::format("\\x{:02X}", static_cast<unsigned char>(byte)));
            }
        }
        text.remove_prefix(bytes.size());
    }
    return shown;
}

std::string base64(std::string_view bytes)
{
    constexpr char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    while (!bytes.empty()) {
        std::string_view const group = bytes.substr(0, 3);
        unsigned long bits = 0;
        for (unsigned int i = 0; i < 3; ++i) {
            bits = (bits << 8) | (i < group.size() ? static_cast<unsigned char>(group[i]) : 0U);
        }
        for (unsigned int i = 0; i < 4; ++i) {
            text.push_back(i <= group.size() ? digits[(bits >> (18 - 6 * i)) & 0x3F] : '=');
        }
        bytes.remove_prefix(group.size());
    }
    return text;
}

} // namespace Solvane::Tool
