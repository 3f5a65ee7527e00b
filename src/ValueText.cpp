// UTF-8, hexadecimal digits and names in the text forms of values.
#include "ValueText.h"

#include <algorithm>

namespace Solvane {

namespace {

constexpr char digits[] = "0123456789ABCDEF";

bool isLetter(char character)
{
    return (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z');
}

bool isDigit(char character) { return character >= '0' && character <= '9'; }

char lowerCased(char character)
{
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
                                                : character;
}

bool isKeyCharacter(char character) { return isAlphanumeric(character) || character == '-'; }

/// Bytes of a character by its first byte, and the values that its second byte may have.
struct Lead {
    std::size_t length;
    unsigned char first;
    unsigned char last;
};

Lead leadOf(unsigned char byte)
{
    if (byte < 0x80) {
        return {1, 0, 0};
    }
    if (byte >= 0xC2 && byte <= 0xDF) {
        return {2, 0x80, 0xBF};
    }
    if (byte >= 0xE0 && byte <= 0xEF) { // E0: no overlong forms; ED: no surrogates
        return {3, static_cast<unsigned char>(byte == 0xE0 ? 0xA0 : 0x80),
                static_cast<unsigned char>(byte == 0xED ? 0x9F : 0xBF)};
    }
    if (byte >= 0xF0 && byte <= 0xF4) { // F0: no overlong forms; F4: up to U+10FFFF
        return {4, static_cast<unsigned char>(byte == 0xF0 ? 0x90 : 0x80),
                static_cast<unsigned char>(byte == 0xF4 ? 0x8F : 0xBF)};
    }
    return {0, 0, 0};
}

/// Whether the text is numbers separated by single dots.
bool isNumbers(std::string_view text)
{
    bool isAfterDigit = false;
    for (char const character : text) {
        if (!isDigit(character) && (character != '.' || !isAfterDigit)) {
            return false;
        }
        isAfterDigit = isDigit(character);
    }
    return isAfterDigit;
}

} // namespace

std::size_t characterLength(std::string_view text)
{
    if (text.empty()) {
        return 0;
    }
    Lead const lead = leadOf(static_cast<unsigned char>(text.front()));
    if (lead.length > text.size()) {
        return 0;
    }
    for (std::size_t at = 1; at < lead.length; ++at) {
        auto const byte = static_cast<unsigned char>(text[at]);
        if (byte < (at == 1 ? lead.first : 0x80) || byte > (at == 1 ? lead.last : 0xBF)) {
            return 0;
        }
    }
    return lead.length;
}

bool isUtf8(std::string_view text)
{
    while (!text.empty()) {
        std::size_t const length = characterLength(text);
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

int hexDigit(char character)
{
    if (isDigit(character)) {
        return character - '0';
    }
    char const letter = lowerCased(character);
    return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : -1;
}

void appendHex(std::string& out, char byte)
{
    out += digits[static_cast<unsigned char>(byte) >> 4U];
    out += digits[static_cast<unsigned char>(byte) & 0xFU];
}

void appendHexPair(std::string& out, char byte)
{
    out += '\\';
    appendHex(out, byte);
}

std::string shown(std::string_view text)
{
    constexpr std::size_t most = 64;
    std::string out;
    for (std::string_view rest = text.substr(0, most); !rest.empty();) {
        std::size_t const length = characterLength(rest);
        if (length == 0 || isControl(rest.front())) {
            appendHexPair(out, rest.front());
            rest.remove_prefix(1);
        } else {
            out += rest.substr(0, length);
            rest.remove_prefix(length);
        }
    }
    return text.size() > most ? out + "..." : out;
}

bool isControl(char character)
{
    return static_cast<unsigned char>(character) < 0x20 || character == 0x7F;
}

bool isAlphanumeric(char character) { return isLetter(character) || isDigit(character); }

std::string lowerCased(std::string_view text)
{
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](char character) { return lowerCased(character); });
    return lower;
}

bool isSame(std::string_view left, std::string_view right)
{
    return left.size() == right.size() &&
           std::equal(left.begin(), left.end(), right.begin(),
                      [](char one, char other) { return lowerCased(one) == lowerCased(other); });
}

bool isTypeName(std::string_view text)
{
    return !text.empty() && isLetter(text.front())
               ? std::all_of(text.begin(), text.end(), isKeyCharacter)
               : isNumbers(text);
}

bool isDescription(std::string_view text)
{
    std::size_t semicolon = text.find(';');
    if (!isTypeName(text.substr(0, semicolon))) {
        return false;
    }
    while (semicolon != std::string_view::npos) {
        text.remove_prefix(semicolon + 1);
        semicolon = text.find(';');
        std::string_view const option = text.substr(0, semicolon);
        if (option.empty() || !std::all_of(option.begin(), option.end(), isKeyCharacter)) {
            return false;
        }
    }
    return true;
}

void TextScanner::refuse(char const* cause, std::size_t position) const
{
    LDAPException exception = fault(m_site, std::string("invalid ") + m_what + " at byte " +
                                                std::to_string(position) + ": " + cause);
    exception.intParameter(static_cast<int>(position));
    throw exception;
}

bool TextScanner::skip(char character)
{
    bool const isThere = isAt(character);
    m_position += isThere ? 1 : 0;
    return isThere;
}

void TextScanner::skipAll(std::string_view characters)
{
    m_position = std::min(m_text.find_first_not_of(characters, m_position), m_text.size());
}

std::string TextScanner::takeName(std::string_view others)
{
    std::size_t const begin = m_position;
    while (!isAtEnd() && (isAlphanumeric(m_text[m_position]) || isAtOneOf(others))) {
        ++m_position;
    }
    return std::string(m_text.substr(begin, m_position - begin));
}

char TextScanner::takeHexPair()
{
    int const high = isAtEnd() ? -1 : hexDigit(m_text[m_position]);
    int const low = m_position + 1 < m_text.size() ? hexDigit(m_text[m_position + 1]) : -1;
    if (high < 0 || low < 0) {
        refuse("expected two hexadecimal digits");
    }
    m_position += 2;
    return static_cast<char>(high * 16 + low);
}

void TextScanner::takeCharacter(std::string& value)
{
    std::string_view const rest = m_text.substr(m_position);
    std::size_t const length = characterLength(rest);
    if (length == 0) {
        refuse("invalid UTF-8");
    }
    value.append(rest, 0, length);
    m_position += length;
}

} // namespace Solvane
