// TLS for scripted servers.
#ifndef SOLVANE_TESTS_SUPPORT_SERVER_TLS_H
#define SOLVANE_TESTS_SUPPORT_SERVER_TLS_H

#include "Authority.h"

#include <gnutls/gnutls.h>

#include <cstddef>
#include <limits>
#include <string>

namespace SolvaneTest {

/// A server's TLS settings, shared by its connections.
class ServerTls {
public:
    /// @param priority           GnuTLS's priority string
    /// @param clientAuthorities  PEM file: clients must show a certificate of theirs; empty: none
    ///                           is asked for
    explicit ServerTls(TlsIdentity const& identity, std::string const& priority = "NORMAL",
                       std::string const& clientAuthorities = std::string());
    ServerTls(ServerTls const&) = delete;
    ServerTls& operator=(ServerTls const&) = delete;
    ~ServerTls();

private:
    friend class ServerTlsSession;

    gnutls_certificate_credentials_t m_credentials = nullptr;
    gnutls_priority_t m_priority = nullptr;
    gnutls_datum_t m_ticketKey = {nullptr, 0};
    bool m_demandsCertificate;
};

/// TLS of one connection, on a non-blocking socket. Returns GnuTLS's results.
class ServerTlsSession {
public:
    /// @param cutAfter  bytes to send before the connection is shut down
    ServerTlsSession(ServerTls const& tls, int socket,
                     std::size_t cutAfter = std::numeric_limits<std::size_t>::max());
    ServerTlsSession(ServerTlsSession const&) = delete;
    ServerTlsSession& operator=(ServerTlsSession const&) = delete;
    ~ServerTlsSession();

    gnutls_session_t get() const { return m_session; }
    /// Sends the client an alert for the failed handshake, as OpenSSL would.
    void sendAlert(int error);
    /// Bytes sent.
    std::size_t sentBytes() const { return m_sent; }

private:
    static ssize_t push(gnutls_transport_ptr_t self, void const* bytes, size_t length);
    static ssize_t pull(gnutls_transport_ptr_t self, void* bytes, size_t room);

    gnutls_session_t m_session = nullptr;
    int m_socket;
    bool m_demandsCertificate;
    std::size_t m_cutAfter;
    std::size_t m_sent = 0;
};

} // namespace SolvaneTest

#endif
