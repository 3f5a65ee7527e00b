// Back-off, and resolving when it is needed.
#include "ServerList.h"

#include <algorithm>

namespace Solvane::Lookup {

namespace {

std::string uriOf(LDAPLookup::Server const& server)
{
    bool const isIPv6 = server.host.find(':') != std::string::npos;
    return (server.secure ? "ldaps://" : "ldap://") +
           (isIPv6 ? '[' + server.host + ']' : server.host) + ':' + std::to_string(server.port);
}

} // namespace

ServerList::ServerList(LDAPLookup::Settings const& settings)
    : m_networkTimeout(settings.networkTimeout), m_backOff(settings.backOff),
      m_longestBackOff(settings.longestBackOff)
{
    m_servers.reserve(settings.servers.size());
    for (LDAPLookup::Server const& server : settings.servers) {
        m_servers.emplace_back();
        m_servers.back().server = server;
        m_servers.back().uri = uriOf(server);
    }
}

LDAPConnection::RefServer ServerList::describe(std::size_t index)
{
    State& state = m_servers[index];
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        if (state.description) {
            return state.description;
        }
    }
    LDAPLookup::Server const& server = state.server;
    LDAPConnection::RefServer const resolved(server.host, server.port, server.version,
                                             server.secure, m_networkTimeout, false, false);
    std::lock_guard<std::mutex> const lock(m_mutex);
    state.description = resolved;
    return resolved;
}

bool ServerList::isEligible(State const& state, Clock::time_point now) const
{
    return !state.isFailing || now >= state.retryAt;
}

bool ServerList::isEligible(std::size_t index, Clock::time_point now) const
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    return isEligible(m_servers[index], now);
}

bool ServerList::claim(std::size_t index, Clock::time_point now)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    State& state = m_servers[index];
    if (!isEligible(state, now)) {
        return false;
    }
    if (state.isFailing) {
        state.retryAt = now + std::chrono::seconds(m_networkTimeout);
    }
    return true;
}

bool ServerList::failsPromptly(std::size_t index) const
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    return m_servers[index].failsPromptly;
}

Verdict ServerList::lastFailure(std::size_t index) const
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    return m_servers[index].why;
}

void ServerList::succeeded(std::size_t index)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    State& state = m_servers[index];
    state.isFailing = false;
    state.failsPromptly = false;
    state.backOff = Clock::duration(0);
}

void ServerList::failed(std::size_t index, Verdict const& why, Clock::duration cost)
{
    constexpr std::chrono::milliseconds prompt(100);
    std::lock_guard<std::mutex> const lock(m_mutex);
    State& state = m_servers[index];
    auto const now = Clock::now();
    // Threads that failed together are one failure.
    bool const isSameFailure = state.isFailing && now - cost < state.failedAt;
    state.why = why;
    state.description = LDAPConnection::RefServer();
    if (isSameFailure) {
        return;
    }
    state.isFailing = true;
    state.failedAt = now;
    // What a server answered is not asked again at once: too many wrong passwords lock an account.
    state.failsPromptly = cost < prompt && why.outcome == Outcome::TryLater;
    state.backOff = std::min(std::max(state.backOff * 2, m_backOff), m_longestBackOff);
    state.retryAt = now + state.backOff;
}

} // namespace Solvane::Lookup
