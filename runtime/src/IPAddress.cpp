// IPv4 and IPv6 addresses as text.
#include <solvart/IPAddress.h>

#include <solvart/Exception.h>

#include <cerrno>
#include <optional>
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

/// The usual notation of an address literal; nothing for other text.
std::optional<std::string> usualNotation(std::string const& literal)
{
    if (literal.find('\0') != std::string::npos) {
        return std::nullopt; // inet_pton would judge its beginning alone
    }
    for (int const family : {AF_INET, AF_INET6}) {
        in6_addr address;
        if (::inet_pton(family, literal.c_str(), &address) == 1) {
            return textOf(family, &address);
        }
    }
    return std::nullopt;
}

[[noreturn]] void refuse(int code, unsigned int line, std::string const& text)
{
    Exception failure("IPAddress", code, "IPAddress.cpp", line);
    failure.stringParameter(text);
    throw failure;
}

} // namespace

IPAddress::IPAddress(std::string const& literal)
{
    std::optional<std::string> text = usualNotation(literal);
    if (!text.has_value()) {
        refuse(EINVAL, __LINE__, "No IP address: " + literal);
    }
    m_text = std::move(*text);
}

IPAddress::IPAddress(sockaddr const& address)
{
    switch (address.sa_family) {
    case AF_INET:
        m_text = textOf(AF_INET, &reinterpret_cast<sockaddr_in const&>(address).sin_addr);
        break;
    case AF_INET6:
        m_text = textOf(AF_INET6, &reinterpret_cast<sockaddr_in6 const&>(address).sin6_addr);
        break;
    default:
        refuse(EAFNOSUPPORT, __LINE__,
               "No IP address family: " + std::to_string(address.sa_family));
    }
}

bool IPAddress::isValidIPAddress(std::string const& literal)
{
    return usualNotation(literal).has_value();
}

std::ostream& operator<<(std::ostream& out, IPAddress const& address)
{
    return out << address.asString();
}

} // namespace Solvane
