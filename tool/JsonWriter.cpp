// Records for programs to read.
#include "Json.h"
#include "RecordWriter.h"
#include "Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <list>
#include <vector>

namespace Solvane::Tool {

namespace {

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
        Json json(out);
        json->StartObject();
        json.key("key").value(record.key);
        json.key("status").string(statusOf(record));
        json.key("filter").optional(answer.filter);
        json.key("server").optional(answer.server);
        json.key("entries")->StartArray();
        for (LDAPSearchResultEntry const& entry : answer.entries) {
            appendEntry(entry, json);
        }
        json->EndArray();
        json.key("code")->Int(answer.code);
        json.key("text").string(oneLine(answer.text));
        std::string const milliseconds = fmt::format("{:.3f}", answer.milliseconds);
        json.key("ms")->RawValue(milliseconds.data(), milliseconds.size(), rapidjson::kNumberType);
        json.key("retried")->Bool(answer.wasRepeated);
        if (answer.identity == Lookup::Identity::Unconfirmed) {
            json.key("identity").string("unconfirmed");
        }
        json->EndObject();
        out += '\n';
    }

    static void appendEntry(LDAPSearchResultEntry const& entry, Json& json)
    {
        json->StartObject();
        json.key("dn").value(entry.entryName());
        json.key("attrs")->StartObject();
        auto const named = namedOf(entry.attributes().attributes());
        for (auto current = named.begin(); current != named.end(); ++current) {
            bool const isRepeated = std::any_of(named.begin(), current, [&](Named const& earlier) {
                return earlier.name == current->name;
            });
            if (!isRepeated) { // else its values stand with the first one's
                appendAttribute(current, named.end(), json);
            }
        }
        json->EndObject();
        json->EndObject();
    }

    /// One name for the values of every attribute in [first, end) that is called as the first.
    static void appendAttribute(std::vector<Named>::const_iterator first,
                                std::vector<Named>::const_iterator end, Json& json)
    {
        // One that is declared binary has one form of value, whatever its bytes happen to be.
        auto const appendOne = first->attribute->type().isBinary() ? &Json::bytes : &Json::value;
        json.key(oneLine(first->name))->StartArray();
        std::for_each(first, end, [&](Named const& same) {
            if (same.name != first->name) {
                return;
            }
            for (Buffer const& value : same.attribute->binaryValue()) {
                (json.*appendOne)(bytesOf(value));
            }
        });
        json->EndArray();
    }
};

} // namespace

std::unique_ptr<RecordWriter> makeJsonWriter(char recordEnd)
{
    return std::make_unique<JsonWriter>(recordEnd);
}

} // namespace Solvane::Tool
