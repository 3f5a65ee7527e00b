// GnuTLS on a non-blocking socket.
#include "TlsStream.h"

#include <solvane/session/Address.h>
#include <solvane/session/PlainText.h>

#include <solvane/ldap/LDAPException.h>

#include "CertificateFaults.h"
#include "OpenLDAP.h"
#include "TlsState.h"

#include <gnutls/x509.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <iterator>
#include <new>

#include <poll.h>

namespace Solvane::Lookup {

namespace {

constexpr std::size_t longestRecord = 16384;
constexpr std::size_t rawCapacity = 8192; // holds a server's handshake flight in most cases

std::string textOf(gnutls_datum_t const& bytes)
{
    return {reinterpret_cast<char const*>(bytes.data), bytes.size};
}

/// Whether an error of a handshake means that the two sides cannot agree on TLS parameters, which
/// is permanent. Any other error may be temporary.
bool isDisagreement(int error)
{
    constexpr int disagreements[] = {
        GNUTLS_E_UNSUPPORTED_VERSION_PACKET,
        GNUTLS_E_UNKNOWN_CIPHER_SUITE,
        GNUTLS_E_NO_CIPHER_SUITES,
        GNUTLS_E_UNWANTED_ALGORITHM,
        GNUTLS_E_UNKNOWN_PK_ALGORITHM,
        GNUTLS_E_UNSUPPORTED_SIGNATURE_ALGORITHM,
        GNUTLS_E_UNSUPPORTED_CERTIFICATE_TYPE,
        GNUTLS_E_NO_CERTIFICATE_FOUND,
        GNUTLS_E_CERTIFICATE_ERROR,
        GNUTLS_E_CERTIFICATE_KEY_MISMATCH,
        GNUTLS_E_KEY_USAGE_VIOLATION,
        GNUTLS_E_INSUFFICIENT_SECURITY,
        GNUTLS_E_INSUFFICIENT_CREDENTIALS,
        GNUTLS_E_DH_PRIME_UNACCEPTABLE,
        GNUTLS_E_NO_COMMON_KEY_SHARE,
    };
    return std::find(std::begin(disagreements), std::end(disagreements), error) !=
           std::end(disagreements);
}

bool isHostName(std::string const& host) { return !Address::parse(host, 0); }

std::string listOf(std::vector<std::string> const& names)
{
    std::string text;
    for (std::string const& name : names) {
        text.append(text.empty() ? "" : ", ").append(oneLine(name));
    }
    return text;
}

} // namespace

TlsStream::TlsStream(std::shared_ptr<TlsContext> context, Socket& socket, std::string const& host,
                     unsigned int port)
    : m_context(std::move(context)), m_socket(socket), m_host(host),
      m_server(host + ' ' + std::to_string(port)), m_raw(new char[rawCapacity])
{
    TlsContext::State const& shared = *m_context->m_state;
    if (gnutls_init(&m_session, GNUTLS_CLIENT | GNUTLS_NONBLOCK | GNUTLS_NO_SIGNAL |
                                    GNUTLS_KEY_SHARE_TOP | GNUTLS_FORCE_CLIENT_CERT) < 0) {
        throw std::bad_alloc();
    }
    gnutls_transport_set_ptr(m_session, this);
    gnutls_transport_set_pull_function(m_session, pull);
    gnutls_transport_set_vec_push_function(m_session, push);
    gnutls_transport_set_pull_timeout_function(m_session, pullTimeout);
    check(gnutls_priority_set(m_session, shared.priority));
    check(gnutls_credentials_set(m_session, GNUTLS_CRD_CERTIFICATE, shared.credentials));
    if (isHostName(host)) {
        bool const isAbsolute = host.back() == '.';
        check(gnutls_server_name_set(m_session, GNUTLS_NAME_DNS, host.data(),
                                     host.size() - (isAbsolute ? 1 : 0)));
    }
    ResumableTls const last = shared.recall(m_server);
    if (!last.data.empty()) {
        gnutls_session_set_data(m_session, last.data.data(), last.data.size());
        m_validUntil = last.validUntil;
    }
}

TlsStream::~TlsStream() { gnutls_deinit(m_session); }

/// Records the first error of the setup; the handshake then reports it.
void TlsStream::check(int error)
{
    if (error < 0 && m_fault.isGood()) {
        failWith(Outcome::TryLater, LDAP_LOCAL_ERROR,
                 std::string("cannot set up TLS: ") + gnutls_strerror(error));
    }
}

// Handshake

Flow TlsStream::handshake()
{
    if (!m_fault.isGood()) {
        return Flow::failed;
    }
    if (m_isSecure) {
        return Flow::moved;
    }
    constexpr int warningsAtOnce = 16;
    for (int i = 0; i < warningsAtOnce; ++i) {
        int const rc = gnutls_handshake(m_session);
        if (rc >= 0) {
            return verify();
        }
        if (rc == GNUTLS_E_AGAIN) {
            return Flow::blocked;
        }
        if (gnutls_error_is_fatal(rc) != 0) {
            m_context->m_state->remember(m_server, ResumableTls()); // it may be the cause
            return fail(rc);
        }
    }
    return Flow::blocked;
}

short TlsStream::events() const
{
    return gnutls_record_get_direction(m_session) == 0 ? POLLIN : POLLOUT;
}

/// The peer's certificate chain, its own certificate first.
std::vector<Certificate> TlsStream::chain() const
{
    unsigned int count = 0;
    gnutls_datum_t const* const sent = gnutls_certificate_get_peers(m_session, &count);
    std::vector<Certificate> certificates;
    for (unsigned int i = 0; sent != nullptr && i < count; ++i) {
        certificates.emplace_back(textOf(sent[i]));
    }
    return certificates;
}

/// Verifies the certificate. A resumed session needs no new verification of the chain: only the
/// server whose chain was verified before, for the same name and policy, can resume it. This ends
/// when the first certificate of that chain expires.
Flow TlsStream::verify()
{
    std::vector<Certificate> certificates;
    try {
        certificates = chain();
    } catch (LDAPException const&) {
        return refuse("the server sent an invalid certificate");
    }
    if (!certificates.empty()) {
        m_certificate = certificates.front();
    }
    TlsVerify const extent = m_context->policy().verify;
    if (extent != TlsVerify::none) {
        if (certificates.empty()) {
            return refuse("the server sent no certificate");
        }
        bool const isVerified = isResumed() && std::time(nullptr) <= m_validUntil;
        if (!isVerified && verifyChain(certificates) != Flow::moved) {
            return Flow::failed;
        }
    }
    if (extent == TlsVerify::full && !m_certificate->isFor(m_host)) {
        std::string const names = listOf(m_certificate->names());
        return refuse("the certificate does not match '" + oneLine(m_host) + "', it is for " +
                      (names.empty() ? oneLine(m_certificate->subject()) : names));
    }
    m_isSecure = true;
    rememberSession();
    return Flow::moved;
}

Flow TlsStream::verifyChain(std::vector<Certificate> const& certificates)
{
    std::string purpose = GNUTLS_KP_TLS_WWW_SERVER;
    gnutls_typed_vdata_st wanted = {GNUTLS_DT_KEY_PURPOSE_OID,
                                    reinterpret_cast<unsigned char*>(purpose.data()), 0};
    unsigned int status = 0;
    int const error = gnutls_certificate_verify_peers(m_session, &wanted, 1, &status);
    if (error < 0) {
        return refuse(std::string("cannot verify the certificate: ") + gnutls_strerror(error));
    }
    if (status != 0) {
        return refuse("the certificate is not accepted: " +
                      oneLine(faultInWords(status, certificates)));
    }
    m_validUntil = certificates.front().notAfter();
    for (Certificate const& certificate : certificates) {
        m_validUntil = std::min(m_validUntil, certificate.notAfter());
    }
    return Flow::moved;
}

/// Stores the session data for the next connection to this server. In TLS 1.3 the server sends its
/// ticket some time after the handshake, so this is called after each receive; asking GnuTLS
/// earlier would block.
void TlsStream::rememberSession()
{
    bool const isThere = gnutls_protocol_get_version(m_session) != GNUTLS_TLS1_3 ||
                         (gnutls_session_get_flags(m_session) & GNUTLS_SFLAGS_SESSION_TICKET) != 0;
    if (m_isRemembered || !isThere) {
        return;
    }
    m_isRemembered = true;
    gnutls_datum_t data = {nullptr, 0};
    if (gnutls_session_get_data2(m_session, &data) >= 0) {
        std::string copy = textOf(data);
        gnutls_free(data.data);
        m_context->m_state->remember(m_server, ResumableTls{std::move(copy), m_validUntil});
    }
}

// Bytes

Flow TlsStream::receive(char* bytes, std::size_t room, std::size_t& count)
{
    count = 0;
    m_isBlocked = false;
    m_wasBlocked = false;
    constexpr int oddRecordsAtOnce = 16;
    for (int i = 0; i < oddRecordsAtOnce; ++i) {
        ssize_t const received = gnutls_record_recv(m_session, bytes, room);
        if (received != GNUTLS_E_INTERRUPTED) {
            rememberSession();
        }
        if (received > 0) {
            m_hasReceived = true;
            count = static_cast<std::size_t>(received);
            return Flow::moved;
        }
        if (received == 0 || received == GNUTLS_E_PREMATURE_TERMINATION) {
            failWith(Outcome::TryLater, LDAP_SERVER_DOWN, whyClosed());
            return Flow::ended;
        }
        // GnuTLS also returns AGAIN after a message of its own, such as a ticket.
        if (received == GNUTLS_E_AGAIN && m_wasBlocked) {
            m_isBlocked = true;
            return Flow::blocked;
        }
        if (received == GNUTLS_E_REHANDSHAKE) {
            gnutls_alert_send(m_session, GNUTLS_AL_WARNING, GNUTLS_A_NO_RENEGOTIATION);
        } else if (gnutls_error_is_fatal(static_cast<int>(received)) != 0) {
            return fail(static_cast<int>(received));
        }
    }
    return Flow::blocked; // further input is reported by the socket or by `hasPending`
}

Flow TlsStream::send(char const* bytes, std::size_t length, std::size_t& count)
{
    count = 0;
    for (;;) {
        // Blocked bytes are already encrypted: GnuTLS sends them when called without bytes.
        ssize_t const sent =
            m_isSending ? gnutls_record_send(m_session, nullptr, 0)
                        : gnutls_record_send(m_session, bytes, std::min(length, longestRecord));
        if (sent >= 0) {
            m_isSending = false;
            count = static_cast<std::size_t>(sent);
            return Flow::moved;
        }
        m_isSending = true;
        if (sent == GNUTLS_E_AGAIN) {
            return Flow::blocked;
        }
        if (gnutls_error_is_fatal(static_cast<int>(sent)) != 0) {
            return fail(static_cast<int>(sent));
        }
    }
}

void TlsStream::sayGoodbye()
{
    if (m_isSecure && m_fault.isGood() && !m_isSending) {
        gnutls_bye(m_session, GNUTLS_SHUT_WR);
    }
}

ssize_t TlsStream::pull(gnutls_transport_ptr_t stream, void* bytes, size_t room)
{
    TlsStream& self = *static_cast<TlsStream*>(stream);
    std::size_t count = 0;
    Flow const flow = self.readRaw(static_cast<char*>(bytes), room, count);
    if (self.m_firstByte == -1 && flow == Flow::moved) {
        self.m_firstByte = *static_cast<unsigned char const*>(bytes);
    }
    return self.transported(flow, count);
}

Flow TlsStream::readRaw(char* bytes, std::size_t room, std::size_t& count)
{
    if (m_rawBegin == m_rawEnd) {
        if (room >= rawCapacity) {
            return m_socket.receive(bytes, room, count);
        }
        Flow const flow = m_socket.receive(m_raw.get(), rawCapacity, count);
        if (flow != Flow::moved) {
            return flow;
        }
        m_rawBegin = 0;
        m_rawEnd = count;
    }
    count = std::min(room, m_rawEnd - m_rawBegin);
    std::memcpy(bytes, m_raw.get() + m_rawBegin, count);
    m_rawBegin += count;
    return Flow::moved;
}

ssize_t TlsStream::push(gnutls_transport_ptr_t stream, giovec_t const* pieces, int count)
{
    TlsStream& self = *static_cast<TlsStream*>(stream);
    std::size_t sent = 0;
    Flow const flow = self.m_socket.send(pieces, static_cast<std::size_t>(count), sent);
    return self.transported(flow, sent);
}

/// The return value of a transport function for GnuTLS.
ssize_t TlsStream::transported(Flow flow, std::size_t count)
{
    if (flow == Flow::moved || flow == Flow::ended) {
        return static_cast<ssize_t>(count);
    }
    m_wasBlocked = flow == Flow::blocked;
    gnutls_transport_set_errno(m_session, flow == Flow::blocked ? EAGAIN : m_socket.error());
    return -1;
}

/// Never blocks: the caller of the session polls.
int TlsStream::pullTimeout(gnutls_transport_ptr_t stream, unsigned int)
{
    pollfd looked = {static_cast<TlsStream*>(stream)->m_socket.number(), POLLIN, 0};
    return poll(&looked, 1, 0);
}

// Failures

Flow TlsStream::fail(int error)
{
    constexpr int handshakeRecord = 22; // RFC 8446 section 5.1
    constexpr int alertRecord = 21;
    bool const speaksTls =
        m_firstByte == -1 || m_firstByte == handshakeRecord || m_firstByte == alertRecord;
    if (!speaksTls) {
        return failWith(Outcome::TryLater, LDAP_SERVER_DOWN, "the server does not speak TLS");
    }
    switch (error) {
    case GNUTLS_E_PREMATURE_TERMINATION:
        return failWith(Outcome::TryLater, LDAP_SERVER_DOWN, whyClosed());
    case GNUTLS_E_PULL_ERROR:
    case GNUTLS_E_PUSH_ERROR:
        return failWith(Outcome::TryLater, LDAP_SERVER_DOWN,
                        m_socket.isOurs() ? std::strerror(m_socket.error())
                                          : "the connection belongs to another process");
    case GNUTLS_E_FATAL_ALERT_RECEIVED:
        return isRefusedByAlert()
                   ? refuse("the server refuses TLS: " + alertInWords() + certificateRemark())
                   : failWith(Outcome::TryLater, LDAP_SERVER_DOWN,
                              "the server aborted TLS: " + alertInWords());
    default:
        return isDisagreement(error)
                   ? refuse(std::string("no common TLS parameters: ") + gnutls_strerror(error))
                   : failWith(Outcome::TryLater, LDAP_SERVER_DOWN,
                              std::string("TLS failed: ") + gnutls_strerror(error));
    }
}

/// Some servers require a client certificate and close the connection without an alert if they do
/// not accept it; in TLS 1.3 only after the client's part of the handshake is done.
std::string TlsStream::whyClosed() const
{
    return "the server closed the connection" + certificateRemark();
}

/// What the server may have against our certificate, if it requested one and has sent no data.
std::string TlsStream::certificateRemark() const
{
    if (m_hasReceived || gnutls_certificate_client_get_request_status(m_session) <= 0) {
        return std::string();
    }
    std::string const& file = m_context->policy().certificateFile;
    return file.empty() ? "; it requested a client certificate, but none is configured"
                        : "; it may not accept the client certificate '" + oneLine(file) + '\'';
}

std::string TlsStream::alertInWords() const
{
    gnutls_alert_description_t const alert = gnutls_alert_get(m_session);
    char const* const name = gnutls_alert_get_name(alert);
    return (name == nullptr ? "alert" : std::string(name)) + " (" +
           std::to_string(static_cast<int>(alert)) + ')';
}

/// Whether the server's last alert means that it rejects our TLS parameters or our certificate.
bool TlsStream::isRefusedByAlert() const
{
    switch (gnutls_alert_get(m_session)) {
    case GNUTLS_A_HANDSHAKE_FAILURE:
    case GNUTLS_A_BAD_CERTIFICATE:
    case GNUTLS_A_UNSUPPORTED_CERTIFICATE:
    case GNUTLS_A_CERTIFICATE_REVOKED:
    case GNUTLS_A_CERTIFICATE_EXPIRED:
    case GNUTLS_A_CERTIFICATE_UNKNOWN:
    case GNUTLS_A_UNKNOWN_CA:
    case GNUTLS_A_ACCESS_DENIED:
    case GNUTLS_A_PROTOCOL_VERSION:
    case GNUTLS_A_INSUFFICIENT_SECURITY:
    case GNUTLS_A_UNRECOGNIZED_NAME:
    case GNUTLS_A_CERTIFICATE_REQUIRED:
        return true;
    default:
        return false;
    }
}

Flow TlsStream::refuse(std::string const& why)
{
    return failWith(Outcome::Refused, LDAP_CONNECT_ERROR, why);
}

Flow TlsStream::failWith(Outcome outcome, int code, std::string const& why)
{
    m_fault = Verdict{outcome, code, why};
    return Flow::failed;
}

std::string TlsStream::version() const
{
    char const* const name = gnutls_protocol_get_name(gnutls_protocol_get_version(m_session));
    return name == nullptr ? std::string() : std::string(name);
}

std::string TlsStream::serverEndPoint() const
{
    gnutls_datum_t hash = {};
    if (gnutls_session_channel_binding(m_session, GNUTLS_CB_TLS_SERVER_END_POINT, &hash) !=
        GNUTLS_E_SUCCESS) {
        return std::string();
    }
    std::string binding = "tls-server-end-point:";
    binding.append(reinterpret_cast<char const*>(hash.data), hash.size);
    gnutls_free(hash.data);
    return binding;
}

std::string TlsStream::cipher() const
{
    char const* const name = gnutls_cipher_get_name(gnutls_cipher_get(m_session));
    return name == nullptr ? std::string() : std::string(name);
}

} // namespace Solvane::Lookup
