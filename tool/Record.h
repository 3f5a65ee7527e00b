// The tool's report on one key.
#ifndef SOLVANE_TOOL_RECORD_H
#define SOLVANE_TOOL_RECORD_H

#include "Outcome.h"

#include <solvane/lookup/Answer.h>

#include <string>

namespace Solvane::Tool {

/// One key with its answer. Every key gets one record.
struct Record {
    std::string key;
    Lookup::Answer answer;
    /// With --single, an answer with several entries is an error. The answer keeps the server's
    /// outcome and code.
    bool hasTooManyEntries = false;
};

/// "found", "notfound", "skipped" or "error".
char const* statusOf(Record const& record);
Outcome outcomeOf(Record const& record);
/// What the user can do about it; empty unless something failed.
char const* remedyFor(Record const& record);

} // namespace Solvane::Tool

#endif
