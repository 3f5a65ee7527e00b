// What the tool reports of one key.
#ifndef SOLVANE_TOOL_RECORD_H
#define SOLVANE_TOOL_RECORD_H

#include "DirectorySession.h"

#include <string>

namespace Solvane::Tool {

/// One key with what was asked and answered; each key that was given has one.
struct Record {
    std::string key;
    std::string filter; ///< empty when the key made none
    std::string server; ///< URI as given
    Answer answer;
    double milliseconds = 0;
};

/// "found", "notfound" or "error".
char const* statusOf(Outcome outcome);

} // namespace Solvane::Tool

#endif
