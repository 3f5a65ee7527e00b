/// @file
/// TLS settings, and how far a server's certificate is verified.
#ifndef SOLVANE_SESSION_TLS_POLICY_H
#define SOLVANE_SESSION_TLS_POLICY_H

#include <solvane/session/Export.h>

#include <string>

namespace Solvane::Lookup {

/// How far a server's certificate is verified before anything is sent to it.
enum class TlsVerify {
    none,  ///< not at all: the connection is encrypted, but the peer is not authenticated
    chain, ///< signed by a trusted authority, for servers, currently valid, strong enough
    full,  ///< the same, and it matches the configured host (RFC 6125)
};

/// The lowest version of TLS to negotiate.
enum class TlsVersion {
    configured, ///< OpenLDAP's setting (TLS_PROTOCOL_MIN), else 1.2
    tls10,      ///< TLS 1.0, obsolete (RFC 8996)
    tls11,      ///< TLS 1.1, obsolete (RFC 8996)
    tls12,      ///< TLS 1.2
    tls13,      ///< TLS 1.3
};

/// TLS settings. A value. Empty members are taken from OpenLDAP's configuration of this process
/// (ldap.conf and the LDAPTLS_... environment variables), as named below.
struct TlsPolicy {
    TlsVerify verify = TlsVerify::full; ///< how far certificates are verified
    /// PEM file of trusted authorities. If neither file nor folder is set here: TLS_CACERT and
    /// TLS_CACERTDIR; if neither of those is set: the system's bundle.
    std::string caFile;
    std::string caFolder; ///< folder of PEM files of trusted authorities
    std::string crlFile;  ///< PEM file of revocation lists; else TLS_CRLFILE
    /// Priority string of GnuTLS, as "SECURE192:-VERS-ALL:+VERS-TLS1.3"; else TLS_CIPHER_SUITE,
    /// else the system's default.
    std::string cipherSuite;
    TlsVersion minimumVersion = TlsVersion::configured; ///< lowest version
    std::string certificateFile; ///< PEM file of the client certificate; else TLS_CERT
    std::string keyFile;         ///< PEM file of its key, not encrypted; else TLS_KEY

    /// The file of accepted authorities, or the folder if there is no file; the system's bundle if
    /// neither is set, empty if there is none.
    SOLVANE_LOOKUP_EXPORT std::string authorities() const;
};

} // namespace Solvane::Lookup

#endif
