// Parses the command line and runs the chosen subcommand.
#ifndef SOLVANE_TOOL_COMMAND_LINE_H
#define SOLVANE_TOOL_COMMAND_LINE_H

#include "Console.h"

namespace Solvane::Tool {

/// Runs the tool.
/// @return exit status of the process
/// @throws Failure     an error to report
/// @throws ReaderGone  the reader of standard output is gone
int runCommandLine(int count, char** arguments, Output& output, Diagnostics& diagnostics);

} // namespace Solvane::Tool

#endif
