// The "expand" command: filters, explanations, and the findings in a template.
#include "Commands.h"

#include "LookupSettings.h"
#include "OptionList.h"
#include "Outcome.h"
#include "Text.h"

#include <solvane/ldap.h>

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace Solvane::Tool {

namespace {

using Lookup::QueryTemplate;
using Weight = QueryTemplate::Finding::Weight;

constexpr char footer[] =
    "Specifiers:\n"
    "  $u $n $N    the local part: unchanged, in lower case, in upper case\n"
    "  $m $a $A    the address: unchanged, in lower case, in upper case\n"
    "  $d          the domain, or '#' if there is none\n"
    "  $b $g       --b-value and --g-value; if unset, also drops the text before it\n"
    "  $c          nothing; drops the text before it\n"
    "  ${text}     removes the last 'text' from the value inserted last (${^text}: the\n"
    "              first); drops the text before it\n"
    "Inserted values are escaped (RFC 4515). Write a literal '$' as \\24.\n\n"
    "Explanations are lines that begin with '#'. Each finding of --lint is a line\n"
    "'template:POSITION: error: TEXT', or 'warning', followed by the template and a line\n"
    "that marks the place. Positions count bytes from 0.\n\n"
    "Exit status: 0 no errors (warnings allowed), 64 usage error, 65 invalid template or\n"
    "address, 74 cannot write to standard output, 78 unusable file.";

/// Output is buffered up to this size while more keys are available.
constexpr std::string::size_type enoughOutput = 1U << 16;

// Explaining

std::string quoted(std::string const& text) { return '"' + oneLine(text) + '"'; }

std::string effectOf(QueryTemplate::Step const& step)
{
    if (step.specifier[1] != '{') {
        return step.inserted.empty() ? "inserted nothing" : "inserted " + quoted(step.inserted);
    }
    if (!step.replacement.empty()) {
        return fmt::format("replaced the end {} by {}", quoted(step.removed),
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
        refuse("the address is empty", "give the address to look up");
    }
    if (auto const fault = faultIn(key)) {
        refuse(fmt::format("the address '{}' contains {}", oneLine(key), describe(*fault)),
               "correct the address");
    }
}

/// @throws Failure  "badInput": the filter is empty, has control characters or is not UTF-8, and
///                  would match every entry, none, or wrong ones
std::string filterFor(QueryTemplate const& queryTemplate, std::string const& key)
{
    if (std::string const lack = queryTemplate.lackOf(key); !lack.empty()) {
        refuse(fmt::format("the address '{}' has no {}, which the template inserts", key, lack),
               "it is not found, and no server is asked");
    }
    std::string filter = queryTemplate.expand(key);
    if (filter.empty()) {
        refuse(fmt::format("the template '{}' expands to an empty filter for '{}'",
                           oneLine(queryTemplate.text()), key),
               "an empty filter would match every entry, use the address in the template");
    }
    if (auto const fault = faultIn(filter)) {
        refuse(fmt::format("the filter '{}' contains {}", oneLine(filter), describe(*fault)),
               "check the template with --lint");
    }
    return filter;
}

// Checking

/// The number of columns that the text takes on a terminal.
std::string::size_type widthOf(std::string const& text)
{
    std::string const shown = oneLine(text);
    return static_cast<std::string::size_type>(
        std::count_if(shown.begin(), shown.end(), [](char byte) {
            return (static_cast<unsigned char>(byte) & 0xC0) != 0x80; // not a continuation byte
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

/// Collects the filters and writes them in blocks; before it waits for a key, all are written.
class ExpandCommand::Filters {
public:
    Filters(QueryTemplate const& queryTemplate, bool explains, char recordEnd, Output& output)
        : m_template(queryTemplate), m_explains(explains), m_recordEnd(recordEnd), m_output(output)
    {
    }

    /// @throws Failure        "badInput": the key or its filter is invalid
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

void ExpandCommand::declareOn(OptionList& options)
{
    m_settings.declareOn(options, Setting::Group::queryTemplate);
    m_keys.declareOn(options);
    options.flag("--explain", m_explains, "Explain before each filter what every specifier did");
    options.flag("--lint", m_lints, "Report errors in the template; addresses are optional");
    options.footer(footer);
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
    } catch (
        LDAPException const&) { // a malformed template ends the run, an invalid address does not
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
        filters.giveOut(); // the sender may wait for these answers before it sends more keys
        supply = m_keys.next(key, true);
    }
    return supply == LDAPLookup::Supply::key;
}

} // namespace Solvane::Tool
