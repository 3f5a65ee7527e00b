// The lines of the steps, and the monitoring line.
#include "CheckReport.h"

#include "Text.h"

#include <fmt/format.h>

#include <algorithm>

namespace Solvane::Tool {

void CheckReport::beginServer(std::string const& uri)
{
    m_server = uri;
    m_serverWorks = true;
    ++m_servers;
    if (m_output != nullptr) {
        m_output->write(fmt::format("{}\n", oneLine(uri)));
    }
}

void CheckReport::endServer()
{
    m_workingServers += m_serverWorks ? 1 : 0;
    m_server.clear();
}

void CheckReport::passed(std::string const& step, std::string const& text,
                         std::optional<double> milliseconds)
{
    show("ok", step, text, milliseconds);
}

void CheckReport::warned(std::string const& step, std::string const& text,
                         std::optional<double> milliseconds, Outcome outcome)
{
    m_worst = worse(m_worst, outcome);
    if (m_firstWarning.empty()) {
        m_firstWarning = placed(step, text);
    }
    show("warning", step, text, milliseconds);
}

void CheckReport::failed(std::string const& step, Outcome outcome, std::string const& text,
                         std::string const& remedy, std::optional<double> milliseconds)
{
    if (m_firstFailure.empty()) {
        m_firstFailure = placed(step, text);
    }
    if (m_server.empty()) {
        m_isUnusable = true;
    } else {
        m_serverWorks = false;
    }
    m_worst = worse(m_worst, outcome);
    show("FAILED", step, fmt::format("{}; {}", text, remedy), milliseconds);
}

void CheckReport::skipped(std::string const& step, std::string const& reason)
{
    show("-", step, "skipped: " + reason, std::nullopt);
}

void CheckReport::detail(std::string const& line)
{
    if (m_output != nullptr) {
        m_output->write(fmt::format("{:36}{}\n", "", oneLine(line)));
    }
}

void CheckReport::show(char const* verdict, std::string const& step, std::string const& text,
                       std::optional<double> milliseconds)
{
    if (m_output == nullptr) {
        return;
    }
    std::string const time = milliseconds ? fmt::format("{:.1f} ms", *milliseconds) : std::string();
    m_output->write(fmt::format("  {:<8} {:<12} {:>10}  {}\n", verdict, step, time, oneLine(text)));
}

std::string CheckReport::placed(std::string const& step, std::string const& text) const
{
    return (m_server.empty() ? std::string() : m_server + ": ") + step + ": " + text;
}

CheckReport::State CheckReport::state() const
{
    if (m_isUnusable || m_workingServers == 0) {
        return State::critical;
    }
    bool const isClean = m_firstFailure.empty() && m_firstWarning.empty();
    return isClean ? State::ok : State::warning;
}

std::string CheckReport::line(std::string const& figures) const
{
    std::string const text = !m_firstFailure.empty()   ? m_firstFailure
                             : !m_firstWarning.empty() ? m_firstWarning
                                                       : "all steps passed";
    return line(state(),
                fmt::format("{} of {} servers work, {}", m_workingServers, m_servers, text),
                figures);
}

std::string CheckReport::line(State state, std::string const& text, std::string const& figures)
{
    constexpr char const* words[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
    std::string shown = oneLine(text);
    std::replace(shown.begin(), shown.end(), '|', '/'); // a bar separates the performance data
    return fmt::format("LDAP {} - {} | {}\n", words[static_cast<int>(state)], shown, figures);
}

} // namespace Solvane::Tool
