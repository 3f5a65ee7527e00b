// Echo and the signals that must not leave it off.
#include "Terminal.h"

namespace Solvane::Tool {

namespace {

volatile std::sig_atomic_t g_caughtSignal = 0;

void remember(int signal) { g_caughtSignal = signal; }

} // namespace

EchoOff::EchoOff(int terminal) : m_terminal(terminal)
{
    g_caughtSignal = 0;
    struct sigaction remembering = {};
    remembering.sa_handler = remember; // without SA_RESTART: the read must end
    for (std::size_t i = 0; i < signals.size(); ++i) {
        sigaction(signals[i], &remembering, &m_actions[i]);
    }
    tcgetattr(m_terminal, &m_saved);
    termios silent = m_saved;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(m_terminal, TCSAFLUSH, &silent);
}

EchoOff::~EchoOff()
{
    tcsetattr(m_terminal, TCSAFLUSH, &m_saved);
    for (std::size_t i = 0; i < signals.size(); ++i) {
        sigaction(signals[i], &m_actions[i], nullptr);
    }
    if (wasInterrupted()) {
        raise(g_caughtSignal);
    }
}

bool EchoOff::wasInterrupted() { return g_caughtSignal != 0; }

} // namespace Solvane::Tool
