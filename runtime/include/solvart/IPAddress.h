/// @file
/// An IPv4 or IPv6 address.
#ifndef SOLVART_IP_ADDRESS_H
#define SOLVART_IP_ADDRESS_H

#include <solvart/Export.h>

#include <iosfwd>
#include <string>

struct sockaddr;

namespace Solvane {

/// An address without a port, printed in the usual notation, IPv6 without brackets.
class SOLVART_EXPORT IPAddress {
public:
    /// An address from the system's functions.
    /// @throws Exception  the family of `address` is neither IPv4 nor IPv6
    explicit IPAddress(sockaddr const& address);

    /// Whether the text is an IPv4 address in dotted-quad form or an IPv6 address without zone (RFC
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
