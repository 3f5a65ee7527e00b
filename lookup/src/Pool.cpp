// Checkout, the queue of waiters, and the state of servers.
#include "Pool.h"

#include "PoolsAtFork.h"

#include <solvane/session/ResultCodes.h>

#include <algorithm>
#include <new>
#include <utility>

namespace Solvane::Lookup {

namespace {

/// Idle sessions expire after this time: firewalls and servers silently drop such connections.
constexpr std::chrono::seconds idleTime(300);

constexpr int timedOut = -5;
constexpr int serverDown = -1;

/// Files are not read for servers that do not need them.
std::shared_ptr<TlsContext> contextFor(Settings const& settings)
{
    bool const usesTls = std::any_of(settings.servers.begin(), settings.servers.end(),
                                     [](Server const& server) { return server.usesTls(); });
    return usesTls ? std::make_shared<TlsContext>(settings.tls) : nullptr;
}

bool wasAsked(std::vector<Failure> const& failures, ServerRecord const& server)
{
    return std::any_of(failures.begin(), failures.end(),
                       [&](Failure const& failure) { return failure.server == server.index; });
}

} // namespace

// Lease

Pool::Lease::Lease(Pool& pool, std::unique_ptr<PooledSession> session, unsigned long process)
    : m_pool(&pool), m_session(std::move(session)), m_process(process)
{
}

Pool::Lease::Lease(Lease&& other) noexcept
    : m_pool(other.m_pool), m_session(std::move(other.m_session)), m_process(other.m_process)
{
}

Pool::Lease& Pool::Lease::operator=(Lease&& other) noexcept
{
    if (this != &other) {
        close();
        m_pool = other.m_pool;
        m_session = std::move(other.m_session);
        m_process = other.m_process;
    }
    return *this;
}

Pool::Lease::~Lease() { close(); }

void Pool::Lease::giveBack()
{
    if (m_session) {
        m_pool->put(*this);
    }
}

void Pool::Lease::close()
{
    if (m_session) {
        m_pool->letGo(*this);
    }
}

// Pool

Pool::Pool(Settings const& settings, Totals& totals, std::shared_ptr<TlsContext> tls, Pool* before)
    : m_settings(settings), m_tls(tls ? std::move(tls) : contextFor(settings)), m_totals(totals),
      m_servers(settings), m_credentials(!settings.isAnonymous(), settings.refusedHold)
{
    if (before != nullptr) {
        inherit(*before);
    }
    PoolsAtFork::instance().add(*this);
}

/// What is known of credentials that stay the same: a wrong password must not be sent again.
void Pool::inherit(Pool& before)
{
    Settings const& earlier = before.m_settings;
    std::lock_guard<std::mutex> const lock(before.m_mutex);
    if (m_settings.mechanism == earlier.mechanism && m_settings.bindDn == earlier.bindDn &&
        m_settings.password == earlier.password && m_settings.refusedHold == earlier.refusedHold) {
        m_credentials = before.m_credentials;
        m_credentials.leftOpen(); // a bind that is under way there is not awaited here
    }
    m_servers.inherit(before.m_servers);
}

Pool::~Pool() { PoolsAtFork::instance().remove(*this); }

Pool::Outlook Pool::checkOut(Wish const& wish, Waiter& waiter)
{
    for (;;) {
        Idle dropped; // destroyed after unlocking, as that may write to a socket
        Outlook outlook;
        {
            std::lock_guard<std::mutex> const lock(m_mutex);
            afterFork(dropped);
            decide(outlook, wish, waiter, dropped);
        }
        if (outlook.kind != Outlook::ready ||
            (!outlook.lease->hasExpired && outlook.lease->session.isFresh())) {
            return outlook;
        }
        ++m_totals.stale;
        std::unique_ptr<PooledSession> const stale = std::move(outlook.lease.m_session);
        if (!stale->hasExpired) {
            disconnected(stale->server, {Outcome::TryLater, serverDown,
                                         stale->server.uri + " closed an idle connection"});
        }
        std::lock_guard<std::mutex> const lock(m_mutex);
        endTrial(*stale);
        // The caller keeps the room of the stale session: it is its turn.
        --m_count;
        --stale->server.inUse;
        ++m_called;
        waiter.m_isRegistered = waiter.m_isCalled = true;
        waiter.m_process = m_known;
    }
}

/// Chooses a server, in up to three passes over the list, in order of preference:
///
/// 1. eligible: servers that are up, or whose back-off has expired (a trial by one caller).
/// 2. silent: a server that fell silent on one connection. One caller retries it at once, as only
/// that
///    connection may be lost; the others wait for the outcome, but only briefly (`trialEnd`).
/// 3. prompt: servers in back-off that fail immediately, as with "connection refused". Trying them
/// costs
///    nothing, and they may be up again.
///
/// If no pass yields a server, the key fails with the causes of all servers.
void Pool::decide(Outlook& outlook, Wish const& wish, Waiter& waiter, Idle& dropped)
{
    if (waiter.m_process != m_known) { // its descriptor is the parent's too
        waiter.shut();
        waiter.m_isRegistered = waiter.m_isCalled = waiter.m_wantsRoom = false;
        waiter.m_process = m_known;
    }
    if (waiter.m_isRegistered) {
        waiter.reset();
    }
    auto const now = wish.now;
    outlook.domain = wish.mayResolve ? m_servers.claimDomain(now, now + claimTime()) : nullptr;
    if (outlook.domain != nullptr) {
        outlook.kind = Outlook::resolve;
        outlook.isRefresh = !outlook.domain->servers.empty();
        outlook.query = std::move(outlook.domain->parked);
        outlook.until = outlook.domain->parkedUntil;
        return;
    }
    ServerRecord* const preferred =
        wish.server == nullptr ? nullptr : m_servers.recordNamed(*wish.server);
    if (preferred != nullptr && !wasAsked(wish.failures, *preferred) &&
        admits(*preferred, Among::eligible, now) &&
        consider(outlook, *preferred, wish, waiter, Among::eligible, now, dropped)) {
        return;
    }
    for (Among const among : {Among::eligible, Among::silent, Among::prompt}) {
        if (among == Among::prompt) {
            outlook.until = std::min(trialEnd(wish), wish.deadline);
            if (now < outlook.until) {
                return wait(outlook, waiter, wish.mayWait);
            }
            outlook.until = Clock::time_point::max();
        }
        for (std::size_t position = 0; position < m_servers.inOrder().size(); ++position) {
            ServerRecord& server = inOrder(position);
            if (!wasAsked(wish.failures, server) && admits(server, among, now) &&
                consider(outlook, server, wish, waiter, among, now, dropped)) {
                return;
            }
        }
    }
    auto const resolvedBy = m_servers.resolvingUntil(now);
    if (resolvedBy > now) { // by another caller, or on behalf of another of this one's keys
        outlook.until = std::min(resolvedBy, wish.deadline);
        return wait(outlook, waiter, wish.mayWait);
    }
    refuse(outlook, wish);
    leaveQueue(waiter);
}

ServerRecord& Pool::inOrder(std::size_t position) const
{
    auto const& servers = m_servers.inOrder();
    return *servers[(m_credentials.firstServer(servers.size()) + position) % servers.size()];
}

bool Pool::admits(ServerRecord const& server, Among among, Clock::time_point now)
{
    switch (among) {
    case Among::eligible:
        return server.health.isEligible(now);
    case Among::silent:
        return server.health.isRetryDue();
    case Among::prompt:
        return server.health.failsPromptly();
    }
    return false;
}

/// Tries one server: an idle session, room to open one, or a reason to wait. False: try the next
/// server.
bool Pool::consider(Outlook& outlook, ServerRecord& server, Wish const& wish, Waiter& waiter,
                    Among among, Clock::time_point now, Idle& dropped)
{
    auto const idle = idleFor(server, wish);
    if (idle == m_idle.end()) {
        switch (m_credentials.turn(now)) {
        case Credentials::Turn::bind:
            break;
        case Credentials::Turn::wait:
            outlook.until = std::min(m_credentials.claimedUntil(), wish.deadline);
            wait(outlook, waiter, wish.mayWait);
            return true;
        case Credentials::Turn::refuse:
            outlook.kind = Outlook::refused;
            outlook.failures.push_back(
                {server.index, server.uri, m_credentials.refusal(now), false, now, {}, true});
            leaveQueue(waiter);
            return true;
        }
    }
    bool const isItsTurn =
        (waiter.m_isRegistered && waiter.m_isCalled && waiter.m_process == m_known) ||
        available() > m_called;
    if (!isItsTurn) {
        outlook.isFull = true;
        wait(outlook, waiter, wish.mayWait);
        return true;
    }
    take(waiter);
    if (idle == m_idle.end()) {
        open(outlook, server, among, dropped);
        return true;
    }
    std::unique_ptr<PooledSession> session = std::move(*idle);
    m_idle.erase(idle);
    ++server.inUse;
    session->hasExpired = now >= session->expiresAt;
    session->isTrial = among != Among::prompt && server.health.claim(now);
    outlook.kind = Outlook::ready;
    outlook.lease = Lease(*this, std::move(session), m_known);
    return true;
}

Pool::Idle::iterator Pool::idleFor(ServerRecord const& server, Wish const& wish)
{
    return std::find_if(m_idle.begin(), m_idle.end(), [&](auto const& idle) {
        return &idle->server == &server && (!wish.needsAnswered || idle->hasAnswered) &&
               (wish.brokeOn != &server || idle->openedAt >= wish.brokeAt);
    });
}

/// Makes room for a session; closes the least recently used idle one if the pool is full.
void Pool::open(Outlook& outlook, ServerRecord& server, Among among, Idle& dropped)
{
    if (m_count >= m_settings.connections) {
        dropped.splice(dropped.end(), m_idle, std::prev(m_idle.end()));
        --m_count;
    }
    auto session = std::make_unique<PooledSession>(optionsFor(server), server);
    ++m_count;
    ++server.inUse;
    session->isFirstBind = !m_credentials.areAccepted();
    m_credentials.begin(Clock::now() + claimTime());
    if (among != Among::prompt) {
        session->isTrial = server.health.claim(Clock::now());
    }
    if (session->isTrial) {
        publish(server);
        announce(); // callers queued for room now wait only for the outcome of the trial
    }
    outlook.kind = Outlook::open;
    outlook.lease = Lease(*this, std::move(session), m_known);
}

SessionOptions Pool::optionsFor(ServerRecord const& server) const
{
    SessionOptions options;
    options.host = server.settings.host;
    options.port = server.settings.port;
    options.secure = server.settings.secure;
    options.startTls = server.settings.startTls;
    options.socketPath = server.settings.socketPath;
    options.version = server.settings.version == LDAPConnection::V2 ? 2 : 3;
    options.networkTimeout = std::chrono::seconds(m_settings.networkTimeout);
    options.messageBytes = m_settings.entryBytes;
    options.addresses = server.addresses;
    options.nameServers = m_settings.nameServers;
    options.tls = m_tls;
    options.mechanism = m_settings.mechanism;
    options.authorizationId = m_settings.authorizationId;
    options.bindDn = m_settings.bindDn;
    options.password = &m_settings.password;
    return options;
}

void Pool::refuse(Outlook& outlook, Wish const& wish)
{
    outlook.kind = Outlook::refused;
    m_servers.addFailures(outlook.failures);
    for (ServerRecord const* const listed : m_servers.inOrder()) {
        ServerRecord const& server = *listed;
        if (!wasAsked(wish.failures, server)) {
            Verdict why = server.health.why();
            if (why.isGood()) { // on trial for the first time
                why = {Outcome::TryLater, timedOut,
                       server.uri + ": not asked while another lookup tries it"};
            }
            outlook.failures.push_back(
                {server.index, server.uri, why, false, Clock::now(), {}, false});
        }
    }
}

Clock::time_point Pool::trialEnd(Wish const& wish) const
{
    auto latest = Clock::time_point::min();
    for (ServerRecord const* const server : m_servers.inOrder()) {
        if (!wasAsked(wish.failures, *server)) {
            latest = std::max(latest, server->health.trialEnd());
        }
    }
    return latest;
}

// The queue is first come, first served. When a session or room becomes free, it is reserved for
// the first waiter (`m_called`), which is woken. A later caller cannot take it: `available() >
// m_called` counts only what is not reserved. A woken waiter checks out again, and either takes
// what is reserved or passes it on (`leaveQueue`).

void Pool::wait(Outlook& outlook, Waiter& waiter, bool mayWait)
{
    outlook.kind = Outlook::wait;
    bool const wantsRoom = outlook.isFull;
    if (waiter.m_isRegistered && waiter.m_isCalled) {
        leaveQueue(waiter); // it cannot use its reservation; pass it on
    }
    if (!mayWait) {
        return leaveQueue(waiter);
    }
    if (!waiter.m_isRegistered) {
        waiter.open();
        m_waiters.push_back(&waiter);
        waiter.m_isRegistered = true;
        waiter.m_isCalled = waiter.m_wantsRoom = false;
        waiter.m_process = m_known;
    }
    m_waitingForRoom -= waiter.m_wantsRoom ? 1 : 0;
    m_waitingForRoom += wantsRoom ? 1 : 0;
    waiter.m_wantsRoom = wantsRoom;
}

/// Consumes the caller's reservation; without one, the caller takes an unreserved session or room.
void Pool::take(Waiter& waiter)
{
    if (waiter.m_isRegistered && waiter.m_isCalled && waiter.m_process == m_known) {
        --m_called;
        waiter.m_isRegistered = waiter.m_isCalled = false;
    } else {
        leaveQueue(waiter);
    }
}

void Pool::leaveQueue(Waiter& waiter)
{
    if (!waiter.m_isRegistered) {
        return;
    }
    waiter.m_isRegistered = false;
    if (waiter.m_process != m_known) {
        return;
    }
    if (waiter.m_isCalled) {
        waiter.m_isCalled = false;
        --m_called;
        callNext();
        return;
    }
    m_waiters.remove(&waiter);
    m_waitingForRoom -= waiter.m_wantsRoom ? 1 : 0;
}

void Pool::withdraw(Waiter& waiter)
{
    if (waiter.m_isRegistered) {
        std::lock_guard<std::mutex> const lock(m_mutex);
        leaveQueue(waiter);
        waiter.reset();
    }
}

void Pool::callNext()
{
    while (available() > m_called) {
        auto const next = std::find_if(m_waiters.begin(), m_waiters.end(),
                                       [](Waiter const* waiter) { return waiter->m_wantsRoom; });
        if (next == m_waiters.end()) {
            return;
        }
        Waiter& called = **next;
        m_waiters.erase(next);
        --m_waitingForRoom;
        ++m_called;
        called.m_isCalled = true;
        called.wake();
    }
}

/// Wakes all waiters: the state of a server or of the credentials has changed.
void Pool::announce()
{
    for (Waiter const* waiter : m_waiters) {
        waiter->wake();
    }
}

/// Resets the pool in a forked child: the parent's sessions cannot be used, its waiting callers do
/// not exist here, and the room that they occupied is free.
void Pool::afterFork(Idle& dropped)
{
    if (m_known == m_process) {
        return;
    }
    m_known = m_process;
    dropped.splice(dropped.end(), m_idle);
    m_count = m_called = 0;
    for (ServerRecord* const server : m_servers.inOrder()) {
        server->inUse = 0;
    }
    m_waiters.clear();
    m_waitingForRoom = 0;
    m_credentials.leftOpen();
    m_servers.afterFork();
}

// Results of SRV queries

void Pool::resolved(ServerDomain& domain, Verdict const& verdict,
                    std::vector<SrvTarget> const& targets)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_servers.resolved(domain, verdict, targets, Clock::now());
    announce();
}

