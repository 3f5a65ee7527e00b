// Keys into records.
#include "Lookup.h"

#include "Failure.h"

#include <fmt/format.h>

#include <chrono>

namespace Solvane::Tool {

namespace {

Answer answerOf(Failure const& failure)
{
    return Answer{failure.outcome(), failure.code(), failure.cause(), failure.remedy(), {}};
}

} // namespace

Lookup::Lookup(ServerSettings const& server, std::string const& uri,
               LDAPSearch::Parameter const& parameter, QueryTemplate const& queryTemplate,
               Diagnostics const& diagnostics)
    : m_server(server), m_uri(uri), m_parameter(parameter), m_template(queryTemplate),
      m_diagnostics(diagnostics)
{
}

Record Lookup::lookUp(std::string const& key)
{
    auto const start = std::chrono::steady_clock::now();
    Record record;
    record.key = key;
    record.server = m_uri;
    record.answer = answerTo(record);
    std::chrono::duration<double, std::milli> const taken =
        std::chrono::steady_clock::now() - start;
    record.milliseconds = taken.count();
    return record;
}

Answer Lookup::answerTo(Record& record)
{
    try {
        record.filter = m_template.filterFor(record.key);
    } catch (Failure const& failure) {
        m_diagnostics.error(failure.what());
        return answerOf(failure);
    }
    if (!m_session && !m_brokenOff) {
        connect();
    }
    return m_brokenOff ? *m_brokenOff : search(record);
}

void Lookup::connect()
{
    m_diagnostics.note(m_server.bindDn.empty()
                           ? fmt::format("connecting to {} anonymously", m_uri)
                           : fmt::format("connecting to {} as {}", m_uri, m_server.bindDn));
    try {
        m_session.emplace(m_server);
    } catch (Failure const& failure) {
        m_diagnostics.error(failure.what());
        m_brokenOff = answerOf(failure);
    }
}

Answer Lookup::search(Record const& record)
{
    m_diagnostics.note("searching for " + record.filter);
    m_parameter.filter = record.filter;
    Answer answer = m_session->search(m_parameter);
    if (!answer.text.empty()) {
        m_diagnostics.error(fmt::format("{}: {}; {}", record.key, answer.text, answer.remedy));
    }
    if (!m_session->isAlive()) {
        m_brokenOff = answer;
        m_brokenOff->entries.clear();
    }
    return answer;
}

} // namespace Solvane::Tool
