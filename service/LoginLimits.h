// Limits how often passwords are tried, so that a guesser neither succeeds nor locks accounts.
#ifndef SOLVANE_SERVICE_LOGIN_LIMITS_H
#define SOLVANE_SERVICE_LOGIN_LIMITS_H

#include "Recent.h"

#include <chrono>
#include <mutex>
#include <string>

namespace Solvane::Service {

/// Counts refused logins by user and by address of the client. Either has at most a number of them
/// within a time; more are not admitted until the time is over. Thread-safe.
class LoginLimits {
public:
    using Clock = std::chrono::steady_clock;

    /// @param most  failures; 0: no limit
    /// @param time  from the first failure until they are forgotten
    LoginLimits(unsigned int most, std::chrono::seconds time);
    /// Other limits from now on. Failures before are not forgotten, and keep their time.
    void change(unsigned int most, std::chrono::seconds time);

    /// Whether a login may be tried.
    /// @param address  empty: unknown, and not limited
    bool admits(std::string const& user, std::string const& address, Clock::time_point now);
    /// A login was denied. Returns true if the user or the address is at its limit now.
    bool failed(std::string const& user, std::string const& address, Clock::time_point now);
    /// A login was accepted: the user's failures are forgotten, those of the address are not.
    void succeeded(std::string const& user);

    static constexpr std::size_t mostNames = 20000; ///< of users, and of addresses

private:
    struct Failures {
        unsigned int count = 0;
        Clock::time_point until;
    };
    using Counts = Recent<Failures>;

    bool isFull(Counts& counts, std::string const& name, Clock::time_point now);
    bool count(Counts& counts, std::string const& name, Clock::time_point now);

    std::mutex m_mutex; ///< guards the members below
    unsigned int m_most;
    std::chrono::seconds m_time;
    Counts m_users{mostNames};
    Counts m_addresses{mostNames};
};

} // namespace Solvane::Service

#endif
