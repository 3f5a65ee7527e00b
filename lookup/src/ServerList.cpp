// Back-off, and resolving when it is needed.
#include "ServerList.h"

#include "FaultSite.h"

#include <solvart/Host.h>
#include <solvart/IPAddress.h>

#include <algorithm>
#include <sstream>

namespace Solvane::Lookup {

namespace {

std::string uriOf(LDAPLookup::Server const& server)
{
    bool const isIPv6 = server.host.find(':') != std::string::npos;
    return (server.secure ? "ldaps://" : "ldap://") +
           (isIPv6 ? '[' + server.host + ']' : server.host) + ':' + std::to_string(server.port);
}

/// Of a host name or an address. Resolved here, since the description would report a name that does
/// not resolve to the process's log as well, each time it is tried.
std::string addressOf(std::string const& host)
{
    Host const resolved(host, false);
    if (resolved.isNull()) {
        throw faultAt(at::hostUnknown, "the host '" + host + "' does not resolve");
    }
    std::ostringstream address;
    address << *resolved.address();
    return address.str();
}

} // namespace

ServerList::ServerList(LDAPLookup::Settings const& settings)
    : m_networkTimeout(settings.networkTimeout), m_backOff(settings.backOff),
      m_longestBackOff(settings.longestBackOff)
{
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
    LDAPConnection::RefServer resolved(addressOf(server.host), server.port, server.version,
                                       server.secure, m_networkTimeout, false, false);
    std::lock_guard<std::mutex> const lock(m_mutex);
    state.description = resolved;
    return resolved;
}

Clock::time_point ServerList::heardAt(State const& state)
{
    return Clock::time_point(Clock::duration(state.heardAt.load(std::memory_order_relaxed)));
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
        state.isTrialDue = false;
        state.retryAt = now + std::chrono::seconds(m_networkTimeout);
    }
    return true;
}

void ServerList::giveUpTrial(std::size_t index, Clock::time_point now)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_servers[index].retryAt = std::min(m_servers[index].retryAt, now);
}

bool ServerList::failsPromptly(std::size_t index) const
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    return m_servers[index].failsPromptly;
}

bool ServerList::isTrialDue(std::size_t index) const
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    return m_servers[index].isTrialDue;
}

bool ServerList::claimTrial(std::size_t index, Clock::time_point now)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    State& state = m_servers[index];
    if (!state.isTrialDue) {
        return false;
    }
    state.isTrialDue = false;
    state.triedAt = now;
    state.retryAt = now + std::chrono::seconds(m_networkTimeout);
    state.backOff = Clock::duration(0); // nobody has waited for it to end
    return true;
}

/// What opens a connection to a server that is well takes a small part of the network timeout.
Clock::time_point ServerList::trialEnd(std::size_t index) const
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    State const& state = m_servers[index];
    bool const isTried = state.isFailing && state.triedAt >= state.failedAt;
    return isTried ? state.triedAt + Clock::duration(std::chrono::seconds(m_networkTimeout)) / 10
                   : Clock::time_point::min();
}

Verdict ServerList::lastFailure(std::size_t index) const
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    return m_servers[index].why;
}

bool ServerList::isAnotherInUse(std::size_t index) const
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    return std::any_of(m_servers.begin(), m_servers.end(), [&](State const& state) {
        return state.isInUse && &state != &m_servers[index];
    });
}

void ServerList::heardFrom(std::size_t index, Clock::time_point now)
{
    m_servers[index].heardAt.store(now.time_since_epoch().count(), std::memory_order_relaxed);
}

bool ServerList::wasHeardSince(std::size_t index, Clock::time_point time) const
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    State const& state = m_servers[index];
    return std::max(state.openedAt, heardAt(state)) >= time;
}

void ServerList::succeeded(std::size_t index, Clock::time_point now)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    State& state = m_servers[index];
    state.openedAt = now;
    state.isInUse = true;
    state.isFailing = false;
    state.failsPromptly = false;
    state.isTrialDue = false;
    state.backOff = Clock::duration(0);
}

void ServerList::failed(std::size_t index, Verdict const& why, Clock::duration cost)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    fail(m_servers[index], why, cost);
}

/// One that has answered no search since its last trial of this kind takes connections and nothing
/// else: that costs a network timeout each time, and has to wait.
void ServerList::fellSilent(std::size_t index, Verdict const& why, Clock::duration cost)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    State& state = m_servers[index];
    bool const isFirst = !state.isFailing && heardAt(state) > state.triedAt;
    fail(state, why, cost);
    state.failsPromptly = false; // however short the deadline was
    state.isTrialDue = state.isTrialDue || isFirst;
}

void ServerList::fail(State& state, Verdict const& why, Clock::duration cost)
{
    constexpr std::chrono::milliseconds prompt(100);
    auto const now = Clock::now();
    // Threads that failed together are one failure.
    bool const isSameFailure = state.isFailing && now - cost < state.failedAt;
    state.why = why;
    state.isInUse = false;
    state.description = LDAPConnection::RefServer();
    if (isSameFailure) {
        return;
    }
    state.isFailing = true;
    state.isTrialDue = false;
    state.failedAt = now;
    // What a server answered is not asked again at once: too many wrong passwords lock an account.
    state.failsPromptly = cost < prompt && why.outcome == Outcome::TryLater;
    state.backOff = std::min(std::max(state.backOff * 2, m_backOff), m_longestBackOff);
    state.retryAt = now + state.backOff;
}

} // namespace Solvane::Lookup
