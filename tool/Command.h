// A subcommand of the tool.
#ifndef SOLVANE_TOOL_COMMAND_H
#define SOLVANE_TOOL_COMMAND_H

#include "Console.h"
#include "Outcome.h"

namespace CLI {
class App;
}

namespace Solvane::Tool {

/// Declares its options, and runs once they are read.
class Command {
public:
    Command() = default;
    virtual ~Command() = default;
    Command(Command const&) = delete;
    Command& operator=(Command const&) = delete;

    virtual char const* name() const = 0;
    virtual char const* description() const = 0;
    virtual void declareOn(CLI::App& app) = 0;

    /// @return the worst outcome of its keys
    /// @throws Failure  what ends the whole run
    virtual Outcome run(Output& output, Diagnostics& diagnostics) = 0;
};

} // namespace Solvane::Tool

#endif
