// What the tool reports of one key.
#ifndef SOLVANE_TOOL_RECORD_H
#define SOLVANE_TOOL_RECORD_H

#include <solvane/lookup/Answer.h>

#include <string>

namespace Solvane::Tool {

/// One key with its answer; each key that was given has one.
struct Record {
    std::string key;
    Lookup::Answer answer;
};

/// "found", "notfound", "skipped" or "error".
char const* statusOf(Lookup::Outcome outcome);

} // namespace Solvane::Tool

#endif
