// Which session a caller gets, and how one is opened.
#include "SessionPool.h"

#include <solvane/ldap/impl/LDAPConnectionImpl.h>

#include <algorithm>
#include <ctime>
#include <utility>

namespace Solvane::Lookup {

namespace {

constexpr int timedOut = -5;
constexpr int serverDown = -1;

/// A refusal that is about who asks, or with what: another server would say the same, and to ask it
/// with a wrong password would only lock the account sooner.
bool isAboutTheCaller(Verdict const& verdict)
{
    constexpr int invalidCredentials = 49;
    return verdict.outcome == Outcome::Misconfigured || verdict.code == invalidCredentials;
}

} // namespace

// Lease

SessionPool::Lease::Lease(SessionPool& pool, std::unique_ptr<PooledSession> session)
    : m_pool(&pool), m_session(std::move(session))
{
}

SessionPool::Lease::Lease(Lease&& other) noexcept
    : m_pool(other.m_pool), m_session(std::move(other.m_session))
{
}

SessionPool::Lease& SessionPool::Lease::operator=(Lease&& other) noexcept
{
    if (this != &other) {
        close();
        m_pool = other.m_pool;
        m_session = std::move(other.m_session);
    }
    return *this;
}

SessionPool::Lease::~Lease() { close(); }

void SessionPool::Lease::giveBack()
{
    if (m_session) {
        m_pool->put(m_session);
    }
}

void SessionPool::Lease::close()
{
    if (m_session) {
        m_session.reset(); // writes an unbind
        m_pool->freeRoom();
    }
}

// Pool

SessionPool::SessionPool(LDAPLookup::Settings const& settings, ServerList& servers)
    : m_settings(settings), m_servers(servers)
{
}

SessionPool::~SessionPool() = default;

SessionPool::Outlook SessionPool::acquire(Wish const& wish)
{
    struct AtEnd {
        SessionPool& pool;
        ~AtEnd() { pool.passOn(); }
    } const atEnd{*this};
    unsigned long seenChanges = changes();
    bool isOthersTurn = isWaitedFor();
    for (;;) {
        if (!isOthersTurn) {
            Walk found = walk(wish);
            if (found.lease) {
                return {std::move(found.lease), std::nullopt, std::string()};
            }
            auto const knownBy = std::min(found.knownBy, wish.deadline);
            if (!found.isFull && Clock::now() >= knownBy) {
                announceTrouble();
                return {Lease(), found.refusal, m_servers.uri(found.refusedBy)};
            }
            if (!found.isFull && wish.mayWait) {
                awaitTrial(knownBy, seenChanges);
                seenChanges = changes();
                continue;
            }
        }
        if (!wish.mayWait) {
            return {};
        }
        if (!awaitRoom(wish.deadline, seenChanges)) {
            return {Lease(),
                    Verdict{Outcome::TryLater, timedOut,
                            "no connection came free within the deadline, all " +
                                std::to_string(m_settings.connections) + " are in use"},
                    std::string()};
        }
        seenChanges = changes();
        isOthersTurn = false;
    }
}

SessionPool::Walk SessionPool::walk(Wish const& wish)
{
    Walk found = walkAlong(wish, Among::eligible);
    if (found.lease || found.isFull || found.isFinal) {
        return found;
    }
    // Who has asked one server, or waits for another caller's trial, does not ask again and again those
    // that refuse.
    bool const mayAskAll = !found.hasTried && Clock::now() >= found.knownBy;
    Walk others = walkAlong(wish, mayAskAll ? Among::passedOver : Among::dueForTrial);
    others.knownBy = std::max(others.knownBy, found.knownBy); // the trial may just have ended well
    if (!others.lease && !others.hasTried) {
        others.refusal = std::move(found.refusal);
        others.refusedBy = found.refusedBy;
    }
    return others;
}

SessionPool::Walk SessionPool::walkAlong(Wish const& wish, Among among)
{
    Walk result;
    for (std::size_t server = 0; server < m_servers.size(); ++server) {
        if (mayTry(server, among)) {
            visit(result, server, wish, among);
        } else {
            passOver(result, server);
        }
        if (result.lease || result.isFull || result.isFinal) {
            break;
        }
    }
    return result;
}

/// One that fails at once costs nothing to ask, and may be back; of one that fell silent, a new
/// connection may lead to another that stands behind the same address.
bool SessionPool::mayTry(std::size_t server, Among among) const
{
    return (among != Among::dueForTrial && m_servers.isEligible(server, Clock::now())) ||
           (among != Among::eligible && m_servers.isTrialDue(server)) ||
           (among == Among::passedOver && m_servers.failsPromptly(server));
}

/// Of several callers, one finds out whether a server is back.
bool SessionPool::claim(std::size_t server, Among among)
{
    if (m_servers.claim(server, Clock::now())) {
        return true;
    }
    if (among == Among::passedOver && m_servers.failsPromptly(server)) {
        return true;
    }
    if (among == Among::eligible) {
        return false;
    }
    bool const isTrial = m_servers.claimTrial(server, Clock::now());
    if (isTrial) {
        announceTrouble(); // who waits for room has to wait for the outcome only
    }
    return isTrial;
}

void SessionPool::passOver(Walk& walk, std::size_t server) const
{
    note(walk, m_servers.lastFailure(server), server);
    walk.knownBy = std::max(walk.knownBy, m_servers.trialEnd(server));
}

/// Keeps what says most: something that may pass outweighs a refusal, the first one the others.
void SessionPool::note(Walk& walk, Verdict const& why, std::size_t server) const
{
    if (why.isGood()) {
        return; // passed over, and has never failed: a trial was given up
    }
    bool const saysMore = !walk.refusal || (why.outcome == Outcome::TryLater &&
                                            walk.refusal->outcome != Outcome::TryLater);
    // Where another server has taken the credentials, it is this one's matter.
    walk.isFinal = isAboutTheCaller(why) && !m_servers.isAnotherInUse(server);
    if (saysMore || walk.isFinal) {
        walk.refusal = why;
        walk.refusedBy = server;
    }
}

void SessionPool::visit(Walk& walk, std::size_t server, Wish const& wish, Among among)
{
    auto room = Room::unneeded;
    while (room == Room::unneeded) {
        if (!wish.isNew) {
            if (auto idle = takeIdle(server)) {
                walk.lease = Lease(*this, std::move(idle));
                return;
            }
        }
        room = takeRoom(server, wish);
    }
    if (room == Room::none) {
        walk.isFull = true;
        return;
    }
    if (!claim(server, among)) {
        freeRoom();
        passOver(walk, server);
        return;
    }
    tryServer(walk, server, wish);
}

void SessionPool::tryServer(Walk& walk, std::size_t server, Wish const& wish)
{
    walk.hasTried = true;
    Attempt attempt = attemptOn(server, wish, walk.lease);
    if (attempt.isOneOfSeveral && attempt.end < wish.deadline) {
        attempt = attemptOn(server, wish, walk.lease); // the next of them
    }
    if (attempt.verdict.isGood()) {
        m_servers.succeeded(server, attempt.end);
        return;
    }
    struct AtEnd { // who is woken by it is to see that the server failed
        SessionPool& pool;
        ~AtEnd() { pool.freeRoom(); }
    } const atEnd{*this};
    note(walk, attempt.verdict, server);
    auto const cost = attempt.end - attempt.start;
    bool const isLate = attempt.end >= wish.deadline;
    walk.isFinal = walk.isFinal || isLate;
    if (attempt.isOneOfSeveral || (isLate && cost < proof())) {
        m_servers.giveUpTrial(server, attempt.end);
    } else {
        m_servers.failed(server, attempt.verdict, cost);
        closeIdle(server);
    }
}

SessionPool::Attempt SessionPool::attemptOn(std::size_t server, Wish const& wish, Lease& lease)
{
    Attempt attempt;
    attempt.start = Clock::now();
    try {
        attempt.verdict = open(server, wish, lease);
    } catch (...) {
        m_servers.giveUpTrial(server, attempt.start);
        freeRoom();
        throw;
    }
    attempt.end = Clock::now();
    attempt.isOneOfSeveral = attempt.verdict.outcome == Outcome::TryLater &&
                             m_servers.wasHeardSince(server, attempt.start);
    return attempt;
}

/// What a caller must have waited at least to have proved something against a server, where it ran
/// out of time: most of what any caller can wait.
Clock::duration SessionPool::proof() const
{
    return std::min<Clock::duration>(std::chrono::seconds(m_settings.networkTimeout),
                                     m_settings.deadline) /
           2;
}

/// An idle session to the server, looked at; null where there is none.
std::unique_ptr<PooledSession> SessionPool::takeIdle(std::size_t server)
{
    for (;;) {
        std::unique_ptr<PooledSession> taken;
        {
            std::lock_guard<std::mutex> const lock(m_mutex);
            auto const found =
                std::find_if(m_idle.begin(), m_idle.end(),
                             [server](auto const& idle) { return idle->server == server; });
            if (found == m_idle.end()) {
                return nullptr;
            }
            taken = std::move(*found);
            m_idle.erase(found);
        }
        if (!taken->session.connection().impl()->hasExpired(time(nullptr)) &&
            taken->session.isFresh()) {
            return taken;
        }
        ++m_stale;
        taken.reset();
        freeRoom();
    }
}

/// Room for one more session, made by closing the idle one that was used longest ago if need be.
SessionPool::Room SessionPool::takeRoom(std::size_t server, Wish const& wish)
{
    std::unique_ptr<PooledSession> victim; // let go after unlocking: it writes an unbind
    std::lock_guard<std::mutex> const lock(m_mutex);
    if (m_count < m_settings.connections) {
        ++m_count;
        return Room::taken;
    }
    if (m_idle.empty()) {
        return Room::none;
    }
    // What another caller gave back meanwhile is not closed for one like it.
    bool const hasCome = std::any_of(m_idle.begin(), m_idle.end(),
                                     [server](auto const& idle) { return idle->server == server; });
    if (hasCome && !wish.isNew) {
        return Room::unneeded;
    }
    victim = std::move(m_idle.back());
    m_idle.pop_back();
    return Room::taken;
}

Verdict SessionPool::open(std::size_t server, Wish const& wish, Lease& lease)
{
    std::unique_ptr<PooledSession> opened;
    try {
        opened = std::make_unique<PooledSession>(m_servers.describe(server), server,
                                                 m_servers.host(server), m_settings.tls);
    } catch (LDAPException const& fault) {
        return {Outcome::TryLater, serverDown,
                m_servers.uri(server) + ": " +
                    (fault.hasCause() ? fault.cause().stringParameter() : fault.stringParameter())};
    }
    Verdict verdict = opened->session.connect(wish.deadline);
    if (verdict.isGood()) {
        verdict = authenticate(*opened, wish);
    }
    if (!verdict.isGood()) {
        return verdict;
    }
    prepare(*opened);
    ++m_opened;
    lease = Lease(*this, std::move(opened));
    return verdict;
}

/// For a process that is killed, the system goes on taking connections for a moment. A bind is
/// answered by one that lives; without a bind, a search that such a moment has cost once already waits
/// for the answer to a question.
Verdict SessionPool::authenticate(PooledSession& opened, Wish const& wish) const
{
    bool const isAnonymous = m_settings.bindDn.empty();
    if (isAnonymous && !wish.isNew) {
        return {};
    }
    Verdict verdict;
    if (!isAnonymous) {
        verdict = opened.session.bind(m_settings.bindDn, m_settings.password, wish.deadline);
    }
    if (verdict.isGood()) {
        verdict = opened.session.confirmIdentity(wish.deadline);
    }
    bool const wasAsked = !isAnonymous || opened.session.speaksVersion3();
    opened.hasAnswered = verdict.isGood() && wasAsked;
    return verdict;
}

void SessionPool::prepare(PooledSession& opened) const
{
    opened.session.limits(m_settings.entryLimit, m_settings.timeLimit);
    opened.search = LDAPSearch::Parameter(m_settings.base);
    opened.search.scope = m_settings.scope;
    opened.search.deref = m_settings.deref;
    for (std::string const& name : m_settings.attributes) {
        opened.search.attributes.emplace_back(name);
    }
    opened.openedAt = Clock::now();
}

void SessionPool::serverFailed(std::size_t server, Verdict const& why, Clock::duration cost)
{
    if (why.code == timedOut) {
        m_servers.fellSilent(server, why, cost);
    } else {
        m_servers.failed(server, why, cost);
    }
    closeIdle(server);
}

void SessionPool::leaveToParent()
{
    Idle dropped; // let go after unlocking
    std::unique_lock<std::mutex> const lock(m_mutex, std::try_to_lock);
    if (lock) {
        dropped.swap(m_idle);
    }
}

void SessionPool::closeIdle(std::size_t server)
{
    Idle dropped; // let go after unlocking
    std::lock_guard<std::mutex> const lock(m_mutex);
    for (auto position = m_idle.begin(); position != m_idle.end();) {
        auto const current = position++;
        if ((*current)->server == server) {
            dropped.splice(dropped.end(), m_idle, current);
            --m_count;
        }
    }
    if (!dropped.empty()) {
        announceChange(); // and who takes that room leaves the rest to the next one
    }
}

unsigned long SessionPool::changes() const
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    return m_changes;
}

