// Counts failures of logins.
#include "LoginLimits.h"

#include <algorithm>

namespace Solvane::Service {

namespace {

/// Directories ignore the case of names, so a guesser must not gain tries by changing it.
std::string inLowerCase(std::string name)
{
    std::transform(name.begin(), name.end(), name.begin(), [](char letter) {
        return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
    });
    return name;
}

} // namespace

LoginLimits::LoginLimits(unsigned int most, std::chrono::seconds time) : m_most(most), m_time(time)
{
}

void LoginLimits::change(unsigned int most, std::chrono::seconds time)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_most = most;
    m_time = time;
}

bool LoginLimits::admits(std::string const& user, std::string const& address, Clock::time_point now)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    return m_most == 0 || (!isFull(m_users, inLowerCase(user), now) &&
                           (address.empty() || !isFull(m_addresses, address, now)));
}

bool LoginLimits::failed(std::string const& user, std::string const& address, Clock::time_point now)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    bool const isUserFull = count(m_users, inLowerCase(user), now);
    bool const isAddressFull = !address.empty() && count(m_addresses, address, now);
    return isUserFull || isAddressFull;
}

void LoginLimits::succeeded(std::string const& user)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_users.forget(inLowerCase(user));
}

bool LoginLimits::isFull(Counts& counts, std::string const& name, Clock::time_point now)
{
    Failures const* const failures = counts.find(name);
    return failures != nullptr && failures->count >= m_most && now < failures->until;
}

bool LoginLimits::count(Counts& counts, std::string const& name, Clock::time_point now)
{
    Failures* failures = counts.find(name);
    if (failures == nullptr || now >= failures->until) {
        failures = &counts.store(name, {0, now + m_time});
    }
    return ++failures->count == m_most;
}

} // namespace Solvane::Service
