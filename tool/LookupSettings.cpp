// The template and the settings of a lookup; the engine validates them.
#include "LookupSettings.h"

#include "AttributeNames.h"
#include "Outcome.h"
#include "Sessions.h"
#include "Text.h"

#include <solvane/ldap/LDAPException.h>

#include <fmt/format.h>

#include <algorithm>

#include <ldap.h>

namespace Solvane::Tool {

bool hasTemplate(Draft const& draft) { return draft.has("query_filter"); }

Lookup::QueryTemplate templateOf(Draft const& draft)
{
    if (!hasTemplate(draft)) {
        throw Failure(Outcome::usage, "no template given",
                      "add -t TEMPLATE or -T FILE, or set query_filter in the settings file (-C)");
    }
    return Lookup::QueryTemplate(draft.lookup);
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

void tellDoubts(Lookup::QueryTemplate const& queryTemplate, Diagnostics const& diagnostics)
{
    for (auto const& finding : queryTemplate.check()) {
        if (finding.concernsAll) {
            diagnostics.error(fmt::format("warning: template '{}' at byte {}: {}",
                                          queryTemplate.text(), finding.position, finding.text));
        }
    }
}

std::vector<std::string> attributesOf(Draft const& draft)
{
    std::vector<std::string> names;
    if (hasTemplate(draft)) {
        try {
            names = attributesInFilter(templateOf(draft).expand(EmailAddress("user@example.com")));
        } catch (LDAPException const&) { // the step "template" tells of it
        }
    }
    LDAPLookup::Settings const& settings = draft.lookup;
    for (auto const* const list :
         {&settings.attributes, &settings.specialResultAttributes, &settings.leafResultAttributes,
          &settings.terminalResultAttributes}) {
        for (std::string const& selector : *list) {
            names.push_back(attributeNameOf(selector));
        }
    }
    std::vector<std::string> unique;
    for (std::string const& name : names) {
        if (!name.empty() && std::find(unique.begin(), unique.end(), name) == unique.end()) {
            unique.push_back(name);
        }
    }
    return unique;
}

/// On a session that is bound.
void tellDoubts(Lookup::Session& session, Draft const& draft, LDAPLookup::Settings const& settings,
                Lookup::Clock::time_point deadline, Diagnostics const& diagnostics)
{
    std::chrono::seconds const silence(settings.networkTimeout);
    auto const tell = [&](std::string const& text) {
        diagnostics.error(fmt::format("warning: {}: {}", session.uri(), text));
    };
    auto const base = Lookup::baseOfAllKeys(settings);
    if (base && settings.deref != LDAPSearch::DerefFinding &&
        settings.deref != LDAPSearch::DerefAlways) {
        Lookup::SearchRequest request;
        request.base = *base;
        request.scope = LDAP_SCOPE_BASE;
        request.attributes = {"objectClass", "aliasedObjectName"};
        SearchEnd const end = searchOn(session, request, "(objectClass=alias)", silence, deadline);
        if (!end.entries.empty()) {
            tell(fmt::format("the base {} is an alias: nothing below it is found; use its target, "
                             "or dereference = find",
                             settings.base));
        }
    }
    LDAPSchema const known = schemaOf(session, silence, deadline);
    for (std::string const& name : attributesOf(draft)) {
        if (!known.attributeTypes().empty() && known.find(name) == nullptr) {
            std::string const similar = similarAttribute(known, name);
            tell(fmt::format("the server does not know the attribute '{}'{}", name,
                             similar.empty() ? "" : fmt::format(" (similar: '{}')", similar)));
        }
    }
}

void tellDoubts(Draft const& draft, LDAPLookup::Settings const& settings,
                Diagnostics const& diagnostics)
{
    auto const deadline = Lookup::Clock::now() + std::chrono::seconds(settings.networkTimeout);
    for (LDAPLookup::Server const& listed : settings.servers) {
        for (LDAPLookup::Server const& server : serversOf(listed, settings, deadline).servers) {
            auto const tls =
                server.usesTls() ? std::make_shared<Lookup::TlsContext>(settings.tls) : nullptr;
            if (tls && !tls->verdict().isGood()) {
                continue;
            }
            Lookup::Session session(sessionOptions(settings, server, tls));
            if (session.reach(Lookup::Step::identify, deadline).isGood()) {
                tellDoubts(session, draft, settings, deadline, diagnostics);
                return;
            }
        }
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
    templateOf(draft);
    LDAPLookup::Settings settings = common.settings(draft, password);
    auto made = makeLookup(draft, settings);
    wipe(settings.password);
    return made;
}

std::unique_ptr<LDAPLookup> makeLookup(Draft const& draft, LDAPLookup::Settings const& settings)
{
    requireSound(templateOf(draft));
    try {
        return std::make_unique<LDAPLookup>(settings);
    } catch (LDAPException const& fault) {
        throw Failure(Outcome::configuration, fault.stringParameter(), "correct the settings");
    }
}

} // namespace Solvane::Tool
