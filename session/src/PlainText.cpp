// The UTF-8 decoder and functions based on it.
#include <solvane/session/PlainText.h>

#include <algorithm>
#include <cstring>

namespace Solvane::Lookup {

namespace {

using Size = std::string_view::size_type;

struct Decoded {
    Size length; ///< 0 when the bytes are not UTF-8
    char32_t character;
};

/// For a lead byte: length of the sequence, its character bits, the smallest character of that
/// length.
struct Form {
    Size length;
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

/// Marks, embeddings, overrides and isolates (Unicode, UAX #9).
bool isBidirectional(char32_t character)
{
    return character == 0x061C || character == 0x200E || character == 0x200F ||
           (character >= 0x202A && character <= 0x202E) ||
           (character >= 0x2066 && character <= 0x2069);
}

bool isAscii(char byte) { return static_cast<unsigned char>(byte) < 0x80; }

bool isPlainAscii(char byte) { return isAscii(byte) && byte >= 0x20 && byte != 0x7F; }

/// Length of the printable ASCII prefix of `text`. Most texts are all ASCII and need no decoding.
Size plainAsciiOf(std::string_view text)
{
    return static_cast<Size>(std::find_if_not(text.begin(), text.end(), isPlainAscii) -
                             text.begin());
}

void appendHexadecimal(std::string& out, char byte)
{
    constexpr char digits[] = "0123456789ABCDEF";
    auto const value = static_cast<unsigned char>(byte);
    out.append("\\x").append(1, digits[value >> 4]).append(1, digits[value & 0x0F]);
}

} // namespace

std::optional<TextFault> faultIn(std::string_view text)
{
    Size position = plainAsciiOf(text);
    while (position < text.size()) {
        Decoded const next = decode(text.substr(position));
        if (next.length == 0) {
            return TextFault{TextFault::invalidUtf8, position};
        }
        if (isControl(next.character)) {
            return TextFault{TextFault::controlCharacter, position};
        }
        position += next.length;
        position += plainAsciiOf(text.substr(position));
    }
    return std::nullopt;
}

std::string describe(TextFault const& fault)
{
    return (fault.kind == TextFault::invalidUtf8 ? "invalid UTF-8" : "a control character") +
           (" at byte " + std::to_string(fault.position));
}

bool isUtf8(std::string_view bytes)
{
    for (;;) {
        auto const* const next = std::find_if_not(bytes.begin(), bytes.end(), isAscii);
        if (next == bytes.end()) {
            return true;
        }
        bytes.remove_prefix(static_cast<Size>(next - bytes.begin()));
        Decoded const decoded = decode(bytes);
        if (decoded.length == 0) {
            return false;
        }
        bytes.remove_prefix(decoded.length);
    }
}

std::string oneLine(std::string_view text)
{
    std::string shown;
    shown.reserve(text.size());
    for (;;) {
        Size const plain = plainAsciiOf(text);
        shown.append(text.substr(0, plain));
        text.remove_prefix(plain);
        if (text.empty()) {
            return shown;
        }
        Decoded const next = decode(text);
        std::string_view const bytes = text.substr(0, next.length == 0 ? 1 : next.length);
        if (next.length != 0 && !isControl(next.character) && !isBidirectional(next.character)) {
            shown.append(bytes);
        } else {
            std::for_each(bytes.begin(), bytes.end(),
                          [&](char byte) { appendHexadecimal(shown, byte); });
        }
        text.remove_prefix(bytes.size());
    }
}

bool isPrintable(std::string_view text)
{
    for (text.remove_prefix(plainAsciiOf(text)); !text.empty();
         text.remove_prefix(plainAsciiOf(text))) {
        Decoded const next = decode(text);
        if (next.length == 0 || isControl(next.character) || isBidirectional(next.character)) {
            return false;
        }
        text.remove_prefix(next.length);
    }
    return true;
}

bool isBlank(std::string_view text)
{
    return text.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

bool hasNul(std::string_view text) { return text.find('\0') != std::string_view::npos; }

std::string inSeconds(std::chrono::milliseconds time)
{
    auto const count = time.count();
    std::string const whole = std::to_string(count / 1000);
    return count % 1000 == 0 ? whole + " s"
                             : whole + '.' + std::to_string(count % 1000 + 1000).substr(1) + " s";
}

void wipe(std::string& secret)
{
    secret.resize(secret.capacity());
    explicit_bzero(secret.data(), secret.size());
    secret.clear();
}

} // namespace Solvane::Lookup
