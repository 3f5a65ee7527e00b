// Tasks to lanes: which session a search is sent on, and when another one is opened.
#include "Pipeline.h"

#include <algorithm>

#include <ldap.h>

namespace Solvane::Lookup {

void Pipeline::dispatch()
{
    while (!m_waiting.empty()) {
        Task& task = *m_waiting.back();
        if (Lane* const lane = laneFor(task)) {
            m_waiting.pop_back();
            send(task, *lane);
        } else if (m_query || isAwaited(task) || !makesRoom(task) || !checkOut(task)) {
            return; // for servers' names, for a session that is being opened, an answer, the pool
        }
    }
    m_lookAgainAt = Clock::time_point::max();
    m_shared.pool.withdraw(m_waiter);
}

/// The lane with the fewest searches that has room for one more; null without one.
Lane* Pipeline::laneFor(Task const& task) const
{
    Lane const* best = nullptr;
    for (Lane const& lane : m_lanes) {
        if (lane.isOpen() && lane.hasRoom(m_window) && lane.suits(task) &&
            (best == nullptr || lane.tasks.size() < best->tasks.size())) {
            best = &lane;
        }
    }
    return const_cast<Lane*>(best);
}

/// Whether a session is being opened on which it can be asked.
bool Pipeline::isAwaited(Task const& task) const
{
    return std::any_of(m_lanes.begin(), m_lanes.end(),
                       [&](Lane const& lane) { return !lane.isOpen() && lane.suits(task); });
}

/// Whether it can be asked on an open session, sooner or later.
bool Pipeline::canBeServed(Task const& task) const
{
    return std::any_of(m_lanes.begin(), m_lanes.end(),
                       [&](Lane const& lane) { return lane.isOpen() && lane.suits(task); });
}

/// Whether the task may have one more lane, in the place of one that is of no use to it if need be.
bool Pipeline::makesRoom(Task const& task)
{
    if (m_lanes.size() >= m_maximumLanes && !canBeServed(task)) {
        auto const useless = std::find_if(m_lanes.begin(), m_lanes.end(), [](Lane const& lane) {
            return lane.isOpen() && lane.tasks.empty();
        });
        if (useless != m_lanes.end()) {
            end(*useless);
        }
    }
    return m_lanes.size() < m_maximumLanes && (m_now >= m_noNewLaneBefore || !canBeServed(task));
}

/// Asks the pool for the first of the waiting tasks. False if it has to wait.
bool Pipeline::checkOut(Task& task)
{
    bool const hasLane = canBeServed(task);
    Pool::Wish const wish = {m_now,        task.deadline,           task.failures, task.brokeOn,
                             task.brokeAt, task.answer.wasRepeated, !hasLane};
    Pool::Outlook outlook = m_shared.pool.checkOut(wish, m_waiter);
    m_lookAgainAt = outlook.until;
    m_isPoolFull = outlook.isFull;
    switch (outlook.kind) {
    case Pool::Outlook::ready:
        m_lanes.emplace_back(std::move(outlook.lease));
        return true;
    case Pool::Outlook::open:
        open(std::move(outlook.lease), task);
        return true;
    case Pool::Outlook::resolve:
        resolve(*outlook.domain, task);
        return true;
    case Pool::Outlook::wait:
        return false;
    case Pool::Outlook::refused:
        break;
    }
    if (hasLane) {
        // The lanes there are will do; another one is tried for now and then.
        m_noNewLaneBefore = Clock::now() + m_shared.settings.backOff;
        return false;
    }
    m_waiting.pop_back();
    conclude(task, outlook.failures);
    return true;
}

/// Has the servers of a domain looked up. Other pipelines use those that it named before meanwhile.
void Pipeline::resolve(ServerDomain& domain, Task const& task)
{
    m_query = std::make_unique<Query>(domain, shareOf(task), m_shared.settings.nameServers);
    advanceQuery();
}

void Pipeline::advanceQuery()
{
    SrvQuery& service = m_query->service;
    service.advance();
    if (service.isSettled()) {
        endQuery(service.verdict(), service.targets());
    } else if (Clock::now() >= m_query->until) {
        endQuery({Outcome::TryLater, LDAP_TIMEOUT,
                  m_query->domain.uri + ": no answer of a name server in time"},
                 {});
    }
}

void Pipeline::endQuery(Verdict const& verdict, std::vector<SrvTarget> const& targets)
{
    m_shared.pool.resolved(m_query->domain, verdict, targets);
    m_query.reset();
}

/// Of what is left of a key's time, a server gets half if there are others to ask.
Clock::time_point Pipeline::shareOf(Task const& task) const
{
    auto const now = Clock::now();
    bool const isLast = task.failures.size() + 1 >= m_shared.pool.serverCount();
    return isLast ? task.deadline : now + (task.deadline - now) / 2;
}

void Pipeline::open(Pool::Lease lease, Task const& task)
{
    bool const asksWhoWeAre = !m_shared.settings.bindDn.empty() || task.answer.wasRepeated;
    m_lanes.emplace_back(std::move(lease));
    Lane& lane = m_lanes.back();
    lane.begunAt = Clock::now();
    lane.openBy = shareOf(task);
    lane.lease->session.begin(asksWhoWeAre ? Step::identify : Step::bind, lane.openBy);
    advance(lane);
}

void Pipeline::advance(Lane& lane)
{
    lane.lease->session.advance();
    if (!lane.lease->session.isSettled()) {
        return;
    }
    if (lane.lease->session.verdict().isGood()) {
        opened(lane);
    } else {
        notOpened(lane);
    }
}

void Pipeline::opened(Lane& lane)
{
    PooledSession& session = *lane.lease;
    bool const isBound = !m_shared.settings.bindDn.empty();
    session.hasAnswered = isBound || session.session.isDone(Step::identify);
    m_shared.pool.opened(session);
}

/// The tasks that waited for it are asked elsewhere, unless another lane to the same server works.
void Pipeline::notOpened(Lane& lane)
{
    ServerRecord const& server = *lane.server;
    Verdict const why = lane.lease->session.verdict();
    auto const begun = lane.begunAt;
    auto const now = Clock::now();
    std::vector<Task*> awaiting;
    std::copy_if(m_waiting.begin(), m_waiting.end(), std::back_inserter(awaiting),
                 [&](Task const* task) { return lane.suits(*task); });
    auto const attempt = m_shared.pool.failed(lane.lease, why, begun, now >= lane.openBy);
    m_lanes.remove_if([&](Lane const& other) { return &other == &lane; });
    m_noNewLaneBefore = now + m_shared.settings.backOff;
    for (Task* const task : awaiting) {
        if (canBeServed(*task)) {
            continue;
        }
        if (attempt == Pool::Attempt::another && !task->hasReopened) {
            task->hasReopened = true; // the next of the servers at that address
            continue;
        }
        Failure failure = {
            server.index, server.uri, why, false, begun, now - begun, why.code == LDAP_PARAM_ERROR};
        task->failures.push_back(std::move(failure));
    }
}

void Pipeline::send(Task& task, Lane& lane)
{
    PooledSession& pooled = *lane.lease;
    task.answer.server = lane.server->uri;
    task.answer.identity = pooled.session.identity();
    Verdict const verdict =
        pooled.session.send(m_shared.request, task.answer.filter, task.messageId);
    if (!verdict.isGood() && verdict.code != LDAP_SERVER_DOWN) {
        finish(task, verdict.outcome, verdict.code, verdict.text);
        return;
    }
    if (pooled.wasUsed) {
        ++m_shared.reused;
    }
    pooled.wasUsed = true;
    task.sentAt = m_now;
    task.wasOnProven = pooled.hasAnsweredSearch;
    lane.add(task);
    lane.needsFlush = true;
    ++m_inFlight;
    if (!verdict.isGood()) {
        leave(lane, Trouble::broken, verdict);
    }
}

/// A run may take as long as it likes, so it takes turns with callers that wait.
void Pipeline::leaveOneLaneToOthers()
{
    if (m_lanes.empty() || !m_waiting.empty() || !m_shared.pool.isWaitedFor()) {
        return;
    }
    auto const soonest =
        std::min_element(m_lanes.begin(), m_lanes.end(), [](Lane const& one, Lane const& other) {
            // One that is leaving comes first, so that they leave one at a time.
            return std::make_pair(!one.isLeaving, one.tasks.size()) <
                   std::make_pair(!other.isLeaving, other.tasks.size());
        });
    soonest->isLeaving = soonest->isOpen();
}

void Pipeline::endLeavingLanes()
{
    for (auto lane = m_lanes.begin(); lane != m_lanes.end();) {
        Lane& current = *lane++;
        if (current.isLeaving && current.tasks.empty()) {
            end(current);
        }
    }
}

void Pipeline::end(Lane& lane)
{
    lane.end();
    m_lanes.remove_if([&](Lane const& other) { return &other == &lane; });
}

void Pipeline::rest()
{
    for (Lane& lane : m_lanes) {
        lane.end();
    }
    m_lanes.clear();
    if (m_query) {
        m_shared.pool.giveUp(m_query->domain);
        m_query.reset();
    }
    m_shared.pool.withdraw(m_waiter);
}

} // namespace Solvane::Lookup
