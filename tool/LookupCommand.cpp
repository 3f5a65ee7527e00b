// Options of "lookup", and the run over its keys.
#include "LookupCommand.h"

#include "Failure.h"
#include "Lookup.h"
#include "RecordWriter.h"
#include "Secret.h"

#include <CLI/CLI.hpp>

namespace Solvane::Tool {

namespace {

constexpr char footer[] =
    "Each address gets one record, in the order given: found, not found, or an error.\n"
    "'Not found' is said only by a server that confirmed the bind. Values that are not\n"
    "UTF-8 text are shown in base64. No option takes a password: it would be seen in the\n"
    "list of processes.\n\n"
    "Exit status, the worst of all addresses:\n"
    "   0  found\n"
    "   1  answered, but not found\n"
    "  64  usage\n"
    "  65  template, filter or address wrong\n"
    "  69  the server refuses for good, or refers elsewhere\n"
    "  74  standard output cannot be written\n"
    "  75  try later: server down, no answer in time, busy, a limit hit\n"
    "  77  credentials or access refused\n"
    "  78  base missing, or a file or password that cannot be used\n"
    "In the order of their weight: 64, 78, 77, 75, 69, 65, 1, 0.";

} // namespace

void LookupCommand::declareOn(CLI::App& app)
{
    m_server.declareOn(app);
    m_search.declareOn(app);
    m_template.declareOn(app);
    m_keys.declareOn(app);
    app.add_option("--format", m_format, "Form of the records")
        ->check(CLI::IsMember(recordFormats()))
        ->type_name("")
        ->capture_default_str();
    m_diagnostics.declareOn(app);
    app.footer(footer);
}

Outcome LookupCommand::run(Output& output, Diagnostics& diagnostics)
{
    diagnostics.level(m_diagnostics.level());
    m_keys.check();
    if (m_keys.readsStandardInput() && m_server.readsStandardInput()) {
        throw Failure(Outcome::usage, "addresses and password both come from standard input",
                      "give one of them another way, as in --password-fd 3 3<FILE");
    }
    LDAPSearch::Parameter const parameter = m_search.parameter();
    QueryTemplate const queryTemplate = m_template.queryTemplate();
    queryTemplate.check();
    Secret password;
    ServerSettings const server = m_server.settings(password);

    Lookup lookup(server, m_server.uri(), parameter, queryTemplate, diagnostics);
    auto const writer = makeRecordWriter(m_format);
    output.write(writer->opening());
    Outcome worst = Outcome::found;
    m_keys.forEach([&](std::string const& key) {
        Record const record = lookup.lookUp(key);
        output.write(writer->textOf(record));
        worst = worse(worst, record.answer.outcome);
    });
    return worst;
}

} // namespace Solvane::Tool
