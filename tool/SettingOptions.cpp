// Declares rows of the settings table as options of CLI11.
#include "SettingOptions.h"

#include "SettingValues.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdint>

namespace Solvane::Tool {

void SettingOptions::declareOn(CLI::App& app, Setting::Group group)
{
    for (Setting const& setting : settingsTable()) {
        if (setting.group == group && setting.value.fromOption) {
            declareOn(app, setting, setting.help);
        }
    }
}

void SettingOptions::declareOn(CLI::App& app, Setting const& setting, char const* help)
{
    CLI::Option* const option = declared(app, setting, help);
    for (Setting const& other : settingsTable()) { // declared before it
        if (&other == &setting) {
            break;
        }
        if (other.name == std::string_view(setting.name)) {
            option->excludes(app.get_option(CLI::detail::split(other.options, ',').back()));
        }
    }
}

CLI::Option* SettingOptions::declared(CLI::App& app, Setting const& setting, char const* help)
{
    if (std::string_view(setting.shape).empty()) {
        return app.add_flag_function(
            setting.options, [this, &setting](std::int64_t) { take(setting, "yes"); }, help);
    }
    auto* const option =
        setting.isList
            // One value per option: with a list, CLI11 would also take the arguments after it.
            ? app.add_option_function<std::vector<std::string>>(
                     setting.options,
                     [this, &setting](std::vector<std::string> const& texts) {
                         for (std::string const& text : texts) {
                             take(setting, text);
                         }
                     },
                     help)
                  ->expected(1)
                  ->take_all()
                  ->allow_extra_args(false)
            : app.add_option_function<std::string>(
                  setting.options,
                  [this, &setting](std::string const& text) { take(setting, text); }, help);
    return option->type_name(setting.shape)->default_str(setting.defaultText());
}

void SettingOptions::take(Setting const& setting, std::string const& text)
{
    std::string_view const options = setting.options;
    std::string const shown(options.substr(0, options.find(',')));
    m_given.emplace_back(&setting, explainedBy(shown, Outcome::usage,
                                               [&] { return setting.value.fromOption(text); }));
}

bool SettingOptions::has(std::string_view name) const
{
    return std::any_of(m_given.begin(), m_given.end(),
                       [&](auto const& given) { return given.first->name == name; });
}

void SettingOptions::applyTo(Draft& draft) const
{
    for (auto const& [setting, assign] : m_given) {
        assign(draft);
        draft.given.insert(setting->name);
    }
}

} // namespace Solvane::Tool
