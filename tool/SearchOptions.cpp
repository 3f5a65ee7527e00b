// The template, and the search around it.
#include "Options.h"

#include "Failure.h"
#include "Files.h"
#include "OptionValues.h"

namespace Solvane::Tool {

// Template

void TemplateOptions::declareOn(CLI::App& app)
{
    auto* const text = addValue(app, "-t,--template", m_text, textIn, "TEMPLATE",
                                "Query template, as '(mail=$m)'");
    addValue(app, "-T,--template-file", m_file, textIn, "FILE",
             "File that holds the template, on one line")
        ->excludes(text);
    addValue(app, "--b-value", m_bValue, textIn, "VALUE", "What $b inserts; --b for short");
    addValue(app, "--g-value", m_gValue, textIn, "VALUE", "What $g inserts; --g for short");
}

bool TemplateOptions::isGiven(SettingsFile const& file) const
{
    return m_text || m_file || file.has("query_filter");
}

void TemplateOptions::applyTo(LDAPLookup::Settings& settings, SettingsFile const& file) const
{
    if (!isGiven(file)) {
        throw Failure(Outcome::usage, "there is no template",
                      "give one with -t TEMPLATE or -T FILE, or query_filter in the file of -C");
    }
    LDAPLookup::Settings const& underneath = file.settings();
    if (m_file) {
        settings.queryTemplate = withoutLastNewline(readFile("the template file", *m_file));
    } else {
        settings.queryTemplate = m_text.value_or(underneath.queryTemplate);
    }
    settings.bValue = m_bValue.value_or(underneath.bValue);
    settings.gValue = m_gValue.value_or(underneath.gValue);
}

Lookup::QueryTemplate TemplateOptions::queryTemplate(SettingsFile const& file) const
{
    LDAPLookup::Settings settings;
    applyTo(settings, file);
    return Lookup::QueryTemplate(settings.queryTemplate, settings.bValue, settings.gValue);
}

// Search

void SearchOptions::declareOn(CLI::App& app)
{
    addValue(app, "-b,--base", m_base, dnIn, "BASE", "DN at which the search starts");
    addValue(app, "-s,--scope", m_scope, scopeIn, "base|one|sub", "How far below it is searched")
        ->default_str("sub");
    addValue(app, "-a,--deref", m_dereference, dereferenceIn, "never|search|find|always",
             "When aliases are followed")
        ->default_str("never");
    addValue(app, "--attrs", m_attributes, attributesIn, "A,B",
             "Attributes to show, separated by commas; else all");
    addValue(app, "-z,--size-limit", m_entryLimit, numberBetween(0, largestLimit), "N",
             "Most entries for one key; 0: no limit")
        ->default_str("1000");
    addValue(app, "-l,--time-limit", m_timeLimit, numberBetween(0, largestLimit), "S",
             "Seconds that the server may search; 0: no limit")
        ->default_str("0");
}

bool SearchOptions::hasBase(SettingsFile const& file) const
{
    return m_base || file.has("search_base");
}

void SearchOptions::applyTo(LDAPLookup::Settings& settings, SettingsFile const& file) const
{
    if (m_baseIs == Base::required && !hasBase(file)) {
        throw Failure(Outcome::usage, "there is no base to search",
                      "give one with -b BASE, or search_base in the file of -C");
    }
    LDAPLookup::Settings const& underneath = file.settings();
    settings.base = m_base.value_or(underneath.base);
    settings.scope = m_scope.value_or(underneath.scope);
    settings.deref = m_dereference.value_or(underneath.deref);
    settings.attributes = m_attributes.value_or(underneath.attributes);
    settings.entryLimit = m_entryLimit.value_or(underneath.entryLimit);
    settings.timeLimit = m_timeLimit.value_or(underneath.timeLimit);
}

} // namespace Solvane::Tool
