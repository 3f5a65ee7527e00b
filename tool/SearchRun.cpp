// Sends a search, page by page, and reads its messages.
#include "SearchRun.h"

#include "OpenLDAP.h"
#include "Outcome.h"
#include "Sessions.h"
#include "Text.h"

#include <solvane/session/EntryReader.h>
#include <solvane/session/ResultCodes.h>

#include <solvane/ldap/LDAPException.h>
#include <solvane/ldap/impl/OpenLDAPOwners.h>

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace Solvane::Tool {

using Lookup::Clock;
using Lookup::Session;
using Lookup::Verdict;

// Signals

namespace {

constexpr std::array<int, 3> signals = {SIGINT, SIGTERM, SIGHUP};

std::array<struct sigaction, signals.size()> g_actions; // before
std::array<int, 2> g_pipe = {-1, -1};
volatile std::sig_atomic_t g_signal = 0;

extern "C" void solvaneToolRemember(int number)
{
    int const before = errno;
    g_signal = number;
    char const byte = 0;
    // A byte that does not fit is not needed: there are others.
    (void)!write(g_pipe[1], &byte, 1);
    errno = before;
}

} // namespace

Interruption::Interruption()
{
    g_signal = 0;
    if (pipe2(g_pipe.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
        throw Failure(Outcome::configuration,
                      fmt::format("cannot make a pipe: {}", std::strerror(errno)),
                      "raise the limit of open files");
    }
    struct sigaction remembering = {};
    remembering.sa_handler = solvaneToolRemember;
    remembering.sa_flags = static_cast<int>(SA_RESETHAND); // the second one ends the process
    for (std::size_t i = 0; i < signals.size(); ++i) {
        sigaction(signals[i], nullptr, &g_actions[i]);
        if (g_actions[i].sa_handler != SIG_IGN) { // as with nohup
            sigaction(signals[i], &remembering, nullptr);
        }
    }
}

Interruption::~Interruption()
{
    for (std::size_t i = 0; i < signals.size(); ++i) {
        sigaction(signals[i], &g_actions[i], nullptr);
    }
    for (int& end : g_pipe) {
        close(std::exchange(end, -1));
    }
}

int Interruption::signal() { return g_signal; }
int Interruption::descriptor() { return g_pipe[0]; }

// Requests

namespace {

/// Controls as OpenLDAP takes them. The list must outlive it.
class ControlArray {
public:
    explicit ControlArray(std::list<LDAPOperation::Control> const& controls)
    {
        m_controls.reserve(controls.size());
        for (LDAPOperation::Control const& control : controls) {
            std::string const& bytes = control.value();
            berval const value = control.hasValue()
                                     ? berval{bytes.size(), const_cast<char*>(bytes.data())}
                                     : berval{0, nullptr};
            m_controls.push_back({const_cast<char*>(control.oid().c_str()), value,
                                  static_cast<char>(control.isCritical() ? 1 : 0)});
            m_pointers.push_back(&m_controls.back());
        }
        m_pointers.push_back(nullptr);
    }

    LDAPControl** get() { return m_pointers.data(); }

private:
    std::vector<LDAPControl> m_controls;
    std::vector<LDAPControl*> m_pointers;
};

void releaseControls(LDAPControl** controls) { ldap_controls_free(controls); }

/// The controls of a final response; their criticality has no meaning.
/// @return false if they are malformed
bool readControls(Session const& session, LDAPMessageBuffer const& message,
                  std::list<LDAPOperation::Control>& to)
{
    OpenLDAPOwner<LDAPControl*, releaseControls> controls;
    int const rc = ldap_parse_result(session.handle(), message.get(), nullptr, nullptr, nullptr,
                                     nullptr, controls.address(), 0);
    for (LDAPControl** each = controls.get(); each != nullptr && *each != nullptr; ++each) {
        berval const& value = (*each)->ldctl_value;
        if (value.bv_val != nullptr) {
            to.emplace_back((*each)->ldctl_oid, false, std::string(value.bv_val, value.bv_len));
        }
    }
    return rc == LDAP_SUCCESS;
}

std::string wordsOf(ResultMessage const& result)
{
    std::string const matched =
        result.matched.empty() ? "" : fmt::format(", matched DN '{}'", result.matched);
    return Lookup::wordsFor(result.code, result.text) + matched + pointersTo(result.referrals);
}

} // namespace

SearchRun::SearchRun(Session& session, SearchQuery query, std::chrono::milliseconds silence,
                     std::function<void()> beforeWaiting)
    : m_session(session), m_query(std::move(query)), m_silence(silence),
      m_beforeWaiting(std::move(beforeWaiting))
{
    sendRequest(std::string());
}

/// Sends the search for everything, or for the page after the one with this cookie.
void SearchRun::sendRequest(std::string const& cookie)
{
    std::list<LDAPOperation::Control> controls = m_query.controls;
    if (m_query.pageSize != 0) {
        controls.push_back(LDAPControls::pagedResults(static_cast<int>(m_query.pageSize), cookie));
    }
    ControlArray array(controls);
    std::vector<char*> attributes;
    for (std::string const& attribute : m_query.attributes) {
        attributes.push_back(const_cast<char*>(attribute.c_str())); // OpenLDAP only reads it
    }
    attributes.push_back(nullptr);
    auto const timeLimit = static_cast<int>(m_query.timeLimit);
    ldap_set_option(m_session.handle(), LDAP_OPT_DEREF, &m_query.deref);
    ldap_set_option(m_session.handle(), LDAP_OPT_TIMELIMIT, &timeLimit);
    int const code = ldap_search_ext(
        m_session.handle(), m_query.base.c_str(), m_query.scope, m_query.filter.c_str(),
        m_query.attributes.empty() ? nullptr : attributes.data(), m_query.isTypesOnly ? 1 : 0,
        array.get(), nullptr, nullptr, static_cast<int>(m_query.sizeLimit), &m_id);
    if (code != LDAP_SUCCESS) {
        finish({Lookup::outcomeOfSearch(code), code,
                fmt::format("{}: cannot send the search: {}", m_session.uri(),
                            Lookup::wordsFor(code))});
        return;
    }
    m_session.expect(m_id, "search");
    m_session.flush();
}

// Messages

SearchRun::Item SearchRun::next()
{
    m_entries.clear();
    m_references.clear();
    while (!m_isDone && Interruption::signal() == 0) {
        LDAPMessageBuffer message;
        int id = 0;
        switch (receive(message, id)) {
        case Session::Received::broken:
            finish(m_session.verdict());
            continue;
        case Session::Received::nothing:
            if (Interruption::signal() == 0) {
                finish({Lookup::Outcome::TryLater, LDAP_TIMEOUT,
                        m_session.uri() + ": no answer in time"});
            }
            continue;
        case Session::Received::message:
            break;
        }
        if (id != m_id) {
            continue;
        }
        switch (ldap_msgtype(message.get())) {
        case LDAP_RES_SEARCH_ENTRY:
            takeEntry(message);
            break;
        case LDAP_RES_SEARCH_REFERENCE:
            takeReference(message);
            break;
        case LDAP_RES_SEARCH_RESULT:
            takeResult(message);
            break;
        default: // other messages are allowed, and ignored
            break;
        }
        if (!m_entries.empty()) {
            return Item::entry;
        }
        if (!m_references.empty()) {
            return Item::reference;
        }
    }
    return Item::end;
}

/// The next message. While output blocks, the server may be silent because it cannot send: the time of
/// its silence begins with the wait.
Session::Received SearchRun::receive(LDAPMessageBuffer& message, int& id)
{
    auto const received = m_session.receive(message, id);
    if (received != Session::Received::nothing) {
        return received;
    }
    m_beforeWaiting();
    Patience const patience = {Clock::now(), m_silence, Clock::time_point::max()};
    return awaitMessage(m_session, patience, message, id, Interruption::descriptor());
}

void SearchRun::takeEntry(LDAPMessageBuffer const& message)
{
    if (!Lookup::readEntry(m_session.handle(), message.get(), m_entries)) {
        finishDamaged();
    }
}

void SearchRun::takeReference(LDAPMessageBuffer const& message)
{
    LDAPValueBuffer uris;
    int const rc =
        ldap_parse_reference(m_session.handle(), message.get(), uris.address(), nullptr, 0);
    for (char** uri = uris.get(); uri != nullptr && *uri != nullptr; ++uri) {
        m_references.emplace_back(*uri);
    }
    if (rc != LDAP_SUCCESS) {
        m_references.clear();
        finishDamaged();
    }
}

void SearchRun::takeResult(LDAPMessageBuffer const& message)
{
    ResultMessage const result = resultIn(m_session, message);
    std::list<LDAPOperation::Control> controls;
    LDAPControls::Page page;
    bool isPage = false;
    try {
        if (result.code == LDAP_DECODING_ERROR || !readControls(m_session, message, controls)) {
            finishDamaged();
            return;
        }
        LDAPControls::sort(controls, m_sortResult);
        isPage = LDAPControls::pagedResults(controls, page);
    } catch (LDAPException const&) { // "malformed control" is all that it says
        finishDamaged();
        return;
    }
    if (result.code != LDAP_SUCCESS) {
        finish({Lookup::outcomeOfSearch(result.code), result.code,
                fmt::format("{}: {}", m_session.uri(), wordsOf(result))});
    } else if (m_query.pageSize != 0 && !isPage) { // the control is critical: more may follow
        finishDamaged();
    } else if (m_query.pageSize != 0 && !page.cookie.empty()) {
        sendRequest(page.cookie);
    } else {
        finish({});
    }
}

void SearchRun::finish(Verdict const& verdict)
{
    m_isDone = true;
    m_verdict = verdict;
}

void SearchRun::finishDamaged()
{
    finish({Lookup::Outcome::TryLater, LDAP_DECODING_ERROR,
            m_session.uri() + ": the server sent an invalid response"});
}

} // namespace Solvane::Tool
