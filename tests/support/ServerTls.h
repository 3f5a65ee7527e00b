// The TLS of a test's servers: an authority with certificates of every kind, settings, sessions.
#ifndef SOLVANE_TESTS_SUPPORT_SERVER_TLS_H
#define SOLVANE_TESTS_SUPPORT_SERVER_TLS_H

#include "TemporaryDirectory.h"

#include <gnutls/gnutls.h>

#include <cstddef>
#include <ctime>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace SolvaneTest {

/// The properties of a certificate. Default: valid, for localhost and 127.0.0.1.
struct CertificateWish {
    std::string commonName = "localhost";
    std::vector<std::string> dnsNames = {"localhost"};
    std::vector<std::string> addresses = {"127.0.0.1"}; ///< IPv4
    bool isForClients = false;                          ///< instead of for servers
    bool isAuthority = false;                           ///< may sign others
    unsigned int rsaBits = 0;                           ///< 0: an elliptic curve
    bool isSignedWithSha1 = false;
    std::time_t notBefore = std::time(nullptr) - 3600;
    std::time_t notAfter = std::time(nullptr) + 86400;
};

/// PEM files of a certificate and its key.
struct TlsIdentity {
    std::string certificateFile; ///< with the certificates that lead to the authority, if any
    std::string keyFile;
};

/// Signs and revokes certificates. Owns its files; the destructor deletes them.
class Authority {
public:
    explicit Authority(std::string const& commonName = "Test authority");
    Authority(Authority const&) = delete;
    Authority& operator=(Authority const&) = delete;
    ~Authority();

    /// PEM file with its own certificate.
    std::string file() const;
    /// A new certificate.
    TlsIdentity issue(CertificateWish const& wish = CertificateWish());
    /// The same, signed by an intermediate authority.
    TlsIdentity issueThrough(CertificateWish const& between, CertificateWish const& wish);
    /// A self-signed certificate.
    TlsIdentity selfSigned(CertificateWish const& wish);
    /// A list of revoked certificates.
    /// @param revoked   the revoked certificates
    /// @param validFor  seconds from now; below 0 for an expired list
    std::string revocations(std::vector<TlsIdentity> const& revoked, long validFor = 86400);

private:
    struct Pair;

    std::string write(std::string const& name, std::string const& content) const;
    std::string nextName();
    TlsIdentity written(Pair const& pair, std::string const& further = std::string());

    TemporaryDirectory m_folder;
    std::unique_ptr<Pair> m_own;
    unsigned int m_count = 0;
};

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
