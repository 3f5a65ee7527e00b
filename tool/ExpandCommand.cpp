// Filters, and the words that explain them.
#include "ExpandCommand.h"

#include "Failure.h"
#include "Text.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace Solvane::Tool {

namespace {

constexpr char footer[] =
    "Specifiers:\n"
    "  $u $n $N    the local part: as it is, in lower case, in upper case\n"
    "  $m $a $A    the address: as it is, in lower case, in upper case\n"
    "  $d          the domain, '#' where there is none\n"
    "  $b $g       the values of --b and --g; without one, the text before goes too\n"
    "  $c          nothing; drops the text before it\n"
    "  ${text}     takes the last 'text' out of what was inserted last (${^text} the\n"
    "              first); drops the text before it\n"
    "Inserted values are escaped (RFC 4515). A '$' that stands for itself is written \\24.\n\n"
    "Explanations are lines that begin with '#'; positions count from 0 in the template\n"
    "without the blanks round it.\n\n"
    "Exit status: 0 printed, 64 usage, 65 template or address wrong, 74 output cannot be\n"
    "written, 78 file cannot be used.";

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

} // namespace

void ExpandCommand::declareOn(CLI::App& app)
{
    m_template.declareOn(app);
    m_keys.declareOn(app);
    app.add_flag("--explain", m_explains, "Say before each filter what every specifier did");
    m_diagnostics.declareOn(app);
    app.footer(footer);
}

Outcome ExpandCommand::run(Output& output, Diagnostics& diagnostics)
{
    diagnostics.level(m_diagnostics.level());
    m_keys.check();
    QueryTemplate const queryTemplate = m_template.queryTemplate();

    Outcome worst = Outcome::found;
    m_keys.forEach([&](std::string const& key) {
        try {
            if (m_explains) {
                output.write(fmt::format("# {}\n", oneLine(key)));
                for (QueryTemplate::Step const& step : queryTemplate.explain(key)) {
                    output.write(explanationOf(step));
                }
            }
            output.write(queryTemplate.filterFor(key) + '\n');
        } catch (Failure const& failure) {
            if (failure.outcome() != Outcome::badInput) {
                throw;
            }
            queryTemplate.check(); // a malformed template ends the run, a wrong address does not
            diagnostics.error(failure.what());
            worst = worse(worst, failure.outcome());
        }
    });
    return worst;
}

} // namespace Solvane::Tool
