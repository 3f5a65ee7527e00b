/// @file
/// An IPv4 or IPv6 address.
#ifndef SOLVART_IP_ADDRESS_H
#define SOLVART_IP_ADDRESS_H

#include <solvart/Export.h>

#include <iosfwd>
#include <string>

struct sockaddr;

namespace Solvane {

/// One address, without port. Printed in its usual notation, IPv6 without brackets.
class SOLVART_EXPORT IPAddress {
public:
    /// The address that the system's functions gave.
    /// @throws Exception  `address` is of another family than IPv4 and IPv6
    explicit IPAddress(sockaddr const& address);

    /// True for an IPv4 address in dotted-quad form and for an IPv6 address without zone (RFC
    /// 4291).
    static bool isValidIPAddress(std::string const& literal);

private:
    SOLVART_EXPORT friend std::ostream& operator<<(std::ostream& out, IPAddress const& address);

    std::string m_text;
};

/// Prints the usual notation.
SOLVART_EXPORT std::ostream& operator<<(std::ostream& out, IPAddress const& address);

} // namespace Solvane

#endif
