// The meaning of a record: its answer's, unless the tool is asked to see more in it. The forms in which
// records are written, and the choice of one.
#include "RecordWriter.h"

#include "Json.h"
#include "Text.h"

#include <solvane/ldap/LDAPException.h>
#include <solvane/ldap/LDAPLdif.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <list>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Solvane::Tool {

char const* statusOf(Record const& record)
{
    if (record.hasTooManyEntries) {
        return "error";
    }
    switch (record.answer.outcome) {
    case Lookup::Outcome::Found:
        return record.isWithoutValue ? "novalue" : "found";
    case Lookup::Outcome::NotFound:
        return "notfound";
    case Lookup::Outcome::Skipped:
        return "skipped";
    default:
        return "error";
    }
}

Outcome outcomeOf(Record const& record)
{
    return record.hasTooManyEntries ? Outcome::badInput : outcomeOf(record.answer);
}

char const* remedyFor(Record const& record)
{
    return record.hasTooManyEntries ? "make the template narrower or leave --single out"
                                    : remedyFor(record.answer);
}

namespace {

void appendError(Record const& record, std::string& out)
{
    Lookup::Answer const& answer = record.answer;
    fmt::format_to(std::back_inserter(out), "error {}", exitStatusOf(outcomeOf(record)));
    if (!answer.entries.empty() && !record.hasTooManyEntries) {
        fmt::format_to(std::back_inserter(out), " after {} of its entries", answer.entries.size());
    }
}

/// Appends the key's line: what became of it, in words.
void appendSummary(Record const& record, std::string& out)
{
    Lookup::Answer const& answer = record.answer;
    appendOneLine(out, record.key);
    out += ": ";
    std::string_view const status = statusOf(record);
    if (status == "found" || status == "novalue") {
        fmt::format_to(std::back_inserter(out), "found {}{}", answer.entries.size(),
                       status == "novalue" ? ", without a value" : "");
    } else if (status == "error") {
        appendError(record, out);
    } else {
        out += status == "notfound" ? "not found" : status;
    }
    if (!answer.text.empty()) {
        out += ": ";
        appendOneLine(out, answer.text);
    }
}

/// Appends every value of an entry.
/// @param separator  before the first value; a comma after it
void appendValues(LDAPSearchResultEntry const& entry, char const*& separator, std::string& out)
{
    for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
        for (Buffer const& value : attribute.binaryValue()) {
            out += separator;
            appendField(out, bytesOf(value), ",");
            separator = ",";
        }
    }
}

/// Appends every value of what was found, on one line, separated by commas. Nothing for an error:
/// values that came before it are not all of them.
void appendValues(Record const& record, std::string& out)
{
    if (outcomeOf(record) != Outcome::found) {
        return;
    }
    char const* separator = "";
    for (std::string const& result : record.answer.results) {
        out += separator;
        appendField(out, result, ",");
        separator = ",";
    }
    if (record.hasResults) {
        return;
    }
    for (LDAPSearchResultEntry const& entry : record.answer.entries) {
        appendValues(entry, separator, out);
    }
}

/// Blocks of lines, for people.
class TextWriter final : public RecordWriter {
public:
    using RecordWriter::RecordWriter;

private:
    void append(Record const& record, std::string& out) const override
    {
        out += "# ";
        appendSummary(record, out);
        out += '\n';
        if (record.hasResults) {
            for (std::string const& result : record.answer.results) {
                appendLine("result", result, out);
            }
            out += record.answer.results.empty() ? "" : "\n";
            return;
        }
        for (LDAPSearchResultEntry const& entry : record.answer.entries) {
            appendEntry(entry, out);
        }
    }

