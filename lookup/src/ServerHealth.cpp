// The transition table of a server's state, and the back-off.
#include "ServerHealth.h"

#include <algorithm>

namespace Solvane::Lookup {

namespace {

using State = ServerHealth::State;
using Action = ServerHealth::Action;
using Transition = ServerHealth::Transition;

// clang-format off
constexpr Transition transitions[ServerHealth::states][ServerHealth::events] = {
    { // up
        /* claimed    */ { State::up,         Action::none            },
        /* abandoned  */ { State::up,         Action::none            },
        /* connected  */ { State::up,         Action::none            },
        /* proved     */ { State::up,         Action::forget          },
        /* failed     */ { State::backingOff, Action::backOff         },
        /* fellSilent */ { State::backingOff, Action::backOffSilent   },
    },
    { // backing off
        /* claimed    */ { State::onTrial,    Action::beginTrial      },
        /* abandoned  */ { State::backingOff, Action::none            },
        /* connected  */ { State::backingOff, Action::none            },
        /* proved     */ { State::up,         Action::forget          },
        /* failed     */ { State::backingOff, Action::join            },
        /* fellSilent */ { State::backingOff, Action::join            },
    },
    { // on trial
        /* claimed    */ { State::onTrial,    Action::beginTrial      },
        /* abandoned  */ { State::backingOff, Action::endTrialUnknown },
        /* connected  */ { State::onTrial,    Action::none            },
        /* proved     */ { State::up,         Action::forget          },
        /* failed     */ { State::backingOff, Action::backOff         },
        /* fellSilent */ { State::backingOff, Action::backOff         },
    },
};
// clang-format on

} // namespace

ServerHealth::Transition ServerHealth::transition(State state, Event event)
{
    return transitions[static_cast<int>(state)][static_cast<int>(event)];
}

bool ServerHealth::isEligible(Clock::time_point now) const
{
    return m_state == State::up || now >= m_retryAt;
}

/// A healthy server opens a session in a small part of the network timeout, so waiting longer is
/// useless.
Clock::time_point ServerHealth::trialEnd() const
{
    constexpr int part = 10;
    return m_state == State::onTrial && m_isRetry ? m_claimedAt + m_limits.networkTimeout / part
                                                  : Clock::time_point::min();
}

bool ServerHealth::claim(Clock::time_point now)
{
    apply(Event::claimed, now, Failure());
    return m_state == State::onTrial;
}

void ServerHealth::abandon(Clock::time_point now) { apply(Event::abandoned, now, Failure()); }

void ServerHealth::connected(Clock::time_point now)
{
    apply(m_mustAnswer ? Event::connected : Event::proved, now, Failure());
}

void ServerHealth::answered(Clock::time_point now)
{
    m_mustAnswer = false;
    apply(Event::proved, now, Failure());
}

void ServerHealth::unreachable(Verdict const& why, Clock::duration cost, Clock::time_point now)
{
    fail(Event::failed, {why, cost, Clock::duration(0), now}, now);
}

void ServerHealth::hold(Verdict const& why, Clock::duration time, Clock::time_point now)
{
    fail(Event::failed, {why, Clock::duration::max(), time, now}, now);
}

void ServerHealth::searchFailed(Verdict const& why, Clock::duration cost, Clock::time_point now)
{
    m_mustAnswer = true;
    fail(Event::failed, {why, cost, Clock::duration(0), now}, now);
}

void ServerHealth::fellSilent(Verdict const& why, Clock::duration cost, Clock::time_point now,
                              Clock::time_point heardAt)
{
    fail(Event::fellSilent, {why, cost, Clock::duration(0), heardAt}, now);
    m_failsPromptly = false; // even if the deadline was short
}

void ServerHealth::fail(Event event, Failure const& failure, Clock::time_point now)
{
    apply(event, now, failure);
    m_why = failure.why;
}

void ServerHealth::apply(Event event, Clock::time_point now, Failure const& failure)
{
    Transition const next = transition(m_state, event);
    m_state = next.next;
    switch (next.action) {
    case Action::none:
        break;
    case Action::join:
        if (now >= m_retryAt) {
            beginBackOff(failure, now);
        }
        break;
    case Action::beginTrial:
        m_isRetry = now < m_retryAt && m_isRetryDue;
        if (m_isRetry) {
            m_isRetryDue = false;
            m_retriedAt = now;
            m_backOff = Clock::duration(0); // ended early: does not double
        }
        m_claimedAt = now;
        m_retryAt = now + m_limits.networkTimeout;
        break;
    case Action::endTrialUnknown:
        m_retryAt = now;
        break;
    case Action::forget:
        m_backOff = Clock::duration(0);
        m_isRetryDue = false;
        m_failsPromptly = false;
        break;
    case Action::backOff:
        beginBackOff(failure, now);
        break;
    case Action::backOffSilent:
        beginBackOff(failure, now);
        // Without an answered search since its last immediate retry, the server accepts connections
        // and answers nothing. Each retry would cost a network timeout, so it must wait for its
        // back-off.
        m_isRetryDue = failure.heardAt > m_retriedAt;
        break;
    }
}

void ServerHealth::beginBackOff(Failure const& failure, Clock::time_point now)
{
    constexpr std::chrono::milliseconds prompt(100);
    ++m_backOffs;
    m_failedAt = now;
    m_isRetryDue = false;
    // A refusal is never retried at once: repeated wrong passwords lock the account.
    m_failsPromptly = failure.cost < prompt && failure.why.outcome == Outcome::TryLater;
    m_backOff = std::min(std::max(m_backOff * 2, m_limits.backOff), m_limits.longestBackOff);
    m_retryAt = now + std::max(m_backOff, failure.atLeast);
}

} // namespace Solvane::Lookup