/// False when the time is over before a session came free.
bool SessionPool::awaitRoom(Clock::time_point deadline, unsigned long seenChanges)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    ++m_waiting;
    bool const hasChanged =
        m_changed.wait_until(lock, deadline, [&] { return m_changes != seenChanges; });
    --m_waiting;
    return hasChanged;
}

/// Returns when anything has changed, too.
void SessionPool::awaitTrial(Clock::time_point end, unsigned long seenChanges)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_until(lock, end, [&] { return m_changes != seenChanges; });
}

/// Takes the session when nothing fails.
void SessionPool::put(std::unique_ptr<PooledSession>& session)
{
    session->session.connection().impl()->extendExpiryTime(time(nullptr));
    std::unique_ptr<PooledSession> expired; // let go after unlocking
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_idle.push_front(nullptr);
    m_idle.front() = std::move(session);
    if (m_idle.back()->session.connection().impl()->hasExpired(time(nullptr))) {
        expired = std::move(m_idle.back());
        m_idle.pop_back();
        --m_count;
    }
    announceChange();
}

void SessionPool::freeRoom()
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    --m_count;
    announceChange();
}

/// Wakes one who waits, to learn that it need not.
void SessionPool::announceTrouble()
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    announceChange();
}

/// Wakes one who waits. Called with the mutex held.
void SessionPool::announceChange()
{
    ++m_changes;
    m_changed.notify_one();
}

/// Wakes the next one where a caller leaves something behind: the caller may have been woken for it.
/// Also where nobody waits yet, as somebody may be about to since it was the caller's turn.
void SessionPool::passOn()
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    if (!m_idle.empty() || m_count < m_settings.connections) {
        announceChange();
    }
}

} // namespace Solvane::Lookup
