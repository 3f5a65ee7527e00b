// "expand": what filter a template makes of an address, without any network.
#ifndef SOLVANE_TOOL_EXPAND_COMMAND_H
#define SOLVANE_TOOL_EXPAND_COMMAND_H

#include "Command.h"
#include "Options.h"

namespace Solvane::Tool {

class ExpandCommand final : public Command {
public:
    char const* name() const override { return "expand"; }
    char const* description() const override
    {
        return "Print the filter that a template makes of each address; asks no server";
    }
    void declareOn(CLI::App& app) override;
    Outcome run(Output& output, Diagnostics& diagnostics) override;

private:
    TemplateOptions m_template;
    KeyOptions m_keys;
    DiagnosticsOptions m_diagnostics;
    bool m_explains = false;
};

} // namespace Solvane::Tool

#endif
