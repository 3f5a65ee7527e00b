// The "lookup" command: its options and exit status.
#include "Commands.h"

#include "Failure.h"
#include "LookupRun.h"
#include "LookupSettings.h"
#include "OptionValues.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <memory>

namespace Solvane::Tool {

namespace {

constexpr char footer[] =
    "Each address gets one record, in the order given: found, not found, skipped, or an\n"
    "error. 'Not found' means that a server answered completely to the bound identity.\n"
    "No option takes a password: other users could see it in the list of processes.\n\n"
    "Exit status, the worst of all addresses:\n"
    "   0  found\n"
    "   1  not found or skipped; --nouser sets another status\n"
    "  64  usage error\n"
    "  65  invalid template, filter or address; more than one entry with --single\n"
    "  69  refused permanently, or referred to another server\n"
    "  74  cannot write to standard output\n"
    "  75  try later: servers down, no answer in time, busy, a limit hit\n"
    "  77  credentials, access or certificate refused\n"
    "  78  base missing, or an unusable setting, file or password\n"
    "Precedence, worst first: 64, 78, 77, 75, 69, 65, 1, 0.";

} // namespace

void LookupCommand::declareOn(CLI::App& app)
{
    m_settings.declareOn(app, Setting::Group::search);
    m_settings.declareOn(app, Setting::Group::queryTemplate);
    m_settings.declareOn(app, Setting::Group::bulk);
    app.add_flag("--single", m_isSingle, "More than one entry for an address is an error");
    addValue(app, "--nouser", m_noUser, numberBetween(1, 125), "STATUS",
             "Exit status instead of 1, for example 67 for mail servers");
    app.add_flag("-c,--continue", m_goesOn, "Continue after an error; always on");
    app.add_flag("-L", m_ldifLeaves,
                 "Format ldif; -LL: without comments, also those for addresses that are not found; "
                 "-LLL: without the version, too");
    m_keys.declareOn(app);
    app.footer(footer);
}

std::unique_ptr<RecordWriter> LookupCommand::writer(CommonOptions const& common) const
{
    if (m_ldifLeaves == 0) {
        return makeRecordWriter(common.format(), common.recordEnd());
    }
    if (common.format() != "text" && common.format() != "ldif") { // text is the default
        throw Failure(Outcome::usage,
                      fmt::format("-L and --format {} contradict each other", common.format()),
                      "remove one of them");
    }
    return makeLdifWriter(common.recordEnd(), m_ldifLeaves);
}

int LookupCommand::run(CommonOptions const& common, Output& output, Diagnostics& diagnostics)
{
    m_keys.check();
    if (m_keys.readsStandardInput() && common.readsStandardInput()) {
        throw Failure(Outcome::usage, "addresses and password are both read from standard input",
                      "pass one of them another way, as in --password-fd 3 3<FILE");
    }
    m_keys.separator(common.recordEnd());
    Secret password;
    auto const lookup = makeLookup(common, m_settings, password);
    LookupRun run(*lookup, common, writer(common), m_isSingle, output, diagnostics);
    Outcome const worst = run.over(m_keys);
    run.printStatistics(common.stats());
    if (worst == Outcome::notFound && m_noUser) {
        return static_cast<int>(*m_noUser);
    }
    return exitStatusOf(worst);
}

} // namespace Solvane::Tool
