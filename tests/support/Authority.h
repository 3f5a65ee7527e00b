// A certificate authority of a test's own, and certificates of every kind.
#ifndef SOLVANE_TESTS_SUPPORT_AUTHORITY_H
#define SOLVANE_TESTS_SUPPORT_AUTHORITY_H

#include "TemporaryDirectory.h"

#include <ctime>
#include <memory>
#include <string>
#include <vector>

namespace SolvaneTest {

/// What a certificate is to be like. As it stands: good, for localhost and 127.0.0.1.
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

/// Signs certificates and revokes them. Its files live as long as it does.
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
    /// The same by an authority in between, which it signs first.
    TlsIdentity issueThrough(CertificateWish const& between, CertificateWish const& wish);
    /// A certificate signed by itself alone.
    TlsIdentity selfSigned(CertificateWish const& wish);
    /// A list of revoked certificates.
    /// @param revoked   those on it
    /// @param validFor  seconds from now, below 0 for a list that is out of date
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
