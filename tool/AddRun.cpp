// Sends adds in order and matches the answers to them.
#include "AddRun.h"

#include "Change.h"
#include "Files.h"
#include "OpenLDAP.h"
#include "Sessions.h"

#include <solvane/ldap/LDAPDistinguishedName.h>
#include <solvane/ldap/impl/LDAPAdapters.h>

#include <algorithm>
#include <string_view>
#include <utility>

namespace Solvane::Tool {

namespace {

using Lookup::Session;

/// The DN, normalized for comparison; empty if it is invalid.
std::string normalized(std::string const& dn)
{
    try {
        return LDAPDistinguishedName::parse(dn).normalized();
    } catch (LDAPException const&) { // "invalid DN" is all that is reported
        return {};
    }
}

/// Whether a DN is another one or below it; both are normalized.
bool isAtOrBelow(std::string_view dn, std::string_view base)
{
    if (dn.size() <= base.size()) {
        return dn == base;
    }
    std::size_t const comma = dn.size() - base.size() - 1;
    std::size_t escapes = 0; // a comma behind an odd number of them belongs to a value
    while (escapes < comma && dn[comma - 1 - escapes] == '\\') {
        ++escapes;
    }
    return dn[comma] == ',' && escapes % 2 == 0 && dn.substr(comma + 1) == base;
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

} // namespace

AddRun::AddRun(Limits const& limits, Connect connect, Sink sink)
    : m_limits(limits), m_connect(std::move(connect)), m_sink(std::move(sink))
{
}

void AddRun::add(LdifEntry const& entry)
{
    std::string const name = normalized(entry.dn);
    if (name.empty()) {
        refuse(entry, LDAP_INVALID_DN_SYNTAX, "invalid DN", "correct the DN");
        return;
    }
    takeWhatCame();
    while (mustWait(name)) {
        awaitOne();
    }
    if (mayGoOn()) {
        connect();
        send(entry, name);
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

bool AddRun::awaitInput(int descriptor)
{
    while (mayGoOn() && !m_inFlight.empty() && !hasInput(descriptor, 0)) {
        awaitOne(descriptor);
    }
    return mayGoOn() && waitForInput(descriptor);
}

void AddRun::finish()
{
    while (!m_inFlight.empty()) {
        awaitOne();
    }
}

/// Ensures a usable connection. With adds in flight, the current one stays. An idle one may have
/// been closed by the server meanwhile; replacing it loses nothing.
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
        m_owedSince = now;
    }
    auto const pending = m_pending.insert(m_pending.end(), Pending());
    pending->report.line = entry.line;
    pending->report.dn = entry.dn;
    pending->report.server = m_session->uri();
    pending->name = name;
    pending->expiry = now + m_limits.answer;

    LDAPAttributeContainer const attributes(entry.attributes);
    LDAPModAdapter const modifications(attributes, LDAP_MOD_ADD);
    int id = 0;
    int const rc = ldap_add_ext(m_session->handle(), entry.dn.c_str(), modifications.mods, nullptr,
                                nullptr, &id);
    if (rc == LDAP_SUCCESS) {
        m_session->expect(id);
        m_session->flush();
        m_inFlight.emplace(id, pending);
        m_names.insert(name);
    } else if (rc == LDAP_SERVER_DOWN) { // part of the request may have been sent
        lose(rc, "connection lost before the answer");
    } else {
        settle(*pending, rc, std::string("cannot send the add: ") + ldap_err2string(rc));
        reportFinished();
    }
}

/// Whether the window is full, or one of the DNs (the entry itself or an ancestor) is in flight.
bool AddRun::mustWait(std::string const& name) const
{
    return m_inFlight.size() >= m_limits.window ||
           std::any_of(m_names.begin(), m_names.end(),
                       [&](std::string const& other) { return isAtOrBelow(name, other); });
}

void AddRun::takeWhatCame()
{
    LDAPMessageBuffer message;
    while (!m_inFlight.empty()) {
        int id = 0;
        auto const received = m_session->receive(message, id);
        if (received == Session::Received::nothing) {
            return;
        }
        take(received, id, message);
    }
}

/// Takes one message, unless there is input first.
void AddRun::awaitOne(int input)
{
    Patience patience = {m_owedSince, m_limits.silence, Clock::time_point::max()};
    for (auto const& [id, pending] : m_inFlight) {
        patience.deadline = std::min(patience.deadline, pending->expiry);
    }
    LDAPMessageBuffer message;
    int id = 0;
    auto const received = awaitMessage(*m_session, patience, message, id, input);
    if (received != Session::Received::nothing || input == -1 || !hasInput(input, 0)) {
        take(received, id, message);
    }
}

void AddRun::take(Session::Received received, int id, LDAPMessageBuffer const& message)
{
    if (received == Session::Received::nothing) {
        lose(LDAP_TIMEOUT, "no answer in time");
        return;
    }
    if (received == Session::Received::broken) {
        lose(m_session->verdict().code, "connection lost before the answer");
        return;
    }
    auto const found = m_inFlight.find(id);
    if (found == m_inFlight.end()) {
        return;
    }
    ResultMessage result;
    if (ldap_msgtype(message.get()) == LDAP_RES_ADD) {
        result = resultIn(*m_session, message);
    } else {
        result.code = LDAP_DECODING_ERROR;
    }
    if (result.code == LDAP_DECODING_ERROR) {
        lose(result.code, "the server sent an invalid response");
        return;
    }
    Pending& pending = *found->second;
    m_names.erase(m_names.find(pending.name));
    m_inFlight.erase(found);
    settle(pending, result.code, wordsFor(result));
    reportFinished();
}

/// Drops the connection. Adds in flight become `unknown`: the server may have executed them.
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