    void appendEntry(LDAPSearchResultEntry const& entry, std::string& out) const override
    {
        appendLine("dn", entry.entryName(), out);
        for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
            std::string const& name = attribute.type().asString();
            if (attribute.binaryValue().empty()) { // types only
                appendOneLine(out, name);
                out += ":\n";
            }
            for (Buffer const& value : attribute.binaryValue()) {
                appendLine(name, bytesOf(value), out);
            }
        }
        out += '\n';
    }

    void appendReference(std::vector<std::string> const& uris, std::string& out) const override
    {
        for (std::string const& uri : uris) {
            out += "# ref: ";
            appendOneLine(out, uri);
            out += '\n';
        }
        out += '\n';
    }

    /// As LDIF writes it, except that UTF-8 stays readable.
    static void appendLine(std::string_view name, std::string_view value, std::string& out)
    {
        appendOneLine(out, name);
        if (!isPrintable(value)) {
            out += ":: ";
            appendBase64(out, value);
        } else {
            out += ": ";
            out += value;
        }
        out += '\n';
    }
};

/// What was asked for, and nothing else.
class ValuesWriter final : public RecordWriter {
public:
    using RecordWriter::RecordWriter;

private:
    void append(Record const& record, std::string& out) const override
    {
        appendValues(record, out);
        out += '\n';
    }

    void appendEntry(LDAPSearchResultEntry const& entry, std::string& out) const override
    {
        char const* separator = "";
        appendValues(entry, separator, out);
        out += '\n';
    }

    bool writesReferences() const override { return false; }
};

/// Lines of a table. The second column is what "postmap -q" would print.
class TsvWriter final : public RecordWriter {
public:
    using RecordWriter::RecordWriter;

private:
    void append(Record const& record, std::string& out) const override
    {
        std::string_view const status = statusOf(record);
        appendField(out, record.key, ""); // leaves no tab in a column
        out += '\t';
        appendValues(record, out);
        out += '\t';
        out += status;
        bool const hasRemark = status != "skipped" && !record.answer.text.empty();
        if (status == "error" || hasRemark) {
            out += '\t';
            appendField(out, record.answer.text, "");
        }
        out += '\n';
    }

    void appendEntry(LDAPSearchResultEntry const& entry, std::string& out) const override
    {
        appendField(out, entry.entryName(), "");
        char const* separator = "\t";
        appendValues(entry, separator, out);
        out += *separator == '\t' ? "\t\n" : "\n";
    }

    bool writesReferences() const override { return false; }
};

/// What a directory can load.
class LdifWriter final : public RecordWriter {
public:
    LdifWriter(char recordEnd, int leaves, std::size_t width)
        : RecordWriter(recordEnd), m_leaves(leaves), m_width(width)
    {
    }

    std::string opening() const override { return m_leaves < 3 ? "version: 1\n\n" : ""; }

private:
    void append(Record const& record, std::string& out) const override
    {
        if (m_leaves < 2) {
            out += "# ";
            appendSummary(record, out);
            out += '\n';
        }
        for (LDAPSearchResultEntry const& entry : record.answer.entries) {
            appendEntry(entry, out);
        }
    }

    void appendEntry(LDAPSearchResultEntry const& entry, std::string& out) const override
    {
        LDAPLdif::appendLine(out, "dn", entry.entryName(), m_width);
        for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
            std::string const& name = attribute.type().asString();
            if (attribute.binaryValue().empty()) { // types only
                appendLine(name, "", out);
            }
            for (Buffer const& value : attribute.binaryValue()) {
                appendLine(name, bytesOf(value), out);
            }
        }
        out += '\n';
    }

    /// As ldapsearch writes it: comments, which it folds one byte later.
    void appendReference(std::vector<std::string> const& uris, std::string& out) const override
    {
        for (std::string const& uri : uris) {
            std::string const line = "# ref" + oneLine(uri);
            constexpr std::size_t shortest = 4;
            std::size_t at = std::max(std::min(m_width, line.size()), shortest) + 1;
            out += line.substr(0, at);
            for (; at < line.size(); at += m_width) {
                out += "\n " + line.substr(at, m_width);
            }
            out += '\n';
        }
        out += '\n';
    }

    /// A name that would change what the line or the record means, which no sound server sends, becomes a
    /// comment.
    void appendLine(std::string const& name, std::string_view value, std::string& out) const
    {
        try {
            LDAPLdif::appendValue(out, name, value, m_width);
        } catch (LDAPException const&) {
            fmt::format_to(std::back_inserter(out), "# invalid attribute name: {}\n",
                           oneLine(name));
        }
    }

    int m_leaves;
    std::size_t m_width;
};