void Pool::park(ServerDomain& domain, std::unique_ptr<SrvQuery> query, Clock::time_point until)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    if (m_known == m_process) { // in a child, it is the parent's socket
        domain.parked = std::move(query);
        domain.parkedUntil = until;
    }
    domain.claimedUntil = Clock::time_point::min();
    announce();
}

// Results of sessions

void Pool::opened(PooledSession& session)
{
    auto const now = Clock::now();
    session.openedAt = now;
    session.isOpen = true;
    ++m_totals.opened;
    ServerRecord& server = session.server;
    ++server.counters->opened;
    Report report = this->report();
    std::lock_guard<std::mutex> const lock(m_mutex);
    report.add(Event::Kind::connected, server.uri);
    m_credentials.accepted();
    session.isFirstBind = false;
    server.addresses = session.session.addresses();
    server.openedAt = now;
    server.health.connected(now);
    session.isTrial = session.isTrial && server.health.state() == ServerHealth::State::onTrial;
    publish(server, &report);
    announce();
}

Pool::Attempt Pool::failed(Lease& lease, Verdict const& why, Clock::time_point begun, bool isLate)
{
    Idle dropped;
    auto const now = Clock::now();
    dropped.push_back(std::move(lease.m_session));
    PooledSession& session = *dropped.front();
    ServerRecord& server = session.server;
    ++server.counters->failed;
    Report report = this->report();
    std::lock_guard<std::mutex> const lock(m_mutex);
    report.add(Event::Kind::connectFailed, server.uri, why);
    bool const isRefused = session.session.step() == Step::bind &&
                           Credentials::areRefused(why.code, m_settings.mechanism);
    bool const isCredentialsFault = isRefused && !m_credentials.areAccepted();
    if (isRefused) {
        auto const& order = m_servers.inOrder();
        auto const position = std::find(order.begin(), order.end(), &server) - order.begin();
        m_credentials.refused(static_cast<std::size_t>(position), why, now);
        report.add(Event::Kind::credentialsRefused, server.uri, why);
        session.isFirstBind = false;
    }
    bool const wasHeard = std::max(server.openedAt, load(server.heardAt)) >= begun;
    Attempt result = speaksOfProcess(why.code) ? Attempt::lacksTime : Attempt::failed;
    if (why.outcome == Outcome::TryLater && wasHeard) {
        result = Attempt::another;
    } else if (isLate && now - begun < proof()) {
        result = Attempt::lacksTime;
    }
    if (result == Attempt::failed && !isCredentialsFault) {
        session.isTrial = false;
        server.addresses.clear();
        m_servers.failed(server, now);
        if (isRefused) {
            server.health.hold(why, m_credentials.hold(), now);
        } else {
            server.health.unreachable(why, now - begun, now);
        }
        publish(server, &report);
        closeIdle(server, dropped);
    }
    endTrial(session);
    if (lease.m_process == m_process) {
        --server.inUse;
        freeRoom();
    }
    announce();
    return result;
}

