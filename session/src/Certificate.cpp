// X.509 certificates, parsed and verified with GnuTLS.
#include <solvane/session/Certificate.h>

#include "CertificateFaults.h"

#include <solvane/ldap/LDAPException.h>

#include <gnutls/gnutls.h>
#include <gnutls/x509.h>

#include <algorithm>
#include <array>

#include <arpa/inet.h>

namespace Solvane::Lookup {

namespace {

LDAPException invalidCertificate(int error)
{
    constexpr int code = 2;
    constexpr unsigned int line = 35; // as reported; stays what it is when the source moves
    constexpr int general = 0;
    LDAPException fault("LDAPException", code, "Certificate.cpp", line, general);
    fault.stringParameter(std::string("not a certificate: ") + gnutls_strerror(error));
    return fault;
}

/// Owns bytes allocated by GnuTLS.
class Datum {
public:
    Datum() = default;
    Datum(Datum const&) = delete;
    Datum& operator=(Datum const&) = delete;
    ~Datum() { gnutls_free(m_datum.data); }

    gnutls_datum_t* address() { return &m_datum; }
    std::string text() const
    {
        return m_datum.data == nullptr
                   ? std::string()
                   : std::string(reinterpret_cast<char const*>(m_datum.data), m_datum.size);
    }

private:
    gnutls_datum_t m_datum = {nullptr, 0};
};

/// A list of trusted authorities.
class TrustList {
public:
    explicit TrustList(std::string const& file)
    {
        m_error = gnutls_x509_trust_list_init(&m_list, 0);
        if (m_error >= 0) {
            m_error = gnutls_x509_trust_list_add_trust_file(m_list, file.c_str(), nullptr,
                                                            GNUTLS_X509_FMT_PEM, 0, 0);
        }
    }
    TrustList(TrustList const&) = delete;
    TrustList& operator=(TrustList const&) = delete;
    ~TrustList() { gnutls_x509_trust_list_deinit(m_list, 1); }

    gnutls_x509_trust_list_t get() const { return m_list; }
    /// The number of certificates, or GnuTLS's error below 0.
    int result() const { return m_error; }

private:
    gnutls_x509_trust_list_t m_list = nullptr;
    int m_error;
};

std::string addressText(std::string const& bytes)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    bool const isV4 = bytes.size() == sizeof(in_addr);
    if (!isV4 && bytes.size() != sizeof(in6_addr)) {
        return std::string();
    }
    inet_ntop(isV4 ? AF_INET : AF_INET6, bytes.data(), text.data(), text.size());
    return text.data();
}

/// The bytes of an IP address in text; empty for any other text.
std::string addressBytes(std::string const& text)
{
    std::array<char, sizeof(in6_addr)> bytes{};
    if (inet_pton(AF_INET, text.c_str(), bytes.data()) == 1) {
        return std::string(bytes.data(), sizeof(in_addr));
    }
    if (inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1) {
        return std::string(bytes.data(), sizeof(in6_addr));
    }
    return std::string();
}

/// The alternative name at `index` and its kind (GNUTLS_SAN_...), or GnuTLS's error below 0.
int alternativeName(gnutls_x509_crt_t certificate, unsigned int index, std::string& name)
{
    name.resize(256);
    size_t size = name.size();
    int kind =
        gnutls_x509_crt_get_subject_alt_name(certificate, index, name.data(), &size, nullptr);
    if (kind == GNUTLS_E_SHORT_MEMORY_BUFFER) {
        name.resize(size);
        kind =
            gnutls_x509_crt_get_subject_alt_name(certificate, index, name.data(), &size, nullptr);
    }
    name.resize(kind < 0 ? 0 : size);
    return kind;
}

std::vector<std::string> alternativeNames(gnutls_x509_crt_t certificate)
{
    std::vector<std::string> names;
    std::string name;
    for (unsigned int index = 0;; ++index) {
        int const kind = alternativeName(certificate, index, name);
        if (kind < 0) { // there are no more, or the extension cannot be read
            return names;
        }
        if (kind == GNUTLS_SAN_DNSNAME) {
            names.push_back(name);
        } else if (kind == GNUTLS_SAN_IPADDRESS) {
            names.push_back(addressText(name));
        }
    }
}

std::string day(std::time_t time)
{
    std::tm parts{};
    std::array<char, 32> text{};
    gmtime_r(&time, &parts);
    strftime(text.data(), text.size(), "%Y-%m-%d", &parts);
    return text.data();
}

using NameGetter = int (*)(gnutls_x509_crt_t, gnutls_datum_t*, unsigned int);

std::string distinguishedName(gnutls_x509_crt_t certificate, NameGetter getter)
{
    Datum name;
    return getter(certificate, name.address(), 0) < 0 ? std::string() : name.text();
}

/// The first certificate of a chain that is expired or not yet valid at `now`; else the first one.
Certificate const& outOfTime(std::vector<Certificate> const& chain, std::time_t now)
{
    auto const found =
        std::find_if(chain.begin(), chain.end(), [now](Certificate const& certificate) {
            return certificate.notAfter() < now || certificate.notBefore() > now;
        });
    return found == chain.end() ? chain.front() : *found;
}

/// Describes the unknown issuer of a chain.
std::string strangerOf(std::vector<Certificate> const& chain)
{
    Certificate const& last = chain.back();
    bool const isSelfSigned = last.subject() == last.issuer();
    return isSelfSigned && chain.size() == 1 ? "self-signed"
                                             : "signed by an unknown authority: " + last.issuer();
}

} // namespace

