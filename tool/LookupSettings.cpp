// The template and the settings of a lookup; the engine validates them.
#include "LookupSettings.h"

#include "Outcome.h"
#include "Text.h"

#include <solvane/ldap/LDAPException.h>

#include <fmt/format.h>

#include <algorithm>

namespace Solvane::Tool {

bool hasTemplate(Draft const& draft) { return draft.has("query_filter"); }

Lookup::QueryTemplate templateOf(Draft const& draft)
{
    if (!hasTemplate(draft)) {
        throw Failure(Outcome::usage, "no template given",
                      "add -t TEMPLATE or -T FILE, or set query_filter in the settings file (-C)");
    }
    LDAPLookup::Settings const& settings = draft.lookup;
    return Lookup::QueryTemplate(settings.queryTemplate, settings.bValue, settings.gValue);
}

void requireSound(Lookup::QueryTemplate const& queryTemplate)
{
    using Weight = Lookup::QueryTemplate::Finding::Weight;
    auto const findings = queryTemplate.check();
    auto const first = std::find_if(findings.begin(), findings.end(), [](auto const& finding) {
        return finding.weight == Weight::error;
    });
    if (first != findings.end()) {
        throw Failure(Outcome::badInput,
                      fmt::format("error in template '{}' at byte {}: {}",
                                  oneLine(queryTemplate.text()), first->position, first->text),
                      "run 'solvane-ldap expand --lint' for all errors");
    }
}

Draft lookupDraft(CommonOptions const& common, SettingOptions const& options)
{
    Draft draft = common.draft();
    options.applyTo(draft);
    requireBase(draft);
    return draft;
}

std::unique_ptr<LDAPLookup> makeLookup(CommonOptions const& common, Draft const& draft,
                                       Secret& password)
{
    auto const queryTemplate = templateOf(draft);
    LDAPLookup::Settings const settings = common.settings(draft, password);
    requireSound(queryTemplate);
    try {
        return std::make_unique<LDAPLookup>(settings);
    } catch (LDAPException const& fault) {
        throw Failure(Outcome::configuration, fault.stringParameter(), "correct the settings");
    }
}

} // namespace Solvane::Tool
