// Resolve, connect, StartTLS, handshake, bind, identify.
#include "SessionSteps.h"

#include <solvane/session/PlainText.h>
#include <solvane/session/ResultCodes.h>

#include <algorithm>

namespace Solvane::Lookup {

namespace {

using std::chrono::milliseconds;

constexpr int stepCount = static_cast<int>(Step::identify) + 1;

/// The name of a step in messages.
char const* nameOf(Step step)
{
    switch (step) {
    case Step::resolve:
        return "name resolution";
    case Step::connect:
        return "connection";
    case Step::startTls:
        return "StartTLS request";
    case Step::handshake:
        return "TLS handshake";
    case Step::bind:
        return "bind";
    case Step::identify:
        return "who am I request";
    }
    return "";
}

std::string textOf(LDAPCharBuffer const& text)
{
    return text.get() == nullptr ? std::string() : std::string(text.get());
}

/// The parsed result of a request.
struct Answer {
    bool isParsed;
    int code;
    std::string words; ///< text of the code and everything the server added
    bool isReferral = false;
};

/// Whether a server repeats a secret in its texts, which must not be shown or logged then.
bool repeats(std::string const& text, std::string const* secret)
{
    return secret != nullptr && !secret->empty() && text.find(*secret) != std::string::npos;
}

/// @param secret  that the request contained; null: none
Answer parsed(LDAP* session, LDAPMessage* message, std::string const* secret = nullptr)
{
    int code = LDAP_SUCCESS;
    LDAPCharBuffer matched;
    LDAPCharBuffer text;
    LDAPValueBuffer referrals;
    int const rc = ldap_parse_result(session, message, &code, matched.address(), text.address(),
                                     referrals.address(), nullptr, 0);
    if (rc != LDAP_SUCCESS) {
        return {false, 0, std::string(), false};
    }
    std::string words = wordsFor(code, textOf(text));
    if (!textOf(matched).empty()) {
        words += ", matched DN '" + oneLine(textOf(matched)) + '\'';
    }
    for (char** referral = referrals.get(); referral != nullptr && *referral != nullptr;
         ++referral) {
        words += ", see " + oneLine(*referral);
    }
    if (repeats(textOf(text), secret) || repeats(textOf(matched), secret) ||
        repeats(words, secret)) {
        words = wordsFor(code);
    }
    return {true, code, words, referrals.get() != nullptr && *referrals.get() != nullptr};
}

bool isType(LDAPMessage* message, ber_tag_t type)
{
    return static_cast<ber_tag_t>(ldap_msgtype(message)) == type;
}

/// Why no connection can be opened with these options; empty if they do not contradict each other.
std::string contradictionIn(SessionOptions const& options)
{
    if (!options.socketPath.empty() && !faultInSocketPath(options.socketPath).empty()) {
        return "the path of the socket " + faultInSocketPath(options.socketPath);
    }
    if (!options.socketPath.empty() && options.usesTls()) {
        return "TLS is not used on a UNIX socket: nothing leaves the host";
    }
    if (options.startTls && options.secure) {
        return "StartTLS is not possible on a connection that uses TLS from the first byte";
    }
    if (options.startTls && options.version < 3) {
        return "StartTLS needs LDAPv3";
    }
    if (options.mechanism != Mechanism::simple && options.version < 3) {
        return "a SASL bind needs LDAPv3";
    }
    if (options.mechanism != Mechanism::external || !options.socketPath.empty()) {
        return std::string();
    }
    if (!options.usesTls()) {
        return "SASL EXTERNAL needs TLS with a client certificate, or a UNIX socket";
    }
    bool const lacksCertificate = options.tls && options.tls->verdict().isGood() &&
                                  options.tls->policy().certificateFile.empty();
    return lacksCertificate
               ? "SASL EXTERNAL needs a client certificate: set its file and its key file"
               : std::string();
}

/// The response to a request whose responses have this type. Not parsed if it is of another one, or
/// a success with referrals, which is contradictory (RFC 4511 section 4.1.10).
Answer responseOf(LDAP* session, LDAPMessage* message, ber_tag_t type,
                  std::string const* secret = nullptr)
{
    Answer answer = parsed(session, message, secret);
    answer.isParsed = answer.isParsed && isType(message, type) &&
                      (answer.code != LDAP_SUCCESS || !answer.isReferral);
    return answer;
}

} // namespace

Session::Steps::Steps(SessionOptions given)
    : options(std::move(given)),
      uri(options.socketPath.empty() ? uriOf(options.secure, options.host, options.port)
                                     : uriOf(options.socketPath))
{
}

Session::Steps::~Steps() = default;

void Session::Steps::begin(Step last, Clock::time_point deadline)
{
    m_target = std::max(m_target, static_cast<int>(last) + 1);
    m_deadline = deadline;
    std::string const contradiction = contradictionIn(options);
    if (m_verdict.isGood() && !contradiction.empty()) {
        fail(Outcome::Misconfigured, LDAP_PARAM_ERROR, contradiction);
    }
    m_isUnderWay = verdict().isGood() && m_done < m_target;
    advance();
}

void Session::Steps::advance()
{
    while (m_isUnderWay) {
        auto const step = static_cast<Step>(m_done);
        if (!m_isStarted && applies(step) && !start(step)) {
            m_isUnderWay = false;
            return;
        }
        Progress const progress = applies(step) ? goOn(step) : Progress::done;
        if (progress == Progress::waiting && Clock::now() < stepEnd()) {
            return;
        }
        if (progress == Progress::waiting) {
            failForTime(step);
        }
        if (progress != Progress::done) {
            m_isUnderWay = false;
            return;
        }
        m_isStarted = false;
        ++m_done;
        m_isUnderWay = m_done < m_target;
    }
}

/// Whether a step is needed with these options.
bool Session::Steps::applies(Step step) const
{
    switch (step) {
    case Step::resolve:
        return options.addresses.empty() && options.socketPath.empty();
    case Step::startTls:
        return options.startTls;
    case Step::handshake:
        return options.usesTls();
    case Step::bind:
        return !options.isAnonymous();
    default:
        return true;
    }
}

/// Starts a step, unless no time is left for it. False: it has failed already.
bool Session::Steps::start(Step step)
{
    m_stepStart = Clock::now();
    if (m_stepStart >= stepEnd()) {
        fail(Outcome::TryLater, LDAP_TIMEOUT, std::string("no time left for the ") + nameOf(step));
        return false;
    }
    m_isStarted = true;
    switch (step) {
    case Step::resolve:
        m_resolver = std::make_unique<Resolver>(options.host, options.port, options.nameServers);
        return true;
    case Step::connect:
        if (!options.socketPath.empty()) {
            m_pathConnector = std::make_unique<PathConnector>(options.socketPath);
            return true;
        }
        if (addresses.empty()) {
            addresses = options.addresses;
        }
        m_connector = std::make_unique<Connector>(addresses);
        addresses = m_connector->order();
        return true;
    case Step::startTls:
        return sendTlsRequest();
    case Step::handshake:
        return startHandshake();
    case Step::bind:
        return startBind();
    case Step::identify:
        return startIdentify();
    }
    return false;
}

Session::Steps::Progress Session::Steps::goOn(Step step)
{
    switch (step) {
    case Step::resolve:
        return resolve();
    case Step::connect:
        return m_pathConnector ? connectToPath() : connect();
    case Step::startTls:
        return exchange(&Steps::takeTlsResponse);
    case Step::handshake:
        return handshake();
    case Step::bind:
        return exchange(&Steps::takeBindResponse);
    case Step::identify:
        return exchange(&Steps::takeIdentity);
    }
    return Progress::failed;
}

void Session::Steps::waits(Waits& waits) const
{
    if (m_isUnderWay) {
        waits.until(stepEnd());
        if (m_resolver) {
            m_resolver->waits(waits);
        } else if (m_connector) {
            m_connector->waits(waits);
        } else if (m_pathConnector) {
            m_pathConnector->waits(waits);
        } else if (m_conversation && m_isStarted && m_done == static_cast<int>(Step::handshake)) {
            Channel& channel = m_conversation->channel();
            waits.add(channel.socket().number(), channel.tls()->events());
        } else if (m_conversation) {
            m_conversation->channel().waits(waits);
        }
    } else if (m_conversation && m_verdict.isGood()) {
        m_conversation->channel().waits(waits);
    }
}

Step Session::Steps::step() const
{
    bool const isAtNext = m_isUnderWay || (!m_verdict.isGood() && m_done < stepCount);
    return static_cast<Step>(isAtNext ? m_done : std::max(m_done - 1, 0));
}

// Addresses and the connection

Session::Steps::Progress Session::Steps::resolve()
{
    m_resolver->advance();
    if (!m_resolver->isSettled()) {
        return Progress::waiting;
    }
    Verdict const verdict = m_resolver->verdict();
    addresses = m_resolver->addresses();
    m_resolver.reset();
    return verdict.isGood() ? Progress::done : failAs(verdict);
}

Session::Steps::Progress Session::Steps::connect()
{
    m_connector->advance();
    if (!m_connector->isSettled()) {
        return Progress::waiting;
    }
    std::unique_ptr<Connector> const connector = std::move(m_connector);
    if (!connector->peer()) {
        return failToConnect(connector->lacksSocket(), connector->failures());
    }
    peer = connector->peer()->text();
    return converse(connector->takeSocket());
}

Session::Steps::Progress Session::Steps::connectToPath()
{
    m_pathConnector->advance();
    if (!m_pathConnector->isSettled()) {
        return Progress::waiting;
    }
    std::unique_ptr<PathConnector> const connector = std::move(m_pathConnector);
    if (!connector->isConnected()) {
        return failToConnect(connector->lacksSocket(), connector->failure());
    }
    peer = options.socketPath;
    return converse(connector->takeSocket());
}

Session::Steps::Progress Session::Steps::failToConnect(bool lacksSocket, std::string const& why)
{
    return lacksSocket
               ? fail(Outcome::TryLater, LDAP_LOCAL_ERROR, "this process cannot connect: " + why)
               : fail(Outcome::TryLater, LDAP_SERVER_DOWN, "cannot connect: " + why);
}

/// Begins an OpenLDAP session on the connection.
Session::Steps::Progress Session::Steps::converse(Descriptor socket)
{
    m_conversation = std::make_unique<Conversation>(std::move(socket), options.version,
                                                    options.messageBytes, options.networkTimeout);
    return m_conversation->fault().isGood() ? Progress::done : failAs(m_conversation->fault());
}

// StartTLS and the handshake

/// Fails if the TLS settings are unusable; before anything is sent.
bool Session::Steps::canUseTls()
{
    if (!options.tls) {
        fail(Outcome::Misconfigured, LDAP_PARAM_ERROR, "TLS is not configured");
        return false;
    }
    if (!options.tls->verdict().isGood()) {
        failAs(options.tls->verdict());
        return false;
    }
    return true;
}

bool Session::Steps::sendTlsRequest()
{
    if (!canUseTls()) {
        return false;
    }
    return wasSent(m_conversation->startTls(m_id), Outcome::TryLater);
}

/// Only "busy" passes by itself: servers without a certificate answer "unavailable" to every
/// request.
Session::Steps::Progress Session::Steps::takeTlsResponse(LDAPMessageBuffer& answer)
{
    auto const response = responseOf(m_conversation->handle(), answer.get(), LDAP_RES_EXTENDED);
    if (!response.isParsed) {
        return failInvalid();
    }
    if (response.code != LDAP_SUCCESS) {
        return fail(response.code == LDAP_BUSY ? Outcome::TryLater : Outcome::Refused,
                    response.code, "the server refuses StartTLS: " + response.words);
    }
    // Bytes after the response arrived unprotected. They would be read as answers of the encrypted
    // connection.
    if (m_conversation->channel().hasInput()) {
        return fail(Outcome::Refused, LDAP_CONNECT_ERROR,
                    "unencrypted data follows the response to StartTLS; an attacker may have "
                    "injected it");
    }
    return Progress::done;
}

bool Session::Steps::startHandshake()
{
    if (!canUseTls()) {
        return false;
    }
    Channel& channel = m_conversation->channel();
    channel.secure(
        std::make_unique<TlsStream>(options.tls, channel.socket(), options.host, options.port));
    return true;
}

Session::Steps::Progress Session::Steps::handshake()
{
    TlsStream& tls = *m_conversation->channel().tls();
    switch (tls.handshake()) {
    case Flow::moved:
        return Progress::done;
    case Flow::blocked:
        return Progress::waiting;
    default:
        return failAs(tls.fault());
    }
}

// Bind

bool Session::Steps::startBind()
{
    switch (options.mechanism) {
    case Mechanism::simple:
        return startSimpleBind();
    case Mechanism::external:
        return startExternalBind();
    case Mechanism::gssapi:
        return startSaslBind();
    }
    return false;
}

bool Session::Steps::startSimpleBind()
{
    if (options.password == nullptr || options.password->empty()) {
        fail(Outcome::Misconfigured, LDAP_PARAM_ERROR,
             "an empty password is not sent: servers treat it as an anonymous bind");
        return false;
    }
    if (hasNul(options.bindDn) || hasNul(*options.password)) {
        fail(Outcome::Misconfigured, LDAP_PARAM_ERROR,
             "a bind DN or password with a NUL byte cannot be sent");
        return false;
    }
    identity = Identity::Unconfirmed;
    return wasBindSent(m_conversation->bind(options.bindDn, *options.password, m_id));
}

bool Session::Steps::startExternalBind()
{
    if (hasNul(options.authorizationId)) {
        fail(Outcome::Misconfigured, LDAP_PARAM_ERROR,
             "an authorization id with a NUL byte cannot be sent");
        return false;
    }
    identity = Identity::Unconfirmed;
    // Without an authorization id, the credentials are empty, but they are there: a server that gets
    // none may ask for them (RFC 4422 appendix A).
    return wasBindSent(m_conversation->saslBind("EXTERNAL", options.authorizationId, m_id));
}

/// @param code  of the call that queued the request of the current step
bool Session::Steps::wasSent(int code, Outcome otherwise)
{
    if (code != LDAP_SUCCESS) {
        fail(otherwise, code,
             std::string("cannot send the ") + nameOf(static_cast<Step>(m_done)) + ": " +
                 wordsFor(code));
    }
    return code == LDAP_SUCCESS;
}

bool Session::Steps::wasBindSent(int code) { return wasSent(code, outcomeOfBind(code)); }

/// Awaits the answer to the request of the step, and takes it. Taking it may send another request.
Session::Steps::Progress Session::Steps::exchange(Taking take)
{
    Message answer;
    while (awaitAnswer(answer) == Progress::done) {
        Progress const progress = (this->*take)(answer.parsed);
        if (progress != Progress::waiting) {
            return progress;
        }
    }
    return m_verdict.isGood() ? Progress::waiting : Progress::failed;
}

/// Awaits the final answer to the request of the step.
Session::Steps::Progress Session::Steps::awaitAnswer(Message& answer)
{
    // A server that never stops sending must not hold us up beyond the deadline.
    constexpr int messagesAtOnce = 64;
    m_conversation->channel().flush();
    for (int messages = 0; messages < messagesAtOnce; ++messages) {
        switch (m_conversation->receive(answer, true)) {
        case Received::message:
            // The root DSE entry is not the end of askForLife.
            if (answer.id == m_id && !isIntermediate(answer.type)) {
                return Progress::done;
            }
            break;
        case Received::nothing:
            return Progress::waiting;
        case Received::broken:
            breakOff(nameOf(static_cast<Step>(m_done)));
            return Progress::failed;
        }
    }
    return Progress::waiting;
}

Session::Steps::Progress Session::Steps::takeBindResponse(LDAPMessageBuffer& answer)
{
    bool const sentPassword = options.mechanism == Mechanism::simple;
    auto const response = responseOf(m_conversation->handle(), answer.get(), LDAP_RES_BIND,
                                     sentPassword ? options.password : nullptr);
    if (!response.isParsed) {
        return failInvalid();
    }
    if (m_exchange &&
        (response.code == LDAP_SUCCESS || response.code == LDAP_SASL_BIND_IN_PROGRESS)) {
        return takeSaslResponse(answer, response.code);
    }
    if (response.code == LDAP_SASL_BIND_IN_PROGRESS && options.mechanism == Mechanism::external) {
        return fail(Outcome::Refused, response.code,
                    "the bind is refused: the server asks for another step of SASL EXTERNAL, which "
                    "has none");
    }
    return response.code == LDAP_SUCCESS ? Progress::done
                                         : fail(outcomeOfBind(response.code), response.code,
                                                "the bind is refused: " + response.words);
}

// Who am I?

bool Session::Steps::startIdentify()
{
    // The kernel accepts connections for a stopped or killed server; only a reply proves that it is
    // alive. LDAPv2 has no extended operations.
    constexpr unsigned int firstThatKnowsTheQuestion = 3; // LDAPv2 has no extended operations
    return wasSent(options.version < firstThatKnowsTheQuestion ? m_conversation->askForLife(m_id)
                                                               : m_conversation->whoAmI(m_id),
                   Outcome::TryLater);
}

Session::Steps::Progress Session::Steps::takeIdentity(LDAPMessageBuffer& answer)
{
    LDAP* const session = m_conversation->handle();
    Lookup::Answer const response = parsed(session, answer.get());
    bool const isQuestion = isType(answer.get(), LDAP_RES_EXTENDED);
    if (!response.isParsed || (!isQuestion && !isType(answer.get(), LDAP_RES_SEARCH_RESULT))) {
        return failInvalid();
    }
    if (response.code == LDAP_BUSY || response.code == LDAP_UNAVAILABLE ||
        response.code == LDAP_OTHER) {
        return fail(Outcome::TryLater, response.code, "who am I request failed: " + response.words);
    }
    if (!isQuestion || response.code != LDAP_SUCCESS) {
        return Progress::done; // unsupported, or not allowed for this identity
    }
    OpenLDAPOwner<berval, releaseBerValue> name;
    if (ldap_parse_whoami(session, answer.get(), name.address()) != LDAP_SUCCESS) {
        return failInvalid();
    }
    authorizationId = name.get() == nullptr || name.get()->bv_val == nullptr
                          ? std::string()
                          : std::string(name.get()->bv_val, name.get()->bv_len);
    if (identity == Identity::Anonymous) {
        return Progress::done;
    }
    if (authorizationId.empty() || authorizationId == "dn:") {
        return fail(Outcome::Refused, LDAP_INAPPROPRIATE_AUTH,
                    std::string("accepted the bind but reports an anonymous identity; its answers "
                                "would not be those for the ") +
                        (options.mechanism == Mechanism::simple ? "bind DN" : "SASL identity"));
    }
    identity = Identity::Confirmed;
    return Progress::done;
}

// Requests

Session::Received Session::Steps::receive(Message& message, bool parsesEntries)
{
    if (!m_conversation || !m_verdict.isGood()) {
        breakOff(request);
        return Received::broken;
    }
    m_conversation->channel().flush();
    Received const received = m_conversation->receive(message, parsesEntries);
    if (received == Received::broken) {
        breakOff(request);
    }
    return received;
}

// Failures

Verdict Session::Steps::failure(Outcome outcome, int code, std::string const& text) const
{
    return Verdict{outcome, code, uri + ": " + text};
}

Session::Steps::Progress Session::Steps::fail(Outcome outcome, int code, std::string const& text)
{
    m_verdict = failure(outcome, code, text);
    return Progress::failed;
}

Session::Steps::Progress Session::Steps::failAs(Verdict const& verdict)
{
    return fail(verdict.outcome, verdict.code, verdict.text);
}

/// The response to the request of the current step is invalid.
Session::Steps::Progress Session::Steps::failInvalid()
{
    return fail(Outcome::TryLater, LDAP_DECODING_ERROR,
                std::string("invalid response to the ") + nameOf(static_cast<Step>(m_done)));
}

Session::Steps::Progress Session::Steps::failForTime(Step step)
{
    std::string const within =
        " within " + inSeconds(std::chrono::ceil<milliseconds>(stepEnd() - m_stepStart));
    std::string text;
    switch (step) {
    case Step::resolve:
        text = "no name server answered" + within;
        break;
    case Step::connect:
        text = "no connection" + within + ": " +
               (m_pathConnector ? m_pathConnector->failure() : m_connector->failures());
        break;
    case Step::handshake:
        text = "the TLS handshake was not finished" + within;
        break;
    default:
        text = std::string("did not answer the ") + nameOf(step) + within;
        break;
    }
    m_resolver.reset();
    m_connector.reset();
    m_pathConnector.reset();
    return fail(Outcome::TryLater, LDAP_TIMEOUT, text);
}

Verdict const& Session::Steps::breakOff(char const* during)
{
    if (m_verdict.isGood()) {
        m_verdict = broken(during);
        m_isUnderWay = false;
    }
    return m_verdict;
}

Verdict Session::Steps::broken(char const* during) const
{
    if (!m_verdict.isGood()) {
        return m_verdict;
    }
    if (!m_conversation) {
        return failure(Outcome::TryLater, LDAP_SERVER_DOWN, "not connected");
    }
    Verdict const& fault = m_conversation->fault();
    if (fault.isGood()) {
        return failure(Outcome::TryLater, LDAP_SERVER_DOWN,
                       "the connection belongs to another process");
    }
    // In TLS 1.3 the server rejects a client certificate after the handshake, with an alert.
    bool const isRejection = fault.code == LDAP_CONNECT_ERROR;
    return failure(fault.outcome, fault.code,
                   isRejection ? fault.text
                               : std::string("the connection broke during the ") + during + ": " +
                                     fault.text);
}

} // namespace Solvane::Lookup
