// Server descriptions, connections and binds.
#include <solvane/ldap/LDAPConnection.h>

#include <solvane/ldap/impl/LDAPConnectionImpl.h>
#include <solvane/ldap/impl/LDAPResultImpl.h>
#include <solvane/ldap/impl/OpenLDAPOwners.h>

#include "OpenLDAP.h"
#include "ProcessDefaults.h"
#include "SocketGuard.h"
#include "ThrowSite.h"

#include <solvart/Buffer.h>
#include <solvart/Host.h>
#include <solvart/IPAddress.h>
#include <solvart/Logger.h>
#include <solvart/StringHelpers.h>

#include <boost/assert.hpp>

#include <cerrno>
#include <ctime>
#include <mutex>
#include <sstream>

#include <sys/socket.h>
#include <unistd.h>

namespace Solvane {

namespace {
// clang-format off
namespace at { // what unit "Connection" reports
constexpr char unit[] = "Connection.cpp";
constexpr char traceUnit[] = "Connection";
//                                                  line  fault              stage
constexpr ThrowSite hostUnknown            { unit,   51, Fault::failed,     Stage::general     };
constexpr ThrowSite serverWrapped          { unit,   63, Fault::failed,     Stage::general     };
constexpr ThrowSite contextNullHandle      { unit,  129, Fault::nullHandle, Stage::general     };
constexpr ThrowSite serverNullHandle       { unit,  140, Fault::nullHandle, Stage::general     };
constexpr ThrowSite markUsedNullHandle     { unit,  154, Fault::nullHandle, Stage::general     };
constexpr ThrowSite markFreeNullHandle     { unit,  166, Fault::nullHandle, Stage::general     };
constexpr ThrowSite setErrorNullHandle     { unit,  178, Fault::nullHandle, Stage::general     };
constexpr ThrowSite errorNullHandle        { unit,  190, Fault::nullHandle, Stage::general     };
constexpr ThrowSite bindNullHandle         { unit,  201, Fault::nullHandle, Stage::general     };
constexpr ThrowSite bindNoSession          { unit,  208, Fault::failed,     Stage::bind        };
constexpr ThrowSite bindRefused            { unit,  241, Fault::failed,     Stage::bind        };
constexpr ThrowSite bindWaitNullHandle     { unit,  258, Fault::nullHandle, Stage::general     };
constexpr ThrowSite bindWaitNoSession      { unit,  278, Fault::failed,     Stage::bind        };
constexpr ThrowSite invalidCredentials     { unit,  297, Fault::failed,     Stage::bind        };
constexpr ThrowSite bindWaitFailed         { unit,  315, Fault::failed,     Stage::bind        };
constexpr ThrowSite unbindNullHandle       { unit,  341, Fault::nullHandle, Stage::general     };
constexpr ThrowSite idNullHandle           { unit,  351, Fault::nullHandle, Stage::general     };
constexpr ThrowSite initializeFailed       { unit,  403, Fault::failed,     Stage::unreachable };
constexpr ThrowSite tlsSetupFailed         { unit,  433, Fault::failed,     Stage::unreachable };
constexpr ThrowSite getOptionFailed        { unit,  509, Fault::failed,     Stage::option      };
constexpr ThrowSite setOptionFailed        { unit,  519, Fault::failed,     Stage::option      };
//                                                       line  function              mask
constexpr TraceSite bindRefusedTrace       { traceUnit,  248, "bind",               Trace::connection };
constexpr TraceSite bindWaitFailedTrace    { traceUnit,  319, "bindWait",           Trace::error      };
constexpr TraceSite newConnection          { traceUnit,  400, "LDAPConnectionImpl", Trace::connection };
constexpr TraceSite initializeFailedTrace  { traceUnit,  407, "LDAPConnectionImpl", Trace::error      };
constexpr TraceSite tlsSetupFailedTrace    { traceUnit,  437, "LDAPConnectionImpl", Trace::error      };
constexpr TraceSite noDescriptor           { traceUnit,  462, "isValid",            Trace::error      };
constexpr TraceSite invalidDescriptor      { traceUnit,  467, "isValid",            Trace::error      };
constexpr TraceSite brokenPipe             { traceUnit,  477, "isValid",            Trace::error      };
} // namespace at
// clang-format on

/// Writes a message for the operator; number 6 of the catalogue is plain text.
void log(std::string const& text)
{
    Logger::instance(false).log(0x30000, 0, "%d\x01%s", 6, text.c_str());
}

} // namespace

// Server description

LDAPConnection::Server::Server(std::string const& host, unsigned int port, Protocol protocol,
                               bool secure, unsigned int networkTimeout, bool firstFlag,
                               bool secondFlag)
    : host(host), port(port), protocol(protocol), secure(secure), networkTimeout(networkTimeout),
      firstFlag(firstFlag), secondFlag(secondFlag)
{
    try {
        stringLeftTrim(this->host);
        stringRightTrim(this->host);
        stringToLowerNoCopy(this->host);
        uri = Uri(uriText());
    } catch (Exception const& caught) {
        log("Caught: " + caught.asString());
        throw fault(at::serverWrapped, caught);
    }
}

LDAPConnection::Server::~Server() = default;

/// The URI with the address in brackets, even an IPv4 address. With the name, OpenLDAP would resolve
/// it again at each connect.
std::string LDAPConnection::Server::uriText() const
{
    auto const around = [this](std::string const& address) {
        return (secure ? "ldaps://[" : "ldap://[") + address + "]:" + std::to_string(port) + '/';
    };
    if (IPAddress::isValidIPAddress(host)) {
        return around(host);
    }
    Host const resolved(host, false);
    if (!resolved.isNull() && resolved.address() != nullptr) {
        std::ostringstream address;
        address << *resolved.address();
        return around(address.str());
    }
    std::string const message = "Invalid hostname: " + host;
    log(message);
    throw fault(at::hostUnknown, message);
}

LDAPConnection::RefServer::RefServer() = default;

LDAPConnection::RefServer::RefServer(Server* server) : boost::shared_ptr<Server>(server) {}

LDAPConnection::RefServer::RefServer(std::string const& host, unsigned int port, Protocol protocol,
                                     bool secure, unsigned int networkTimeout, bool firstFlag,
                                     bool secondFlag)
    : RefServer(new Server(host, port, protocol, secure, networkTimeout, firstFlag, secondFlag))
{
}

LDAPConnection::Protocol LDAPConnection::toProtocol(int version) { return version == V2 ? V2 : V3; }

int LDAPConnection::fromProtocol(Protocol protocol) { return toProtocol(protocol); }

// Connection, handle

LDAPConnection::LDAPConnection() = default;

LDAPConnection::LDAPConnection(RefServer const& server, bool anonymous)
{
    m_impl.adopt(std::make_unique<LDAPConnectionImpl>(server, anonymous));
}

LDAPConnection::LDAPConnection(LDAPConnection const& other) = default;
LDAPConnection& LDAPConnection::operator=(LDAPConnection const& other) = default;
LDAPConnection::LDAPConnection(LDAPConnection&& other) noexcept = default;
LDAPConnection& LDAPConnection::operator=(LDAPConnection&& other) noexcept = default;
LDAPConnection::~LDAPConnection() = default;

bool LDAPConnection::isNull() const { return m_impl.isNull(); }

LDAPConnectionImpl* LDAPConnection::impl() const { return m_impl.body(); }

void* LDAPConnection::context() const { return bodyOf(m_impl, at::contextNullHandle).m_context; }

LDAPConnection::RefServer const& LDAPConnection::server() const
{
    return bodyOf(m_impl, at::serverNullHandle).m_server;
}

bool LDAPConnection::cacheMarkAsUsed()
{
    return bodyOf(m_impl, at::markUsedNullHandle).m_available.trywait();
}

void LDAPConnection::cacheMarkAsAvailable()
{
    bodyOf(m_impl, at::markFreeNullHandle).m_available.post();
}

void LDAPConnection::openldapErrorCode(int code)
{
    bodyOf(m_impl, at::setErrorNullHandle).m_openldapErrorCode = code;
}

int LDAPConnection::openldapErrorCode() const
{
    return bodyOf(m_impl, at::errorNullHandle).m_openldapErrorCode;
}

int LDAPConnection::unbind() { return bodyOf(m_impl, at::unbindNullHandle).unbind(); }

int LDAPConnection::id() const { return bodyOf(m_impl, at::idNullHandle).m_bindMessageId; }

// Bind

void LDAPConnection::bind(std::string const& dn, std::string const& password, BindMode mode)
{
    LDAPConnectionImpl& body = bodyOf(m_impl, at::bindNullHandle);
    if (body.session() == nullptr) {
        throw fault(at::bindNoSession);
    }
    body.m_bindDn = dn;
    body.m_bindPassword = password;
    body.m_bindMode = mode;

    int const rc = body.sendSimpleBind();
    int const error = errno;
    if (rc == LDAP_SUCCESS) {
        return;
    }
    std::string const uri = body.uriText();
    SOLVANE_TRACE(at::bindRefusedTrace, "Error '%s' Server %s errno=%d", ldap_err2string(rc),
                  uri.c_str(), error);
    openldapErrorCode(rc);
    throw fault(rc == LDAP_SERVER_DOWN ? at::bindRefused.as(Stage::unreachable) : at::bindRefused,
                openldapError(rc, "bind to ", uri));
}

bool LDAPConnection::bindWait(unsigned int timeoutSeconds)
{
    LDAPConnectionImpl& body = bodyOf(m_impl, at::bindWaitNullHandle);
    timeval timeout = timeoutOf(timeoutSeconds);
    for (;;) {
        LDAPMessageBuffer message;
        if (body.session() == nullptr) {
            throw fault(at::bindWaitNoSession,
                        "m_context=0, bind probably failed, unbind was called, then wait()");
        }
        int const rc = ldap_result(body.session(), body.m_bindMessageId, LDAP_MSG_ONE, &timeout,
                                   message.address());
        int const error = errno;
        // A wait that runs out counts as bound: the next search fails on a dead session, and callers
        // rely on getting the connection.
        if (rc == 0) {
            return true;
        }
        if (rc < 0) {
            SOLVANE_TRACE(at::bindWaitFailedTrace, "tid=%d ldaperror=%d, errno = %d", gettid(), rc,
                          error);
            openldapErrorCode(rc);
            throw fault(at::bindWaitFailed, openldapError(rc, "bind to ", body.uriText()));
        }
        if (body.takeBindResponse(message)) {
            return true;
        }
        if (static_cast<ber_tag_t>(rc) == LDAP_RES_BIND) {
            return false;
        }
    }
}

// Connection, body

LDAPConnectionImpl::LDAPConnectionImpl(LDAPConnection::RefServer const& server, bool anonymous)
    : m_server(server), m_context(nullptr), m_bindMode(LDAPConnection::Synchronous),
      m_bindMessageId(0), m_anonymous(anonymous), m_expiry(time(nullptr) + lifeSeconds),
      m_openldapErrorCode(0), m_sessionEnded(false),
      m_guard(new SocketGuard(std::chrono::seconds(timeoutOf(server->networkTimeout).tv_sec),
                              defaultMaximumMessageSize))
{
    initializeSession();
    try {
        setSessionOptions();
    } catch (...) {
        LDAPConnectionImpl::unbind(); // the destructor does not run if the constructor throws
        throw;
    }
}

LDAPConnectionImpl::~LDAPConnectionImpl()
{
    LDAPConnectionImpl::unbind();
    m_context = nullptr;
}

std::string LDAPConnectionImpl::uriText() const { return m_server->uri.asString(); }

void LDAPConnectionImpl::initializeSession()
{
    std::string const uri = uriText();
    SOLVANE_TRACE(at::newConnection, "New LDAP Connection %s - Network Timeout = %d", uri.c_str(),
                  static_cast<int>(m_server->networkTimeout));
    std::lock_guard<std::mutex> const lock(processDefaults());
    if (m_server->secure) {
        // ldap_initialize copies the defaults into the session, including the host name check. If
        // the policy were set later, the first secure session of the process would not get it.
        int policy = LDAP_OPT_X_TLS_ALLOW;
        ldap_set_option(nullptr, LDAP_OPT_X_TLS_REQUIRE_CERT, &policy);
        initializeTls();
    }
    int const rc = ldap_initialize(&m_context, uri.c_str());
    if (rc != 0) {
        std::string const text = openldapError(rc, "initialize for ", uri);
        SOLVANE_TRACE(at::initializeFailedTrace, "tid=%d error=%s", gettid(), text.c_str());
        throw fault(at::initializeFailed, text);
    }
}

void LDAPConnectionImpl::setSessionOptions()
{
    setOption(LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    int const version = m_server->protocol;
    setOption(LDAP_OPT_PROTOCOL_VERSION, &version);
    timeval const networkTimeout = timeoutOf(m_server->networkTimeout);
    setOption(LDAP_OPT_NETWORK_TIMEOUT, &networkTimeout);
    setOption(LDAP_OPT_RESTART, LDAP_OPT_ON);
    if (m_server->secure) {
        allowAnyCertificate();
    }
    setOption(LDAP_OPT_CONNECT_CB, m_guard->callback());
}

/// Requests the server's certificate and accepts an invalid or missing one, process-wide.
void LDAPConnectionImpl::allowAnyCertificate()
{
    std::lock_guard<std::mutex> const lock(processDefaults());
    int policy = LDAP_OPT_X_TLS_ALLOW;
    int const rc = ldap_pvt_tls_set_option(nullptr, LDAP_OPT_X_TLS_REQUIRE_CERT, &policy);
    if (rc != 0) {
        std::string const text = openldapError(rc, "TLS setup ", uriText());
        SOLVANE_TRACE(at::tlsSetupFailedTrace, "tid=%d error=%s", gettid(), text.c_str());
        throw fault(at::tlsSetupFailed, text);
    }
}

int LDAPConnectionImpl::unbind()
{
    // OpenLDAP frees the session: the pointer must not be passed to it again.
    if (session() == nullptr) {
        return 0;
    }
    m_sessionEnded = true;
    return ldap_unbind_ext(m_context, nullptr, nullptr);
}

int LDAPConnectionImpl::setOption(int option, void const* value)
{
    int const rc =
        session() == nullptr ? LDAP_SERVER_DOWN : ldap_set_option(session(), option, value);
    if (rc != LDAP_OPT_SUCCESS) {
        throw fault(at::setOptionFailed, ldap_err2string(rc));
    }
    return rc;
}

int LDAPConnectionImpl::getOption(int option, void* value)
{
    int const rc =
        session() == nullptr ? LDAP_SERVER_DOWN : ldap_get_option(session(), option, value);
    if (rc != LDAP_OPT_SUCCESS) {
        throw fault(at::getOptionFailed, ldap_err2string(rc));
    }
    return rc;
}

bool LDAPConnectionImpl::isValid()
{
    int descriptor = -1;
    int const rc = session() == nullptr ? LDAP_SERVER_DOWN
                                        : ldap_get_option(session(), LDAP_OPT_DESC, &descriptor);
    int const error = errno;
    if (rc != LDAP_OPT_SUCCESS) {
        SOLVANE_TRACE(at::noDescriptor, "tid=%d Unable to get socket descriptor: rc:%d, errno:%d",
                      gettid(), rc, error);
        return false;
    }
    if (descriptor == -1) {
        SOLVANE_TRACE(at::invalidDescriptor, "tid=%d Unable to get valid socket descriptor",
                      gettid());
        return false;
    }
    int pending = 0;
    socklen_t length = sizeof pending;
    bool const isBroken =
        !m_guard->isUsable() ||
        (getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &pending, &length) == 0 && pending == EPIPE);
    if (isBroken) {
        SOLVANE_TRACE(at::brokenPipe, "tid=%d BROKEN PIPE detected", gettid());
        return false;
    }
    return m_openldapErrorCode == 0;
}

void LDAPConnectionImpl::extendExpiryTime(long now)
{
    m_expiry = (now != 0 ? now : m_expiry) + lifeSeconds;
}

void LDAPConnectionImpl::maximumMessageSize(unsigned long bytes)
{
    m_guard->maximumMessageBytes(bytes);
}

/// Sends the bind in the mode m_bindMode. Returns OpenLDAP's result code.
int LDAPConnectionImpl::sendSimpleBind()
{
    Buffer dn;
    if (m_server->protocol == LDAPConnection::V3) {
        stringToUtf8(m_bindDn, dn, nullptr);
    } else {
        dn = Buffer(m_bindDn.data(), static_cast<unsigned int>(m_bindDn.size()), false);
    }
    dn.append(static_cast<unsigned char>(0));
    char const* const name = reinterpret_cast<char const*>(dn.data());
    LDAPBerValItemBuffer const credentials(m_bindPassword);

    SocketGuard::BindScope const mayConnect(*m_guard);
    if (m_bindMode == LDAPConnection::Synchronous) {
        return ldap_sasl_bind_s(m_context, name, LDAP_SASL_SIMPLE, credentials.get(), nullptr,
                                nullptr, nullptr);
    }
    int messageId = 0;
    int const rc = ldap_sasl_bind(m_context, name, LDAP_SASL_SIMPLE, credentials.get(), nullptr,
                                  nullptr, &messageId);
    m_bindMessageId = messageId;
    return rc;
}

/// Decodes a message into the bind result. Returns whether the bind succeeded.
bool LDAPConnectionImpl::takeBindResponse(LDAPMessageBuffer& message)
{
    if (m_bindResult.isNull()) {
        m_bindResult = LDAPResult(m_context);
    }
    m_bindResult.impl()->parseMessage(message);
    constexpr int bindResponse = 1;
    if (m_bindResult.resultType() != bindResponse) {
        return false;
    }
    if (m_bindResult.resultCode() == LDAP_INVALID_CREDENTIALS) {
        throw fault(at::invalidCredentials,
                    "Error: 'Invalid credentials' during bind to " + uriText());
    }
    return m_bindResult.resultCode() == LDAP_SUCCESS;
}

} // namespace Solvane
