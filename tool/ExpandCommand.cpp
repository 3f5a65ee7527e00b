// Filters, the words that explain them, and the findings in a template.
#include "Commands.h"

#include "Failure.h"
#include "Template.h"
#include "Text.h"

#include <solvane/ldap.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace Solvane::Tool {

namespace {

using Lookup::QueryTemplate;
using Weight = QueryTemplate::Finding::Weight;

constexpr char footer[] =
    "Specifiers:\n"
    "  $u $n $N    the local part: as it is, in lower case, in upper case\n"
    "  $m $a $A    the address: as it is, in lower case, in upper case\n"
    "  $d          the domain, '#' where there is none\n"
    "  $b $g       --b-value and --g-value; without one, the text before goes too\n"
    "  $c          nothing; drops the text before it\n"
    "  ${text}     takes the last 'text' out of what was inserted last (${^text} the\n"
    "              first); drops the text before it\n"
    "Inserted values are escaped (RFC 4515). A '$' that stands for itself is written \\24.\n\n"
    "Explanations are lines that begin with '#'. Each finding of --lint is a line\n"
    "'template:POSITION: error: TEXT', or 'warning', with the template and a mark under\n"
    "the place below it. Positions count bytes from 0.\n\n"
    "Exit status: 0 printed, without findings or with warnings only, 64 usage, 65 template\n"
    "or address wrong, 74 output cannot be written, 78 file cannot be used.";

/// Output is gathered up to this size as long as there are keys.
constexpr std::string::size_type enoughOutput = 1U << 16;

// Explaining

std::string quoted(std::string const& text) { return '"' + oneLine(text) + '"'; }

std::string effectOf(QueryTemplate::Step const& step)
{
    if (step.specifier[1] != '{') {
        return step.inserted.empty() ? "inserted nothing" : "inserted " + quoted(step.inserted);
    }
    if (!step.replacement.empty()) {
        return fmt::format("turned the end {} into {}", quoted(step.removed),
                           quoted(step.replacement));
    }
    return step.removed.empty() ? "removed nothing" : "removed " + quoted(step.removed);
}

std::string explanationOf(QueryTemplate::Step const& step)
{
    std::string const dropped =
        step.dropped.empty() ? std::string() : ", dropped the text " + quoted(step.dropped);
    return fmt::format("#   at {}: {} {}{}\n", step.position, oneLine(step.specifier),
                       effectOf(step), dropped);
}

void appendExplanation(QueryTemplate const& queryTemplate, std::string const& key, std::string& out)
{
    out += fmt::format("# {}\n", oneLine(key));
    for (QueryTemplate::Step const& step : queryTemplate.explain(EmailAddress(key))) {
        out += explanationOf(step);
    }
}

// Expanding

[[noreturn]] void refuse(std::string const& cause, std::string const& remedy)
{
    throw Failure(Outcome::badInput, cause, remedy);
}

void requireAddress(std::string const& key)
{
    if (key.empty()) {
        refuse("the address is empty", "name whom to look for");
    }
    if (auto const fault = faultIn(key)) {
        refuse(fmt::format("the address '{}' holds {}", oneLine(key), describe(*fault)),
               "correct the address");
    }
}

/// @throws Failure  "badInput": the filter is empty or no line of text, and so would find
///                  everything, nothing or something else
std::string filterFor(QueryTemplate const& queryTemplate, std::string const& key)
{
    std::string filter = queryTemplate.expand(EmailAddress(key));
    if (filter.empty()) {
        refuse(fmt::format("the template '{}' makes an empty filter of '{}'",
                           oneLine(queryTemplate.text()), key),
               "an empty filter would match every entry, write one that names the address");
    }
    if (auto const fault = faultIn(filter)) {
        refuse(fmt::format("the filter '{}' holds {}", oneLine(filter), describe(*fault)),
               "see what is wrong with the template with --lint");
    }
    return filter;
}

// Checking

/// How many characters the text takes on the screen.
std::string::size_type widthOf(std::string const& text)
{
    std::string const shown = oneLine(text);
    return static_cast<std::string::size_type>(
        std::count_if(shown.begin(), shown.end(), [](char byte) {
            return (static_cast<unsigned char>(byte) & 0xC0) != 0x80; // no continuation byte
        }));
}

std::string markUnder(std::string const& text, QueryTemplate::Finding const& finding)
{
    auto const width = widthOf(text.substr(finding.position, finding.length));
    return std::string(widthOf(text.substr(0, finding.position)), ' ') + '^' +
           std::string(std::max(width, decltype(width){1}) - 1, '~');
}

Outcome lint(QueryTemplate const& queryTemplate, char recordEnd, Output& output)
{
    std::string const& text = queryTemplate.text();
    Outcome worst = Outcome::found;
    for (QueryTemplate::Finding const& finding : queryTemplate.check()) {
        bool const isError = finding.weight == Weight::error;
        output.write(fmt::format("template:{}: {}: {}\n{}\n{}{}", finding.position,
                                 isError ? "error" : "warning", finding.text, oneLine(text),
                                 markUnder(text, finding), recordEnd));
        worst = worse(worst, isError ? Outcome::badInput : Outcome::found);
    }
    return worst;
}

} // namespace

