// Declaring options whose values are checked while the command line is read.
#ifndef SOLVANE_TOOL_OPTION_VALUES_H
#define SOLVANE_TOOL_OPTION_VALUES_H

#include "SettingValues.h"

#include <CLI/CLI.hpp>

#include <optional>
#include <string>

namespace Solvane::Tool {

/// Declares an option that sets `value` to what `read` makes of its text.
/// @param names  as CLI11 takes them; complaints show the first
/// @param shape  what stands for the value in the help
template <typename Value, typename Read>
CLI::Option* addValue(CLI::App& app, std::string const& names, std::optional<Value>& value,
                      Read const& read, std::string const& shape, std::string const& description)
{
    std::string const name = names.substr(0, names.find(','));
    return app
        .add_option_function<std::string>(
            names,
            [&value, read, name](std::string const& text) {
                value = explainedBy(name, Outcome::usage, [&] { return read(text); });
            },
            description)
        ->type_name(shape);
}

} // namespace Solvane::Tool

#endif
