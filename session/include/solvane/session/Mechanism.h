/// @file
/// How a connection authenticates.
#ifndef SOLVANE_SESSION_MECHANISM_H
#define SOLVANE_SESSION_MECHANISM_H

#include <string>

namespace Solvane::Lookup {

/// How a connection authenticates (RFC 4513 section 5).
enum class Mechanism {
    simple,   ///< bind DN and password; anonymous without a bind DN
    external, ///< SASL EXTERNAL: the client certificate, or the process's user on a UNIX socket
    gssapi,   ///< SASL GSSAPI (RFC 4752): Kerberos, with the ticket or keytab of the process
};

/// Whether a connection with this mechanism and bind DN sends no bind.
inline bool isAnonymous(Mechanism mechanism, std::string const& bindDn)
{
    return mechanism == Mechanism::simple && bindDn.empty();
}

} // namespace Solvane::Lookup

#endif
