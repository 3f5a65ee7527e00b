// Declares options with CLI11.
#include "OptionList.h"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <utility>

namespace Solvane::Tool {

DeclaredOption& DeclaredOption::required()
{
    m_option->required();
    return *this;
}

DeclaredOption& DeclaredOption::excludes(DeclaredOption const& other)
{
    m_option->excludes(other.m_option);
    return *this;
}

DeclaredOption& DeclaredOption::check(std::function<std::string(std::string)> complaint)
{
    m_option->check(CLI::Validator(std::move(complaint), ""));
    return *this;
}

DeclaredOption& DeclaredOption::oneOf(std::vector<std::string> const& texts)
{
    m_option->check(CLI::IsMember(texts));
    return *this;
}

DeclaredOption& DeclaredOption::showsDefault(std::string const& text)
{
    m_option->default_str(text);
    return *this;
}

DeclaredOption& DeclaredOption::showsDefault()
{
    m_option->capture_default_str();
    return *this;
}

DeclaredOption& DeclaredOption::isHidden()
{
    m_option->group("");
    return *this;
}

std::size_t DeclaredOption::count() const { return m_option->count(); }

std::vector<std::string> const& DeclaredOption::texts() const { return m_option->results(); }

DeclaredOption OptionList::flag(std::string const& names, bool& isGiven, std::string const& help)
{
    return DeclaredOption(m_app.add_flag(names, isGiven, help));
}

DeclaredOption OptionList::flag(std::string const& names, int& times, std::string const& help)
{
    return DeclaredOption(m_app.add_flag(names, times, help));
}

DeclaredOption OptionList::flag(std::string const& names, std::function<void()> const& take,
                                std::string const& help)
{
    return DeclaredOption(m_app.add_flag_function(
        names, [take](std::int64_t) { take(); }, help));
}

DeclaredOption OptionList::flag(std::string const& names, std::string& text,
                                std::string const& shape, std::string const& help)
{
    return DeclaredOption(m_app.add_flag(names, text, help)->type_name(shape));
}

DeclaredOption OptionList::value(std::string const& names, std::string& text,
                                 std::string const& shape, std::string const& help)
{
    return DeclaredOption(m_app.add_option(names, text, help)->type_name(shape));
}

DeclaredOption OptionList::value(std::string const& names, Take const& take,
                                 std::string const& shape, std::string const& help)
{
    return DeclaredOption(
        m_app.add_option_function<std::string>(names, take, help)->type_name(shape));
}

DeclaredOption OptionList::values(std::string const& names, Take const& take,
                                  std::string const& shape, std::string const& help)
{
    // One value per option: with a list, CLI11 would also take the arguments after it.
    return DeclaredOption(m_app
                              .add_option_function<std::vector<std::string>>(
                                  names,
                                  [take](std::vector<std::string> const& texts) {
                                      for (std::string const& text : texts) {
                                          take(text);
                                      }
                                  },
                                  help)
                              ->expected(1)
                              ->take_all()
                              ->allow_extra_args(false)
                              ->type_name(shape));
}

DeclaredOption OptionList::arguments(std::string const& name, std::string const& help)
{
    // CLI11 splits "[a,b]" if an option allows extra arguments, and drops "{}" when it converts to
    // a vector. So: any number of arguments, no extra ones, and the texts as they are.
    constexpr int anyNumber = CLI::detail::expected_max_vector_size;
    return DeclaredOption(m_app.add_option(name, help)
                              ->expected(anyNumber, anyNumber)
                              ->take_all()
                              ->allow_extra_args(false)
                              ->type_name(""));
}

DeclaredOption OptionList::declared(std::string const& name)
{
    return DeclaredOption(m_app.get_option(name));
}

void OptionList::footer(std::string const& text) { m_app.footer(text); }

} // namespace Solvane::Tool
