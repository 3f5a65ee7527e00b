// The "expand" command: prints the filter of an address and checks the template, without any
// network access.
#ifndef SOLVANE_TOOL_EXPAND_COMMAND_H
#define SOLVANE_TOOL_EXPAND_COMMAND_H

#include "Command.h"
#include "Options.h"

#include <solvane/lookup/QueryTemplate.h>

namespace Solvane::Tool {

class ExpandCommand final : public Command {
public:
    char const* name() const override { return "expand"; }
    char const* description() const override
    {
        return "Print the filter of each address without contacting a server";
    }
    void declareOn(CLI::App& app) override;
    int run(CommonOptions const& common, Output& output, Diagnostics& diagnostics) override;

private:
    class Filters;

    Outcome expandKeys(Lookup::QueryTemplate const& queryTemplate, char recordEnd, Output& output,
                       Diagnostics& diagnostics);
    bool nextKey(std::string& key, Filters& filters);

    SettingOptions m_settings;
    KeyOptions m_keys;
    bool m_explains = false;
    bool m_lints = false;
};

} // namespace Solvane::Tool

#endif
