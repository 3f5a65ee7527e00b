// Options of "lookup", and what they make of a run.
#include "LookupCommand.h"

#include "Failure.h"
#include "LookupRun.h"

#include <solvane/ldap/LDAPException.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <memory>

namespace Solvane::Tool {

namespace {

constexpr char footer[] =
    "Each address gets one record, in the order given: found, not found, skipped, or an\n"
    "error. 'Not found' is said only of a complete answer to the identity that was bound.\n"
    "No option takes a password: it would be seen in the list of processes.\n\n"
    "Exit status, the worst of all addresses:\n"
    "   0  found\n"
    "   1  answered, but not found; or what --nouser says\n"
    "  64  usage\n"
    "  65  template, filter or address wrong; more than one entry with --single\n"
    "  69  the server refuses for good, or refers elsewhere\n"
    "  74  standard output cannot be written\n"
    "  75  try later: servers down, no answer in time, busy, a limit hit\n"
    "  77  credentials, access or certificate refused\n"
    "  78  base missing, or a setting, file or password that cannot be used\n"
    "In the order of their weight: 64, 78, 77, 75, 69, 65, 1, 0.";

/// An error of the template ends the run before anybody is asked.
void requireSoundTemplate(LDAPLookup::Settings const& settings)
{
    using Lookup::QueryTemplate;
    QueryTemplate const queryTemplate(settings.queryTemplate, settings.bValue, settings.gValue);
    for (QueryTemplate::Finding const& finding : queryTemplate.check()) {
        if (finding.weight == QueryTemplate::Finding::Weight::error) {
            throw Failure(
                Outcome::badInput,
                fmt::format("the template is wrong at byte {}: {}", finding.position, finding.text),
                "see 'solvane-ldap expand --lint'");
        }
    }
}

std::unique_ptr<LDAPLookup> makeLookup(LDAPLookup::Settings const& settings)
{
    requireSoundTemplate(settings);
    try {
        return std::make_unique<LDAPLookup>(settings);
    } catch (LDAPException const& fault) {
        throw Failure(Outcome::configuration, fault.stringParameter(), "correct the settings");
    }
}

} // namespace

void LookupCommand::declareOn(CLI::App& app)
{
    m_search.declareOn(app);
    m_template.declareOn(app);
    m_bulk.declareOn(app);
    m_keys.declareOn(app);
    app.footer(footer);
}

LDAPLookup::Settings LookupCommand::settings(CommonOptions const& common, Secret& password) const
{
    LDAPLookup::Settings settings = common.settings(password);
    m_search.applyTo(settings, common.file());
    m_template.applyTo(settings, common.file());
    m_bulk.applyTo(settings, common.file());
    return settings;
}

int LookupCommand::run(CommonOptions const& common, Output& output, Diagnostics& diagnostics)
{
    m_keys.check();
    if (m_keys.readsStandardInput() && common.readsStandardInput()) {
        throw Failure(Outcome::usage, "addresses and password both come from standard input",
                      "give one of them another way, as in --password-fd 3 3<FILE");
    }
    m_keys.separator(common.recordEnd());
    Secret password;
    auto const lookup = makeLookup(settings(common, password));
    LookupRun run(*lookup, common, m_bulk.single(), output, diagnostics);
    Outcome const worst = run.over(m_keys);
    run.printStatistics(common.stats());
    return worst == Outcome::notFound ? m_bulk.exitStatusOfNotFound() : exitStatusOf(worst);
}

} // namespace Solvane::Tool
