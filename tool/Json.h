// JSON (RFC 8259), written as it is made: a tree of values for each record would cost more than the
// lookup that the record is about.
#ifndef SOLVANE_TOOL_JSON_H
#define SOLVANE_TOOL_JSON_H

#include "Text.h"

#include <rapidjson/writer.h>

#include <string>
#include <string_view>

namespace Solvane::Tool {

/// The end of a text, as RapidJSON's writer wants it.
class JsonText {
public:
    using Ch = char;

    explicit JsonText(std::string& text) : m_text(text) {}
    void Put(Ch character) { m_text += character; }
    void Flush() {}

private:
    std::string& m_text;
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
