// The "check" command: tries every step from the settings to an answer, on each server in turn.
#ifndef SOLVANE_TOOL_CHECK_COMMAND_H
#define SOLVANE_TOOL_CHECK_COMMAND_H

#include "Command.h"
#include "Options.h"

#include <string>

namespace Solvane::Tool {

class CheckReport;

class CheckCommand final : public Command {
public:
    char const* name() const override { return "check"; }
    char const* description() const override
    {
        return "Try every step of a lookup and report which one fails, and why";
    }
    void declareOn(CLI::App& app) override;
    /// @return a status of `exitStatusOf`, or with --nagios 0 to 3
    int run(CommonOptions const& common, Output& output, Diagnostics& diagnostics) override;

private:
    void check(CommonOptions const& common, CheckReport& report);

    SettingOptions m_settings;
    std::string m_probe; ///< key to look up; empty: none
    unsigned int m_repeat = 0;
    bool m_isForNagios = false;
};

} // namespace Solvane::Tool

#endif