/// How long others wait for what one caller does on behalf of all: it may be held up elsewhere.
Clock::duration Pool::claimTime() const
{
    return std::min<Clock::duration>(std::chrono::seconds(m_settings.networkTimeout),
                                     m_settings.deadline) /
           2;
}

Clock::duration Pool::proof() const
{
    return std::min<Clock::duration>(std::chrono::seconds(m_settings.networkTimeout),
                                     m_settings.deadline) /
           3;
}

void Pool::searchFailed(Failure const& failure)
{
    Idle dropped;
    Report report = this->report();
    std::lock_guard<std::mutex> const lock(m_mutex);
    ServerRecord& server = m_servers.record(failure.server);
    if (load(server.answeredAt) >= failure.sentAt) {
        return; // it answered other searches since
    }
    server.health.searchFailed(failure.why, failure.cost, Clock::now());
    publish(server, &report);
    closeIdle(server, dropped);
    announce();
}

void Pool::fellSilent(ServerRecord& server, Verdict const& why, Clock::duration cost)
{
    Idle dropped;
    auto const now = Clock::now();
    Report report = this->report();
    std::lock_guard<std::mutex> const lock(m_mutex);
    if (std::max(server.openedAt, load(server.heardAt)) >= now - cost / 2) {
        return; // it answered other searches: this search is slow, not the server
    }
    server.health.fellSilent(why, cost, now, load(server.answeredAt));
    server.addresses.clear();
    publish(server, &report);
    closeIdle(server, dropped);
    announce();
}

