// The command line as a whole: which subcommand runs, and what is said about a wrong one.
#ifndef SOLVANE_TOOL_COMMAND_LINE_H
#define SOLVANE_TOOL_COMMAND_LINE_H

#include "Console.h"
#include "Outcome.h"

namespace Solvane::Tool {

/// Runs the tool.
/// @throws Failure, ReaderGone
Outcome runCommandLine(int count, char** arguments, Output& output, Diagnostics& diagnostics);

} // namespace Solvane::Tool

#endif
