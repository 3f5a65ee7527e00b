// The choice of a writer, and what several of them say.
#include "RecordWriter.h"

#include "Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>

namespace Solvane::Tool {

namespace {

using Make = std::unique_ptr<RecordWriter> (*)();

constexpr std::array<std::pair<char const*, Make>, 3> writers = {
    {{"text", makeTextWriter}, {"json", makeJsonWriter}, {"ldif", makeLdifWriter}}};

} // namespace

char const* statusOf(Outcome outcome)
{
    switch (outcome) {
    case Outcome::found:
        return "found";
    case Outcome::notFound:
        return "notfound";
    default:
        return "error";
    }
}

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

std::unique_ptr<RecordWriter> makeRecordWriter(std::string const& format)
{
    auto const* const chosen =
        std::find_if(writers.begin(), writers.end(),
                     [&](auto const& candidate) { return candidate.first == format; });
    return chosen->second();
}

std::string summaryOf(Record const& record)
{
    Answer const& answer = record.answer;
    std::string const key = oneLine(record.key);
    switch (answer.outcome) {
    case Outcome::found:
        return fmt::format("{}: found {}", key, answer.entries.size());
    case Outcome::notFound:
        return fmt::format("{}: not found", key);
    default:
        break;
    }
    std::string const incomplete =
        answer.entries.empty() ? std::string()
                               : fmt::format(" after {} of its entries", answer.entries.size());
    return fmt::format("{}: error {}{}: {}", key, exitStatusOf(answer.outcome), incomplete,
                       oneLine(answer.text));
}

} // namespace Solvane::Tool
