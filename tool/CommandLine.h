// The command line as a whole: which subcommand runs, and what is said about a wrong one.
#ifndef SOLVANE_TOOL_COMMAND_LINE_H
#define SOLVANE_TOOL_COMMAND_LINE_H

#include "Console.h"

namespace Solvane::Tool {

/// Runs the tool.
/// @return exit status of the process
/// @throws Failure, ReaderGone
int runCommandLine(int count, char** arguments, Output& output, Diagnostics& diagnostics);

} // namespace Solvane::Tool

#endif