struct Certificate::Parsed {
    explicit Parsed(std::string const& der)
    {
        gnutls_datum_t const bytes = {
            reinterpret_cast<unsigned char*>(const_cast<char*>(der.data())),
            static_cast<unsigned int>(der.size())};
        int error = gnutls_x509_crt_init(&certificate);
        if (error >= 0) {
            error = gnutls_x509_crt_import(certificate, &bytes, GNUTLS_X509_FMT_DER);
        }
        if (error < 0) {
            gnutls_x509_crt_deinit(certificate);
            throw invalidCertificate(error);
        }
        names = alternativeNames(certificate);
    }
    Parsed(Parsed const&) = delete;
    Parsed& operator=(Parsed const&) = delete;
    ~Parsed() { gnutls_x509_crt_deinit(certificate); }

    gnutls_x509_crt_t certificate = nullptr; ///< read-only, so thread-safe
    std::vector<std::string> names;
};

Certificate::Certificate(std::string const& der) : m_parsed(std::make_shared<Parsed const>(der)) {}

std::string Certificate::subject() const
{
    return distinguishedName(m_parsed->certificate, gnutls_x509_crt_get_dn3);
}

std::string Certificate::issuer() const
{
    return distinguishedName(m_parsed->certificate, gnutls_x509_crt_get_issuer_dn3);
}

std::vector<std::string> Certificate::names() const { return m_parsed->names; }

std::time_t Certificate::notBefore() const
{
    return gnutls_x509_crt_get_activation_time(m_parsed->certificate);
}

std::time_t Certificate::notAfter() const
{
    return gnutls_x509_crt_get_expiration_time(m_parsed->certificate);
}

bool Certificate::isFor(std::string const& host) const
{
    // GnuTLS's host name check would accept an address in a DNS name entry, ...
    std::string const address = addressBytes(host);
    if (!address.empty()) {
        return gnutls_x509_crt_check_ip(m_parsed->certificate,
                                        reinterpret_cast<unsigned char const*>(address.data()),
                                        static_cast<unsigned int>(address.size()), 0) != 0;
    }
    // ... the common name if all alternative names are addresses, ...
    bool const hasHostName =
        m_parsed->names.empty() ||
        std::any_of(m_parsed->names.begin(), m_parsed->names.end(),
                    [](std::string const& name) { return addressBytes(name).empty(); });
    bool const isAbsolute = !host.empty() && host.back() == '.';
    std::string const name = host.substr(0, host.size() - (isAbsolute ? 1 : 0));
    // ... and an empty label as a match for a wildcard.
    bool const isHostName =
        !name.empty() && name.front() != '.' && name.find('\0') == std::string::npos;
    return hasHostName && isHostName &&
           gnutls_x509_crt_check_hostname2(m_parsed->certificate, name.c_str(), 0) != 0;
}

std::string Certificate::distrust(std::string const& caFile) const
{
    TrustList const authorities(caFile);
    if (authorities.result() <= 0) {
        return faultOfAuthorities(caFile);
    }
    gnutls_x509_crt_t certificate = m_parsed->certificate;
    unsigned int status = 0;
    int const error =
        gnutls_x509_trust_list_verify_crt(authorities.get(), &certificate, 1, 0, &status, nullptr);
    if (error < 0) {
        return std::string("cannot be verified: ") + gnutls_strerror(error);
    }
    return faultInWords(status, {*this});
}

std::string faultInWords(unsigned int status, std::vector<Certificate> const& chain)
{
    struct Fault {
        unsigned int flag;
        std::string text;
    };
    Certificate const& wrong = outOfTime(chain, std::time(nullptr));
    std::string const whose = &wrong == &chain.front() ? "" : " (" + wrong.subject() + ')';
    Fault const faults[] = {
        {GNUTLS_CERT_EXPIRED, "expired on " + day(wrong.notAfter()) + whose},
        {GNUTLS_CERT_NOT_ACTIVATED, "not valid before " + day(wrong.notBefore()) + whose},
        {GNUTLS_CERT_SIGNER_NOT_FOUND, strangerOf(chain)},
        {GNUTLS_CERT_SIGNER_NOT_CA,
         "signed by a certificate that is not a CA: " + chain.front().issuer()},
        {GNUTLS_CERT_SIGNATURE_FAILURE, "invalid signature"},
        {GNUTLS_CERT_INSECURE_ALGORITHM,
         "the key or signature is too weak (RSA below 2048 bits, SHA-1)"},
        {GNUTLS_CERT_REVOKED, "revoked"},
        {GNUTLS_CERT_REVOCATION_DATA_SUPERSEDED, "the revocation list is out of date"},
        {GNUTLS_CERT_REVOCATION_DATA_ISSUED_IN_FUTURE,
         "the revocation list is dated in the future"},
        {GNUTLS_CERT_PURPOSE_MISMATCH, "not valid for servers"},
    };
    std::string text;
    for (Fault const& fault : faults) {
        if ((status & fault.flag) != 0) {
            text.append(text.empty() ? "" : ", ").append(fault.text);
        }
    }
    bool const isUnexplained = status != 0 && text.empty();
    return isUnexplained ? "not valid" : text;
}

std::string faultOfAuthorities(std::string const& caFile)
{
    return faultOf(caFile, "certificates",
                   [](char const* file) { return TrustList(file).result(); });
}

} // namespace Solvane::Lookup
