// The results of a check's steps: printed as they end, or summarized in one line for monitoring; and the
// latencies of repeated ones.
#ifndef SOLVANE_TOOL_CHECK_REPORT_H
#define SOLVANE_TOOL_CHECK_REPORT_H

#include "Console.h"
#include "Outcome.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace Solvane::Tool {

/// Measures the time since its construction.
class Stopwatch {
public:
    double milliseconds() const
    {
        return std::chrono::duration<double, std::milli>(Clock::now() - m_start).count();
    }

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point m_start = Clock::now();
};

/// Collects the results of the steps. Not thread-safe.
class CheckReport {
public:
    /// @param output  receives the line of each step; null: no lines. Borrowed, must outlive the
    ///                report.
    explicit CheckReport(Output* output) : m_output(output) {}

    /// Begins the steps of a server.
    void beginServer(std::string const& uri);
    /// Whether no step of the current server has failed; warnings do not count.
    bool serverWorks() const { return m_serverWorks; }
    void endServer();

    void passed(std::string const& step, std::string const& text,
                std::optional<double> milliseconds = std::nullopt);
    /// @param outcome  its effect on the exit status
    void warned(std::string const& step, std::string const& text,
                std::optional<double> milliseconds = std::nullopt,
                Outcome outcome = Outcome::found);
    /// @param text  cause
    void failed(std::string const& step, Outcome outcome, std::string const& text,
                std::string const& remedy, std::optional<double> milliseconds = std::nullopt);
    /// @param reason  why the step was skipped
    void skipped(std::string const& step, std::string const& reason);
    /// A line below the last step.
    void detail(std::string const& line);

    /// The worst outcome of all steps.
    Outcome worst() const { return m_worst; }

    /// The overall state, with the numbers of Nagios plug-ins.
    enum class State { ok = 0, warning = 1, critical = 2, unknown = 3 };
    /// Critical: no server works, or a step before the servers failed. Warning: some servers failed
    /// and others work, or a step warned.
    State state() const;
    /// One line: the state, the first reason for it, and the performance data.
    std::string line(std::string const& figures) const;
    static std::string line(State state, std::string const& text, std::string const& figures);

private:
    void show(char const* verdict, std::string const& step, std::string const& text,
              std::optional<double> milliseconds);
    std::string placed(std::string const& step, std::string const& text) const;

    Output* m_output;
    std::string m_server; ///< empty before and between servers
    bool m_serverWorks = true;
    unsigned int m_servers = 0;
    unsigned int m_workingServers = 0;
    bool m_isUnusable = false; ///< a step outside the servers failed
    std::string m_firstFailure;
    std::string m_firstWarning;
    Outcome m_worst = Outcome::found;
};

/// Stores every measurement, so percentiles are exact.
class Histogram {
public:
    void add(double milliseconds);

    /// The `percent`th percentile: 0 is the minimum, 100 the maximum. The histogram must not be
    /// empty.
    double percentile(unsigned int percent) const;

    /// "min 0.8, p50 1.2, p99 4.0, max 4.0 ms". The histogram must not be empty.
    std::string summary() const;
    /// A line for each range: its upper bound, a bar, a count. Bounds are 1, 2 and 5 times powers
    /// of ten, from the first range with a measurement to the last.
    std::vector<std::string> bars() const;

private:
    std::vector<double> m_sorted;
};

} // namespace Solvane::Tool

#endif
