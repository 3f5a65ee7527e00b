// The lines of the steps, the monitoring line, and the histogram.
#include "CheckReport.h"

#include "Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace Solvane::Tool {

namespace {

/// Upper bounds of the ranges in milliseconds; the last range has none.
constexpr double ends[] = {0.1, 0.2, 0.5, 1, 2, 5, 10, 20, 50, 100, 200, 500, 1000, 2000, 5000};
constexpr std::size_t longestBar = 40; // columns

} // namespace

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

void Histogram::add(double milliseconds)
{
    m_sorted.insert(std::upper_bound(m_sorted.begin(), m_sorted.end(), milliseconds), milliseconds);
}

double Histogram::percentile(unsigned int percent) const
{
    std::size_t const rank = (m_sorted.size() * percent + 99) / 100; // counted from 1
    return m_sorted[std::max<std::size_t>(rank, 1) - 1];
}

std::string Histogram::summary() const
{
    return fmt::format("min {:.1f}, p50 {:.1f}, p99 {:.1f}, max {:.1f} ms", percentile(0),
                       percentile(50), percentile(99), percentile(100));
}

std::vector<std::string> Histogram::bars() const
{
    std::vector<std::size_t> counts(std::size(ends) + 1);
    for (double const measured : m_sorted) {
        auto const* const end = std::upper_bound(std::begin(ends), std::end(ends), measured);
        ++counts[static_cast<std::size_t>(end - std::begin(ends))];
    }
    auto const isUsed = [](std::size_t count) { return count != 0; };
    auto const first = std::find_if(counts.begin(), counts.end(), isUsed);
    auto const last = std::find_if(counts.rbegin(), counts.rend(), isUsed).base();

    std::vector<std::string> lines;
    for (auto count = first; count < last; ++count) {
        auto const range = static_cast<std::size_t>(count - counts.begin());
        std::string const label = range < std::size(ends)
                                      ? fmt::format("< {:g}", ends[range])
                                      : fmt::format(">= {:g}", ends[std::size(ends) - 1]);
        std::size_t const length = (*count * longestBar + m_sorted.size() - 1) / m_sorted.size();
        lines.push_back(fmt::format("{:>7} ms  {:<{}}  {}", label, std::string(length, '#'),
                                    longestBar, *count));
    }
    return lines;
}

} // namespace Solvane::Tool
