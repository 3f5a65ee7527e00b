// Limits how often passwords are tried, so that a guesser neither succeeds nor locks accounts.
#ifndef SOLVANE_SERVICE_LOGIN_LIMITS_H
#define SOLVANE_SERVICE_LOGIN_LIMITS_H

#include "Recent.h"

#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>

namespace Solvane::Service {

/// A login, from its name to its result.
struct LoginAttempt {
    std::string user;       ///< as the client spells it
    std::string address;    ///< of the client; empty: unknown, and not limited
    std::string dn;         ///< of the entry, once `LoginLimits` was asked for the bind
    bool isCounted = false; ///< as a bind under way
    bool isLimited = false; ///< the bind was not admitted
};

/// Counts refused logins within a time: by the user's name, by the entry that a bind is sent for, and
/// by the client's address. The entry is what counts: a name has many spellings, such as
/// "anna+1@example.com", and a directory locks entries. A bind counts from the moment at which it is
/// sent, so that no more are under way at the same time than may be refused.
///
/// A network of IPv6 (/64) counts as one address. Loopback is not limited: it is a webmail's. Neither
/// is an address from which the user has logged in within a day: others may share it.
///
/// Names are kept as hashes: those with the same one share a count. Thread-safe.
class LoginLimits {
public:
    using Clock = std::chrono::steady_clock;

    /// How many refused logins there may be.
    struct Bounds {
        unsigned int user;         ///< with a name or as an entry; 0: no limit
        unsigned int address;      ///< from an address; 0: no limit
        std::chrono::seconds time; ///< from the first one until they are forgotten
    };

    explicit LoginLimits(Bounds const& bounds) : m_bounds(bounds) {}
    /// Other limits from now on. Failures before are not forgotten, and keep their time.
    void change(Bounds const& bounds);

    /// Whether the entry may be searched.
    bool admits(LoginAttempt const& attempt, Clock::time_point now);
    /// Whether a bind as this entry may be sent. If so, it counts until the attempt is concluded.
    bool admitsBind(LoginAttempt& attempt, std::string const& dn, Clock::time_point now);

    /// How an attempt ended.
    enum class Result {
        accepted,   ///< the user's failures are forgotten, those of the address are not
        denied,     ///< it counts
        unanswered, ///< it does not
    };
    /// Call it once for an attempt that was admitted. Returns true if the user or the address is at
    /// its limit now.
    bool conclude(LoginAttempt const& attempt, Result result, Clock::time_point now);

    static constexpr std::size_t mostNames = 20000; ///< of users, of entries, and of addresses

private:
    struct Failures {
        unsigned int count = 0;
        unsigned int underWay = 0;
        Clock::time_point until;
    };
    using Key = std::size_t;
    using Counts = Recent<Failures, Key>;

    std::optional<Key> keyOf(std::string const& address) const;
    bool isFull(Counts& counts, Key key, unsigned int most, Clock::time_point now);
    Failures& failuresOf(Counts& counts, Key key, Clock::time_point now);

    std::mutex m_mutex; ///< guards the members below
    Bounds m_bounds;
    Counts m_users{mostNames};
    Counts m_entries{mostNames};
    Counts m_addresses{mostNames};
    Recent<Clock::time_point, Key> m_trusted{mostNames}; ///< users with addresses: until when
};

} // namespace Solvane::Service

#endif
