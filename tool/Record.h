// What the tool reports of one key, and the meaning of it.
#ifndef SOLVANE_TOOL_RECORD_H
#define SOLVANE_TOOL_RECORD_H

#include "Outcome.h"

#include <solvane/lookup/Answer.h>

#include <string>

namespace Solvane::Tool {

/// One key with its answer; each key that was given has one.
struct Record {
    std::string key;
    Lookup::Answer answer;
    /// With --single, an answer of several entries is an error. The server knows nothing of that:
    /// the answer's outcome and code stay its own.
    bool hasTooManyEntries = false;
};

/// "found", "notfound", "skipped" or "error".
char const* statusOf(Record const& record);
Outcome outcomeOf(Record const& record);
/// What the user can do about it; empty where nothing is wrong.
char const* remedyFor(Record const& record);

} // namespace Solvane::Tool

#endif
