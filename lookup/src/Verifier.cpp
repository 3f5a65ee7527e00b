// From the entry of a key to the judgement of a server.
#include "Verifier.h"

#include "Denials.h"

#include <solvane/session/PlainText.h>

#include <ldap.h>

namespace Solvane::Lookup {

namespace {

/// Of a lookup or bind that did not lead to an answer of the directory about the password.
VerifyOutcome outcomeOf(Outcome outcome)
{
    switch (outcome) {
    case Outcome::Found: // the bind was accepted
        return VerifyOutcome::Accepted;
    case Outcome::NotFound:
        return VerifyOutcome::NotFound;
    case Outcome::Skipped:
        return VerifyOutcome::Skipped;
    case Outcome::BadKey:
        return VerifyOutcome::BadKey;
    case Outcome::TryLater:
        return VerifyOutcome::TryLater;
    case Outcome::Refused:
        return VerifyOutcome::Refused;
    case Outcome::Misconfigured:
        return VerifyOutcome::Misconfigured;
    }
    return VerifyOutcome::TryLater;
}

} // namespace

Verifier::Verifier(Shared& shared, std::string const& key, std::string const& password)
    : m_start(Clock::now()), m_login(password), m_finding(shared, 1, 1, shared.entryRequest),
      m_binding(*shared.logins, 1, 1)
{
    std::string const fault = faultOfPassword(password);
    if (!fault.empty()) {
        finish(VerifyOutcome::BadKey, LDAP_PARAM_ERROR, fault);
        return;
    }
    m_finding.push(key);
    m_finding.flush(); // sends the search
    if (m_finding.hasAnswer()) {
        takeEntry();
    }
}

void Verifier::advance()
{
    if (m_isDone) {
        return;
    }
    if (!m_isBinding) {
        m_finding.run();
        if (m_finding.hasAnswer()) {
            takeEntry();
        }
        return;
    }
    m_binding.run();
    if (m_binding.hasAnswer()) {
        takeBind();
    }
}

void Verifier::waits(Waits& waits) const
{
    if (!m_isDone) {
        (m_isBinding ? m_binding : m_finding).waits(waits);
    }
}

void Verifier::takeEntry()
{
    Answer const answer = std::move(m_finding.front().answer);
    m_finding.pop();
    m_finding.rest(); // other callers may use the connection from now on
    m_result.server = answer.server;
    if (answer.entries.size() > 1) { // perhaps with "size limit exceeded"
        finish(VerifyOutcome::Misconfigured, answer.code,
               answer.server + ": several entries match, such as '" +
                   oneLine(answer.entries.front().dn()) + "' and '" +
                   oneLine(answer.entries.back().dn()) + '\'');
        return;
    }
    if (answer.outcome != Outcome::Found) {
        finish(outcomeOf(answer.outcome), answer.code, answer.text);
        return;
    }
    m_login.dn = m_result.dn = answer.entries.front().dn();
    if (m_login.dn.empty()) {
        finish(VerifyOutcome::Misconfigured, LDAP_PARAM_ERROR,
               answer.server + ": the entry found is the root DSE, which has no DN to bind as");
        return;
    }
    m_login.server = answer.server;
    m_isBinding = true;
    m_binding.push(m_login, m_start);
    m_binding.flush();
    if (m_binding.hasAnswer()) {
        takeBind();
    }
}

void Verifier::takeBind()
{
    Answer const& answer = m_binding.front().answer;
    if (!answer.server.empty()) {
        m_result.server = answer.server;
    }
    bool const isAccepted = answer.outcome == Outcome::Found;
    if (isAccepted) {
        m_result.expiresIn = m_login.result.expiresIn;
        m_result.graceLogins = m_login.result.graceLogins;
    }
    m_result.denial = m_login.denial;
    finish(m_login.denial != Denial::none ? VerifyOutcome::Denied : outcomeOf(answer.outcome),
           answer.code, answer.text);
    m_binding.rest();
}

void Verifier::finish(VerifyOutcome outcome, int code, std::string const& text)
{
    m_result.outcome = outcome;
    m_result.code = code;
    m_result.text = text;
    std::chrono::duration<double, std::milli> const taken = Clock::now() - m_start;
    m_result.milliseconds = taken.count();
    wipe(m_login.password);
    m_isDone = true;
}

} // namespace Solvane::Lookup
