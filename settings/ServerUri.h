// A server as written by the user.
#ifndef SOLVANE_TOOL_SERVER_URI_H
#define SOLVANE_TOOL_SERVER_URI_H

#include <string>

namespace Solvane::Tool {

/// Scheme, host and port of an LDAP URI (RFC 4516); or a UNIX socket, as "ldapi://%2Frun%2Fldapi";
/// or a domain whose SRV records (RFC 2782) name the servers, as "ldap+srv:///dc=example,dc=com". A
/// value.
struct ServerUri {
    /// Parses a URI that has nothing but a scheme, a host and a port. "ldapi:///" is OpenLDAP's own
    /// socket.
    /// @throws Failure  "usage": unsupported scheme, no host, invalid port, or further parts
    explicit ServerUri(std::string const& text);

    /// Accepts also "host", "host:port" and "[::1]:port" without a scheme, for "ldap".
    /// @param port  used if the text has none
    /// @throws Failure  as the constructor
    static ServerUri fromHost(std::string const& text, unsigned int port);

    std::string host;      ///< IPv6 without its brackets; empty for a domain or a socket
    unsigned int port = 0; ///< 0 for a domain or a socket
    bool isSecure = false;
    std::string srvDomain;  ///< empty unless it is a domain
    std::string socketPath; ///< empty unless it is a socket
};

} // namespace Solvane::Tool

#endif
