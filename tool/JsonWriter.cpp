// Records for programs to read. Written straight into the text: a tree of values made for each
// record first would cost more than its lookup.
#include "RecordWriter.h"
#include "Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <list>
#include <vector>

namespace Solvane::Tool {

namespace {

bool mustBeEscaped(char character)
{
    return character == '"' || character == '\\' || static_cast<unsigned char>(character) < 0x20;
}

void appendEscape(std::string& out, char character)
{
    if (character == '"' || character == '\\') {
        out += '\\';
        out += character;
    } else {
        fmt::format_to(std::back_inserter(out), "\\u{:04x}", static_cast<unsigned char>(character));
    }
}

/// @param text  UTF-8
void appendString(std::string& out, std::string_view text)
{
    out += '"';
    for (auto const* read = text.begin();; ++read) {
        auto const* const special = std::find_if(read, text.end(), mustBeEscaped);
        out.append(read, special);
        if (special == text.end()) {
            break;
        }
        appendEscape(out, *special);
        read = special;
    }
    out += '"';
}

void appendBytes(std::string& out, std::string_view bytes)
{
    out += R"({"base64":")";
    appendBase64(out, bytes);
    out += "\"}";
}

/// A string, or an object with the bytes in base64 where they are no UTF-8.
void appendValue(std::string& out, std::string_view bytes)
{
    if (isUtf8(bytes)) {
        appendString(out, bytes);
    } else {
        appendBytes(out, bytes);
    }
}

/// The same, null where there is nothing.
void appendOptional(std::string& out, std::string_view bytes)
{
    if (bytes.empty()) {
        out += "null";
    } else {
        appendValue(out, bytes);
    }
}

/// An attribute with its name at hand.
struct Named {
    std::string_view name;
    LDAPAttribute const* attribute;
};

std::vector<Named> namedOf(std::list<LDAPAttribute> const& attributes)
{
    std::vector<Named> named;
    named.reserve(attributes.size());
    for (LDAPAttribute const& attribute : attributes) {
        named.push_back({attribute.type().asString(), &attribute});
    }
    return named;
}

class JsonWriter final : public RecordWriter {
public:
    using RecordWriter::RecordWriter;

private:
    void append(Record const& record, std::string& out) const override
    {
        Lookup::Answer const& answer = record.answer;
        out += R"({"key":)";
        appendValue(out, record.key);
        out += R"(,"status":")";
        out += statusOf(record);
        out += R"(","filter":)";
        appendOptional(out, answer.filter);
        out += R"(,"server":)";
        appendOptional(out, answer.server);
        out += R"(,"entries":[)";
        char const* separator = "";
        for (LDAPSearchResultEntry const& entry : answer.entries) {
            out += separator;
            appendEntry(entry, out);
            separator = ",";
        }
        fmt::format_to(std::back_inserter(out), R"(],"code":{},"text":)", answer.code);
        appendString(out, oneLine(answer.text));
        fmt::format_to(std::back_inserter(out), R"(,"ms":{:.3f},"retried":{})", answer.milliseconds,
                       answer.wasRepeated);
        if (answer.identity == Lookup::Identity::Unconfirmed) {
            out += R"(,"identity":"unconfirmed")";
        }
        out += "}\n";
    }

    static void appendEntry(LDAPSearchResultEntry const& entry, std::string& out)
    {
        out += R"({"dn":)";
        appendValue(out, entry.entryName());
        out += R"(,"attrs":{)";
        char const* separator = "";
        auto const named = namedOf(entry.attributes().attributes());
        for (auto current = named.begin(); current != named.end(); ++current) {
            bool const isRepeated = std::any_of(named.begin(), current, [&](Named const& earlier) {
                return earlier.name == current->name;
            });
            if (!isRepeated) { // else its values stand with the first one's
                out += separator;
                appendAttribute(current, named.end(), out);
                separator = ",";
            }
        }
        out += "}}";
    }

    /// One name for the values of every attribute in [first, end) that is called as the first.
    static void appendAttribute(std::vector<Named>::const_iterator first,
                                std::vector<Named>::const_iterator end, std::string& out)
    {
        // One that is declared binary has one form of value, whatever its bytes happen to be.
        auto* const appendOne = first->attribute->type().isBinary() ? appendBytes : appendValue;
        appendString(out, oneLine(first->name));
        out += ":[";
        char const* separator = "";
        std::for_each(first, end, [&](Named const& same) {
            if (same.name != first->name) {
                return;
            }
            for (Buffer const& value : same.attribute->binaryValue()) {
                out += separator;
                appendOne(out, bytesOf(value));
                separator = ",";
            }
        });
        out += ']';
    }
};

} // namespace

std::unique_ptr<RecordWriter> makeJsonWriter(char recordEnd)
{
    return std::make_unique<JsonWriter>(recordEnd);
}

} // namespace Solvane::Tool
