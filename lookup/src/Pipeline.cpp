// Turns messages into answers, and repeats searches after failures.
#include "Pipeline.h"

#include <solvane/session/EntryReader.h>
#include <solvane/session/PlainText.h>
#include <solvane/session/ResultCodes.h>

#include <algorithm>

#include <ldap.h>

namespace Solvane::Lookup {

namespace {

/// The parsed result of a search.
struct Result {
    int code = LDAP_SUCCESS;
    LDAPCharBuffer matched;
    LDAPCharBuffer text;
    LDAPValueBuffer referrals;

    bool refers() const { return referrals.get() != nullptr && *referrals.get() != nullptr; }

    /// The text of a failed result.
    std::string words() const
    {
        std::string words = wordsFor(code, text.get() == nullptr ? "" : text.get());
        if (matched.get() != nullptr && *matched.get() != '\0') {
            words += ", matched DN '" + oneLine(matched.get()) + '\'';
        }
        for (char** uri = referrals.get(); uri != nullptr && *uri != nullptr; ++uri) {
            words += ", see " + oneLine(*uri);
        }
        return words;
    }
};

/// Returns false if the message is malformed.
bool parse(LDAP* session, Session::Message const& message, Result& result)
{
    if (message.isSuccess) {
        return true; // there are no texts for OpenLDAP to decode
    }
    int const rc =
        ldap_parse_result(session, message.parsed.get(), &result.code, result.matched.address(),
                          result.text.address(), result.referrals.address(), nullptr, 0);
    if (result.code == LDAP_SUCCESS && rc == LDAP_SUCCESS && result.refers()) {
        result.code = LDAP_REFERRAL; // treat a success with referrals as a referral
    }
    return rc == LDAP_SUCCESS;
}

/// Connections on which users bind are opened without an identity.
Settings settingsOfLogins(Settings settings)
{
    settings.mechanism = Mechanism::simple;
    settings.authorizationId.clear();
    settings.bindDn.clear();
    wipe(settings.password); // a copy
    settings.connections = settings.verifyConnections;
    return settings;
}

} // namespace

Shared::Shared(Settings const& given, std::shared_ptr<Totals> const& counts, Shared* before)
    : Shared(std::make_shared<OwnSettings>(given), counts, nullptr,
             before == nullptr ? nullptr : &before->pool)
{
    logins.reset(new Shared(std::make_shared<OwnSettings>(settingsOfLogins(settings)), counts,
                            pool.tls(), nullptr));
}

Shared::Shared(Settings const& given, Shared const& other)
    : Shared(std::make_shared<OwnSettings>(given), other.m_sharedPool)
{
    logins.reset(new Shared(std::make_shared<OwnSettings>(settingsOfLogins(settings)),
                            other.logins->m_sharedPool));
}

Shared::Shared(std::shared_ptr<OwnSettings const> const& own, std::shared_ptr<Totals> const& counts,
               std::shared_ptr<TlsContext> const& tls, Pool* before)
    : Shared(own, std::make_shared<SharedPool>(own, counts, tls, before))
{
}

Shared::Shared(std::shared_ptr<OwnSettings const> own, std::shared_ptr<SharedPool> shared)
    : m_ownSettings(std::move(own)), m_sharedPool(std::move(shared)),
      settings(m_ownSettings->get()), queryTemplate(settings), forms(settings),
      baseFormat(baseOfAllKeys(settings)
                     ? nullptr
                     : std::make_unique<ResultFormat const>(settings.base, true)),
      rules(settings),
      needsParts(settings.postfixRules || rules.areSet()), request{baseOfAllKeys(settings).value_or(
                                                                       std::string()),
                                                                   settings.scope,
                                                                   settings.deref,
                                                                   rules.requested(),
                                                                   settings.entryLimit,
                                                                   settings.timeLimit},
      entryRequest{request.base,      settings.scope, settings.deref, {LDAP_NO_ATTRS}, 2,
                   settings.timeLimit},
      totals(*m_sharedPool->totals), pool(m_sharedPool->pool)
{
}

Pipeline::Pipeline(Shared& shared, std::size_t lanes, std::size_t window, Order order,
                   Pipeline* binding)
    : m_shared(shared), m_binds(shared.logins == nullptr), m_binding(binding),
      m_maximumLanes(lanes), m_window(window), m_maximumTasks(std::size_t{8} * lanes * window),
      m_order(order), m_makesResults(shared.rules.areSet())
{
}

Pipeline::~Pipeline() { rest(); }

void Pipeline::run()
{
    m_now = Clock::now();
    if (m_query) {
        advanceQuery();
    }
    advanceLanes();
    expire(m_now);
    endLeavingLanes();
    dispatch(); // also searches to be repeated
    leaveOneLaneToOthers();
    flush();
    collect();
}

void Pipeline::flush()
{
    for (auto lane = m_lanes.begin(); lane != m_lanes.end(); ++lane) {
        if (lane->needsFlush) {
            lane->needsFlush = false;
            lane->lease->session.flush();
        }
    }
}

void Pipeline::advanceLanes()
{
    for (auto lane = m_lanes.begin(); lane != m_lanes.end();) {
        Lane& current = *lane++;
        if (!current.isOpen()) {
            advance(current);
        } else if (!current.tasks.empty() && !current.needsFlush) {
            drain(current); // right after a send, poll first: a response takes a round trip
        }
    }
}

/// Reads the messages of a lane. May destroy the lane.
void Pipeline::drain(Lane& lane)
{
    constexpr int atMost = 256; // messages, so that a flood does not delay deadlines
    Session& session = lane.lease->session;
    Session::Message message;
    for (int count = 0; count < atMost && !lane.tasks.empty(); ++count) {
        Session::Received const received = session.receive(message);
        if (received == Session::Received::nothing) {
            break;
        }
        if (received == Session::Received::broken) {
            Verdict const why = session.verdict(); // a copy: the lane is destroyed
            leave(lane, Trouble::broken, why);
            return;
        }
        storeLatest(lane.server->heardAt, session.heardAt());
        lane.lease->hasAnswered = true;
        if (message.id <= 0) { // notice of disconnection
            leave(lane, Trouble::broken,
                  {Outcome::TryLater, LDAP_SERVER_DOWN,
                   lane.server->uri + " is closing the connection"});
            return;
        }
        Task* const task = lane.find(message.id);
        if (task == nullptr) {
            continue; // the rest of an abandoned answer
        }
        std::size_t const lanes = m_lanes.size();
        take(lane, *task, message);
        if (m_lanes.size() != lanes) {
            return; // the lane was destroyed
        }
    }
}

void Pipeline::take(Lane& lane, Task& task, Session::Message const& message)
{
    if (m_binds) {
        return takeLogin(lane, task, message);
    }
    switch (message.type) {
    case LDAP_RES_SEARCH_ENTRY:
        return takeEntry(lane, task, message);
    case LDAP_RES_SEARCH_REFERENCE:
        task.isReferred = true;
        return;
    case LDAP_RES_SEARCH_RESULT:
        return takeResult(lane, task, message);
    default:
        leave(lane, Trouble::damaged,
              {Outcome::TryLater, LDAP_DECODING_ERROR,
               lane.server->uri + " sent an invalid response to the search"},
              &task);
    }
}

void Pipeline::takeEntry(Lane& lane, Task& task, Session::Message const& message)
{
    Settings const& settings = m_shared.settings;
    unsigned int const entryLimit = requestOf(task).entryLimit;
    std::list<LDAPSearchResultEntry>& entries = task.answer.entries;
    if (!readEntry(message.content, entries)) {
        leave(lane, Trouble::damaged,
              {Outcome::TryLater, LDAP_DECODING_ERROR, lane.server->uri + " sent an invalid entry"},
              &task);
        return;
    }
    std::size_t const size = lane.lease->session.messageSize();
    task.bytes += size;
    m_heldBytes += size;
    std::size_t const bytes = task.member ? task.member->key.bytes += size : task.bytes;
    task.hasRanges = task.hasRanges || ValueRange::isIn(message.content);
    bool const isTooMany = entryLimit != 0 && entries.size() > entryLimit;
    bool const isTooLarge = bytes > settings.answerBytes;
    if (isTooMany || isTooLarge) {
        entries.pop_back(); // the one beyond the limit
        lane.remove(task);
        --m_inFlight;
        finish(task, Outcome::TryLater, LDAP_SIZELIMIT_EXCEEDED,
               isTooMany ? task.answer.server + " sent more than " + std::to_string(entryLimit) +
                               " entries"
                         : task.answer.server + ": the answer is larger than " +
                               std::to_string(settings.answerBytes) + " bytes (answer_bytes)");
        // More of this answer may arrive before the answers of the other searches.
        leave(lane, Trouble::damaged, {Outcome::TryLater, LDAP_SIZELIMIT_EXCEEDED, std::string()});
    }
}

void Pipeline::takeResult(Lane& lane, Task& task, Session::Message const& message)
{
    Result result;
    if (!parse(lane.lease->session.handle(), message, result)) {
        leave(
            lane, Trouble::damaged,
            {Outcome::TryLater, LDAP_DECODING_ERROR, lane.server->uri + " sent an invalid result"},
            &task);
        return;
    }
    lane.remove(task);
    --m_inFlight;
    if (task.member && result.code == LDAP_NO_SUCH_OBJECT && isMissing(task)) {
        task.member->isMissing = true;
        result.code = LDAP_SUCCESS;
    }
    if (result.code != LDAP_SUCCESS) {
        refused(lane, task,
                {outcomeOfSearch(result.code), result.code,
                 task.answer.server + ": " + result.words()});
        return;
    }
    m_shared.pool.answered(*lane.lease, lane.lease->session.heardAt());
    proveFailures(task);
    if (task.member) {
        concludeMember(task);
    } else if (task.answer.entries.empty()) {
        concludeEmpty(task);
    } else if (task.login != nullptr || (!m_makesResults && !task.hasRanges)) {
        finish(task, Outcome::Found, result.code, std::string());
    } else {
        expand(task);
    }
}

/// A code that concerns the server is not an answer to the key: fails over to the next server.
void Pipeline::refused(Lane& lane, Task& task, Verdict const& why)
{
    if (m_shared.pool.serverCount() < 2 || !speaksOfServer(why.code)) {
        finish(task, why.outcome, why.code, why.text);
        return;
    }
    Failure failure = {lane.server->index, lane.server->uri,           why,  true,
                       task.sentAt,        Clock::now() - task.sentAt, false};
    if (why.code == LDAP_BUSY || why.code == LDAP_UNAVAILABLE) {
        m_shared.pool.searchFailed(failure); // the server itself reports it
    }
    repeat(task, *lane.server, std::move(failure), true, false);
}

/// This server answered, so earlier failures of the search were the fault of those servers.
void Pipeline::proveFailures(Task const& task)
{
    for (Failure const& failure : task.failures) {
        if (failure.isOfSearch) {
            m_shared.pool.searchFailed(failure);
        }
    }
}

void Pipeline::abandon(Lane& lane, Task& task)
{
    if (m_binds) { // it cannot be abandoned (RFC 4511 section 4.11)
        lane.isLeaving = true;
    } else {
        lane.lease->session.abandon(task.messageId);
    }
    lane.isDoubtful = true;
    lane.needsFlush = true;
    lane.remove(task);
    --m_inFlight;
}

/// Ends a lane whose connection is lost or unreliable; repeats its searches. With several searches
/// in flight, any of them may have caused the loss, or there were too many. They are sent again in
/// a narrower window; a search that then breaks a connection alone is the guilty one, and only it
/// fails over to the next server:
///
/// | trouble | searches in flight | counts against the search   |
/// |---------|--------------------|-----------------------------|
/// | broken  | one                | yes, with one free repeat *  |
/// | broken  | several            | no                          |
/// | silent  | any                | yes, for all                |
/// | damaged | any                | only for the guilty one     |
///
/// * if the session had answered before: the idle connection may have been dropped silently.
// NOLINTNEXTLINE(performance-unnecessary-value-param): its session is destroyed here
void Pipeline::leave(Lane& lane, Trouble trouble, Verdict why, Task const* guilty)
{
    std::vector<Task*> tasks;
    tasks.swap(lane.tasks);
    ServerRecord const& server = *lane.server;
    m_inFlight -= tasks.size();
    if (trouble == Trouble::broken) {
        m_shared.pool.lost(*lane.lease, tasks.size());
    }
    lane.lease.close();
    remove(lane);
    if (!why.text.empty()) { // else the answer was too large
        m_shared.pool.disconnected(server, why);
    }
    auto const now = Clock::now();
    // In reverse, as each one is put in front of the others.
    for (auto next = tasks.rbegin(); next != tasks.rend(); ++next) {
        Task& task = **next;
        bool const isAlone = trouble == Trouble::broken && tasks.size() == 1;
        bool const isItsFault = isAlone || trouble == Trouble::silent || &task == guilty;
        // An idle connection may have been dropped silently before this search.
        bool const isFree = isAlone && task.wasOnProven;
        repeat(task, server,
               {server.index, server.uri, why, true, task.sentAt, now - task.sentAt, false},
               isItsFault, isFree);
    }
}

/// Queues a search to be sent again.
/// @param isItsFault  the failure counts against the search: not on the same server again
/// @param isFree      allows one repeat on the same server nevertheless
void Pipeline::repeat(Task& task, ServerRecord const& server, Failure failure, bool isItsFault,
                      bool isFree)
{
    auto const now = Clock::now();
    task.lane = nullptr;
    bool const isOnly = m_shared.pool.serverCount() == 1;
    bool const isAskedAgain = !isItsFault || ((isFree || isOnly) && task.lostOn != &server);
    if (!isAskedAgain && isOnly) {
        finish(task, failure.why.outcome, failure.why.code, failure.why.text);
        return;
    }
    if (now >= task.deadline) {
        task.failures.push_back(std::move(failure));
        concludeLate(task);
        return;
    }
    if (isItsFault) {
        task.lostOn = &server;
    }
    m_shared.pool.repeated(server, failure.why);
    if (!isAskedAgain) {
        task.failures.push_back(std::move(failure));
    }
    task.answer.wasRepeated = true;
    task.answer.entries.clear();
    m_heldBytes -= task.bytes;
    if (task.member) {
        task.member->key.bytes -= task.bytes;
    }
    task.bytes = 0;
    task.isReferred = false;
    task.hasRanges = false;
    task.brokeOn = &server;
    task.brokeAt = now;
    m_waiting.push_back(&task);
}

} // namespace Solvane::Lookup
