/// @file
/// A server's certificate: its fields, and whether it matches a host.
#ifndef SOLVANE_SESSION_CERTIFICATE_H
#define SOLVANE_SESSION_CERTIFICATE_H

#include <solvane/session/Export.h>
#include <solvane/session/TlsPolicy.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

namespace Solvane::Lookup {

/// An X.509 certificate (RFC 5280). A value; copies share the parsed certificate. Thread-safe.
class SOLVANE_LOOKUP_EXPORT Certificate {
public:
    /// Parses a certificate.
    /// @param der  the certificate in DER
    /// @throws LDAPException  code 2, type 0, Certificate.cpp:35: not a certificate
    explicit Certificate(std::string const& der);

    /// The subject, a distinguished name in the form of RFC 4514.
    std::string subject() const;
    /// The issuer, in the same form.
    std::string issuer() const;
    /// Subject alternative names: DNS names, and IP addresses as text.
    std::vector<std::string> names() const;
    /// Begin of the validity.
    std::time_t notBefore() const;
    /// End of the validity.
    std::time_t notAfter() const;

    /// Whether it matches `host`, a DNS name or an IP address: RFC 6125 with alternative names and
    /// wildcards in the left-most label. The common name counts only if there are no alternative
    /// names.
    bool isFor(std::string const& host) const;

    /// Why this certificate alone is not trusted; empty if it is.
    /// @param caFile  PEM file of trusted authorities
    /// @note  Intermediate certificates that the server sent are not considered: use it to explain
    ///        a refusal, not to verify a server.
    std::string distrust(std::string const& caFile) const;

private:
    struct Parsed;
    std::shared_ptr<Parsed const> m_parsed;
};

/// Why `caFile` cannot be used as a file of trusted authorities; empty if it can.
SOLVANE_LOOKUP_EXPORT std::string faultOfAuthorities(std::string const& caFile);

} // namespace Solvane::Lookup

#endif
