// The rounds of a SASL bind.
#include "SessionSteps.h"

#include <solvane/session/PlainText.h>
#include <solvane/session/ResultCodes.h>

#include "SaslExchange.h"

#include <climits>

#include <unistd.h>

namespace Solvane::Lookup {

namespace {

using std::chrono::milliseconds;

/// GSSAPI takes three; one more if the clocks differ.
constexpr int mostRounds = 8;

/// The host of the service's name. A server behind a UNIX socket is on this one.
std::string serviceHost(SessionOptions const& options)
{
    char name[HOST_NAME_MAX + 1] = {};
    if (options.host.empty() && gethostname(name, sizeof name - 1) == 0) {
        return name;
    }
    return options.host;
}

} // namespace

bool Session::Steps::startSaslBind()
{
    if (hasNul(options.authorizationId)) {
        fail(Outcome::Misconfigured, LDAP_PARAM_ERROR,
             "an authorization id with a NUL byte cannot be sent");
        return false;
    }
    bool const isPlain = tls() == nullptr;
    std::string const binding = tls() == nullptr ? std::string() : tls()->serverEndPoint();
    m_exchange = std::make_unique<SaslExchange>(serviceHost(options), options.authorizationId,
                                                isPlain, binding);
    m_rounds = 0;
    if (!m_exchange->start()) {
        failAs(m_exchange->fault());
        return false;
    }
    return sendSaslRound();
}

bool Session::Steps::sendSaslRound()
{
    auto const now = Clock::now();
    if (now >= stepEnd()) { // the Kerberos library has waited for a KDC
        auto const taken = std::chrono::ceil<milliseconds>(now - m_stepStart);
        fail(Outcome::TryLater, LDAP_TIMEOUT, "Kerberos took " + inSeconds(taken));
        return false;
    }
    if (++m_rounds > mostRounds) {
        fail(Outcome::TryLater, LDAP_DECODING_ERROR, "the SASL bind does not end");
        return false;
    }
    identity = Identity::Unconfirmed;
    int const code =
        m_conversation->saslBind(SaslExchange::mechanism, m_exchange->credentials(), m_id);
    if (code == LDAP_NOT_SUPPORTED) {
        fail(Outcome::Misconfigured, LDAP_PARAM_ERROR, "a SASL bind needs LDAPv3");
        return false;
    }
    return wasBindSent(code);
}

/// Takes a bind response with code 14 or 0.
Session::Steps::Progress Session::Steps::takeSaslResponse(LDAPMessageBuffer& answer, int code)
{
    OpenLDAPOwner<berval, releaseBerValue> sent;
    if (ldap_parse_sasl_bind_result(m_conversation->handle(), answer.get(), sent.address(), 0) ==
        LDAP_DECODING_ERROR) {
        return fail(Outcome::TryLater, LDAP_DECODING_ERROR, "invalid response to the bind");
    }
    std::string_view const credentials =
        sent.get() == nullptr ? std::string_view()
                              : std::string_view(sent.get()->bv_val, sent.get()->bv_len);
    if (code == LDAP_SASL_BIND_IN_PROGRESS) {
        if (!m_exchange->answer(credentials)) {
            return failAs(m_exchange->fault());
        }
        return sendSaslRound() ? Progress::waiting : Progress::failed;
    }
    if (!m_exchange->end(credentials)) {
        return failAs(m_exchange->fault());
    }
    if (m_exchange->hasLayer() && !m_conversation->channel().protect(std::move(m_exchange))) {
        return fail(Outcome::TryLater, LDAP_DECODING_ERROR,
                    "the server accepted the bind before it received it");
    }
    m_exchange.reset();
    return Progress::done;
}

} // namespace Solvane::Lookup
