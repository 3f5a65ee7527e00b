// Certificates made with GnuTLS, and GnuTLS as a server.
#include "ServerTls.h"

#include <gnutls/abstract.h>
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace SolvaneTest {

namespace {

void check(int error)
{
    if (error < 0) {
        throw std::runtime_error(std::string("GnuTLS: ") + gnutls_strerror(error));
    }
}

std::string taken(gnutls_datum_t datum)
{
    std::string const text(reinterpret_cast<char const*>(datum.data), datum.size);
    gnutls_free(datum.data);
    return text;
}

std::string contentOf(std::string const& file)
{
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

} // namespace

/// A certificate with its key.
struct Authority::Pair {
    Pair(CertificateWish const& wish, Pair const* issuer);
    Pair(Pair const&) = delete;
    Pair& operator=(Pair const&) = delete;
    ~Pair()
    {
        gnutls_x509_crt_deinit(certificate);
        gnutls_x509_privkey_deinit(key);
    }

    void describe(CertificateWish const& wish);
    std::string certificateText() const;
    std::string keyText() const;

    gnutls_x509_crt_t certificate = nullptr;
    gnutls_x509_privkey_t key = nullptr;
};

Authority::Pair::Pair(CertificateWish const& wish, Pair const* issuer)
{
    check(gnutls_x509_crt_init(&certificate));
    check(gnutls_x509_privkey_init(&key));
    check(wish.rsaBits == 0
              ? gnutls_x509_privkey_generate(key, GNUTLS_PK_ECDSA,
                                             GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_SECP256R1), 0)
              : gnutls_x509_privkey_generate(key, GNUTLS_PK_RSA, wish.rsaBits, 0));
    describe(wish);
    Pair const& signer = issuer == nullptr ? *this : *issuer;
    check(gnutls_x509_crt_sign2(certificate, signer.certificate, signer.key,
                                wish.isSignedWithSha1 ? GNUTLS_DIG_SHA1 : GNUTLS_DIG_SHA256, 0));
}

void Authority::Pair::describe(CertificateWish const& wish)
{
    static unsigned int serial = 0;
    ++serial;
    unsigned char const number[] = {1, static_cast<unsigned char>(serial >> 8),
                                    static_cast<unsigned char>(serial)};
    check(gnutls_x509_crt_set_version(certificate, 3));
    check(gnutls_x509_crt_set_serial(certificate, number, sizeof number));
    check(gnutls_x509_crt_set_dn_by_oid(certificate, GNUTLS_OID_X520_COMMON_NAME, 0,
                                        wish.commonName.data(),
                                        static_cast<unsigned int>(wish.commonName.size())));
    check(gnutls_x509_crt_set_activation_time(certificate, wish.notBefore));
    check(gnutls_x509_crt_set_expiration_time(certificate, wish.notAfter));
    check(gnutls_x509_crt_set_key(certificate, key));
    check(gnutls_x509_crt_set_basic_constraints(certificate, wish.isAuthority ? 1 : 0, -1));
    if (wish.isAuthority) {
        check(gnutls_x509_crt_set_key_usage(certificate,
                                            GNUTLS_KEY_KEY_CERT_SIGN | GNUTLS_KEY_CRL_SIGN));
        return;
    }
    check(gnutls_x509_crt_set_key_usage(certificate, GNUTLS_KEY_DIGITAL_SIGNATURE));
    check(gnutls_x509_crt_set_key_purpose_oid(
        certificate, wish.isForClients ? GNUTLS_KP_TLS_WWW_CLIENT : GNUTLS_KP_TLS_WWW_SERVER, 0));
    for (std::string const& name : wish.dnsNames) {
        check(gnutls_x509_crt_set_subject_alt_name(certificate, GNUTLS_SAN_DNSNAME, name.data(),
                                                   static_cast<unsigned int>(name.size()),
                                                   GNUTLS_FSAN_APPEND));
    }
    for (std::string const& address : wish.addresses) {
        in_addr bytes = {};
        inet_pton(AF_INET, address.c_str(), &bytes);
        check(gnutls_x509_crt_set_subject_alt_name(certificate, GNUTLS_SAN_IPADDRESS, &bytes,
                                                   sizeof bytes, GNUTLS_FSAN_APPEND));
    }
}

std::string Authority::Pair::certificateText() const
{
    gnutls_datum_t text = {nullptr, 0};
    check(gnutls_x509_crt_export2(certificate, GNUTLS_X509_FMT_PEM, &text));
    return taken(text);
}

std::string Authority::Pair::keyText() const
{
    gnutls_datum_t text = {nullptr, 0};
    check(gnutls_x509_privkey_export2(key, GNUTLS_X509_FMT_PEM, &text));
    return taken(text);
}

Authority::Authority(std::string const& commonName)
{
    CertificateWish own;
    own.commonName = commonName;
    own.isAuthority = true;
    m_own = std::make_unique<Pair>(own, nullptr);
    write("authority.pem", m_own->certificateText());
}

Authority::~Authority() = default;

std::string Authority::file() const { return m_folder.path() / "authority.pem"; }

TlsIdentity Authority::issue(CertificateWish const& wish)
{
    return written(Pair(wish, m_own.get()));
}

TlsIdentity Authority::issueThrough(CertificateWish const& between, CertificateWish const& wish)
{
    Pair const middle(between, m_own.get());
    return written(Pair(wish, &middle), middle.certificateText());
}

TlsIdentity Authority::selfSigned(CertificateWish const& wish)
{
    return written(Pair(wish, nullptr));
}

std::string Authority::revocations(std::vector<TlsIdentity> const& revoked, long validFor)
{
    std::time_t const now = std::time(nullptr);
    gnutls_x509_crl_t list = nullptr;
    check(gnutls_x509_crl_init(&list));
    check(gnutls_x509_crl_set_version(list, 2));
    check(gnutls_x509_crl_set_this_update(list, now - 7200));
    check(gnutls_x509_crl_set_next_update(list, now + validFor));
    check(gnutls_x509_crl_set_number(list, "\x01", 1));
    for (TlsIdentity const& identity : revoked) {
        std::string text = contentOf(identity.certificateFile);
        gnutls_datum_t const bytes = {reinterpret_cast<unsigned char*>(text.data()),
                                      static_cast<unsigned int>(text.size())};
        gnutls_x509_crt_t certificate = nullptr;
        check(gnutls_x509_crt_init(&certificate));
        check(gnutls_x509_crt_import(certificate, &bytes, GNUTLS_X509_FMT_PEM));
        check(gnutls_x509_crl_set_crt(list, certificate, now - 7200));
        gnutls_x509_crt_deinit(certificate);
    }
    check(gnutls_x509_crl_sign2(list, m_own->certificate, m_own->key, GNUTLS_DIG_SHA256, 0));
    gnutls_datum_t text = {nullptr, 0};
    check(gnutls_x509_crl_export2(list, GNUTLS_X509_FMT_PEM, &text));
    gnutls_x509_crl_deinit(list);
    return write(nextName() + ".crl", taken(text));
}

std::string Authority::write(std::string const& name, std::string const& content) const
{
    std::string const path = m_folder.path() / name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

std::string Authority::nextName() { return "made-" + std::to_string(++m_count); }

TlsIdentity Authority::written(Pair const& pair, std::string const& further)
{
    std::string const name = nextName();
    return {write(name + ".pem", pair.certificateText() + further),
            write(name + ".key", pair.keyText())};
}

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
