/// @file
/// A server's certificate: what it says, and whether it is the one for a host.
#ifndef SOLVANE_SESSION_CERTIFICATE_H
#define SOLVANE_SESSION_CERTIFICATE_H

#include <solvane/session/Export.h>
#include <solvane/session/TlsPolicy.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

namespace Solvane::Lookup {

/// An X.509 certificate (RFC 5280). A value: copies share what was parsed; usable from any thread.
class SOLVANE_LOOKUP_EXPORT Certificate {
public:
    /// Parses a certificate.
    /// @param der  the certificate in DER
    /// @throws LDAPException  code 2, type 0, Certificate.cpp:35: it is none
    explicit Certificate(std::string const& der);

    /// Whose it is, a distinguished name as RFC 4514 writes it.
    std::string subject() const;
    /// Who signed it, likewise.
    std::string issuer() const;
    /// Alternative names: DNS names as they are, IP addresses as text.
    std::vector<std::string> names() const;
    /// When its time begins.
    std::time_t notBefore() const;
    /// When its time ends.
    std::time_t notAfter() const;

    /// Whether it is for `host`, a DNS name or an IP address: RFC 6125 with alternative names and
    /// wildcards in the left-most label. The common name counts only where there are no alternative
    /// names.
    bool isFor(std::string const& host) const;

    /// Why a peer with it alone is not to be trusted, in words; empty when it is.
    /// @param caFile  PEM file of accepted authorities
    /// @note  Intermediate certificates that the server sent besides are not at hand here, so this
    ///        explains a refusal, and decides nothing.
    std::string distrust(std::string const& caFile) const;

private:
    struct Parsed;
    std::shared_ptr<Parsed const> m_parsed;
};

/// Why `caFile` cannot be used as a list of authorities, in words; empty when it can.
SOLVANE_LOOKUP_EXPORT std::string faultOfAuthorities(std::string const& caFile);

} // namespace Solvane::Lookup

#endif
