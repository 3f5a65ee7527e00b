// Records for programs to read.
#include "RecordWriter.h"
#include "Text.h"

#include <nlohmann/json.hpp>

namespace Solvane::Tool {

namespace {

using Json = nlohmann::ordered_json;

/// Bytes as a JSON value: a string, or an object with their base64 text where they are no UTF-8.
Json valueOf(std::string const& bytes)
{
    return isUtf8(bytes) ? Json(bytes) : Json{{"base64", base64(bytes)}};
}

/// An attribute that is declared binary has one form of value, whatever its bytes happen to be.
Json valueOf(std::string const& bytes, LDAPAttributeType const& type)
{
    return type.isBinary() ? Json{{"base64", base64(bytes)}} : valueOf(bytes);
}

Json attributesOf(LDAPSearchResultEntry const& entry)
{
    Json attributes = Json::object();
    for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
        Json& values = attributes[oneLine(attribute.type().asString())];
        if (values.is_null()) {
            values = Json::array();
        }
        for (std::string const& value : attribute.value()) {
            values.push_back(valueOf(value, attribute.type()));
        }
    }
    return attributes;
}

class JsonWriter final : public RecordWriter {
public:
    std::string textOf(Record const& record) const override
    {
        Answer const& answer = record.answer;
        Json entries = Json::array();
        for (LDAPSearchResultEntry const& entry : answer.entries) {
            entries.push_back(
                Json{{"dn", valueOf(entry.entryName())}, {"attrs", attributesOf(entry)}});
        }
        Json json;
        json["key"] = valueOf(record.key);
        json["status"] = statusOf(answer.outcome);
        json["filter"] = record.filter.empty() ? Json() : valueOf(record.filter);
        json["server"] = record.server;
        json["entries"] = std::move(entries);
        json["code"] = answer.code ? Json(*answer.code) : Json();
        json["text"] = oneLine(answer.text);
        json["ms"] = record.milliseconds;
        return json.dump() + '\n';
    }
};

} // namespace

std::unique_ptr<RecordWriter> makeJsonWriter() { return std::make_unique<JsonWriter>(); }

} // namespace Solvane::Tool
