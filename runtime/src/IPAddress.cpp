// IPv4 and IPv6 addresses as text.
#include <solvart/IPAddress.h>

#include <solvart/Exception.h>

#include <cerrno>
#include <ostream>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace Solvane {

namespace {

std::string textOf(int family, void const* address)
{
    char text[INET6_ADDRSTRLEN];
    return ::inet_ntop(family, address, text, sizeof(text));
}

bool isLiteral(int family, std::string const& text)
{
    in6_addr address; // large enough for either family
    return ::inet_pton(family, text.c_str(), &address) == 1;
}

} // namespace

IPAddress::IPAddress(sockaddr const& address)
{
    if (address.sa_family == AF_INET) {
        m_text = textOf(AF_INET, &reinterpret_cast<sockaddr_in const&>(address).sin_addr);
    } else if (address.sa_family == AF_INET6) {
        m_text = textOf(AF_INET6, &reinterpret_cast<sockaddr_in6 const&>(address).sin6_addr);
    } else {
        Exception failure("IPAddress", EAFNOSUPPORT, "IPAddress.cpp", __LINE__);
        failure.stringParameter("No IP address family: " + std::to_string(address.sa_family));
        throw failure;
    }
}

bool IPAddress::isValidIPAddress(std::string const& literal)
{
    // inet_pton reads only the part before a zero byte.
    return literal.find('\0') == std::string::npos &&
           (isLiteral(AF_INET, literal) || isLiteral(AF_INET6, literal));
}

std::ostream& operator<<(std::ostream& out, IPAddress const& address)
{
    return out << address.m_text;
}

} // namespace Solvane
