// The public calls of a session: opening by steps, then requests.
#include <solvane/session/Session.h>

#include <solvane/session/PlainText.h>
#include <solvane/session/ResultCodes.h>

#include "SessionSteps.h"

#include <utility>

#include <ldap.h>

namespace Solvane::Lookup {

namespace {

std::optional<Certificate> const g_none;

} // namespace

Session::Session(SessionOptions options) : m_steps(std::make_unique<Steps>(std::move(options))) {}
Session::~Session() = default;

void Session::initializeOpenLdap()
{
    int version = 0; // any of the defaults
    ldap_get_option(nullptr, LDAP_OPT_PROTOCOL_VERSION, &version);
}

// Opening

void Session::begin(Step last, Clock::time_point deadline) { m_steps->begin(last, deadline); }
void Session::advance() { m_steps->advance(); }
void Session::waits(Waits& waits) const { m_steps->waits(waits); }
bool Session::isSettled() const { return m_steps->isSettled(); }

Verdict Session::reach(Step last, Clock::time_point deadline)
{
    Waits waits;
    begin(last, deadline);
    while (!isSettled()) {
        waits.clear();
        m_steps->waits(waits);
        waits.wait();
        advance();
    }
    return verdict();
}

Step Session::step() const { return m_steps->step(); }
bool Session::isDone(Step step) const { return m_steps->isDone(step); }
Verdict const& Session::verdict() const { return m_steps->verdict(); }

// Properties of the connection

std::vector<Address> const& Session::addresses() const { return m_steps->addresses; }
std::string Session::peer() const { return m_steps->peer; }
std::string const& Session::uri() const { return m_steps->uri; }
std::string Session::tlsVersion() const
{
    TlsStream const* const tls = m_steps->tls();
    return tls == nullptr ? std::string() : tls->version();
}
std::string Session::tlsCipher() const
{
    TlsStream const* const tls = m_steps->tls();
    return tls == nullptr ? std::string() : tls->cipher();
}
bool Session::isTlsResumed() const
{
    TlsStream const* const tls = m_steps->tls();
    return tls != nullptr && tls->isResumed();
}
std::optional<Certificate> const& Session::certificate() const
{
    TlsStream const* const tls = m_steps->tls();
    return tls == nullptr ? g_none : tls->certificate();
}
Identity Session::identity() const { return m_steps->identity; }
std::string const& Session::authorizationId() const { return m_steps->authorizationId; }

// Requests

Verdict Session::send(SearchRequest const& request, std::string const& filter, int& id)
{
    m_steps->request = "search";
    // OpenLDAP cuts both at a NUL, and a truncated filter would match other entries.
    if (isBlank(filter) || hasNul(filter) || hasNul(request.base)) {
        return m_steps->failure(Outcome::Misconfigured, LDAP_FILTER_ERROR,
                                "the filter is empty, or filter or base contain a NUL byte");
    }
    Conversation* const conversation = m_steps->conversation();
    if (conversation == nullptr || !verdict().isGood() || !conversation->channel().isWhole()) {
        return m_steps->broken("search"); // input received before can still be read
    }
    int const code = conversation->search(request, filter, id);
    if (code == LDAP_SUCCESS) {
        return Verdict();
    }
    if (code == LDAP_SERVER_DOWN) {
        return m_steps->broken("search");
    }
    return m_steps->failure(outcomeOfSearch(code), code,
                            "cannot send the search: " + wordsFor(code, filter));
}

Verdict Session::authenticate(std::string const& dn, std::string const& password, int& id)
{
    if (dn.empty() || password.empty() || hasNul(dn) || hasNul(password)) {
        return m_steps->failure(
            Outcome::Misconfigured, LDAP_PARAM_ERROR,
            "a DN or password that is empty or contains a NUL byte is not sent");
    }
    Conversation* const conversation = m_steps->conversation();
    if (conversation == nullptr || !verdict().isGood() || !conversation->channel().isWhole()) {
        return m_steps->broken("bind");
    }
    if (conversation->isAwaiting()) {
        return m_steps->failure(Outcome::Misconfigured, LDAP_PARAM_ERROR,
                                "a bind cannot be sent while other requests are pending");
    }
    m_steps->request = "bind";
    int const code = conversation->bind(dn, password, id, true);
    if (code == LDAP_SUCCESS) {
        return Verdict();
    }
    return code == LDAP_SERVER_DOWN ? m_steps->broken("bind")
                                    : m_steps->failure(outcomeOfBind(code), code,
                                                       "cannot send the bind: " + wordsFor(code));
}

void Session::expect(int id, char const* kind)
{
    m_steps->request = kind;
    if (Conversation* const conversation = m_steps->conversation()) {
        conversation->expect(id);
    }
}

void Session::abandon(int id)
{
    Conversation* const conversation = m_steps->conversation();
    if (conversation != nullptr && conversation->channel().isWhole()) {
        conversation->abandon(id);
    }
}

void Session::flush()
{
    if (Conversation* const conversation = m_steps->conversation()) {
        conversation->channel().flush();
    }
}

Session::Received Session::receive(LDAPMessageBuffer& message, int& id)
{
    Message next;
    Received const received = m_steps->receive(next, true);
    message.free();
    if (received == Received::message) {
        std::swap(*message.address(), *next.parsed.address());
        id = next.id;
    }
    return received;
}

Session::Received Session::receive(Message& message) { return m_steps->receive(message, false); }

std::size_t Session::messageSize() const
{
    Conversation* const conversation = m_steps->conversation();
    return conversation == nullptr ? 0 : conversation->messageSize();
}

Clock::time_point Session::heardAt() const
{
    Conversation* const conversation = m_steps->conversation();
    return conversation == nullptr ? Clock::time_point()
                                   : conversation->channel().socket().heardAt();
}

std::uint64_t Session::receivedBytes() const
{
    Conversation* const conversation = m_steps->conversation();
    return conversation == nullptr ? 0 : conversation->channel().receivedBytes();
}

bool Session::isFresh() const
{
    Conversation* const conversation = m_steps->conversation();
    return conversation != nullptr && verdict().isGood() && isSettled() &&
           conversation->channel().isFresh();
}

LDAP* Session::handle() const
{
    Conversation* const conversation = m_steps->conversation();
    return conversation == nullptr ? nullptr : conversation->handle();
}

} // namespace Solvane::Lookup
