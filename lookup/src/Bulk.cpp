// Windows kept full, answers matched by id, time watched.
#include "Bulk.h"

#include "OpenLDAP.h"

#include <solvane/ldap/impl/LDAPConnectionImpl.h>
#include <solvane/ldap/impl/LDAPResultImpl.h>
#include <solvane/lookup/PlainText.h>

#include <algorithm>
#include <utility>

#include <poll.h>

namespace Solvane::Lookup {

namespace {

using std::chrono::milliseconds;

std::string secondsOf(Clock::duration time)
{
    auto const count = std::chrono::duration_cast<milliseconds>(time).count();
    std::string const whole = std::to_string(count / 1000);
    return count % 1000 == 0 ? whole + " s"
                             : whole + '.' + std::to_string(count % 1000 + 1000).substr(1) + " s";
}

/// Why a key cannot be looked up; empty when it can.
std::string faultOfKey(std::string const& key)
{
    if (key.empty()) {
        return "the key is empty";
    }
    auto const fault = faultIn(key);
    return fault ? "the key holds " + describe(*fault) : std::string();
}

bool isBlank(std::string const& text)
{
    return text.find_first_not_of(" \t\r\n\v\f") == std::string::npos;
}

/// What the result says; a success that refers elsewhere is a referral all the same.
int codeOf(LDAPResult const& result)
{
    bool const refers = result.resultCode() == LDAP_SUCCESS && !result.referrals().empty();
    return refers ? LDAP_REFERRAL : result.resultCode();
}

/// What the session keeps of its last call.
int resultCode(LDAP* session)
{
    int code = LDAP_SUCCESS;
    ldap_get_option(session, LDAP_OPT_RESULT_CODE, &code);
    return code;
}

void resultCode(LDAP* session, int code) { ldap_set_option(session, LDAP_OPT_RESULT_CODE, &code); }

/// The server's words about a search that it did not carry out.
std::string wordsFor(LDAPResult const& result)
{
    int const code = codeOf(result);
    std::string const general = ldap_err2string(code);
    std::string words = general + " (" + std::to_string(code) + ')';
    if (!result.errorMessage().empty() && result.errorMessage() != general) {
        words += ": " + oneLine(result.errorMessage());
    }
    if (!result.matchedDN().empty()) {
        words += ", what exists is '" + oneLine(result.matchedDN()) + '\'';
    }
    for (std::string const& referral : result.referrals()) {
        words += ", see " + oneLine(referral);
    }
    return words;
}

} // namespace

Bulk::Bulk(Shared& shared, LDAPLookup::Source const& source, LDAPLookup::Sink const& sink,
           unsigned int lanes, unsigned int window)
    : m_shared(shared), m_source(source), m_sink(sink), m_maximumLanes(lanes), m_window(window),
      m_maximumTasks(std::size_t{8} * lanes * window)
{
}

void Bulk::run()
{
    while (m_isWanted && (m_isSupplied || !m_tasks.empty())) {
        fill();
        emit();
        if (m_isWanted && m_inFlight != 0) {
            pump();
        }
    }
    endLanes();
}

// Keys in, answers out

void Bulk::fill()
{
    endLeavingLanes();
    dispatch(); // what is to be repeated comes first
    leaveOneLaneToOthers();
    std::size_t const capacity = m_maximumLanes * m_window;
    // A key whose time would pass while it waits for a lane is better left in the source.
    while (m_isSupplied && m_waiting.empty() && m_tasks.size() < m_maximumTasks &&
           m_inFlight < capacity && supply()) {
        dispatch();
    }
}

/// Makes a task of the next key. False when there is none now.
bool Bulk::supply()
{
    std::string key;
    LDAPLookup::Supply supplied = ask(key, false);
    if (supplied == LDAPLookup::Supply::nothing && m_tasks.empty()) {
        endLanes(); // for others to use; nobody knows how long this takes
        supplied = ask(key, true);
    }
    m_isSupplied = supplied != LDAPLookup::Supply::end;
    if (supplied != LDAPLookup::Supply::key) {
        return false;
    }
    m_tasks.emplace_back();
    m_tasks.back().key = std::move(key);
    begin(m_tasks.back());
    return true;
}

LDAPLookup::Supply Bulk::ask(std::string& key, bool mayWait)
{
    auto const start = Clock::now();
    LDAPLookup::Supply const supplied = m_source(key, mayWait);
    excuse(Clock::now() - start);
    return supplied;
}

void Bulk::begin(Task& task)
{
    task.start = Clock::now();
    task.deadline = task.start + m_shared.settings.deadline;
    std::string const fault = faultOfKey(task.key);
    if (!fault.empty()) {
        finish(task, Outcome::BadKey, LDAP_PARAM_ERROR, fault);
        return;
    }
    if (!m_shared.forms.isServed(task.key)) {
        finish(task, Outcome::Skipped, LDAP_SUCCESS, "its domain is none that is served");
        return;
    }
    task.forms = m_shared.forms.of(task.key);
    if (prepareFilter(task)) {
        m_waiting.push_back(&task);
    }
}

/// False when there is none; the task is done then.
bool Bulk::prepareFilter(Task& task)
{
    std::string& filter = task.answer.filter;
    std::string fault;
    try {
        filter = m_shared.queryTemplate.expand(task.forms[task.form]);
    } catch (LDAPException const& malformed) {
        fault = malformed.stringParameter();
    }
    if (fault.empty() && isBlank(filter)) {
        fault =
            "the template makes nothing of the key, and an empty filter would match every entry";
    } else if (fault.empty() && !isUtf8(filter)) {
        fault = "the template cuts a character of the key in two";
    }
    if (!fault.empty()) {
        finish(task, Outcome::Misconfigured, LDAP_FILTER_ERROR, fault);
    }
    return fault.empty();
}

void Bulk::finish(Task& task, Outcome outcome, int code, std::string const& text)
{
    task.answer.outcome = outcome;
    task.answer.code = code;
    task.answer.text = text;
    if (!task.result.isNull()) {
        task.answer.entries = task.result.searchResultEntries();
        task.result = LDAPResult();
    }
    std::chrono::duration<double, std::milli> const taken = Clock::now() - task.start;
    task.answer.milliseconds = taken.count();
    task.isDone = true;
}

void Bulk::emit()
{
    while (m_isWanted && !m_tasks.empty() && m_tasks.front().isDone) {
        Task& task = m_tasks.front();
        auto const start = Clock::now();
        m_isWanted = m_sink(task.key, std::move(task.answer));
        m_tasks.pop_front();
        excuse(Clock::now() - start);
    }
}

/// Does not count the time for which the source or sink held the run up, as a reader of its output
/// does that looks at a page at a time: the answers have come meanwhile, and wait to be taken.
void Bulk::excuse(Clock::duration held)
{
    constexpr milliseconds noticeable(1);
    if (held < noticeable) {
        return;
    }
    for (Task& task : m_tasks) {
        if (!task.isDone) {
            task.start += held;
            task.deadline += held;
            task.sentAt += held;
        }
    }
    for (Lane& lane : m_lanes) {
        lane.heardAt += held;
    }
}

// Tasks to lanes

void Bulk::dispatch()
{
    while (!m_waiting.empty()) {
        Task& task = *m_waiting.front();
        std::optional<SessionPool::Outlook> refused;
        auto const lane = laneFor(task, refused);
        if (lane == m_lanes.end() && !refused) {
            return; // all windows are full
        }
        m_waiting.pop_front();
        if (lane != m_lanes.end()) {
            send(task, lane);
            continue;
        }
        task.answer.server = refused->server;
        finish(task, refused->refusal->outcome, refused->refusal->code, refused->refusal->text);
    }
}

/// The lane with the fewest searches that has room for one more, or a new lane. The end where there
/// is none: then either it is known why, or one has to wait for answers.
Bulk::Lanes::iterator Bulk::laneFor(Task const& task, std::optional<SessionPool::Outlook>& refused)
{
    bool const isRepeated = task.answer.wasRepeated;
    auto best = m_lanes.end();
    for (auto lane = m_lanes.begin(); lane != m_lanes.end(); ++lane) {
        bool const serves = !isRepeated || mayServeAgain(*lane, task.brokeAt);
        if (serves && !lane->isLeaving && lane->tasks.size() < m_window &&
            (best == m_lanes.end() || lane->tasks.size() < best->tasks.size())) {
            best = lane;
        }
    }
    if (best != m_lanes.end()) {
        return best;
    }
    if (isRepeated) {
        closeIdleLanesNotServing(task.brokeAt);
    }
    if (m_lanes.size() >= m_maximumLanes ||
        (!isRepeated && m_inFlight != 0 && Clock::now() < m_noNewLaneBefore)) {
        return m_lanes.end();
    }
    return newLane(task, refused);
}

/// What broke one connection has broken its contemporaries too, as a rule; and a new one may be to a
/// server that is about to go, until an answer came.
bool Bulk::mayServeAgain(Lane const& lane, Clock::time_point brokeAt)
{
    return lane.lease->openedAt >= brokeAt && lane.lease->hasAnswered;
}

Bulk::Lanes::iterator Bulk::newLane(Task const& task, std::optional<SessionPool::Outlook>& refused)
{
    bool const isRepeated = task.answer.wasRepeated;
    // Nothing is taken from the other lanes meanwhile: none of their keys may be kept too long.
    auto const deadline = std::min(task.deadline, earliestDeadline());
    SessionPool::Outlook outlook =
        m_shared.sessions.acquire({deadline, isRepeated, m_inFlight == 0});
    if (outlook.lease) {
        m_lanes.emplace_back();
        m_lanes.back().lease = std::move(outlook.lease);
        return std::prev(m_lanes.end());
    }
    auto const now = Clock::now();
    bool const isForGood = outlook.refusal && (now < deadline || deadline == task.deadline);
    if (m_inFlight == 0 || (isRepeated && isForGood)) {
        refused = std::move(outlook);
    } else {
        // The lanes there are will do; another one is tried for now and then.
        m_noNewLaneBefore = now + m_shared.settings.backOff;
    }
    return m_lanes.end();
}

void Bulk::closeIdleLanesNotServing(Clock::time_point time)
{
    m_lanes.remove_if(
        [time](Lane const& lane) { return lane.tasks.empty() && !mayServeAgain(lane, time); });
}

/// A run may take as long as it likes, so it takes turns with callers that wait.
void Bulk::leaveOneLaneToOthers()
{
    if (m_lanes.empty() || !m_waiting.empty() || !m_shared.sessions.isWaitedFor()) {
        return;
    }
    auto const soonest =
        std::min_element(m_lanes.begin(), m_lanes.end(), [](Lane const& one, Lane const& other) {
            // One that is leaving comes first, so that they leave one at a time.
            return std::make_pair(!one.isLeaving, one.tasks.size()) <
                   std::make_pair(!other.isLeaving, other.tasks.size());
        });
    soonest->isLeaving = true;
}

void Bulk::endLeavingLanes()
{
    m_lanes.remove_if([](Lane& lane) {
        bool const isOver = lane.isLeaving && lane.tasks.empty();
        if (isOver && !lane.hasAbandoned) {
            lane.lease.giveBack();
        }
        return isOver;
    });
}

void Bulk::endLanes()
{
    for (Lane& lane : m_lanes) {
        lane.isLeaving = true;
    }
    endLeavingLanes();
    m_lanes.clear(); // closes the others
}

void Bulk::send(Task& task, Lanes::iterator lane)
{
    PooledSession& pooled = *lane->lease.operator->();
    task.answer.server = m_shared.servers.uri(pooled.server);
    task.answer.identity = pooled.session.identity();
    pooled.search.filter = task.answer.filter;
    Verdict const verdict = pooled.session.send(pooled.search, task.messageId);
    if (!verdict.isGood() && verdict.code != LDAP_SERVER_DOWN) {
        finish(task, verdict.outcome, verdict.code, verdict.text);
        return;
    }
    if (pooled.wasUsed) {
        ++m_shared.reused;
    }
    pooled.wasUsed = true;
    task.sentAt = Clock::now();
    lane->tasks.push_back(&task);
    ++m_inFlight;
    if (verdict.isGood()) {
        task.result = LDAPResult(pooled.session.connection());
    } else {
        broke(lane, verdict);
    }
}

// Answers

void Bulk::pump()
{
    if (m_lanes.size() == 1) {
        drain(m_lanes.begin(), patience());
    } else {
        bool hasHeard = false;
        for (auto lane = m_lanes.begin(); lane != m_lanes.end();) {
            auto const current = lane++;
            hasHeard = drain(current, milliseconds(0)) || hasHeard;
        }
        if (!hasHeard) {
            waitForInput(patience());
        }
    }
    expire();
}

/// Takes what a lane has, and waits for the first of it. True when anything came.
bool Bulk::drain(Lanes::iterator lane, milliseconds patience)
{
    constexpr int atMost = 256; // messages: a flood must not hide that time passes
    bool hasHeard = false;
    for (int count = 0; count < atMost && !lane->tasks.empty(); ++count) {
        LDAPMessageBuffer message;
        int const id = lane->lease->session.receive(message, hasHeard ? milliseconds(0) : patience);
        if (id == 0) {
            break;
        }
        hasHeard = true;
        std::string const& uri = m_shared.servers.uri(lane->lease->server);
        if (id < 0) {
            broke(lane, {Outcome::TryLater, LDAP_SERVER_DOWN,
                         uri + ": the connection broke before the answer was complete"});
            break;
        }
        lane->heardAt = Clock::now();
        lane->lease->hasAnswered = true;
        m_shared.servers.heardFrom(lane->lease->server, lane->heardAt);
        if (!take(*lane, id, message)) {
            broke(lane, {Outcome::TryLater, LDAP_DECODING_ERROR, uri + " sent what is no LDAP"});
            break;
        }
    }
    return hasHeard;
}

/// False when the server speaks no LDAP.
bool Bulk::take(Lane& lane, int messageId, LDAPMessageBuffer& message)
{
    auto const found =
        std::find_if(lane.tasks.begin(), lane.tasks.end(),
                     [messageId](Task const* task) { return task->messageId == messageId; });
    if (found == lane.tasks.end()) {
        return true; // the rest of an answer that nobody waits for any more
    }
    Task& task = **found;
    constexpr int searchEntry = 2;
    constexpr int searchReference = 3;
    constexpr int searchResult = 4;
    LDAP* const session = lane.lease->session.connection().impl()->session();
    resultCode(session, LDAP_SUCCESS);
    bool isReadable = true;
    try {
        task.result.impl()->parseMessage(message);
    } catch (LDAPException const&) {
        isReadable = codeOf(task.result) != LDAP_SUCCESS; // a referral, stored before
    }
    int const type = task.result.resultType();
    // An entry that is damaged inside ends where the damage is; only the session tells.
    isReadable = isReadable && (type != searchEntry || resultCode(session) == LDAP_SUCCESS);
    if (!isReadable || type < searchEntry || type > searchResult) {
        return false;
    }
    if (type == searchResult) {
        complete(lane, task);
    } else if (type == searchReference) {
        task.isReferred = true;
    } else if (isOverfull(task)) {
        abandon(lane, task);
        finish(task, Outcome::TryLater, LDAP_SIZELIMIT_EXCEEDED,
               task.answer.server + " sent more than " +
                   std::to_string(m_shared.settings.entryLimit) + " entries");
        task.answer.entries.pop_back(); // the one beyond
    }
    return true;
}

/// Of a server that does not keep the limit it was told.
bool Bulk::isOverfull(Task const& task) const
{
    auto const limit = m_shared.settings.entryLimit;
    return limit != 0 && task.result.searchResultEntries().size() > limit;
}

void Bulk::complete(Lane& lane, Task& task)
{
    release(lane, task);
    int const code = codeOf(task.result);
    if (code != LDAP_SUCCESS) {
        Verdict const why = {outcomeOfSearch(code), code,
                             task.answer.server + ": " + wordsFor(task.result)};
        if (!passesOn(lane, task, why)) {
            finish(task, why.outcome, code, why.text);
        }
    } else if (task.result.searchResultEntries().empty()) {
        concludeEmpty(task);
    } else {
        finish(task, Outcome::Found, code, std::string());
    }
}

/// The next form of the key, or the conclusion that there is none.
void Bulk::concludeEmpty(Task& task)
{
    if (task.form + 1 < task.forms.size()) {
        ++task.form;
        task.result = LDAPResult();
        if (prepareFilter(task)) {
            m_waiting.push_front(&task);
        }
        return;
    }
    std::string remark;
    if (task.answer.identity == Identity::Unconfirmed) {
        remark = task.answer.server + " cannot confirm as whom it answered";
    }
    if (task.isReferred) {
        remark += remark.empty() ? task.answer.server : " and";
        remark += " leaves a part of the base to servers that were not asked";
    }
    finish(task, Outcome::NotFound, LDAP_SUCCESS, remark);
}

/// Whether another server is asked instead of one that says that it cannot serve now.
bool Bulk::passesOn(Lane const& lane, Task& task, Verdict const& why)
{
    bool const isServersTrouble = why.code == LDAP_BUSY || why.code == LDAP_UNAVAILABLE;
    if (!isServersTrouble || task.answer.wasRepeated || m_shared.servers.size() < 2) {
        return false;
    }
    m_shared.sessions.serverFailed(lane.lease->server, why, Clock::now() - task.sentAt);
    repeatOrFinish(task, why);
    return true;
}

void Bulk::release(Lane& lane, Task& task)
{
    lane.tasks.erase(std::find(lane.tasks.begin(), lane.tasks.end(), &task));
    --m_inFlight;
}

void Bulk::abandon(Lane& lane, Task& task)
{
    lane.lease->session.abandon(task.messageId);
    lane.hasAbandoned = true;
    release(lane, task);
}

/// Ends a lane whose connection is gone or not to be trusted; its searches go elsewhere.
void Bulk::broke(Lanes::iterator lane, Verdict const& why)
{
    std::vector<Task*> const tasks = std::move(lane->tasks);
    m_inFlight -= tasks.size();
    m_lanes.erase(lane);
    // From the last to the first: each is put before the others.
    std::for_each(tasks.rbegin(), tasks.rend(), [&](Task* task) { repeatOrFinish(*task, why); });
}

void Bulk::repeatOrFinish(Task& task, Verdict const& why)
{
    if (task.answer.wasRepeated || Clock::now() >= task.deadline) {
        finish(task, why.outcome, why.code, why.text);
        return;
    }
    ++m_shared.repeated;
    task.answer.wasRepeated = true;
    task.brokeAt = Clock::now();
    task.result = LDAPResult();
    m_waiting.push_front(&task);
}

// Time

/// When a lane has kept its oldest search waiting for so long that its server counts as failed.
Clock::time_point Bulk::silentAt(Lane const& lane) const
{
    auto const limit = std::min<Clock::duration>(
        std::chrono::seconds(m_shared.settings.networkTimeout), m_shared.settings.deadline);
    return std::max(lane.heardAt, lane.tasks.front()->sentAt) + limit;
}

/// Of the searches in flight.
Clock::time_point Bulk::earliestDeadline() const
{
    auto earliest = Clock::time_point::max();
    for (Lane const& lane : m_lanes) {
        for (Task const* task : lane.tasks) {
            earliest = std::min(earliest, task->deadline);
        }
    }
    return earliest;
}

/// Until something has to be done though nothing came.
milliseconds Bulk::patience() const
{
    auto next = earliestDeadline();
    for (Task const* task : m_waiting) {
        next = std::min(next, task->deadline);
    }
    for (Lane const& lane : m_lanes) {
        if (!lane.tasks.empty()) {
            next = std::min(next, silentAt(lane));
        }
    }
    auto const left = std::chrono::ceil<milliseconds>(next - Clock::now());
    return std::max(left, milliseconds(0));
}

void Bulk::waitForInput(milliseconds patience)
{
    m_polled.clear();
    for (Lane const& lane : m_lanes) {
        if (!lane.tasks.empty()) {
            DirectorySession& session = lane.lease->session;
            if (hasBufferedInput(session.connection().impl()->session())) {
                return;
            }
            m_polled.push_back({session.descriptor(), POLLIN, 0});
        }
    }
    constexpr milliseconds longest = std::chrono::hours(1); // poll counts in an int
    auto const time = static_cast<int>(std::min(patience, longest).count());
    (void)poll(m_polled.data(), m_polled.size(), time); // whatever it says, the lanes are drained
}

void Bulk::expire()
{
    auto const now = Clock::now();
    expireWaiting(now);
    for (auto lane = m_lanes.begin(); lane != m_lanes.end();) {
        auto const current = lane++;
        if (!current->tasks.empty()) {
            expireLane(current, now);
        }
    }
}

void Bulk::expireWaiting(Clock::time_point now)
{
    auto const isOver = [&](Task* task) {
        if (now < task->deadline) {
            return false;
        }
        finish(*task, Outcome::TryLater, LDAP_TIMEOUT,
               "no connection came free within the deadline of " +
                   secondsOf(m_shared.settings.deadline));
        return true;
    };
    m_waiting.erase(std::remove_if(m_waiting.begin(), m_waiting.end(), isOver), m_waiting.end());
}

void Bulk::expireLane(Lanes::iterator lane, Clock::time_point now)
{
    std::vector<Task*> over;
    std::copy_if(lane->tasks.begin(), lane->tasks.end(), std::back_inserter(over),
                 [now](Task const* task) { return now >= task->deadline; });
    std::string const uri = m_shared.servers.uri(lane->lease->server);
    auto const limit = silentAt(*lane) - std::max(lane->heardAt, lane->tasks.front()->sentAt);
    // A key that had most of its time here, and heard nothing, has proved as much as a longer wait.
    bool const isSilent =
        now >= silentAt(*lane) || std::any_of(over.begin(), over.end(), [&](Task const* task) {
            return lane->heardAt < task->sentAt && now - task->sentAt >= limit / 2;
        });
    for (Task* const task : over) {
        abandon(*lane, *task);
        finish(*task, Outcome::TryLater, LDAP_TIMEOUT,
               uri + " gave no complete answer within the deadline of " +
                   secondsOf(m_shared.settings.deadline));
    }
    if (isSilent) {
        Verdict const why = {Outcome::TryLater, LDAP_TIMEOUT,
                             uri + " did not answer the search within " + secondsOf(limit)};
        // Where it answered somebody else, it is the search that is slow.
        if (!m_shared.servers.wasHeardSince(lane->lease->server, now - limit / 2)) {
            m_shared.sessions.serverFailed(lane->lease->server, why, limit);
        }
        broke(lane, why);
    }
}

} // namespace Solvane::Lookup
