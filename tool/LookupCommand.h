// "lookup": the entries that a template finds for each address.
#ifndef SOLVANE_TOOL_LOOKUP_COMMAND_H
#define SOLVANE_TOOL_LOOKUP_COMMAND_H

#include "Command.h"
#include "Options.h"

namespace Solvane::Tool {

class LookupCommand final : public Command {
public:
    char const* name() const override { return "lookup"; }
    char const* description() const override
    {
        return "Search a directory for each address and print what it has";
    }
    void declareOn(CLI::App& app) override;
    Outcome run(Output& output, Diagnostics& diagnostics) override;

private:
    ServerOptions m_server;
    SearchOptions m_search;
    TemplateOptions m_template;
    KeyOptions m_keys;
    DiagnosticsOptions m_diagnostics;
    std::string m_format = "text";
};

} // namespace Solvane::Tool

#endif
