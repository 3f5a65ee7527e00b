// Each step of a connection with its time limit, and OpenLDAP's failures told apart.
#include <solvane/lookup/DirectorySession.h>

#include <solvane/lookup/PlainText.h>

#include "OpenLDAP.h"

#include <solvane/ldap/impl.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include <poll.h>

namespace Solvane::Lookup {

namespace {

using std::chrono::milliseconds;

timeval timevalOf(milliseconds time)
{
    // OpenLDAP counts in milliseconds in an int.
    long const count = static_cast<long>(std::clamp<milliseconds::rep>(time.count(), 0, INT_MAX));
    return timeval{count / 1000, count % 1000 * 1000};
}

std::string uriOf(LDAPConnection::Server const& server, std::string const& host)
{
    bool const isV6 = host.find(':') != std::string::npos;
    return std::string(server.secure ? "ldaps://" : "ldap://") + (isV6 ? '[' + host + ']' : host) +
           ':' + std::to_string(server.port);
}

std::string wordsFor(LDAPResult const& result)
{
    std::string words = Lookup::wordsFor(result.resultCode(), result.errorMessage());
    if (!result.matchedDN().empty()) {
        words += ", what exists is '" + oneLine(result.matchedDN()) + '\'';
    }
    for (std::string const& referral : result.referrals()) {
        words += ", see " + oneLine(referral);
    }
    return words;
}

/// Why the connect failed: what TLS has to say, or else the system.
std::string causeOf(LDAP* session, int error)
{
    LDAPCharBuffer text;
    ldap_get_option(session, LDAP_OPT_DIAGNOSTIC_MESSAGE, text.address());
    if (text.get() != nullptr && *text.get() != '\0') {
        return oneLine(text.get());
    }
    switch (error) {
    case 0:
        return "it closed the connection";
    case ENOTCONN: // a connect that failed; OpenLDAP asks after it in a way that loses the reason
        return "nobody listens there, or no way leads there";
    default:
        return strerror(error);
    }
}

std::string listOf(std::vector<std::string> const& names)
{
    std::string text;
    for (std::string const& name : names) {
        text.append(text.empty() ? "" : ", ").append(oneLine(name));
    }
    return text;
}

} // namespace

DirectorySession::DirectorySession(LDAPConnection::RefServer const& server, std::string const& host,
                                   TlsPolicy const& tls)
    : m_server(server), m_host(host), m_uri(uriOf(*server, host)), m_tls(tls)
{
}

bool DirectorySession::isVerified() const
{
    return m_server->secure && m_tls.verify != TlsVerify::none;
}

/// What a step may take: the network timeout, and no longer than up to the deadline.
milliseconds DirectorySession::allowed(Clock::time_point deadline) const
{
    std::chrono::seconds const networkTimeout(std::max(m_server->networkTimeout, 1U));
    auto const left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
    return std::clamp<milliseconds>(left, milliseconds(0), networkTimeout);
}

// Connect

Verdict DirectorySession::connect(Clock::time_point deadline)
{
    Verdict verdict = open(isVerified(), deadline);
    if (isVerified() && verdict.code == LDAP_SERVER_DOWN) {
        verdict = judgeHandshake(verdict, deadline);
    }
    if (verdict.isGood()) {
        verdict = checkName();
    }
    if (!verdict.isGood()) {
        m_connection = LDAPConnection();
    }
    return verdict;
}

/// Connects, and shakes hands where the server is secure. -1: the server is down, or broke off the
/// handshake, or we did.
Verdict DirectorySession::open(bool verifies, Clock::time_point deadline)
{
    m_certificate.reset();
    milliseconds const limit = allowed(deadline);
    if (limit.count() == 0) {
        return outOfTime("connection");
    }
    try {
        prepare(verifies, limit);
    } catch (Exception const& fault) {
        std::string const fileFault =
            verifies ? faultOfAuthorities(m_tls.authorities()) : std::string();
        return fileFault.empty()
                   ? failure(Outcome::TryLater, LDAP_SERVER_DOWN,
                             "no session can be made: " + oneLine(fault.stringParameter()))
                   : unusableAuthorities(fileFault);
    }
    auto const start = Clock::now();
    errno = 0;
    int const rc = ldap_connect(m_connection.impl()->session());
    int const error = errno;
    if (rc == LDAP_SUCCESS) {
        readCertificate();
        return Verdict();
    }
    constexpr milliseconds resolution(5); // OpenLDAP drops fractions of a millisecond
    bool const isTimeOver = error == ETIMEDOUT || Clock::now() - start + resolution >= limit;
    return isTimeOver
               ? failure(Outcome::TryLater, LDAP_TIMEOUT,
                         "no connection within " + inSeconds(limit))
               : failure(Outcome::TryLater, LDAP_SERVER_DOWN,
                         "cannot be reached: " + causeOf(m_connection.impl()->session(), error));
}

/// A new session that ends its connect at the limit, and its TLS handshake in less than a second
/// from there: the handshake is bounded in whole seconds.
void DirectorySession::prepare(bool verifies, milliseconds limit)
{
    auto const limited = new LDAPConnection::Server(*m_server);
    LDAPConnection::RefServer const server(limited);
    limited->networkTimeout =
        static_cast<unsigned int>(std::chrono::ceil<std::chrono::seconds>(limit).count());
    m_connection = LDAPConnection(server, false);
    if (verifies) {
        verifyChain();
    }
    timeval const timeout = timevalOf(limit);
    m_connection.impl()->setOption(LDAP_OPT_NETWORK_TIMEOUT, &timeout);
}

/// Has OpenLDAP verify the certificate's chain, and leave its names alone: it would compare them
/// with the URI, which holds an address. A context keeps the policy under which it was made, and the
/// session that of the moment of the handshake.
void DirectorySession::verifyChain()
{
    LDAPConnectionImpl& session = *m_connection.impl();
    int policy = LDAP_OPT_X_TLS_DEMAND;
    int const forServer = 0;
    session.setOption(LDAP_OPT_X_TLS_CACERTFILE, m_tls.authorities().c_str());
    session.setOption(LDAP_OPT_X_TLS_REQUIRE_CERT, &policy);
    session.setOption(LDAP_OPT_X_TLS_NEWCTX, &forServer);
    policy = LDAP_OPT_X_TLS_ALLOW;
    session.setOption(LDAP_OPT_X_TLS_REQUIRE_CERT, &policy);
}

/// Tells a refused certificate from a server that is down: OpenLDAP reports the two alike. It was
/// the certificate when the server shakes hands with whoever takes any, and fails again then.
Verdict DirectorySession::judgeHandshake(Verdict const& failed, Clock::time_point deadline)
{
    if (!open(false, deadline).isGood()) {
        return failed;
    }
    auto const shown = m_certificate;
    Verdict again = open(true, deadline);
    if (again.code != LDAP_SERVER_DOWN) {
        return again;
    }
    m_certificate = shown;
    std::string const fileFault = faultOfAuthorities(m_tls.authorities());
    if (!fileFault.empty()) {
        return unusableAuthorities(fileFault);
    }
    std::string const fault = shown ? shown->distrust(m_tls.authorities()) : "there is none";
    return failure(Outcome::Refused, LDAP_CONNECT_ERROR,
                   "the certificate is not accepted: " +
                       (fault.empty() ? "its chain is not complete" : oneLine(fault)));
}

Verdict DirectorySession::checkName()
{
    if (!m_server->secure || m_tls.verify != TlsVerify::full) {
        return Verdict();
    }
    if (!m_certificate) {
        return failure(Outcome::Refused, LDAP_CONNECT_ERROR, "the certificate cannot be read");
    }
    if (m_certificate->isFor(m_host)) {
        return Verdict();
    }
    std::string const names = listOf(m_certificate->names());
    return failure(Outcome::Refused, LDAP_CONNECT_ERROR,
                   "the certificate is not for '" + oneLine(m_host) + "', but for " +
                       (names.empty() ? oneLine(m_certificate->subject()) : names));
}

void DirectorySession::readCertificate()
{
    if (!m_server->secure) {
        return;
    }
    berval der = {0, nullptr};
    if (ldap_get_option(m_connection.impl()->session(), LDAP_OPT_X_TLS_PEERCERT, &der) !=
        LDAP_OPT_SUCCESS) {
        return;
    }
    LDAPCharBuffer owner;
    *owner.address() = der.bv_val;
    try {
        m_certificate.emplace(std::string(der.bv_val, der.bv_len));
    } catch (LDAPException const&) {
        m_certificate.reset(); // checkName() refuses what is not there
    }
}

std::string DirectorySession::tlsVersion() const { return tlsText(LDAP_OPT_X_TLS_VERSION); }

std::string DirectorySession::tlsCipher() const { return tlsText(LDAP_OPT_X_TLS_CIPHER); }

std::string DirectorySession::tlsText(int option) const
{
    if (!m_server->secure || !isOpen()) {
        return std::string();
    }
    LDAPCharBuffer text;
    ldap_get_option(m_connection.impl()->session(), option, text.address());
    return text.get() == nullptr ? std::string() : std::string(text.get());
}

// Bind

Verdict DirectorySession::bind(std::string const& dn, std::string const& password,
                               Clock::time_point deadline)
{
    if (dn.empty() || password.empty()) {
        return failure(Outcome::Misconfigured, LDAP_PARAM_ERROR,
                       std::string("an empty ") + (dn.empty() ? "bind DN" : "password") +
                           " is not sent, as servers take it as anonymous");
    }
    if (hasNul(dn) || hasNul(password)) {
        return failure(Outcome::Misconfigured, LDAP_PARAM_ERROR,
                       "a bind DN or password with a NUL byte cannot be sent");
    }
    milliseconds const limit = allowed(deadline);
    if (limit.count() == 0) {
        return outOfTime("bind");
    }
    Verdict verdict = sendBind(dn, password);
    LDAPMessageBuffer response;
    if (verdict.isGood()) {
        verdict = await(m_connection.id(), limit, "bind", response);
    }
    return verdict.isGood() ? takeBindResponse(response) : verdict;
}

Verdict DirectorySession::sendBind(std::string const& dn, std::string const& password)
{
    // A session that lost its connection would make a new one, whose certificate nobody looked at.
    if (!isOpen()) {
        return brokeOff("bind");
    }
    m_identity = Identity::Unconfirmed;
    Verdict verdict;
    try {
        m_connection.bind(dn, password, LDAPConnection::Asynchronous);
    } catch (Exception const& fault) {
        int const code = m_connection.openldapErrorCode();
        verdict = code == LDAP_SUCCESS || code == LDAP_SERVER_DOWN
                      ? brokeOff("bind")
                      : failure(outcomeOfBind(code), code,
                                "the bind cannot be sent: " + oneLine(fault.stringParameter()));
    }
    wipe(m_connection.impl()->m_bindPassword);
    return verdict;
}

/// Awaits the answer to one request.
Verdict DirectorySession::await(int id, milliseconds limit, char const* step,
                                LDAPMessageBuffer& message)
{
    timeval timeout = timevalOf(limit);
    int const rc =
        ldap_result(m_connection.impl()->session(), id, LDAP_MSG_ONE, &timeout, message.address());
    if (rc == 0) {
        return failure(Outcome::TryLater, LDAP_TIMEOUT,
                       std::string("did not answer the ") + step + " within " + inSeconds(limit));
    }
    return rc < 0 ? brokeOff(step) : Verdict();
}

Verdict DirectorySession::takeBindResponse(LDAPMessageBuffer& message)
{
    constexpr int bindResponse = 1;
    LDAPResult response(m_connection);
    bool isReadable = true;
    try {
        response.impl()->parseMessage(message);
    } catch (Exception const&) {
        isReadable = false; // or refers elsewhere; then there is a code
    }
    int const code = response.resultCode();
    if (response.resultType() != bindResponse || (!isReadable && code == LDAP_SUCCESS)) {
        return failure(Outcome::TryLater, LDAP_SERVER_DOWN,
                       "answered the bind with what is no answer");
    }
    if (code == LDAP_SUCCESS) {
        return Verdict();
    }
    return failure(outcomeOfBind(code), code, "the bind is refused: " + wordsFor(response));
}

// Who am I?

Verdict DirectorySession::confirmIdentity(Clock::time_point deadline)
{
    milliseconds const limit = allowed(deadline);
    if (limit.count() == 0) {
        return outOfTime("question who we are");
    }
    if (!isOpen()) {
        return brokeOff("question who we are");
    }
    int id = 0;
    int const rc = ldap_whoami(m_connection.impl()->session(), nullptr, nullptr, &id);
    if (rc == LDAP_NOT_SUPPORTED) { // protocol version 2
        return Verdict();
    }
    LDAPMessageBuffer response;
    Verdict const verdict = rc == LDAP_SUCCESS ? await(id, limit, "question who we are", response)
                                               : brokeOff("question who we are");
    return verdict.isGood() ? takeIdentity(response) : verdict;
}

Verdict DirectorySession::takeIdentity(LDAPMessageBuffer& message)
{
    LDAP* const session = m_connection.impl()->session();
    int code = LDAP_SUCCESS;
    LDAPCharBuffer text;
    OpenLDAPOwner<berval, releaseBerValue> identity;
    bool const isAnswer =
        static_cast<ber_tag_t>(ldap_msgtype(message.get())) == LDAP_RES_EXTENDED &&
        ldap_parse_result(session, message.get(), &code, nullptr, text.address(), nullptr, nullptr,
                          0) == LDAP_SUCCESS &&
        (code != LDAP_SUCCESS ||
         ldap_parse_whoami(session, message.get(), identity.address()) == LDAP_SUCCESS);
    if (!isAnswer) {
        return failure(Outcome::TryLater, LDAP_SERVER_DOWN,
                       "answered the question who we are with what is no answer");
    }
    if (code == LDAP_BUSY || code == LDAP_UNAVAILABLE || code == LDAP_OTHER) {
        return failure(Outcome::TryLater, code,
                       "does not say who we are: " +
                           wordsFor(code, text.get() == nullptr ? "" : text.get()));
    }
    if (code != LDAP_SUCCESS) { // it does not know the question, or does not answer it to us
        return Verdict();
    }
    berval const* const name = identity.get();
    m_authorizationId = name == nullptr || name->bv_val == nullptr
                            ? std::string()
                            : std::string(name->bv_val, name->bv_len);
    bool const isBound = m_identity != Identity::Anonymous;
    if (!isBound) {
        return Verdict();
    }
    if (m_authorizationId.empty() || m_authorizationId == "dn:") {
        return failure(Outcome::Refused, LDAP_INAPPROPRIATE_AUTH,
                       "took the bind and says that we are anonymous; what it then shows is not "
                       "what the bind DN may see");
    }
    m_identity = Identity::Confirmed;
    return Verdict();
}

// Requests

void DirectorySession::limits(unsigned int entries, unsigned int seconds)
{
    if (m_connection.isNull()) {
        return;
    }
    int const entryLimit = static_cast<int>(std::min<unsigned int>(entries, INT_MAX));
    int const timeLimit = static_cast<int>(std::min<unsigned int>(seconds, INT_MAX));
    ldap_set_option(m_connection.impl()->session(), LDAP_OPT_SIZELIMIT, &entryLimit);
    ldap_set_option(m_connection.impl()->session(), LDAP_OPT_TIMELIMIT, &timeLimit);
}

Verdict DirectorySession::send(LDAPSearch::Parameter const& parameter, int& id)
{
    // OpenLDAP cuts both at a NUL, and a filter cut short finds other entries.
    if (isBlank(parameter.filter) || hasNul(parameter.filter) || hasNul(parameter.baseDN)) {
        return failure(
            Outcome::Misconfigured, LDAP_FILTER_ERROR,
            "a filter that is empty, and a filter or base with a NUL byte, cannot be sent");
    }
    // A session that lost its connection would make a new one, without a look at its certificate.
    if (!isOpen()) {
        return brokeOff("search");
    }
    try {
        LDAPSearch search(m_connection, parameter);
        search.send();
        id = search.id();
        return Verdict();
    } catch (Exception const& fault) {
        int const recorded = m_connection.openldapErrorCode();
        int const code = recorded == LDAP_SUCCESS ? LDAP_PARAM_ERROR : recorded;
        if (code == LDAP_SERVER_DOWN) {
            return brokeOff("search");
        }
        m_connection.openldapErrorCode(LDAP_SUCCESS);
        return failure(outcomeOfSearch(code), code,
                       "the search cannot be sent: " + oneLine(fault.stringParameter()));
    }
}

int DirectorySession::receive(LDAPMessageBuffer& message, milliseconds timeout)
{
    message.free();
    timeval time = timevalOf(timeout);
    int const rc = ldap_result(m_connection.impl()->session(), LDAP_RES_ANY, LDAP_MSG_ONE, &time,
                               message.address());
    if (rc <= 0) {
        return rc;
    }
    int const id = ldap_msgid(message.get());
    return id > 0 ? id : -1; // 0: the server speaks unasked, as it does before it closes
}

void DirectorySession::abandon(int id)
{
    if (isOpen()) {
        ldap_abandon_ext(m_connection.impl()->session(), id, nullptr, nullptr);
    }
}

bool DirectorySession::isFresh() const
{
    pollfd looked = {descriptor(), POLLIN | POLLRDHUP, 0};
    return looked.fd != -1 && m_connection.impl()->isValid() &&
           !hasBufferedInput(m_connection.impl()->session()) && poll(&looked, 1, 0) == 0;
}

int DirectorySession::descriptor() const
{
    int number = -1;
    if (!m_connection.isNull() && m_connection.impl()->session() != nullptr) {
        ldap_get_option(m_connection.impl()->session(), LDAP_OPT_DESC, &number);
    }
    return number;
}

// Failures

Verdict DirectorySession::failure(Outcome outcome, int code, std::string const& text) const
{
    return Verdict{outcome, code, m_uri + ": " + text};
}

Verdict DirectorySession::unusableAuthorities(std::string const& fault) const
{
    std::string const file = m_tls.authorities();
    std::string const which = file.empty() ? "the system's list of authorities (ca-certificates) "
                                           : "the file of authorities '" + oneLine(file) + "' ";
    return failure(Outcome::Misconfigured, LDAP_PARAM_ERROR, which + fault);
}

Verdict DirectorySession::brokeOff(char const* step) const
{
    return failure(Outcome::TryLater, LDAP_SERVER_DOWN,
                   std::string("the connection broke during the ") + step);
}

Verdict DirectorySession::outOfTime(char const* step) const
{
    return failure(Outcome::TryLater, LDAP_TIMEOUT,
                   std::string("no time was left for the ") + step);
}

} // namespace Solvane::Lookup
