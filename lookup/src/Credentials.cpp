// One pending bind at a time, and a pause after a refusal.
#include "Credentials.h"

#include <ldap.h>

namespace Solvane::Lookup {

bool Credentials::areRefused(int code, Mechanism mechanism)
{
    bool const isOfSasl = code == LDAP_INAPPROPRIATE_AUTH || code == LDAP_INSUFFICIENT_ACCESS;
    return code == LDAP_INVALID_CREDENTIALS || (isOfSasl && mechanism != Mechanism::simple);
}

Credentials::Turn Credentials::turn(Clock::time_point now) const
{
    if (m_isAccepted) {
        return Turn::bind;
    }
    if (m_wasRefused && now < m_heldUntil) {
        return Turn::refuse;
    }
    return now < m_claimedUntil ? Turn::wait : Turn::bind;
}

Verdict Credentials::refusal(Clock::time_point now) const
{
    auto const left = std::chrono::ceil<std::chrono::seconds>(m_heldUntil - now);
    Verdict verdict = m_why;
    verdict.text += "; not tried again for " + std::to_string(left.count()) + " s";
    return verdict;
}

std::size_t Credentials::firstServer(std::size_t servers) const
{
    return m_isAccepted || !m_wasRefused ? 0 : (m_refusedBy + 1) % servers;
}

void Credentials::accepted()
{
    m_isAccepted = true;
    leftOpen();
}

void Credentials::refused(std::size_t server, Verdict const& why, Clock::time_point now)
{
    leftOpen();
    if (m_isAccepted) {
        return;
    }
    m_wasRefused = true;
    m_refusedBy = server;
    m_heldUntil = now + m_hold;
    m_why = why;
}

} // namespace Solvane::Lookup