void Pool::lost(PooledSession& session, std::size_t inFlight)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    session.server.window.lost(inFlight, session.hasAnsweredSearch);
    publish(session.server);
}

void Pool::noteAnswer(PooledSession& session)
{
    Report report = this->report();
    std::lock_guard<std::mutex> const lock(m_mutex);
    ServerRecord& server = session.server;
    server.window.answered(1);
    session.isTrial = false;
    bool const wasAwaited = server.health.awaitsAnswer();
    if (wasAwaited) {
        server.health.answered(Clock::now());
    }
    publish(server, &report);
    if (wasAwaited) {
        announce();
    }
}

// Returning sessions. After a fork, a lease from the parent process occupies no room.

void Pool::put(Lease& lease)
{
    auto const heardAt = lease->session.heardAt(); // nearly now
    lease->expiresAt = heardAt + idleTime;
    Idle dropped;
    Idle entry;
    try {
        entry.emplace_back();
    } catch (std::bad_alloc const&) { // pipelines return their sessions in their destructors
        return letGo(lease);
    }
    entry.front() = std::move(lease.m_session);
    std::lock_guard<std::mutex> const lock(m_mutex);
    endTrial(*entry.front());
    if (lease.m_process != m_process) {
        return;
    }
    --entry.front()->server.inUse;
    m_idle.splice(m_idle.begin(), entry);
    if (heardAt >= m_idle.back()->expiresAt) {
        dropped.splice(dropped.end(), m_idle, std::prev(m_idle.end()));
        --m_count;
    }
    callNext();
}

void Pool::letGo(Lease& lease)
{
    std::unique_ptr<PooledSession> const session = std::move(lease.m_session);
    std::lock_guard<std::mutex> const lock(m_mutex);
    endTrial(*session);
    if (lease.m_process == m_process) {
        --session->server.inUse;
        freeRoom();
    }
}

/// Ends a trial or first bind without a result; the next caller may try.
void Pool::endTrial(PooledSession& session)
{
    bool const wasAny = session.isTrial || session.isFirstBind;
    if (session.isTrial) {
        session.isTrial = false;
        session.server.health.abandon(Clock::now());
        publish(session.server);
    }
    if (session.isFirstBind) {
        session.isFirstBind = false;
        m_credentials.leftOpen();
    }
    if (wasAny) {
        announce();
    }
}

void Pool::freeRoom()
{
    --m_count;
    callNext();
}

void Pool::closeIdle(ServerRecord const& server, Idle& dropped)
{
    for (auto position = m_idle.begin(); position != m_idle.end();) {
        auto const current = position++;
        if (&(*current)->server == &server) {
            dropped.splice(dropped.end(), m_idle, current);
            --m_count;
        }
    }
    callNext();
}

} // namespace Solvane::Lookup
