/// @file
/// Addresses of servers.
#ifndef SOLVANE_SESSION_ADDRESS_H
#define SOLVANE_SESSION_ADDRESS_H

#include <solvane/session/Export.h>

#include <optional>
#include <string>

#include <netinet/in.h>
#include <sys/socket.h>

namespace Solvane::Lookup {

/// An IPv4 or IPv6 address and a TCP port. A value.
class SOLVANE_LOOKUP_EXPORT Address {
public:
    /// Parses an address, as "192.0.2.1" or "2001:db8::1" (without brackets).
    /// @return empty for names and for addresses with a zone ("fe80::1%eth0")
    static std::optional<Address> parse(std::string const& text, unsigned int port);
    /// Converts a socket address.
    /// @param address  of family AF_INET or AF_INET6; read up to the size of its family
    /// @return empty for any other family
    static std::optional<Address> from(sockaddr const& address);

    int family() const { return m_address.any.sa_family; } ///< AF_INET or AF_INET6
    unsigned int port() const;                             ///< TCP port
    std::string host() const;                              ///< as "192.0.2.1" or "2001:db8::1"
    std::string text() const;                              ///< as "192.0.2.1 port 389"

    sockaddr const* socketAddress() const { return &m_address.any; } ///< for connect(2)
    socklen_t size() const;                                          ///< of the socket address

    /// The same family, address and port.
    bool operator==(Address const& other) const;
    /// Another family, address or port.
    bool operator!=(Address const& other) const { return !(*this == other); }

private:
    Address() : m_address{} {}

    union {
        sockaddr_in6 v6; // the largest member: initializing it zeroes the whole union
        sockaddr_in v4;
        sockaddr any;
    } m_address;
};

/// The URI of a server with the host as the user named it: "ldaps://ldap.example.com:636".
SOLVANE_LOOKUP_EXPORT std::string uriOf(bool secure, std::string const& host, unsigned int port);
/// The URI of a UNIX socket, as OpenLDAP writes it: "ldapi://%2Frun%2Fslapd%2Fldapi".
SOLVANE_LOOKUP_EXPORT std::string uriOf(std::string const& socketPath);
/// Why no socket can have this path, as "is not absolute"; empty if one can.
SOLVANE_LOOKUP_EXPORT std::string faultInSocketPath(std::string const& path);

} // namespace Solvane::Lookup

#endif
