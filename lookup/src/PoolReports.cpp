// What a pool tells of its servers: to threads without its lock, to the observer, and when asked.
#include "Pool.h"

#include <algorithm>
#include <utility>

namespace Solvane::Lookup {

namespace {

ServerStatistics::State stateOf(ServerHealth const& health)
{
    switch (health.state()) {
    case ServerHealth::State::up:
        return ServerStatistics::State::up;
    case ServerHealth::State::backingOff:
        return ServerStatistics::State::backingOff;
    case ServerHealth::State::onTrial:
        return ServerStatistics::State::onTrial;
    }
    return ServerStatistics::State::up;
}

} // namespace

/// Makes the state of a server known: to threads without the lock, and to the observer, each change
/// once.
void Pool::publish(ServerRecord& server, Report* report)
{
    ServerHealth const& health = server.health;
    if (report != nullptr && health.backOffs() != server.toldBackOffs) {
        server.toldBackOffs = health.backOffs();
        server.isToldDown = true;
        report->add(Event::Kind::backOff, server.uri, health.why(),
                    health.retryAt() - Clock::now());
    }
    if (report != nullptr && server.isToldDown && health.state() == ServerHealth::State::up) {
        server.isToldDown = false;
        report->add(Event::Kind::recovered, server.uri);
    }
    server.windowLimit.store(server.window.limit(), std::memory_order_relaxed);
    server.isWindowNarrow.store(server.window.isNarrow(), std::memory_order_relaxed);
    server.awaitsAnswer.store(server.health.awaitsAnswer(), std::memory_order_relaxed);
}

void Pool::disconnected(ServerRecord const& server, Verdict const& why)
{
    report().add(Event::Kind::disconnected, server.uri, why);
}

void Pool::repeated(ServerRecord const& server, Verdict const& why)
{
    ++m_totals.repeated;
    ++server.counters->repeated;
    report().add(Event::Kind::repeated, server.uri, why);
}

std::vector<ServerStatistics> Pool::servers()
{
    std::vector<ServerStatistics> all;
    Idle dropped;
    auto const now = Clock::now();
    std::lock_guard<std::mutex> const lock(m_mutex);
    afterFork(dropped);
    for (ServerRecord const* const server : m_servers.inOrder()) {
        ServerStatistics one;
        one.uri = server->uri;
        one.state = stateOf(server->health);
        if (one.state == ServerStatistics::State::backingOff) {
            one.untilNextTry = std::chrono::ceil<std::chrono::milliseconds>(
                std::max(Clock::duration(0), server->health.retryAt() - now));
        }
        one.lastFailure = server->health.why();
        one.idle = static_cast<std::size_t>(
            std::count_if(m_idle.begin(), m_idle.end(),
                          [&](auto const& idle) { return &idle->server == server; }));
        one.inUse = server->inUse;
        one.opened = server->counters->opened;
        one.failed = server->counters->failed;
        one.answered = server->counters->answered;
        one.repeated = server->counters->repeated;
        all.push_back(std::move(one));
    }
    return all;
}

} // namespace Solvane::Lookup
