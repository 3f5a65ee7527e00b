// Begin and end of tasks: filters, conclusions, deadlines.
#include "Pipeline.h"

#include "Denials.h"

#include <solvane/ldap/LDAPException.h>
#include <solvane/session/PlainText.h>

#include <solvart/EmailAddress.h>

#include <algorithm>

#include <ldap.h>

namespace Solvane::Lookup {

namespace {

constexpr std::chrono::milliseconds noticeable(1);

/// How much of the time since the owner's last call was the owner's. If something is ready now, it
/// may have been ready all the time. If nothing is, the peer was silent all the time; then only
/// what exceeds the latest moment to wake up is the owner's.
Clock::duration heldUp(Waits& waits, Clock::time_point since)
{
    auto const now = Clock::now();
    if (now - since < noticeable) {
        return Clock::duration(0);
    }
    auto& descriptors = waits.descriptors();
    if (poll(descriptors.data(), descriptors.size(), 0) > 0) {
        return now - since;
    }
    return std::max(Clock::duration(0), now - std::max(since, waits.moment()));
}

} // namespace

bool Pipeline::wantsKeys() const
{
    // A key that would only wait here stays in the source, where its deadline does not run. One
    // that waits for another server, as it failed on the first, does not hold up those that need
    // not. Searches for members do not hold them up either, but a few keys with members to search
    // do: in the source, the deadlines of further ones do not run.
    return std::none_of(m_waiting.begin(), m_waiting.end(),
                        [](Task const* task) { return task->isFresh() && !task->member; }) &&
           m_tasks.size() < m_maximumTasks &&
           m_inFlight < m_maximumLanes * m_window + m_members.size() &&
           m_expanding.size() < expandedAtOnce && m_heldBytes <= m_shared.settings.answerBytes;
}

void Pipeline::push(std::string key, Clock::time_point start, std::uint64_t tag,
                    std::unique_ptr<Login> login)
{
    if (take(key, start, tag, login)) {
        dispatch();
    }
}

bool Pipeline::take(std::string& key, Clock::time_point start, std::uint64_t tag,
                    std::unique_ptr<Login>& login)
{
    m_now = m_binds ? Clock::now() : std::max(m_now, start);
    auto const added = add(start);
    Task& task = *added;
    task.key = std::move(key);
    task.tag = tag;
    task.login = std::move(login);
    try {
        return begin(task);
    } catch (...) {
        key = std::move(task.key);
        login = std::move(task.login);
        m_tasks.erase(added);
        throw;
    }
}

/// Returns whether the task is to be sent; else it is done.
bool Pipeline::begin(Task& task)
{
    if (!m_binds && isInvalid(task)) {
        return false;
    }
    if (m_now >= task.deadline) { // it waited for its turn
        concludeUnsent(task);
        return false;
    }
    if (!m_binds) {
        task.forms = m_shared.forms.of(task.key);
        if (!prepareFilter(task)) {
            return false;
        }
    }
    m_waiting.insert(m_waiting.begin(), &task);
    return true;
}

/// Adds a task in the order of deadlines: a password may have waited for its entry, or a key for
/// its turn, while later ones had not to.
std::list<Task>::iterator Pipeline::add(Clock::time_point start)
{
    auto const deadline = start + m_shared.settings.deadline;
    auto place = m_tasks.end();
    while (place != m_tasks.begin() && deadline < std::prev(place)->deadline) {
        --place;
    }
    auto const added = m_tasks.emplace(place);
    added->start = start;
    added->deadline = deadline;
    return added;
}

/// Whether nothing may be sent for the task, which is then done.
bool Pipeline::isInvalid(Task& task)
{
    std::string fault = task.login == nullptr ? "" : faultOfPassword(task.login->password);
    if (fault.empty()) {
        fault = m_shared.forms.faultOf(task.key);
    }
    if (!fault.empty()) {
        finish(task, Outcome::BadKey, LDAP_PARAM_ERROR, fault);
    } else if (!m_shared.forms.isServed(task.key)) {
        finish(task, Outcome::Skipped, LDAP_SUCCESS, "the domain is not served here");
    } else if (m_shared.needsParts) {
        std::string const lack = lackOf(task);
        if (!lack.empty()) {
            finish(task, Outcome::NotFound, LDAP_SUCCESS, "the key has no " + lack);
        }
    }
    return task.isDone;
}

/// What the key of a task lacks, and what inserts it, in words; empty if it lacks nothing.
std::string Pipeline::lackOf(Task const& task) const
{
    if (std::string const lack = m_shared.queryTemplate.lackOf(task.key); !lack.empty()) {
        return lack + ", which the template inserts";
    }
    if (m_shared.baseFormat) {
        if (std::string const lack = m_shared.baseFormat->lackForKey(task.key); !lack.empty()) {
            return lack + ", which the base inserts";
        }
    }
    if (m_makesResults && task.login == nullptr) {
        if (std::string const lack = m_shared.rules.format().lackOf(task.key); !lack.empty()) {
            return lack + ", which the result format inserts";
        }
    }
    return std::string();
}

SearchRequest const& Pipeline::requestOf(Task const& task) const
{
    if (task.member) {
        return task.member->search.request;
    }
    if (task.request) {
        return *task.request;
    }
    return task.login == nullptr ? m_shared.request : m_shared.entryRequest;
}

/// Makes the filter of a task. Returns false if there is none; the task is then done.
bool Pipeline::prepareFilter(Task& task)
{
    std::string& filter = task.answer.filter;
    std::string fault;
    if (!task.forms.empty()) {
        task.answer.forms.push_back(task.text());
    }
    try {
        filter = m_shared.queryTemplate.expand(task.text());
    } catch (LDAPException const& malformed) {
        fault = malformed.stringParameter();
    }
    if (fault.empty() && isBlank(filter)) {
        fault = "the template expands to an empty filter, which would match every entry";
    } else if (fault.empty() && !isUtf8(filter)) {
        fault = "the template splits a UTF-8 character of the key";
    }
    if (!fault.empty()) {
        finish(task, Outcome::Misconfigured, LDAP_FILTER_ERROR, fault);
        return false;
    }
    if (m_shared.baseFormat) {
        task.request = std::make_unique<SearchRequest>(requestOf(task));
        task.request->base = m_shared.baseFormat->forKey(task.text());
    }
    return true;
}

/// Removes a task that may wait: it is in no place if memory ran out while it was sent.
void Pipeline::dropWaiting(Task const& task)
{
    m_waiting.erase(std::remove(m_waiting.begin(), m_waiting.end(), &task), m_waiting.end());
}

void Pipeline::finish(Task& task, Outcome outcome, int code, std::string const& text)
{
    if (task.request && task.answer.entries.empty() && outcome == Outcome::Misconfigured &&
        code == LDAP_NO_SUCH_OBJECT) {
        // The base is made from the key: it exists for some keys only. If there are entries, the
        // code is that of a further search for them.
        finish(task, Outcome::NotFound, LDAP_SUCCESS,
               "there is no base '" + oneLine(task.request->base) + "'");
        return;
    }
    task.answer.outcome = outcome;
    task.answer.code = code;
    task.answer.text = text;
    std::chrono::duration<double, std::milli> const taken = m_now - task.start;
    task.answer.milliseconds = taken.count();
    task.isDone = true;
    (task.member ? m_hasFinishedMember : m_hasFinished) = true;
}

void Pipeline::collect()
{
    if (!m_hasFinished || m_order == Order::ofKeys) {
        return;
    }
    for (auto task = m_tasks.begin(); task != m_tasks.end();) {
        auto const current = task++;
        if (!current->isDone) {
            continue;
        }
        if (current->login == nullptr || isVerified(*current)) {
            m_answered.splice(m_answered.end(), m_tasks, current);
        } else {
            m_heldBytes -= current->bytes;
            m_tasks.erase(current);
            m_binding->dispatch();
        }
    }
    m_hasFinished = false; // last: memory may run out above
}

std::size_t Pipeline::cancel(std::uint64_t tag)
{
    std::size_t count = 0;
    for (std::list<Task>* const tasks : {&m_tasks, &m_answered}) {
        for (auto task = tasks->begin(); task != tasks->end();) {
            auto const current = task++;
            if (current->tag != tag) {
                continue;
            }
            if (current->lane != nullptr) {
                abandon(*current->lane, *current);
            } else if (current->expansion) {
                dropMembers(*current);
            } else if (!current->isDone) {
                dropWaiting(*current);
            }
            m_heldBytes -= current->bytes;
            tasks->erase(current);
            ++count;
        }
    }
    endLeavingLanes();
    return count;
}

/// An empty answer: looks up the next form of the key, or concludes that there is no such entry.
void Pipeline::concludeEmpty(Task& task)
{
    bool const isReferred = task.isReferred;
    if (isReferred && m_shared.settings.references == References::defer) {
        finish(task, Outcome::TryLater, LDAP_SUCCESS,
               task.answer.server +
                   " returned references to other servers, which were not asked; set a base "
                   "that it holds completely, or \"references = ignore\"");
        return;
    }
    if (task.form + 1 < task.forms.size()) {
        ++task.form;
        task.isReferred = false;
        if (prepareFilter(task)) {
            m_waiting.push_back(&task);
        }
        return;
    }
    std::string remark;
    if (task.answer.identity == Identity::Unconfirmed) {
        remark = task.answer.server + " did not confirm the identity of the bind";
    }
    if (isReferred) {
        remark += remark.empty() ? task.answer.server : " and";
        remark += " returned references to servers that were not asked";
    }
    finish(task, Outcome::NotFound, LDAP_SUCCESS, remark);
}

/// No server answered: combines the failures of this task with those of the servers not asked.
void Pipeline::conclude(Task& task, std::vector<Failure> const& others)
{
    std::vector<Failure> all = std::move(task.failures);
    all.insert(all.end(), others.begin(), others.end());
    Conclusion const conclusion = Lookup::conclude(all);
    if (!conclusion.server.empty()) {
        task.answer.server = conclusion.server;
    }
    Verdict const& verdict = conclusion.verdict;
    finish(task, verdict.outcome, verdict.code, verdict.text);
}

/// Concludes a key whose time is over. A server that was not asked might have known it: then it is
/// to be tried later, whatever the others said.
void Pipeline::concludeLate(Task& task)
{
    std::vector<Failure> unasked;
    if (task.failures.size() < m_shared.pool.serverCount()) {
        Failure failure;
        failure.why = {Outcome::TryLater, LDAP_TIMEOUT,
                       "no other server was asked within the deadline of " +
                           inSeconds(m_shared.settings.deadline)};
        unasked.push_back(std::move(failure));
    }
    conclude(task, unasked);
}

/// Concludes a key whose time ended before anything was sent for it.
void Pipeline::concludeUnsent(Task& task)
{
    // A password waits for its turn until there is room for its bind.
    bool const wasFull =
        isFull() || (task.login != nullptr && m_binding != nullptr && m_binding->isFull());
    finish(task, Outcome::TryLater, LDAP_TIMEOUT,
           (wasFull ? "no connection became free within the deadline of "
                    : "no connection was opened within the deadline of ") +
               inSeconds(m_shared.settings.deadline));
}

/// Whether all sessions are in use, here or elsewhere.
bool Pipeline::isFull() const
{
    return m_isPoolFull || std::any_of(m_lanes.begin(), m_lanes.end(),
                                       [](Lane const& lane) { return lane.isOpen(); });
}

// Time

/// How long a server may be silent; at most half the deadline, to leave time for failover.
Clock::duration Pipeline::silence() const
{
    Clock::duration const deadline = m_shared.settings.deadline;
    return std::min<Clock::duration>(std::chrono::seconds(m_shared.settings.networkTimeout),
                                     m_shared.pool.serverCount() > 1 ? deadline / 2 : deadline);
}

void Pipeline::waits(Waits& waits) const
{
    // Deadlines are in the order of the keys.
    for (Task const& task : m_tasks) {
        if (!task.isDone) {
            waits.until(task.deadline);
            break;
        }
    }
    for (Lane const& lane : m_lanes) {
        lane.waits(waits, silence());
    }
    if (m_query) {
        m_query->service->waits(waits);
        waits.until(m_query->until);
    }
    if (m_waiter.isQueued()) {
        constexpr std::chrono::milliseconds blindly(50); // without a descriptor, nobody wakes it
        if (m_waiter.descriptor() == -1) {
            waits.until(Clock::now() + blindly);
        } else {
            waits.add(m_waiter.descriptor(), POLLIN);
        }
    }
    if (!m_waiting.empty()) {
        waits.until(m_lookAgainAt);
    }
}

/// Time spent by the owner does not count: the reader of its output may be slow (a pager, for
/// example) while answers have arrived and wait to be read.
void Pipeline::excuse(Clock::duration held)
{
    if (held < noticeable) {
        return;
    }
    for (std::list<Task>* const tasks : {&m_tasks, &m_members}) {
        for (Task& task : *tasks) {
            if (!task.isDone) {
                task.start += held;
                task.deadline += held;
                task.sentAt += held;
            }
        }
    }
    for (Lane& lane : m_lanes) {
        if (!lane.isOpen()) { // its deadline stays; that it passed proves nothing
            lane.begunAt += held;
            lane.wasHeldUp = true;
        }
    }
}

/// A busy event loop comes late. Open lanes need no excuse: what has arrived is read before a
/// server counts as silent. A lane being opened may have waited for its owner, though, while time
/// limits passed.
void Pipeline::excuseServers(Clock::time_point since)
{
    if (m_query) {
        Waits waits;
        m_query->service->waits(waits);
        waits.until(m_query->until);
        m_query->until += heldUp(waits, since);
    }
    for (Lane& lane : m_lanes) {
        if (!lane.isOpen()) {
            Waits waits;
            lane.lease->session.waits(waits);
            waits.until(lane.openBy);
            lane.heldUp = heldUp(waits, since);
        }
    }
}

void Pipeline::expire(Clock::time_point now)
{
    for (Task& task : m_tasks) {
        if (now < task.deadline) {
            break; // later ones are not due either
        }
        if (!task.isDone) {
            expireTask(task, now);
        }
    }
    for (auto lane = m_lanes.begin(); lane != m_lanes.end();) {
        Lane& current = *lane++;
        if (!current.tasks.empty() && now >= current.silentAt(silence())) {
            expireLane(current);
        }
    }
}

void Pipeline::expireTask(Task& task, Clock::time_point now)
{
    if (task.expansion) {
        expireMembers(task, now);
        return;
    }
    if (task.lane == nullptr) {
        dropWaiting(task);
        if (!task.failures.empty()) {
            concludeLate(task);
        } else {
            concludeUnsent(task);
        }
        return;
    }
    finish(task, Outcome::TryLater, LDAP_TIMEOUT,
           task.lane->server->uri + " did not complete its answer within the deadline of " +
               inSeconds(m_shared.settings.deadline));
    giveUp(task, now);
}

/// Gives up a search whose time is over.
void Pipeline::giveUp(Task& task, Clock::time_point now)
{
    Lane& lane = *task.lane;
    // A key that waited at least proof() on this server, without a byte, is evidence of a silent
    // server.
    bool const isSilent =
        lane.lease->session.heardAt() < task.sentAt && now - task.sentAt >= m_shared.pool.proof();
    abandon(lane, task);
    if (isSilent) {
        expireLane(lane);
    }
}

void Pipeline::expireLane(Lane& lane)
{
    auto const limit = silence();
    Verdict const why = {
        Outcome::TryLater, LDAP_TIMEOUT,
        lane.server->uri + " did not answer the " + (m_binds ? "bind" : "search") + " within " +
            inSeconds(std::chrono::duration_cast<std::chrono::milliseconds>(limit))};
    m_shared.pool.fellSilent(*lane.server, why, limit);
    leave(lane, Trouble::silent, why);
}

} // namespace Solvane::Lookup
