// Parses the command line with CLI11; errors become one line.
#include "Commands.h"

#include "OpenLDAP.h"
#include "OptionList.h"
#include "Options.h"
#include "Outcome.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <string>
#include <vector>

namespace Solvane::Tool {

namespace {

constexpr char commonOptionsNote[] =
    "Options for servers, identity, TLS, diagnostics and output format apply to all commands:\n"
    "see 'solvane-ldap --help' or solvane-ldap(1).";

std::string versionText()
{
    LDAPAPIInfo running = {};
    running.ldapai_info_version = LDAP_API_INFO_VERSION;
    bool const isKnown = ldap_get_option(nullptr, LDAP_OPT_API_INFO, &running) == LDAP_OPT_SUCCESS;
    ldap_memfree(running.ldapai_vendor_name);
    ldap_memvfree(reinterpret_cast<void**>(running.ldapai_extensions));

    auto const dotted = [](int version) {
        return fmt::format("{}.{}.{}", version / 10000, version / 100 % 100, version % 100);
    };
    return fmt::format("solvane-ldap {}\nOpenLDAP {} compiled against, {} running",
                       SOLVANE_TOOL_VERSION, dotted(LDAP_VENDOR_VERSION),
                       isKnown ? dotted(running.ldapai_vendor_version) : "unknown");
}

/// The error for an unknown argument. Shows only the option's name: the value may be a secret.
Failure unexpectedArgument(std::string const& argument, std::string const& help)
{
    if (argument.rfind("--", 0) == 0) {
        return Failure(Outcome::usage,
                       fmt::format("unknown option {}", argument.substr(0, argument.find('='))),
                       help);
    }
    if (argument.rfind("-w", 0) == 0) {
        return Failure(Outcome::usage, "-w is not supported: other users can see arguments",
                       "pass the password with -W, -y FILE or --password-fd N");
    }
    if (argument.rfind('-', 0) == 0) {
        return Failure(Outcome::usage, fmt::format("unknown option {}", argument.substr(0, 2)),
                       help);
    }
    return Failure(Outcome::usage, fmt::format("unknown command '{}'", argument), help);
}

Failure usageFailure(CLI::App const& app, CLI::ParseError const& error)
{
    auto const chosen = app.get_subcommands();
    std::string const help =
        fmt::format("see 'solvane-ldap{} --help'",
                    chosen.empty() ? std::string() : ' ' + chosen.front()->get_name());
    auto const unexpected = app.remaining(true);
    if (!unexpected.empty()) {
        return unexpectedArgument(unexpected.front(), help);
    }
    std::string text = error.what();
    if (text.rfind("A ", 0) == 0) {
        text.front() = 'a';
    }
    return Failure(Outcome::usage, text, help);
}

/// Whether an option of this name takes a value, in any command.
bool takesValue(CLI::App const& app, std::string const& name)
{
    CLI::Option const* option = app.get_option_no_throw(name);
    for (CLI::App const* const command : app.get_subcommands({})) {
        option = option == nullptr ? command->get_option_no_throw(name) : option;
    }
    return option != nullptr && option->get_items_expected_min() > 0;
}

/// Whether the next argument is this option's value.
bool awaitsValue(CLI::App const& app, std::string const& argument)
{
    if (argument.rfind("--", 0) == 0) {
        return takesValue(app, argument); // no option has a name with "="
    }
    if (argument.rfind('-', 0) != 0) {
        return false;
    }
    // In "-vHldap://host", flags precede the first letter that takes a value; the rest is the
    // value.
    auto const letter = std::find_if(argument.begin() + 1, argument.end(), [&](char each) {
        return takesValue(app, std::string("-") + each);
    });
    return letter != argument.end() && letter + 1 == argument.end();
}

/// The arguments for the parser. CLI11 treats a long name of one letter as a short one, so --b and
/// --g are rewritten to --b-value and --g-value. Values, and everything after "--", stay unchanged.
std::vector<std::string> readableArguments(CLI::App const& app, int count, char** arguments)
{
    std::vector<std::string> read(arguments + std::min(count, 1), arguments + count);
    bool isValue = false;
    for (std::string& argument : read) {
        if (!isValue && argument == "--") {
            break;
        }
        std::string const name = argument.substr(0, argument.find('='));
        if (!isValue && (name == "--b" || name == "--g")) {
            argument.insert(name.size(), "-value");
        }
        isValue = !isValue && awaitsValue(app, argument);
    }
    std::reverse(read.begin(), read.end()); // CLI11 expects them reversed
    return read;
}

/// Prints help or version; CLI11 reports such a request as an exception.
void answerQuestion(CLI::App const& app, CLI::Success const& question, Output& output)
{
    std::ostringstream text;
    std::ostringstream unused;
    app.exit(question, text, unused);
    output.write(text.str());
}

} // namespace

int runCommandLine(int count, char** arguments, Output& output, Diagnostics& diagnostics)
{
    ExpandCommand expand;
    LookupCommand lookup;
    SearchCommand search;
    AddCommand add;
    ApplyCommand apply;
    CheckCommand check;
    VerifyCommand verify;
    CompareCommand compare;
    PasswdCommand passwd;
    WhoAmICommand whoAmI;
    ImportCommand import;
    StatusCommand status;
    std::array<Command*, 12> const commands = {&expand, &lookup, &search,  &verify,
                                               &add,    &apply,  &compare, &passwd,
                                               &whoAmI, &check,  &import,  &status};

    CommonOptions common;
    CLI::App app("Try, check and run directory lookups.", "solvane-ldap");
    app.require_subcommand(1);
    app.set_version_flag("-V,--version", versionText);
    app.fallthrough(); // common options are allowed before and after the command
    OptionList ofAll(app);
    common.declareOn(ofAll);
    for (Command* const command : commands) {
        CLI::App& declared = *app.add_subcommand(command->name(), command->description());
        OptionList options(declared);
        command->declareOn(options);
        common.declareOnCommand(options);
        declared.footer(declared.get_footer() + "\n\n" + commonOptionsNote);
    }
    try {
        app.parse(readableArguments(app, count, arguments));
    } catch (CLI::Success const& question) {
        answerQuestion(app, question, output);
        return exitStatusOf(Outcome::found);
    } catch (CLI::ParseError const& error) {
        throw usageFailure(app, error);
    }
    auto* const* const chosen =
        std::find_if(commands.begin(), commands.end(),
                     [&](Command* command) { return app.got_subcommand(command->name()); });
    if (chosen == commands.end()) {
        return exitStatusOf(Outcome::internal);
    }
    diagnostics.level(common.level());
    common.debugOpenLDAP(diagnostics, (*chosen)->sendsPassword());
    return (*chosen)->run(common, output, diagnostics);
}

} // namespace Solvane::Tool
