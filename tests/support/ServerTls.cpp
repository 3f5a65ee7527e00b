// GnuTLS as a server.
#include "ServerTls.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include <sys/socket.h>

namespace SolvaneTest {

namespace {

void check(int error)
{
    if (error < 0) {
        throw std::runtime_error(std::string("GnuTLS: ") + gnutls_strerror(error));
    }
}

} // namespace

ServerTls::ServerTls(TlsIdentity const& identity, std::string const& priority,
                     std::string const& clientAuthorities)
    : m_demandsCertificate(!clientAuthorities.empty())
{
    check(gnutls_certificate_allocate_credentials(&m_credentials));
    check(gnutls_certificate_set_x509_key_file(m_credentials, identity.certificateFile.c_str(),
                                               identity.keyFile.c_str(), GNUTLS_X509_FMT_PEM));
    if (m_demandsCertificate) {
        check(gnutls_certificate_set_x509_trust_file(m_credentials, clientAuthorities.c_str(),
                                                     GNUTLS_X509_FMT_PEM));
    }
    check(gnutls_priority_init(&m_priority, priority.c_str(), nullptr));
    check(gnutls_session_ticket_key_generate(&m_ticketKey));
}

ServerTls::~ServerTls()
{
    gnutls_certificate_free_credentials(m_credentials);
    gnutls_priority_deinit(m_priority);
    gnutls_free(m_ticketKey.data);
}

ServerTlsSession::ServerTlsSession(ServerTls const& tls, int socket, std::size_t cutAfter)
    : m_socket(socket), m_demandsCertificate(tls.m_demandsCertificate), m_cutAfter(cutAfter)
{
    check(gnutls_init(&m_session, GNUTLS_SERVER | GNUTLS_NONBLOCK));
    check(gnutls_priority_set(m_session, tls.m_priority));
    check(gnutls_credentials_set(m_session, GNUTLS_CRD_CERTIFICATE, tls.m_credentials));
    check(gnutls_session_ticket_enable_server(m_session, &tls.m_ticketKey));
    if (tls.m_demandsCertificate) {
        gnutls_certificate_server_set_request(m_session, GNUTLS_CERT_REQUIRE);
        gnutls_session_set_verify_cert(m_session, nullptr, 0);
    }
    gnutls_transport_set_ptr(m_session, this);
    gnutls_transport_set_push_function(m_session, push);
    gnutls_transport_set_pull_function(m_session, pull);
}

ServerTlsSession::~ServerTlsSession() { gnutls_deinit(m_session); }

void ServerTlsSession::sendAlert(int error)
{
    bool const lacksCertificate =
        m_demandsCertificate && gnutls_certificate_get_peers(m_session, nullptr) == nullptr;
    if (!lacksCertificate) {
        gnutls_alert_send_appropriate(m_session, error);
        return;
    }
    gnutls_alert_send(m_session, GNUTLS_AL_FATAL,
                      gnutls_protocol_get_version(m_session) == GNUTLS_TLS1_3
                          ? GNUTLS_A_CERTIFICATE_REQUIRED
                          : GNUTLS_A_HANDSHAKE_FAILURE);
}

ssize_t ServerTlsSession::push(gnutls_transport_ptr_t self, void const* bytes, size_t length)
{
    auto& session = *static_cast<ServerTlsSession*>(self);
    std::size_t const left = session.m_cutAfter - session.m_sent;
    ssize_t const sent =
        left == 0 ? 0 : send(session.m_socket, bytes, std::min(length, left), MSG_NOSIGNAL);
    if (sent < 0) {
        gnutls_transport_set_errno(session.m_session, errno);
        return -1;
    }
    session.m_sent += static_cast<std::size_t>(sent);
    if (session.m_sent == session.m_cutAfter) {
        shutdown(session.m_socket, SHUT_RDWR);
        gnutls_transport_set_errno(session.m_session, EPIPE);
        return -1;
    }
    return sent;
}

ssize_t ServerTlsSession::pull(gnutls_transport_ptr_t self, void* bytes, size_t room)
{
    auto& session = *static_cast<ServerTlsSession*>(self);
    ssize_t const received = recv(session.m_socket, bytes, room, 0);
    if (received < 0) {
        gnutls_transport_set_errno(session.m_session, errno);
    }
    return received;
}

} // namespace SolvaneTest
