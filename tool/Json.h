// JSON (RFC 8259), written as it is made: a tree of values for each record would cost more than the
// lookup that the record is about.
#ifndef SOLVANE_TOOL_JSON_H
#define SOLVANE_TOOL_JSON_H

#include "Text.h"

#include <rapidjson/writer.h>

#include <string>
#include <string_view>

namespace Solvane::Tool {

/// The end of a text, as RapidJSON's writer wants it. Escapes what a terminal would obey or reorder:
/// DEL, the control characters beyond ASCII, and bidirectional controls.
class JsonText {
public:
    using Ch = char;

    explicit JsonText(std::string& text) : m_text(text) {}
    void Put(Ch character)
    {
        if (m_held.empty() && static_cast<unsigned char>(character) < 0x7F) {
            m_text += character;
        } else {
            putCharacter(character);
        }
    }
    void Flush() {}

private:
    /// Holds the bytes of a character back until it is complete. The text is valid UTF-8.
    void putCharacter(Ch byte)
    {
        m_held += byte;
        auto const lead = static_cast<unsigned char>(m_held.front());
        std::size_t const length =
            1U + (lead >= 0xC0 ? 1U : 0U) + (lead >= 0xE0 ? 1U : 0U) + (lead >= 0xF0 ? 1U : 0U);
        if (m_held.size() < length) {
            return;
        }
        if (isPrintable(m_held)) {
            m_text += m_held;
        } else {
            appendEscape(length);
        }
        m_held.clear();
    }

    /// All such characters have four hexadecimal digits.
    void appendEscape(std::size_t length)
    {
        constexpr char digits[] = "0123456789abcdef";
        unsigned int character = length == 1 ? 0x7F : 0;
        for (std::size_t i = 0; length > 1 && i < length; ++i) {
            auto const byte = static_cast<unsigned char>(m_held[i]);
            character = character << 6 | (byte & (i == 0 ? 0xFFU >> (length + 1) : 0x3FU));
        }
        m_text += "\\u";
        for (unsigned int shift = 16; shift > 0; shift -= 4) {
            m_text += digits[character >> (shift - 4) & 0x0FU];
        }
    }

    std::string& m_text;
    std::string m_held; ///< a character that is not complete
};

/// Appends one value to a text. `operator->` has RapidJSON's calls; the others take texts of any bytes.
class Json {
public:
    explicit Json(std::string& out) : m_text(out), m_writer(m_text) {}

    rapidjson::Writer<JsonText>* operator->() { return &m_writer; }

    /// Names the member that follows.
    Json& key(std::string_view name)
    {
        m_writer.Key(name.data(), lengthOf(name));
        return *this;
    }
    /// @param utf8  valid UTF-8
    void string(std::string_view utf8) { m_writer.String(utf8.data(), lengthOf(utf8)); }
    /// An object with the bytes in base64.
    void bytes(std::string_view bytes)
    {
        std::string encoded;
        appendBase64(encoded, bytes);
        m_writer.StartObject();
        key("base64").string(encoded);
        m_writer.EndObject();
    }
    /// A string, or the bytes in base64 if they are no UTF-8.
    void value(std::string_view any)
    {
        if (isUtf8(any)) {
            string(any);
        } else {
            bytes(any);
        }
    }
    /// The same, null if there is nothing.
    void optional(std::string_view any)
    {
        if (any.empty()) {
            m_writer.Null();
        } else {
            value(any);
        }
    }

private:
    static rapidjson::SizeType lengthOf(std::string_view text)
    {
        return static_cast<rapidjson::SizeType>(text.size()); // no LDAP message holds 4 GiB
    }

    JsonText m_text;
    rapidjson::Writer<JsonText> m_writer;
};

} // namespace Solvane::Tool

#endif
