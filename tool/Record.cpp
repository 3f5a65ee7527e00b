// The meaning of a record: its answer's, unless the tool is asked to see more in it.
#include "Record.h"

namespace Solvane::Tool {

char const* statusOf(Record const& record)
{
    if (record.hasTooManyEntries) {
        return "error";
    }
    switch (record.answer.outcome) {
    case Lookup::Outcome::Found:
        return "found";
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

} // namespace Solvane::Tool
