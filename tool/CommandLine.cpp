// Parsing with CLI11, and its complaints in one line.
#include "CommandLine.h"

#include "AddCommand.h"
#include "CheckCommand.h"
#include "Command.h"
#include "ExpandCommand.h"
#include "Failure.h"
#include "LookupCommand.h"
#include "OpenLDAP.h"
#include "Options.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <array>
#include <cctype>
#include <sstream>

namespace Solvane::Tool {

namespace {

constexpr char commonOptionsNote[] =
    "Servers, identity, TLS, diagnostics and the form of the output are options of all commands:\n"
    "see 'solvane-ldap --help', or solvane-ldap(1).";

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

/// An argument nobody takes, without what may stand behind an option's name: it may be a secret.
Failure unexpectedArgument(std::string const& argument, std::string const& help)
{
    if (argument.rfind("--", 0) == 0) {
        return Failure(Outcome::usage,
                       fmt::format("unknown option {}", argument.substr(0, argument.find('='))),
                       help);
    }
    if (argument.rfind("-w", 0) == 0) {
        return Failure(Outcome::usage, "-w is not offered, arguments are seen by others",
                       "give the password with -W, -y FILE or --password-fd N");
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

/// Help and version end the parsing as exceptions.
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
    AddCommand add;
    CheckCommand check;
    std::array<Command*, 4> const commands = {&expand, &lookup, &add, &check};

    CommonOptions common;
    CLI::App app("Tries the product's directory lookups from the command line.", "solvane-ldap");
    app.require_subcommand(1);
    app.set_version_flag("-V,--version", versionText);
    app.fallthrough(); // options of all commands stand before the command's name or behind it
    common.declareOn(app);
    for (Command* const command : commands) {
        CLI::App& declared = *app.add_subcommand(command->name(), command->description());
        command->declareOn(declared);
        common.declareOnCommand(declared);
        declared.footer(declared.get_footer() + "\n\n" + commonOptionsNote);
    }
    try {
        app.parse(count, arguments);
    } catch (CLI::Success const& question) {
        answerQuestion(app, question, output);
        return exitStatusOf(Outcome::found);
    } catch (CLI::ParseError const& error) {
        throw usageFailure(app, error);
    }
    diagnostics.level(common.level());
    common.debugOpenLDAP(diagnostics);
    for (Command* const command : commands) {
        if (app.got_subcommand(command->name())) {
            return command->run(common, output, diagnostics);
        }
    }
    return exitStatusOf(Outcome::internal);
}

} // namespace Solvane::Tool
