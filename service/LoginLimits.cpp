// Counts failures of logins.
#include "LoginLimits.h"

#include <functional>

#include <arpa/inet.h>
#include <netinet/in.h>

namespace Solvane::Service {

namespace {

constexpr std::chrono::hours trustTime(24);

/// Directories ignore the case of names and blanks around and between words, so a guesser must not
/// gain tries by them.
std::size_t keyOfName(std::string const& name)
{
    std::string folded;
    folded.reserve(name.size());
    for (char const letter : name) {
        if (letter != ' ') {
            folded +=
                letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
        } else if (!folded.empty() && folded.back() != ' ') {
            folded += ' ';
        }
    }
    if (!folded.empty() && folded.back() == ' ') {
        folded.pop_back();
    }
    return std::hash<std::string>()(folded);
}

std::size_t pairOf(std::size_t address, std::size_t user)
{
    return std::hash<std::string>()(std::to_string(address) + ' ' + std::to_string(user));
}

/// The part of an address that stands for a client; empty for loopback.
std::string networkOf(std::string const& address)
{
    in6_addr six{};
    in_addr four{};
    if (inet_pton(AF_INET6, address.c_str(), &six) == 1) {
        if (IN6_IS_ADDR_LOOPBACK(&six)) {
            return {};
        }
        std::string const bytes(reinterpret_cast<char const*>(six.s6_addr), sizeof six.s6_addr);
        if (!IN6_IS_ADDR_V4MAPPED(&six)) {
            return bytes.substr(0, 8);
        }
        return bytes[12] == 127 ? std::string() : bytes.substr(12);
    }
    if (inet_pton(AF_INET, address.c_str(), &four) == 1) {
        std::string const bytes(reinterpret_cast<char const*>(&four.s_addr), sizeof four.s_addr);
        return bytes[0] == 127 ? std::string() : bytes;
    }
    return address;
}

} // namespace

void LoginLimits::change(Bounds const& bounds)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_bounds = bounds;
}

bool LoginLimits::admits(LoginAttempt const& attempt, Clock::time_point now)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    auto const user = keyOfName(attempt.user);
    if (isFull(m_users, user, m_bounds.user, now)) {
        return false;
    }
    auto const address = keyOf(attempt.address);
    if (!address || !isFull(m_addresses, *address, m_bounds.address, now)) {
        return true;
    }
    auto const* const until = m_trusted.find(pairOf(*address, user));
    return until != nullptr && now < *until;
}

bool LoginLimits::admitsBind(LoginAttempt& attempt, std::string const& dn, Clock::time_point now)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    if (attempt.isCounted || m_bounds.user == 0) {
        return true;
    }
    Failures& failures = failuresOf(m_entries, keyOfName(dn), now);
    if (failures.count + failures.underWay >= m_bounds.user) {
        attempt.isLimited = true;
        return false;
    }
    ++failures.underWay;
    attempt.dn = dn;
    attempt.isCounted = true;
    return true;
}

bool LoginLimits::conclude(LoginAttempt const& attempt, Result result, Clock::time_point now)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    auto const user = keyOfName(attempt.user);
    auto const entry = keyOfName(attempt.dn);
    if (Failures* const failures = attempt.isCounted ? m_entries.find(entry) : nullptr) {
        failures->underWay -= failures->underWay == 0 ? 0 : 1;
    }
    auto const address = keyOf(attempt.address);
    bool isAtLimit = false;
    switch (result) {
    case Result::accepted:
        m_users.forget(user);
        if (Failures* const failures = m_entries.find(entry)) {
            failures->count = 0;
        }
        if (address) {
            m_trusted.store(pairOf(*address, user), now + trustTime);
        }
        break;
    case Result::denied:
        isAtLimit = ++failuresOf(m_users, user, now).count == m_bounds.user;
        if (attempt.isCounted) {
            isAtLimit |= ++failuresOf(m_entries, entry, now).count == m_bounds.user;
        }
        if (address) {
            isAtLimit |= ++failuresOf(m_addresses, *address, now).count == m_bounds.address;
        }
        break;
    case Result::unanswered:
        break;
    }
    return isAtLimit;
}

/// Empty if the address is not limited.
std::optional<LoginLimits::Key> LoginLimits::keyOf(std::string const& address) const
{
    std::string const network = networkOf(address);
    return m_bounds.address == 0 || network.empty()
               ? std::nullopt
               : std::optional<Key>(std::hash<std::string>()(network));
}

bool LoginLimits::isFull(Counts& counts, Key key, unsigned int most, Clock::time_point now)
{
    Failures const* const failures = counts.find(key);
    return most != 0 && failures != nullptr && failures->count >= most && now < failures->until;
}

/// The failures of a name, which begin anew once their time is over.
LoginLimits::Failures& LoginLimits::failuresOf(Counts& counts, Key key, Clock::time_point now)
{
    Failures* const failures = counts.find(key);
    if (failures != nullptr && now < failures->until) {
        return *failures;
    }
    unsigned int const underWay = failures == nullptr ? 0 : failures->underWay;
    counts.forgetWhile([&](Failures const& oldest) { return now >= oldest.until; });
    return counts.store(key, {0, underWay, now + m_bounds.time});
}

} // namespace Solvane::Service
