// The state of one server: up, backing off after a failure, or on trial.
#ifndef SOLVANE_LOOKUP_SRC_SERVER_HEALTH_H
#define SOLVANE_LOOKUP_SRC_SERVER_HEALTH_H

#include <solvane/session/Verdict.h>

#include <chrono>

namespace Solvane::Lookup {

/// A state machine. The table of transitions is in ServerHealth.cpp, the diagram in
/// docs/diagrams/server-states.svg. Not thread-safe: guarded by the pool's mutex.
class ServerHealth {
public:
    enum class State {
        up,         ///< usable; the initial state
        backingOff, ///< skipped until its back-off expires
        onTrial,    ///< one caller tries it; the others skip it until the outcome is known
    };

    enum class Event {
        claimed,    ///< a caller starts to use it
        abandoned,  ///< that caller stopped without a result
        connected,  ///< a session was opened, but only an answered search proves recovery
        proved,     ///< it recovered: opened a session, or answered a search if searches had failed
        failed,     ///< opening a session failed, or a search that another server could answer
        fellSilent, ///< searches on an open session are not answered
    };
    static constexpr int states = 3;
    static constexpr int events = 6;

    /// The action of a transition.
    enum class Action {
        none,
        beginTrial,
        endTrialUnknown, ///< the next caller may try at once
        forget,          ///< reset the back-off: the next failure counts as the first
        backOff,         ///< start the first back-off, or double the last one
        join,          ///< several callers that fail together count as one failure: back off again
                       ///< only if the back-off has expired
        backOffSilent, ///< like `backOff`, but one caller may retry at once
    };
    struct Transition {
        State next;
        Action action;
    };
    /// The row of the table.
    static Transition transition(State state, Event event);

    struct Limits {
        Clock::duration networkTimeout; ///< a longer trial counts as abandoned
        Clock::duration backOff;        ///< the first back-off
        Clock::duration longestBackOff;
    };
    explicit ServerHealth(Limits const& limits) : m_limits(limits) {}

    State state() const { return m_state; }

    // What callers may do

    /// Whether a caller may use it: it is up, or its back-off or trial has expired.
    bool isEligible(Clock::time_point now) const;
    /// Whether it fell silent on a session and one caller may retry it at once: a load balancer may
    /// choose another server, or a firewall may have dropped only that connection.
    bool isRetryDue() const { return m_state == State::backingOff && m_isRetryDue; }
    /// Whether trying it during its back-off costs no time, because it fails at once, as with
    /// "connection refused".
    bool failsPromptly() const { return m_state != State::up && m_failsPromptly; }
    /// How long to wait for another caller's trial of a silent server; in the past if there is no
    /// such trial.
    Clock::time_point trialEnd() const;
    /// The cause of the last failure.
    Verdict const& why() const { return m_why; }
    /// How many back-offs began.
    unsigned long backOffs() const { return m_backOffs; }
    /// When the back-off or the trial ends.
    Clock::time_point retryAt() const { return m_retryAt; }

    // Events

    /// A caller starts to use it; returns true if this is the trial.
    bool claim(Clock::time_point now);
    void abandon(Clock::time_point now);
    /// A session was opened.
    void connected(Clock::time_point now);
    /// A search was answered.
    void answered(Clock::time_point now);
    /// No session could be opened.
    /// @param cost  time that the caller waited for the failure
    void unreachable(Verdict const& why, Clock::duration cost, Clock::time_point now);
    /// It refused the credentials: do not ask it for at least `time`.
    void hold(Verdict const& why, Clock::duration time, Clock::time_point now);
    /// A search failed that another server could answer.
    void searchFailed(Verdict const& why, Clock::duration cost, Clock::time_point now);
    /// Searches on an open session are not answered.
    /// @param heardAt  when it last answered a search
    void fellSilent(Verdict const& why, Clock::duration cost, Clock::time_point now,
                    Clock::time_point heardAt);
    /// Whether `answered` would change anything.
    bool awaitsAnswer() const
    {
        return m_state != State::up || m_mustAnswer || m_backOff != Clock::duration(0);
    }

private:
    struct Failure {
        Verdict why; ///< good if the event is not a failure
        Clock::duration cost{0};
        Clock::duration atLeast{0}; ///< minimum of the back-off
        Clock::time_point heardAt;  ///< when a search was last answered
    };
    void apply(Event event, Clock::time_point now, Failure const& failure);
    void fail(Event event, Failure const& failure, Clock::time_point now);
    void beginBackOff(Failure const& failure, Clock::time_point now);

    Limits m_limits;
    State m_state = State::up;
    bool m_mustAnswer = false;    ///< searches failed: only an answered search proves recovery
    bool m_failsPromptly = false; ///< the last failure cost its caller no time
    bool m_isRetryDue = false;
    bool m_isRetry = false; ///< the trial began before the back-off expired
    Clock::time_point m_retriedAt = Clock::time_point::min(); ///< the last such trial
    Clock::duration m_backOff{0};
    unsigned long m_backOffs = 0;
    Clock::time_point m_claimedAt;
    Clock::time_point m_failedAt;
    Clock::time_point m_retryAt;
    Verdict m_why;
};

} // namespace Solvane::Lookup

#endif
