// A terminal whose echo is off, whatever happens meanwhile.
#ifndef SOLVANE_TOOL_TERMINAL_H
#define SOLVANE_TOOL_TERMINAL_H

#include <array>
#include <csignal>

#include <termios.h>

namespace Solvane::Tool {

/// Turns echo off for its life. A signal that would end or stop the process meanwhile interrupts
/// `waitFor`, and takes effect once echo is on again.
class EchoOff {
public:
    explicit EchoOff(int terminal);
    ~EchoOff();
    EchoOff(EchoOff const&) = delete;
    EchoOff& operator=(EchoOff const&) = delete;

    /// Waits until the terminal is ready for `events` of poll(2), or a signal interrupts; after one,
    /// only looks.
    /// @return whether it is ready
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
