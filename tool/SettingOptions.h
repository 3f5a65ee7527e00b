// The options of the settings table, on the program or on a subcommand.
#ifndef SOLVANE_TOOL_SETTING_OPTIONS_H
#define SOLVANE_TOOL_SETTING_OPTIONS_H

#include "SettingsTable.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace Solvane::Tool {

/// The settings given on the command line. Values are validated while it is parsed; an invalid one
/// throws a Failure "usage" that names the option.
class SettingOptions {
public:
    SettingOptions() = default;
    SettingOptions(SettingOptions const&) = delete; // the options hold its address
    SettingOptions& operator=(SettingOptions const&) = delete;

    /// Declares the options of a group, in the table's order.
    void declareOn(CLI::App& app, Setting::Group group);
    /// Declares one option.
    /// @param help  replaces that of the table
    void declareOn(CLI::App& app, Setting const& setting, char const* help);

    /// Whether the command line sets this setting.
    bool has(std::string_view name) const;
    /// Applies the settings of the command line.
    /// @throws Failure  "configuration": the template file cannot be read
    void applyTo(Draft& draft) const;

private:
    CLI::Option* declared(CLI::App& app, Setting const& setting, char const* help);
    void take(Setting const& setting, std::string const& text);

    std::vector<std::pair<Setting const*, Setting::Assignment>> m_given;
};

} // namespace Solvane::Tool

#endif
