// A subcommand of the tool.
#ifndef SOLVANE_TOOL_COMMAND_H
#define SOLVANE_TOOL_COMMAND_H

#include "Console.h"
#include "Outcome.h"

namespace CLI {
class App;
}

namespace Solvane::Tool {

class CommonOptions;

/// Declares its options and runs after they are parsed.
class Command {
public:
    Command() = default;
    virtual ~Command() = default;
    Command(Command const&) = delete;
    Command& operator=(Command const&) = delete;

    virtual char const* name() const = 0;
    virtual char const* description() const = 0;
    virtual void declareOn(CLI::App& app) = 0;

    /// @param common  the options shared by all subcommands
    /// @return exit status of the process: `exitStatusOf` the worst outcome, unless an option
    ///         replaces it
    /// @throws Failure  an error that ends the whole run
    virtual int run(CommonOptions const& common, Output& output, Diagnostics& diagnostics) = 0;
};

} // namespace Solvane::Tool

#endif
