// What the steps of a check came to: shown as they end, or as one line for a monitor.
#ifndef SOLVANE_TOOL_CHECK_REPORT_H
#define SOLVANE_TOOL_CHECK_REPORT_H

#include "Console.h"
#include "Outcome.h"

#include <chrono>
#include <optional>
#include <string>

namespace Solvane::Tool {

/// Time since it was made.
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

class CheckReport {
public:
    /// @param output  where each step is shown at once; null: nowhere
    explicit CheckReport(Output* output) : m_output(output) {}

    /// The steps that follow are those of this server.
    void beginServer(std::string const& uri);
    /// Whether all of the server's steps so far passed, warnings allowed.
    bool serverWorks() const { return m_serverWorks; }
    void endServer();

    void passed(std::string const& step, std::string const& text,
                std::optional<double> milliseconds = std::nullopt);
    /// @param outcome  what it means for the exit status
    void warned(std::string const& step, std::string const& text,
                std::optional<double> milliseconds = std::nullopt,
                Outcome outcome = Outcome::found);
    /// @param text  the cause
    void failed(std::string const& step, Outcome outcome, std::string const& text,
                std::string const& remedy, std::optional<double> milliseconds = std::nullopt);
    /// @param reason  why it was not tried
    void skipped(std::string const& step, std::string const& reason);
    /// A line below the last step.
    void detail(std::string const& line);

    /// Of all steps.
    Outcome worst() const { return m_worst; }

    /// State of the whole for a monitoring system of the Nagios kind.
    enum class State { ok = 0, warning = 1, critical = 2, unknown = 3 };
    /// Critical: no server works, or a step that belongs to none failed. Warning: a server failed
    /// while another works, or a step warned.
    State state() const;
    /// One line: the state, the first reason for it, and the figures.
    std::string line(std::string const& figures) const;
    static std::string line(State state, std::string const& text, std::string const& figures);

private:
    void show(char const* verdict, std::string const& step, std::string const& text,
              std::optional<double> milliseconds);
    std::string placed(std::string const& step, std::string const& text) const;

    Output* m_output;
    std::string m_server; ///< empty: the step belongs to none
    bool m_serverWorks = true;
    unsigned int m_servers = 0;
    unsigned int m_workingServers = 0;
    bool m_isUnusable = false; ///< a step failed that belongs to no server
    std::string m_firstFailure;
    std::string m_firstWarning;
    Outcome m_worst = Outcome::found;
};

} // namespace Solvane::Tool

#endif
