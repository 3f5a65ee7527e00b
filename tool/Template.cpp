// Asked of the settings, checked by the engine.
#include "Template.h"

#include "Text.h"

#include <fmt/format.h>

#include <algorithm>

namespace Solvane::Tool {

bool hasTemplate(Draft const& draft) { return draft.has("query_filter"); }

Lookup::QueryTemplate templateOf(Draft const& draft)
{
    if (!hasTemplate(draft)) {
        throw Failure(Outcome::usage, "there is no template",
                      "give one with -t TEMPLATE or -T FILE, or query_filter in the file of -C");
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
                      fmt::format("the template '{}' is wrong at byte {}: {}",
                                  oneLine(queryTemplate.text()), first->position, first->text),
                      "see all that is wrong with 'solvane-ldap expand --lint'");
    }
}

} // namespace Solvane::Tool
