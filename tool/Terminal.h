// Turns the echo of a terminal off for a while.
#ifndef SOLVANE_TOOL_TERMINAL_H
#define SOLVANE_TOOL_TERMINAL_H

#include <array>
#include <csignal>

#include <termios.h>

namespace Solvane::Tool {

/// Turns echo off during its lifetime. A signal that would end or stop the process interrupts
/// `waitFor` and takes effect after echo is on again. One object at a time; not thread-safe.
class EchoOff {
public:
    explicit EchoOff(int terminal);
    ~EchoOff();
    EchoOff(EchoOff const&) = delete;
    EchoOff& operator=(EchoOff const&) = delete;

    /// Blocks until the terminal is ready for `events` of poll(2), or until a signal interrupts;
    /// after a signal it only polls.
    /// @return whether the terminal is ready
    bool waitFor(short events) const;
    static bool wasInterrupted();

private:
    static constexpr std::array<int, 5> signals = {SIGINT, SIGTERM, SIGQUIT, SIGHUP, SIGTSTP};

    int m_terminal;
    termios m_saved{};
    std::array<struct sigaction, signals.size()> m_actions{};
    sigset_t m_mask{};
};

} // namespace Solvane::Tool

#endif
