// Declares options whose values are validated while the command line is parsed.
#ifndef SOLVANE_TOOL_OPTION_VALUES_H
#define SOLVANE_TOOL_OPTION_VALUES_H

#include "SettingValues.h"

#include <CLI/CLI.hpp>

#include <optional>
#include <string>

namespace Solvane::Tool {

/// Declares an option that sets `value` to `read(text)`.
/// @param names  in CLI11's notation; errors show the first one
/// @param shape  placeholder for the value in the help
/// @throws Failure  "usage", while the command line is parsed: `read` refused the text
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
