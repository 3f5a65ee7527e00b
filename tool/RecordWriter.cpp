// The choice of a writer, and what several of them write.
#include "RecordWriter.h"

#include "Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

namespace Solvane::Tool {

namespace {

using Make = std::unique_ptr<RecordWriter> (*)(char recordEnd);

constexpr std::array<std::pair<char const*, Make>, 5> writers = {{{"text", makeTextWriter},
                                                                  {"values", makeValuesWriter},
                                                                  {"tsv", makeTsvWriter},
                                                                  {"json", makeJsonWriter},
                                                                  {"ldif", makeLdifWriter}}};

void appendError(Record const& record, std::string& out)
{
    Lookup::Answer const& answer = record.answer;
    fmt::format_to(std::back_inserter(out), "error {}", exitStatusOf(outcomeOf(record)));
    if (!answer.entries.empty() && !record.hasTooManyEntries) {
        fmt::format_to(std::back_inserter(out), " after {} of its entries", answer.entries.size());
    }
}

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

void appendSummary(Record const& record, std::string& out)
{
    Lookup::Answer const& answer = record.answer;
    appendOneLine(out, record.key);
    out += ": ";
    std::string_view const status = statusOf(record);
    if (status == "found") {
        fmt::format_to(std::back_inserter(out), "found {}", answer.entries.size());
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

void appendValues(Record const& record, std::string& out)
{
    if (outcomeOf(record) != Outcome::found) {
        return;
    }
    char const* separator = "";
    for (LDAPSearchResultEntry const& entry : record.answer.entries) {
        for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
            for (Buffer const& value : attribute.binaryValue()) {
                out += separator;
                appendOneLine(out, bytesOf(value));
                separator = ",";
            }
        }
    }
}

} // namespace Solvane::Tool
