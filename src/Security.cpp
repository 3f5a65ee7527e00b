// StartTLS and SASL binds.
#include <solvane/ldap/LDAPConnection.h>

#include <solvane/ldap/impl/LDAPConnectionImpl.h>
#include <solvane/ldap/impl/OpenLDAPOwners.h>

#include "OpenLDAP.h"
#include "ProcessDefaults.h"
#include "SocketGuard.h"
#include "ThrowSite.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>

#include <sasl/sasl.h>

namespace Solvane {

namespace {
// clang-format off
namespace at { // what unit "Security" reports
constexpr char unit[] = "Security.cpp";
constexpr char traceUnit[] = "Security";
//                                                line  fault                stage
constexpr ThrowSite startTlsNullHandle   { unit,   41, Fault::nullHandle,   Stage::general };
constexpr ThrowSite startTlsNoSession    { unit,   48, Fault::failed,       Stage::bind    };
constexpr ThrowSite hasTls               { unit,   55, Fault::failed,       Stage::bind    };
constexpr ThrowSite startTlsFailed       { unit,   76, Fault::failed,       Stage::bind    };
constexpr ThrowSite bindSaslNullHandle   { unit,  101, Fault::nullHandle,   Stage::general };
constexpr ThrowSite bindSaslNoSession    { unit,  108, Fault::failed,       Stage::bind    };
constexpr ThrowSite unknownMechanism     { unit,  115, Fault::invalidInput, Stage::general };
constexpr ThrowSite bindSaslFailed       { unit,  136, Fault::failed,       Stage::bind    };
//                                                      line  function    mask
constexpr TraceSite startTlsFailedTrace  { traceUnit,   82, "startTls", Trace::connection };
constexpr TraceSite bindSaslFailedTrace  { traceUnit,  142, "bindSasl", Trace::connection };
} // namespace at
// clang-format on

/// Answers the question for the authorization id; everything else gets its default.
int answerQuestions(LDAP*, unsigned int, void* authorizationId, void* questions)
{
    for (auto* each = static_cast<sasl_interact_t*>(questions); each->id != SASL_CB_LIST_END;
         ++each) {
        char const* const answer = each->id == SASL_CB_USER
                                       ? static_cast<std::string const*>(authorizationId)->c_str()
                                       : each->defresult;
        each->result = answer;
        each->len = answer == nullptr ? 0 : static_cast<unsigned int>(std::strlen(answer));
    }
    return LDAP_SUCCESS;
}

/// Whether the failure is of the connection or its TLS: another server may do better.
bool isUnreachable(int rc)
{
    return rc == LDAP_SERVER_DOWN || rc == LDAP_TIMEOUT || rc == LDAP_CONNECT_ERROR;
}

/// What OpenLDAP, TLS, SASL or the server says about the last failure; empty if nothing. A server's
/// text may contain control characters.
std::string diagnosticOf(LDAP* session)
{
    LDAPCharBuffer message;
    if (ldap_get_option(session, LDAP_OPT_DIAGNOSTIC_MESSAGE, message.address()) !=
            LDAP_OPT_SUCCESS ||
        message.get() == nullptr) {
        return std::string();
    }
    std::string text = message.get();
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, ' ');
    return text;
}

std::string failureText(int rc, char const* work, std::string const& uri,
                        std::string const& diagnostic)
{
    std::string const text = openldapError(rc, work, uri);
    return diagnostic.empty() ? text : text + ": " + diagnostic;
}

/// Whether the session has a TLS context of its own, made with LDAP_OPT_X_TLS_NEWCTX.
bool hasOwnTlsContext(LDAP* session)
{
    void* context = nullptr;
    if (ldap_get_option(session, LDAP_OPT_X_TLS_CTX, static_cast<void*>(&context)) !=
            LDAP_OPT_SUCCESS ||
        context == nullptr) {
        return false;
    }
    ldap_pvt_tls_ctx_free(context); // a reference of ours
    return true;
}

} // namespace

// StartTLS

void LDAPConnection::startTls()
{
    LDAPConnectionImpl& body = bodyOf(m_impl, at::startTlsNullHandle);
    if (body.session() == nullptr) {
        throw fault(at::startTlsNoSession);
    }
    if (body.m_server->secure || ldap_tls_inplace(body.session()) == 1) {
        throw fault(at::hasTls, "The connection has TLS already");
    }
    body.useTlsPolicy();

    int const rc = body.requestTls();
    int const error = errno;
    if (rc == LDAP_SUCCESS) {
        return;
    }
    std::string const uri = body.uriText();
    std::string const text = failureText(rc, "StartTLS with ", uri, diagnosticOf(body.session()));
    SOLVANE_TRACE(at::startTlsFailedTrace, "Error '%s' Server %s errno=%d", ldap_err2string(rc),
                  uri.c_str(), error);
    openldapErrorCode(rc);
    body.m_guard->end(); // not even an unbind may follow in plain text
    body.unbind();
    throw fault(isUnreachable(rc) ? at::startTlsFailed.as(Stage::unreachable) : at::startTlsFailed,
                text);
}

/// Applies the policy of secure servers. A session with a TLS context of its own keeps its own.
void LDAPConnectionImpl::useTlsPolicy()
{
    if (!hasOwnTlsContext(m_context)) {
        allowAnyCertificate();
        int const policy = LDAP_OPT_X_TLS_ALLOW;
        setOption(LDAP_OPT_X_TLS_REQUIRE_CERT, &policy); // of the check of the host name
    }
    std::lock_guard<std::mutex> const lock(processDefaults());
    initializeTls();
}

