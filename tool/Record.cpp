// The meaning of a record: that of its answer, unless --single changes it.
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
    return record.hasTooManyEntries ? "narrow the template or omit --single"
                                    : remedyFor(record.answer);
}

} // namespace Solvane::Tool
