// Turns echo off, and handles signals so that it never stays off.
#include "Terminal.h"

#include <cerrno>

#include <poll.h>

namespace Solvane::Tool {

namespace {

volatile std::sig_atomic_t g_caughtSignal = 0;

void remember(int signal) { g_caughtSignal = signal; }

} // namespace

EchoOff::EchoOff(int terminal) : m_terminal(terminal)
{
    g_caughtSignal = 0;
    struct sigaction remembering = {};
    remembering.sa_handler = remember;
    sigset_t blocked;
    sigemptyset(&blocked);
    for (std::size_t i = 0; i < signals.size(); ++i) {
        sigaddset(&blocked, signals[i]);
        sigaction(signals[i], &remembering, &m_actions[i]);
    }
    // Blocked except within ppoll: a signal just before a read would not interrupt that read.
    pthread_sigmask(SIG_BLOCK, &blocked, &m_mask);
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
    pthread_sigmask(SIG_SETMASK, &m_mask, nullptr);
}

bool EchoOff::waitFor(short events) const
{
    pollfd waited = {m_terminal, events, 0};
    int ready = 0;
    do {
        timespec const atOnce = {};
        ready = wasInterrupted() ? ppoll(&waited, 1, &atOnce, nullptr)
                                 : ppoll(&waited, 1, nullptr, &m_mask);
    } while (ready < 0 && errno == EINTR && !wasInterrupted());
    return ready > 0;
}

bool EchoOff::wasInterrupted() { return g_caughtSignal != 0; }

} // namespace Solvane::Tool
