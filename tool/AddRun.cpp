// The order of sending, and the answers as they come.
#include "AddRun.h"

#include "OpenLDAP.h"
#include "Text.h"

#include <solvane/ldap/impl.h>

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace Solvane::Tool {

namespace {

using std::chrono::milliseconds;

constexpr int addResponse = 6; // as LDAPResult counts kinds

void freeDn(LDAPDN dn) { ldap_dnfree(dn); }
using Dn = std::unique_ptr<std::remove_pointer_t<LDAPDN>, void (*)(LDAPDN)>;

char inLowerCase(char character)
{
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
                                                : character;
}

/// A DN and those above it, nearest first, in a form in which they can be compared; empty where
/// the text is no DN.
std::vector<std::string> namesOf(std::string const& text)
{
    LDAPDN parsed = nullptr;
    if (ldap_str2dn(text.c_str(), &parsed, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS) {
        return {};
    }
    Dn const dn(parsed, freeDn);
    std::vector<std::string> names;
    for (LDAPDN part = parsed; part != nullptr && *part != nullptr; ++part) {
        LDAPCharBuffer written;
        if (ldap_dn2str(part, written.address(), LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS) {
            return {};
        }
        std::string name = written.get();
        std::transform(name.begin(), name.end(), name.begin(), inLowerCase);
        names.push_back(std::move(name));
    }
    return names;
}

AddReport::Status statusOf(int code)
{
    switch (code) {
    case LDAP_SUCCESS:
        return AddReport::Status::added;
    case LDAP_ALREADY_EXISTS:
        return AddReport::Status::exists;
    default:
        return AddReport::Status::refused;
    }
}

/// OpenLDAP's words for a code, with the server's where it has some of its own.
std::string wordsFor(LDAPResult const& result)
{
    int const code = result.resultCode();
    if (code == LDAP_SUCCESS) {
        return {};
    }
    std::string words = ldap_err2string(code);
    if (!result.errorMessage().empty() && result.errorMessage() != words) {
        words += ": " + oneLine(result.errorMessage());
    }
    if (!result.matchedDN().empty()) {
        words += fmt::format(", what exists is '{}'", oneLine(result.matchedDN()));
    }
    for (std::string const& referral : result.referrals()) {
        words += ", see " + oneLine(referral);
    }
    return words;
}

} // namespace

AddRun::AddRun(Limits const& limits, Connect connect, Sink sink)
    : m_limits(limits), m_connect(std::move(connect)), m_sink(std::move(sink))
{
}

void AddRun::add(LdifEntry const& entry)
{
    std::vector<std::string> const names = namesOf(entry.dn);
    if (names.empty()) {
        refuse(entry, LDAP_INVALID_DN_SYNTAX, "it is no DN", "correct the DN");
        return;
    }
    takeWhatCame();
    while (mustWait(names)) {
        awaitOne();
    }
    if (mayGoOn()) {
        connect();
        send(entry, names.front());
    }
}

void AddRun::refuse(LdifEntry const& entry, int code, std::string const& text,
                    std::string const& remedy)
{
    m_pending.emplace_back();
    m_pending.back().report.line = entry.line;
    m_pending.back().report.dn = entry.dn;
    m_pending.back().report.remedy = remedy;
    settle(m_pending.back(), code, text);
    reportFinished();
}

void AddRun::finish()
{
    while (!m_inFlight.empty()) {
        awaitOne();
    }
}

/// Sees to a connection that can be sent on. One with adds in flight is in use; one without may
/// have been closed meanwhile, and nothing is lost by a new one.
void AddRun::connect()
{
    if (m_session && m_inFlight.empty() && !m_session->isFresh()) {
        m_session.reset();
    }
    if (!m_session) {
        m_session = m_connect();
    }
}

void AddRun::send(LdifEntry const& entry, std::string const& name)
{
    auto const now = Clock::now();
    if (m_inFlight.empty()) {
        m_lastHeard = now;
    }
    auto const pending = m_pending.insert(m_pending.end(), Pending());
    pending->report.line = entry.line;
    pending->report.dn = entry.dn;
    pending->report.server = m_session->uri();
    pending->name = name;
    pending->expiry = now + m_limits.answer;

    std::string dn = entry.dn;
    LDAPAdd add(m_session->connection(), dn);
    add.attributes(entry.attributes);
    try {
        add.send();
        m_inFlight.emplace(add.id(), pending);
        m_names.insert(name);
    } catch (LDAPException const& fault) {
        int code = LDAP_OTHER;
        m_session->connection().impl()->getOption(LDAP_OPT_RESULT_CODE, &code);
        if (code == LDAP_SERVER_DOWN) { // a part of it may have been sent
            lose(code, "connection lost before the answer");
        } else {
            settle(*pending, code, "it cannot be sent: " + oneLine(fault.stringParameter()));
        }
        reportFinished();
    }
}

/// Whether one of the DNs is in flight, or there is no room.
bool AddRun::mustWait(std::vector<std::string> const& names) const
{
    return m_inFlight.size() >= m_limits.window ||
           std::any_of(names.begin(), names.end(),
                       [&](std::string const& name) { return m_names.count(name) != 0; });
}

void AddRun::takeWhatCame()
{
    LDAPMessageBuffer message;
    while (!m_inFlight.empty()) {
        int const id = m_session->receive(message, milliseconds(0));
        if (id == 0) {
            return;
        }
        take(id, message);
    }
}

void AddRun::awaitOne()
{
    Clock::time_point limit = m_lastHeard + m_limits.silence;
    for (auto const& [id, pending] : m_inFlight) {
        limit = std::min(limit, pending->expiry);
    }
    auto const left = std::chrono::ceil<milliseconds>(limit - Clock::now());
    LDAPMessageBuffer message;
    int const id = m_session->receive(message, std::max(left, milliseconds(0)));
    if (id == 0) {
        lose(LDAP_TIMEOUT, "no answer in time");
    } else {
        take(id, message);
    }
}

void AddRun::take(int id, LDAPMessageBuffer& message)
{
    if (id < 0) {
        lose(LDAP_SERVER_DOWN, "connection lost before the answer");
        return;
    }
    m_lastHeard = Clock::now();
    auto const found = m_inFlight.find(id);
    if (found == m_inFlight.end()) {
        return;
    }
    LDAPResult result(m_session->connection());
    try {
        result.impl()->parseMessage(message);
    } catch (Exception const&) {
        // A referral, which leaves a code; or no LDAP, which leaves none.
    }
    if (result.resultType() != addResponse) {
        lose(LDAP_DECODING_ERROR, "the server sent what is no answer");
        return;
    }
    Pending& pending = *found->second;
    m_names.erase(m_names.find(pending.name));
    m_inFlight.erase(found);
    settle(pending, result.resultCode(), wordsFor(result));
    reportFinished();
}

/// Gives the connection up. Whether what is in flight was added cannot be known.
void AddRun::lose(int code, std::string const& why)
{
    for (Pending& pending : m_pending) {
        if (!pending.isDone) {
            pending.report.code = code;
            pending.report.text = why;
            conclude(pending);
        }
    }
    m_inFlight.clear();
    m_names.clear();
    m_session.reset();
    reportFinished();
}

void AddRun::settle(Pending& pending, int code, std::string const& text)
{
    pending.report.code = code;
    pending.report.status = statusOf(code);
    pending.report.text = text;
    conclude(pending);
}

void AddRun::conclude(Pending& pending)
{
    bool const isUnknown = pending.report.status == AddReport::Status::unknown;
    m_worst = worse(m_worst, isUnknown ? Outcome::tryLater : outcomeOfAdd(pending.report.code));
    pending.isDone = true;
}

void AddRun::reportFinished()
{
    while (!m_pending.empty() && m_pending.front().isDone) {
        m_sink(m_pending.front().report);
        m_pending.pop_front();
    }
}

} // namespace Solvane::Tool
