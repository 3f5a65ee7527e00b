// A server as the user writes it.
#ifndef SOLVANE_TOOL_SERVER_URI_H
#define SOLVANE_TOOL_SERVER_URI_H

#include <string>

namespace Solvane::Tool {

/// Scheme, host and port of an LDAP URI (RFC 4516) that has nothing else; or a domain whose servers
/// are named by its SRV records (RFC 2782), as "ldap+srv:///dc=example,dc=com".
struct ServerUri {
    /// @throws Failure  "usage": another scheme, no host, a port out of range, or more than a
    /// server
    explicit ServerUri(std::string const& text);

    /// Also without a scheme, as "host", "host:port" and "[::1]:port"; that is "ldap".
    /// @param port  if the text names none
    /// @throws Failure  as the constructor
    static ServerUri fromHost(std::string const& text, unsigned int port);

    std::string host;      ///< IPv6 without its brackets; empty for a domain
    unsigned int port = 0; ///< 0 for a domain
    bool isSecure = false;
    std::string srvDomain; ///< empty for a host
};

} // namespace Solvane::Tool

#endif
