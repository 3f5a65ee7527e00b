// The "add" command: adds the entries of an LDIF file to a directory.
#ifndef SOLVANE_TOOL_ADD_COMMAND_H
#define SOLVANE_TOOL_ADD_COMMAND_H

#include "Command.h"
#include "SettingOptions.h"

#include <string>

namespace Solvane::Tool {

class AddCommand final : public Command {
public:
    char const* name() const override { return "add"; }
    char const* description() const override { return "Add the entries of an LDIF file"; }
    void declareOn(CLI::App& app) override;
    int run(CommonOptions const& common, Output& output, Diagnostics& diagnostics) override;

private:
    Outcome add(CommonOptions const& common, Output& output, Diagnostics& diagnostics) const;
    Outcome show(CommonOptions const& common, Output& output, Diagnostics& diagnostics) const;

    std::string m_file = "-";
    SettingOptions m_settings;
    bool m_goesOn = false;
    bool m_onlyShows = false;
};

} // namespace Solvane::Tool

#endif
