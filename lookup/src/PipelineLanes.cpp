// Assigns tasks to lanes, and opens lanes.
#include "Pipeline.h"

#include <algorithm>

#include <ldap.h>

namespace Solvane::Lookup {

/// Goes through all tasks that wait: one that has to wait for a session does not hold up those that
/// need not. The pool is asked once for those that it treats alike. After each change it begins
/// anew, as those that were passed may go on now.
void Pipeline::sendWaiting()
{
    m_lookAgainAt = Clock::time_point::max();
    std::vector<Task const*> told; // to wait
    for (std::size_t place = m_waiting.size(); place > 0;) {
        Task& task = *m_waiting[--place];
        bool hasChanged = false;
        if (Lane* const lane = laneFor(task)) {
            m_waiting.erase(m_waiting.begin() + static_cast<std::ptrdiff_t>(place));
            send(task, *lane);
            hasChanged = true;
        } else if (!mustWait(task, told)) {
            hasChanged = checkOut(task);
            if (!hasChanged) {
                told.push_back(&task);
            }
        }
        if (hasChanged) {
            place = m_waiting.size();
            told.clear();
        }
    }
    if (told.empty()) {
        m_shared.pool.withdraw(m_waiter);
    }
}

/// Sends what can be sent, also what members that are done lead to.
void Pipeline::dispatch()
{
    do {
        sendWaiting();
    } while (advanceMembers());
}

/// Whether it is not worth asking the pool: for a task like one that was told to wait, while a
/// session is being opened or a domain resolved for it, or without room for one more lane.
bool Pipeline::mustWait(Task const& task, std::vector<Task const*> const& told)
{
    bool const isTold = std::any_of(told.begin(), told.end(),
                                    [&](Task const* other) { return other->isLike(task); });
    bool const isResolving = m_query && !m_query->isRefresh;
    return isTold || isResolving || isAwaited(task) || !makesRoom(task);
}

/// URI of the server that a task prefers; null if it prefers none.
std::string const* Pipeline::homeOf(Task const& task)
{
    if (task.member) {
        return &task.member->key.answer.server;
    }
    return task.preference();
}

/// The least loaded open lane with room for the task; null if there is none. Members are searched
/// on the server that returned the group, while a lane leads there: others may differ.
Lane* Pipeline::laneFor(Task const& task) const
{
    std::string const* const home = homeOf(task);
    bool const staysHome =
        home != nullptr && std::any_of(m_lanes.begin(), m_lanes.end(), [&](Lane const& lane) {
            return lane.isOpen() && lane.suits(task) && lane.server->uri == *home;
        });
    Lane const* best = nullptr;
    for (Lane const& lane : m_lanes) {
        if (lane.isOpen() && lane.hasRoom(m_window) && lane.suits(task) &&
            (!staysHome || lane.server->uri == *home) &&
            (best == nullptr || lane.tasks.size() < best->tasks.size())) {
            best = &lane;
        }
    }
    return const_cast<Lane*>(best);
}

/// Whether a lane that suits the task is being opened.
bool Pipeline::isAwaited(Task const& task) const
{
    return std::any_of(m_lanes.begin(), m_lanes.end(),
                       [&](Lane const& lane) { return !lane.isOpen() && lane.suits(task); });
}

/// Whether an open lane suits the task, even if it has no room now.
bool Pipeline::canBeServed(Task const& task) const
{
    return std::any_of(m_lanes.begin(), m_lanes.end(),
                       [&](Lane const& lane) { return lane.isOpen() && lane.suits(task); });
}

/// Whether the task may get another lane; ends an idle lane that does not suit it if necessary.
bool Pipeline::makesRoom(Task const& task)
{
    if (m_lanes.size() >= m_maximumLanes && !canBeServed(task)) {
        endUselessLane();
    }
    return m_lanes.size() < m_maximumLanes && (m_now >= m_noNewLaneBefore || !canBeServed(task));
}

/// Returns an idle session that no waiting task can be asked on. Two runs that each kept one would
/// wait for the other's.
bool Pipeline::endUselessLane()
{
    auto const useless = std::find_if(m_lanes.begin(), m_lanes.end(), [&](Lane const& lane) {
        return lane.isOpen() && lane.tasks.empty() &&
               std::none_of(m_waiting.begin(), m_waiting.end(),
                            [&](Task const* task) { return lane.suits(*task); });
    });
    if (useless == m_lanes.end()) {
        return false;
    }
    end(*useless);
    return true;
}

/// Asks the pool for a waiting task. False if it has to wait.
bool Pipeline::checkOut(Task& task)
{
    bool const hasLane = canBeServed(task);
    Pool::Wish const wish = {m_now,        task.deadline,      task.failures,
                             task.brokeOn, task.brokeAt,       task.answer.wasRepeated,
                             !hasLane,     m_query == nullptr, homeOf(task)};
    Pool::Outlook outlook = m_shared.pool.checkOut(wish, m_waiter);
    m_isPoolFull = outlook.isFull;
    bool const isRefused = outlook.kind == Pool::Outlook::refused;
    if (task.preference() != nullptr &&
        (isRefused || (outlook.lease && outlook.lease->server.uri != *task.preference()))) {
        task.login->server.clear(); // it is down: any other will do
        if (isRefused) {
            return true; // perhaps on a lane that is here
        }
    }
    switch (outlook.kind) {
    case Pool::Outlook::ready:
        m_lanes.emplace_back(std::move(outlook.lease));
        ++m_connectionChanges;
        return true;
    case Pool::Outlook::open:
        open(std::move(outlook.lease), task);
        return true;
    case Pool::Outlook::resolve:
        resolve(std::move(outlook), task);
        return true;
    case Pool::Outlook::wait:
        m_lookAgainAt = std::min(m_lookAgainAt, outlook.until);
        return outlook.isFull && !hasLane && endUselessLane();
    case Pool::Outlook::refused:
        break;
    }
    if (hasLane) {
        // The existing lanes suffice; retry for another one later.
        m_noNewLaneBefore = Clock::now() + m_shared.settings.backOff;
        return false;
    }
    m_waiting.erase(std::find(m_waiting.begin(), m_waiting.end(), &task));
    conclude(task, outlook.failures);
    return true;
}

/// Has the servers of a domain looked up. A question that another run left unanswered goes on.
void Pipeline::resolve(Pool::Outlook outlook, Task const& task)
{
    auto until = outlook.until;
    if (!outlook.query) {
        outlook.query = std::make_unique<SrvQuery>(
            outlook.domain->name, outlook.domain->settings.secure, m_shared.settings.nameServers);
        until = outlook.isRefresh
                    ? Clock::now() + std::chrono::seconds(m_shared.settings.networkTimeout)
                    : shareOf(task);
    }
    m_query = std::make_unique<Query>(
        Query{*outlook.domain, outlook.isRefresh, until, std::move(outlook.query)});
    advanceQuery();
}

void Pipeline::advanceQuery()
{
    ++m_connectionChanges;
    SrvQuery& service = *m_query->service;
    service.advance();
    if (service.isSettled()) {
        endQuery(service.verdict(), service.targets());
    } else if (Clock::now() >= m_query->until) {
        endQuery({Outcome::TryLater, LDAP_TIMEOUT,
                  m_query->domain.uri + ": no name server answered in time"},
                 {});
    }
}

void Pipeline::endQuery(Verdict const& verdict, std::vector<SrvTarget> const& targets)
{
    m_shared.pool.resolved(m_query->domain, verdict, targets);
    m_query.reset();
}

/// A server gets half of the remaining time if there are others left to ask, else all of it.
Clock::time_point Pipeline::shareOf(Task const& task) const
{
    auto const now = Clock::now();
    bool const isLast = task.failures.size() + 1 >= m_shared.pool.serverCount();
    return isLast ? task.deadline : now + (task.deadline - now) / 2;
}

void Pipeline::open(Pool::Lease lease, Task const& task)
{
    bool const asksWhoWeAre = !m_shared.settings.isAnonymous() || task.answer.wasRepeated;
    m_lanes.emplace_back(std::move(lease));
    ++m_connectionChanges;
    Lane& lane = m_lanes.back();
    lane.begunAt = Clock::now();
    lane.openBy = shareOf(task);
    lane.lease->session.begin(asksWhoWeAre ? Step::identify : Step::bind, lane.openBy);
    advance(lane);
}

void Pipeline::advance(Lane& lane)
{
    ++m_connectionChanges; // each step may use other descriptors
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
    bool const isBound = !m_shared.settings.isAnonymous();
    session.hasAnswered = isBound || session.session.isDone(Step::identify);
    m_shared.pool.opened(session);
}

/// The tasks that waited for it fail over, unless another lane suits them.
void Pipeline::notOpened(Lane& lane)
{
    ServerRecord const& server = *lane.server;
    Verdict const why = lane.lease->session.verdict();
    // Its time ended while the owner did something else.
    bool const isExcused = why.code == LDAP_TIMEOUT && lane.heldUp != Clock::duration(0);
    auto const begun = lane.begunAt + (isExcused ? lane.heldUp : Clock::duration(0));
    bool const wasHeldUp = lane.wasHeldUp || isExcused;
    auto const now = Clock::now();
    std::vector<Task*> awaiting;
    std::copy_if(m_waiting.begin(), m_waiting.end(), std::back_inserter(awaiting),
                 [&](Task const* task) { return lane.suits(*task); });
    auto const attempt =
        m_shared.pool.failed(lane.lease, why, begun, isExcused || now >= lane.openBy);
    remove(lane);
    m_noNewLaneBefore = now + m_shared.settings.backOff;
    for (Task* const task : awaiting) {
        if (canBeServed(*task)) {
            continue;
        }
        if ((attempt == Pool::Attempt::another || wasHeldUp) && !task->hasReopened) {
            task->hasReopened =
                true; // try another server behind the same address, or without a pause
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
        m_binds ? pooled.session.authenticate(task.login->verification.dn, task.login->password,
                                              task.messageId)
                : pooled.session.send(requestOf(task), task.answer.filter, task.messageId);
    if (!verdict.isGood() && verdict.code != LDAP_SERVER_DOWN) {
        finish(task, verdict.outcome, verdict.code, verdict.text);
        return;
    }
    if (pooled.wasUsed) {
        ++m_shared.totals.reused;
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

/// Releases one lane if other callers wait: a long run must not keep all connections.
void Pipeline::leaveOneLaneToOthers()
{
    if (m_lanes.empty() || !m_shared.pool.isWaitedFor()) {
        return;
    }
    bool const lacksLane = std::any_of(m_waiting.begin(), m_waiting.end(),
                                       [&](Task const* task) { return !canBeServed(*task); });
    if (lacksLane) {
        endUselessLane();
        return;
    }
    auto const soonest =
        std::min_element(m_lanes.begin(), m_lanes.end(), [](Lane const& one, Lane const& other) {
            // A lane that is leaving already comes first, so that only one leaves at a time.
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
    remove(lane);
}

void Pipeline::remove(Lane& lane)
{
    ++m_connectionChanges;
    m_lanes.remove_if([&](Lane const& other) { return &other == &lane; });
}

void Pipeline::rest()
{
    if (m_lanes.empty() && !m_query && !m_waiter.isQueued()) {
        return;
    }
    for (Lane& lane : m_lanes) {
        lane.end();
    }
    m_lanes.clear();
    ++m_connectionChanges;
    if (m_query) {
        m_shared.pool.park(m_query->domain, std::move(m_query->service), m_query->until);
        m_query.reset();
    }
    m_shared.pool.withdraw(m_waiter);
}

void Pipeline::disown()
{
    m_query.reset();
    rest();
}

} // namespace Solvane::Lookup