/// Sends the request, waits for its response and does the handshake. Returns OpenLDAP's or the
/// server's result code.
int LDAPConnectionImpl::requestTls()
{
    int id = 0;
    int rc = LDAP_SUCCESS;
    {
        SocketGuard::LastConnectScope const mayConnect(*m_guard);
        rc = ldap_start_tls(m_context, nullptr, nullptr, &id);
    }
    LDAPMessageBuffer response;
    if (rc == LDAP_SUCCESS) {
        rc = awaitResponse(id, LDAP_RES_EXTENDED, response);
    }
    int code = LDAP_SUCCESS;
    if (rc == LDAP_SUCCESS) {
        rc = ldap_parse_result(m_context, response.get(), &code, nullptr, nullptr, nullptr, nullptr,
                               0);
    }
    if (rc != LDAP_SUCCESS || code != LDAP_SUCCESS) {
        return rc != LDAP_SUCCESS ? rc : code;
    }
    // OpenLDAP read no byte behind the response: whatever follows it in plain text is refused as
    // part of the handshake.
    return ldap_install_tls(m_context);
}

// SASL

void LDAPConnection::bindSasl(SaslMechanism mechanism, std::string const& authorizationId)
{
    LDAPConnectionImpl& body = bodyOf(m_impl, at::bindSaslNullHandle);
    if (body.session() == nullptr) {
        throw fault(at::bindSaslNoSession);
    }
    if (mechanism != External && mechanism != Gssapi) {
        throw fault(at::unknownMechanism, "Unknown SASL mechanism");
    }
    body.m_bindDn.clear();
    body.m_bindPassword.clear();

    int const rc = mechanism == External ? body.bindExternal(authorizationId)
                                         : body.bindGssapi(authorizationId);
    int const error = errno;
    if (rc == LDAP_SUCCESS) {
        return;
    }
    std::string const uri = body.uriText();
    std::string const text = failureText(rc, "SASL bind to ", uri, diagnosticOf(body.session()));
    SOLVANE_TRACE(at::bindSaslFailedTrace, "Error '%s' Server %s errno=%d", ldap_err2string(rc),
                  uri.c_str(), error);
    openldapErrorCode(rc);
    if (rc < 0) {
        // The server did not refuse it. It may take the bind for done, or for half done.
        body.m_guard->end();
    }
    throw fault(isUnreachable(rc) ? at::bindSaslFailed.as(Stage::unreachable) : at::bindSaslFailed,
                text);
}

/// Returns OpenLDAP's or the server's result code.
int LDAPConnectionImpl::bindExternal(std::string const& authorizationId)
{
    // Empty, but present: without credentials, the server would ask for them.
    berval credentials = {authorizationId.size(), const_cast<char*>(authorizationId.data())};
    int id = 0;
    int rc = LDAP_SUCCESS;
    {
        SocketGuard::LastConnectScope const mayConnect(*m_guard);
        rc = ldap_sasl_bind(m_context, "", "EXTERNAL", &credentials, nullptr, nullptr, &id);
    }
    LDAPMessageBuffer response;
    if (rc == LDAP_SUCCESS) {
        rc = awaitResponse(id, LDAP_RES_BIND, response);
    }
    if (rc != LDAP_SUCCESS) {
        return rc;
    }
    int code = LDAP_SUCCESS;
    rc = ldap_parse_result(m_context, response.get(), &code, nullptr, nullptr, nullptr, nullptr, 0);
    return rc != LDAP_SUCCESS ? rc : code;
}

/// Returns OpenLDAP's or the server's result code.
int LDAPConnectionImpl::bindGssapi(std::string const& authorizationId)
{
    LDAPMessageBuffer response;
    char const* mechanism = nullptr; // OpenLDAP's state between the steps
    int id = 0;
    auto const takeStep = [&] {
        return ldap_sasl_interactive_bind(
            m_context, "", "GSSAPI", nullptr, nullptr, LDAP_SASL_QUIET, answerQuestions,
            const_cast<std::string*>(&authorizationId), response.get(), &mechanism, &id);
    };
    int rc = LDAP_SUCCESS;
    {
        SocketGuard::LastConnectScope const mayConnect(*m_guard);
        rc = takeStep();
    }
    while (rc == LDAP_SASL_BIND_IN_PROGRESS) {
        rc = awaitResponse(id, LDAP_RES_BIND, response);
        if (rc == LDAP_SUCCESS) {
            rc = takeStep();
        }
    }
    return rc;
}

/// Waits for a response at most the network timeout. Returns OpenLDAP's result code.
int LDAPConnectionImpl::awaitResponse(int id, unsigned long expectedType,
                                      LDAPMessageBuffer& response)
{
    timeval timeout = timeoutOf(std::max(m_server->networkTimeout, 1U)); // 0 would only poll
    response.free();
    int const type = ldap_result(m_context, id, LDAP_MSG_ALL, &timeout, response.address());
    if (type <= 0) {
        return type == 0 ? LDAP_TIMEOUT : LDAP_SERVER_DOWN;
    }
    return static_cast<unsigned long>(type) == expectedType ? LDAP_SUCCESS : LDAP_DECODING_ERROR;
}

} // namespace Solvane
