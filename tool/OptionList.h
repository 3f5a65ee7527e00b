// Declares options and arguments of the program or of a command. CLI11 parses them; its headers take longer
// to compile than a command, so they stay out of here.
#ifndef SOLVANE_TOOL_OPTION_LIST_H
#define SOLVANE_TOOL_OPTION_LIST_H

#include "SettingValues.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace Solvane::Tool {

/// An option or argument that was declared. The parser owns it.
class DeclaredOption {
public:
    DeclaredOption() = default;
    explicit DeclaredOption(CLI::Option* option) : m_option(option) {}

    DeclaredOption& required();
    /// Refuses command lines that have both.
    DeclaredOption& excludes(DeclaredOption const& other);
    /// Refuses a text for which `complaint` returns one.
    DeclaredOption& check(std::function<std::string(std::string)> complaint);
    DeclaredOption& oneOf(std::vector<std::string> const& texts);
    /// Shows a default in the help: this text, or the value of the variable.
    DeclaredOption& showsDefault(std::string const& text);
    DeclaredOption& showsDefault();
    DeclaredOption& isHidden();

    /// How often it was given; 0 before the command line is parsed.
    std::size_t count() const;
    /// The texts as they were given.
    std::vector<std::string> const& texts() const;

private:
    CLI::Option* m_option = nullptr;
};

/// The options of the program or of a command. Names are in CLI11's notation: "-f,--file", or one word for an
/// argument. Variables must live until the command line is parsed.
class OptionList {
public:
    using Take = std::function<void(std::string const&)>;

    /// @param app  not owned
    explicit OptionList(CLI::App& app) : m_app(app) {}

    DeclaredOption flag(std::string const& names, bool& isGiven, std::string const& help);
    /// @param times  receives how often it was given
    DeclaredOption flag(std::string const& names, int& times, std::string const& help);
    DeclaredOption flag(std::string const& names, std::function<void()> const& take,
                        std::string const& help);
    /// A flag that may have a value, after '='; without one the text is "true".
    DeclaredOption flag(std::string const& names, std::string& text, std::string const& shape,
                        std::string const& help);
    /// @param shape  placeholder for the value in the help
    DeclaredOption value(std::string const& names, std::string& text, std::string const& shape,
                         std::string const& help);
    DeclaredOption value(std::string const& names, Take const& take, std::string const& shape,
                         std::string const& help);
    /// Sets `value` to `read(text)`.
    /// @throws Failure  "usage", while the command line is parsed: `read` refused the text. It shows the
    ///                  first name
    template <typename Value, typename Read>
    DeclaredOption value(std::string const& names, std::optional<Value>& value, Read const& read,
                         std::string const& shape, std::string const& help)
    {
        std::string const name = names.substr(0, names.find(','));
        return this->value(
            names,
            [&value, read, name](std::string const& text) {
                value = explainedBy(name, Outcome::usage, [&] { return read(text); });
            },
            shape, help);
    }
    /// An option that may be given several times, each with one value.
    DeclaredOption values(std::string const& names, Take const& take, std::string const& shape,
                          std::string const& help);
    /// Any number of arguments, unchanged.
    DeclaredOption arguments(std::string const& name, std::string const& help);
    /// What the list has under this name.
    DeclaredOption declared(std::string const& name);
    /// The last paragraphs of the help.
    void footer(std::string const& text);

private:
    CLI::App& m_app;
};

} // namespace Solvane::Tool

#endif