/// Attributes with the same name.
struct Namesakes {
    std::string_view name;
    std::vector<LDAPAttribute const*> attributes;
};

/// Each name once, in the order in which they come. A server may send a name many times.
std::vector<Namesakes> byName(std::list<LDAPAttribute> const& attributes)
{
    std::vector<Namesakes> named;
    std::unordered_map<std::string_view, std::size_t> positions;
    for (LDAPAttribute const& attribute : attributes) {
        std::string_view const name = attribute.type().asString();
        auto const [known, isNew] = positions.try_emplace(name, named.size());
        if (isNew) {
            named.push_back({name, {}});
        }
        named[known->second].attributes.push_back(&attribute);
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
            appendObject(entry, json);
        }
        json->EndArray();
        if (record.hasResults) {
            json.key("results")->StartArray();
            for (std::string const& result : answer.results) {
                json.value(result);
            }
            json->EndArray();
        }
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

    void appendEntry(LDAPSearchResultEntry const& entry, std::string& out) const override
    {
        Json json(out);
        appendObject(entry, json);
        out += '\n';
    }

    void appendReference(std::vector<std::string> const& uris, std::string& out) const override
    {
        Json json(out);
        json->StartObject();
        json.key("references")->StartArray();
        for (std::string const& uri : uris) {
            json.value(uri);
        }
        json->EndArray();
        json->EndObject();
        out += '\n';
    }

    static void appendObject(LDAPSearchResultEntry const& entry, Json& json)
    {
        json->StartObject();
        json.key("dn").value(entry.entryName());
        json.key("attrs")->StartObject();
        for (Namesakes const& same : byName(entry.attributes().attributes())) {
            appendAttributes(same, json);
        }
        json->EndObject();
        json->EndObject();
    }

    static void appendAttributes(Namesakes const& same, Json& json)
    {
        // One that is declared binary has one form of value, whatever its bytes happen to be.
        auto const appendOne =
            same.attributes.front()->type().isBinary() ? &Json::bytes : &Json::value;
        json.key(oneLine(same.name))->StartArray();
        for (LDAPAttribute const* attribute : same.attributes) {
            for (Buffer const& value : attribute->binaryValue()) {
                (json.*appendOne)(bytesOf(value));
            }
        }
        json->EndArray();
    }
};

template <typename Writer> std::unique_ptr<RecordWriter> make(char recordEnd)
{
    return std::make_unique<Writer>(recordEnd);
}

std::unique_ptr<RecordWriter> makeLdif(char recordEnd)
{
    return makeLdifWriter(recordEnd, 1, LDAPLdif::defaultWidth);
}

using Make = std::unique_ptr<RecordWriter> (*)(char recordEnd);

constexpr std::array<std::pair<char const*, Make>, 5> writers = {{{"text", make<TextWriter>},
                                                                  {"values", make<ValuesWriter>},
                                                                  {"tsv", make<TsvWriter>},
                                                                  {"json", make<JsonWriter>},
                                                                  {"ldif", makeLdif}}};

} // namespace

std::vector<std::string> const& recordFormats()
{
    static std::vector<std::string> const names = [] {
        std::vector<std::string> made;
        made.reserve(writers.size());
        for (auto const& writer : writers) {
            made.emplace_back(writer.first);
        }
        return made;
    }();
    return names;
}

std::unique_ptr<RecordWriter> makeRecordWriter(std::string const& format, char recordEnd)
{
    auto const* const chosen =
        std::find_if(writers.begin(), writers.end(),
                     [&](auto const& candidate) { return candidate.first == format; });
    return chosen->second(recordEnd);
}

std::unique_ptr<RecordWriter> makeLdifWriter(char recordEnd, int leaves, std::size_t width)
{
    return std::make_unique<LdifWriter>(recordEnd, leaves, width);
}

} // namespace Solvane::Tool