/// The filters, gathered until somebody waits for them.
class ExpandCommand::Filters {
public:
    Filters(QueryTemplate const& queryTemplate, bool explains, char recordEnd, Output& output)
        : m_template(queryTemplate), m_explains(explains), m_recordEnd(recordEnd), m_output(output)
    {
    }

    /// @throws Failure        "badInput": the key, or its filter
    /// @throws LDAPException  the template is malformed
    void add(std::string const& key)
    {
        requireAddress(key);
        if (m_explains) {
            appendExplanation(m_template, key, m_gathered);
        }
        m_gathered += filterFor(m_template, key);
        m_gathered += m_recordEnd;
        if (m_gathered.size() >= enoughOutput) {
            giveOut();
        }
    }

    void giveOut() { m_output.write(std::exchange(m_gathered, {})); }

private:
    QueryTemplate const& m_template;
    bool m_explains;
    char m_recordEnd;
    Output& m_output;
    std::string m_gathered;
};

void ExpandCommand::declareOn(CLI::App& app)
{
    m_settings.declareOn(app, Setting::Group::queryTemplate);
    m_keys.declareOn(app);
    app.add_flag("--explain", m_explains, "Say before each filter what every specifier did");
    app.add_flag("--lint", m_lints,
                 "Say what is wrong with the template; addresses may be left out");
    app.footer(footer);
}

int ExpandCommand::run(CommonOptions const& common, Output& output, Diagnostics& diagnostics)
{
    bool const expands = m_keys.isGiven() || !m_lints;
    if (expands) {
        m_keys.check();
    }
    Draft draft = common.file().draft();
    m_settings.applyTo(draft);
    QueryTemplate const queryTemplate = templateOf(draft);
    Outcome worst = Outcome::found;
    if (m_lints) {
        worst = lint(queryTemplate, common.recordEnd(), output);
    }
    if (expands) {
        m_keys.separator(common.recordEnd());
        worst = worse(worst, expandKeys(queryTemplate, common.recordEnd(), output, diagnostics));
    }
    return exitStatusOf(worst);
}

Outcome ExpandCommand::expandKeys(QueryTemplate const& queryTemplate, char recordEnd,
                                  Output& output, Diagnostics& diagnostics)
{
    Filters filters(queryTemplate, m_explains, recordEnd, output);
    Outcome worst = Outcome::found;
    std::string key;
    try {
        while (nextKey(key, filters)) {
            try {
                filters.add(key);
            } catch (Failure const& failure) {
                filters.giveOut();
                diagnostics.error(failure.what());
                worst = worse(worst, failure.outcome());
            }
        }
    } catch (LDAPException const&) { // a malformed template ends the run, a wrong address does not
        filters.giveOut();
        requireSound(queryTemplate);
        throw;
    } catch (Failure const&) {
        filters.giveOut();
        throw;
    }
    filters.giveOut();
    return worst;
}

bool ExpandCommand::nextKey(std::string& key, Filters& filters)
{
    auto supply = m_keys.next(key, false);
    if (supply == LDAPLookup::Supply::nothing) {
        filters.giveOut(); // whoever sends the keys may want to see it first
        supply = m_keys.next(key, true);
    }
    return supply == LDAPLookup::Supply::key;
}

} // namespace Solvane::Tool
