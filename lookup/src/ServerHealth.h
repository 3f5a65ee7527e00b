// Whether one server may be used: up, backing off after a failure, or on trial.
#ifndef SOLVANE_LOOKUP_SRC_SERVER_HEALTH_H
#define SOLVANE_LOOKUP_SRC_SERVER_HEALTH_H

#include <solvane/session/Verdict.h>

#include <chrono>

namespace Solvane::Lookup {

/// A state machine; its transitions stand in one table, in ServerHealth.cpp, and in the picture
/// docs/diagrams/server-states.dot. Not synchronised: the pool guards it.
class ServerHealth {
public:
    enum class State {
        up,         ///< used; also before its first use
        backingOff, ///< skipped until its back-off expires
        onTrial,    ///< one caller uses it, the others skip it until they know how that ended
    };

    enum class Event {
        claimed,   ///< a caller is going to use it
        abandoned, ///< that caller learned nothing
        connected, ///< a session was opened, where a session proves nothing
        proved,    ///< it did what it failed to do before: opened a session, answered a search
        failed, ///< a session could not be opened, or a search that another server could answer failed
        fellSilent, ///< searches on an open session are not answered
    };
    static constexpr int states = 3;
    static constexpr int events = 6;

    /// What is done on a transition.
    enum class Action {
        none,
        beginTrial,
        endTrialUnknown, ///< the next caller may try at once
        forget,          ///< the failures: the next one is a first one
        backOff,         ///< for the first time, or for twice as long as the last time
        join,            ///< callers that failed together are one failure: a new one only if the
                         ///< back-off has expired
        backOffSilent,   ///< like `backOff`; one caller may try anew at once
    };
    struct Transition {
        State next;
        Action action;
    };
    /// The row of the table.
    static Transition transition(State state, Event event);

    struct Limits {
        Clock::duration networkTimeout; ///< a trial that takes longer counts as given up
        Clock::duration backOff;        ///< the first
        Clock::duration longestBackOff;
    };
    explicit ServerHealth(Limits const& limits) : m_limits(limits) {}

    State state() const { return m_state; }

    // What callers may do

    /// Up, or its back-off or trial has expired, so that a caller may try.
    bool isEligible(Clock::time_point now) const;
    /// Whether it fell silent on a session and may be tried anew at once, by one caller: behind the
    /// address of a balancer there are several, and a firewall may have lost that connection alone.
    bool isRetryDue() const { return m_state == State::backingOff && m_isRetryDue; }
    /// Whether to ask it costs nothing although it is backing off: it fails at once, as one that
    /// refuses connections does.
    bool failsPromptly() const { return m_state != State::up && m_failsPromptly; }
    /// Until when it is worth waiting for the outcome of another caller's trial of a silent server;
    /// in the past if there is none.
    Clock::time_point trialEnd() const;
    /// Of the last failure.
    Verdict const& why() const { return m_why; }
    /// When the back-off or the trial ends.
    Clock::time_point retryAt() const { return m_retryAt; }

    // What happened

    /// A caller is going to use it; true if this is the trial.
    bool claim(Clock::time_point now);
    void abandon(Clock::time_point now);
    /// A session was opened.
    void connected(Clock::time_point now);
    /// A search was answered.
    void answered(Clock::time_point now);
    /// No session could be opened.
    /// @param cost  how long the caller waited for the failure
    void unreachable(Verdict const& why, Clock::duration cost, Clock::time_point now);
    /// The credentials were refused, or it is else not to be asked for so long.
    void hold(Verdict const& why, Clock::duration time, Clock::time_point now);
    /// A search failed that another server could answer.
    void searchFailed(Verdict const& why, Clock::duration cost, Clock::time_point now);
    /// Searches on an open session are not answered.
    /// @param heardAt  when it answered a search last
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
        Clock::duration atLeast{0}; ///< of the back-off
        Clock::time_point heardAt;  ///< when a search was answered last
    };
    void apply(Event event, Clock::time_point now, Failure const& failure);
    void fail(Event event, Failure const& failure, Clock::time_point now);
    void beginBackOff(Failure const& failure, Clock::time_point now);

    Limits m_limits;
    State m_state = State::up;
    bool m_mustAnswer = false;    ///< its searches failed: only an answer proves that it is back
    bool m_failsPromptly = false; ///< the last failure did not keep its caller waiting
    bool m_isRetryDue = false;
    bool m_isRetry = false; ///< the trial began before the back-off expired
    Clock::time_point m_retriedAt = Clock::time_point::min(); ///< the last such trial
    Clock::duration m_backOff{0};
    Clock::time_point m_claimedAt;
    Clock::time_point m_failedAt;
    Clock::time_point m_retryAt;
    Verdict m_why;
};

} // namespace Solvane::Lookup

#endif
