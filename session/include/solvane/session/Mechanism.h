/// @file
/// How a connection authenticates.
#ifndef SOLVANE_SESSION_MECHANISM_H
#define SOLVANE_SESSION_MECHANISM_H

namespace Solvane::Lookup {

/// How a connection authenticates (RFC 4513 section 5).
enum class Mechanism {
    simple,   ///< bind DN and password; anonymous without a bind DN
    external, ///< SASL EXTERNAL: the client certificate, or the process's user on a UNIX socket
    gssapi,   ///< SASL GSSAPI (RFC 4752): Kerberos, with the ticket or keytab of the process
};

} // namespace Solvane::Lookup

#endif
