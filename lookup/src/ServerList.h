// The servers in order of trial, and which of them are passed over for the moment.
#ifndef SOLVANE_LOOKUP_SRC_SERVER_LIST_H
#define SOLVANE_LOOKUP_SRC_SERVER_LIST_H

#include <solvane/lookup/DirectorySession.h>
#include <solvane/lookup/LDAPLookup.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <mutex>
#include <string>

namespace Solvane::Lookup {

/// A list that all threads share. A server that failed is passed over until its back-off ends; then
/// one caller tries it, and the others go on passing it over until they know. One that fell silent on
/// a connection is tried at once where there is no other: behind the address of a balancer there are
/// several, and a connection can be lost without a word that it is.
class ServerList {
public:
    explicit ServerList(LDAPLookup::Settings const& settings);

    std::size_t size() const { return m_servers.size(); }
    std::string const& host(std::size_t index) const { return m_servers[index].server.host; }
    /// Text of the URI, with the host as it was given.
    std::string const& uri(std::size_t index) const { return m_servers[index].uri; }

    /// The description for a connection; resolved at first, and again after a failure.
    /// @throws LDAPException  code 4, type 0: the host does not resolve
    LDAPConnection::RefServer describe(std::size_t index);

    /// Whether a caller may use the server now. Takes the trial, where a back-off has ended.
    bool claim(std::size_t index, Clock::time_point now);
    /// Leaves the trial to the next caller, as this one learned nothing.
    void giveUpTrial(std::size_t index, Clock::time_point now);
    /// The same as a question.
    bool isEligible(std::size_t index, Clock::time_point now) const;
    /// Whether asking a server that is passed over costs nothing: it fails at once, as one that
    /// refuses connections does.
    bool failsPromptly(std::size_t index) const;
    /// Whether a server that is passed over may be tried all the same, by one caller.
    bool isTrialDue(std::size_t index) const;
    /// Takes that trial.
    bool claimTrial(std::size_t index, Clock::time_point now);
    /// Until when it is worth waiting for the outcome of another caller's trial of this kind. In the
    /// past where there is none.
    Clock::time_point trialEnd(std::size_t index) const;
    /// Why the server is passed over.
    Verdict lastFailure(std::size_t index) const;

    /// Whether a server other than this one is in use: what it accepted cannot be wrong as such.
    bool isAnotherInUse(std::size_t index) const;

    /// A part of the answer to a search came from the server, to whichever caller.
    void heardFrom(std::size_t index, Clock::time_point now);
    /// Whether an answer came, or a connection was opened.
    bool wasHeardSince(std::size_t index, Clock::time_point time) const;

    /// A connection was opened.
    void succeeded(std::size_t index, Clock::time_point now);
    /// @param cost  how long the caller was kept waiting for the failure
    void failed(std::size_t index, Verdict const& why, Clock::duration cost);
    /// The same for a server that does not answer on a connection that it had accepted.
    void fellSilent(std::size_t index, Verdict const& why, Clock::duration cost);

private:
    struct State {
        LDAPLookup::Server server;
        std::string uri;
        std::atomic<Clock::rep> heardAt{Clock::time_point::min().time_since_epoch().count()};
        // Guarded by m_mutex.
        LDAPConnection::RefServer description;
        bool isInUse = false; ///< a connection was opened, and no failure since
        bool isFailing = false;
        bool failsPromptly = false;
        bool isTrialDue = false;
        Clock::time_point openedAt = Clock::time_point::min();
        Clock::time_point triedAt = Clock::time_point::min(); ///< before its back-off ended
        Clock::time_point failedAt;
        Clock::time_point retryAt;
        Clock::duration backOff{0};
        Verdict why;
    };

    static Clock::time_point heardAt(State const& state);
    bool isEligible(State const& state, Clock::time_point now) const;
    void fail(State& state, Verdict const& why, Clock::duration cost);

    mutable std::mutex m_mutex;
    std::deque<State> m_servers; ///< as many as at first; the states stay where they are
    unsigned int m_networkTimeout;
    Clock::duration m_backOff;
    Clock::duration m_longestBackOff;
};

} // namespace Solvane::Lookup

#endif
