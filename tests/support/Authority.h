// A test's own certificate authority, and certificates of every kind.
#ifndef SOLVANE_TESTS_SUPPORT_AUTHORITY_H
#define SOLVANE_TESTS_SUPPORT_AUTHORITY_H

#include "TemporaryDirectory.h"

#include <ctime>
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

} // namespace SolvaneTest

#endif
