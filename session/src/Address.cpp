// Converts addresses between text and socket addresses.
#include <solvane/session/Address.h>

#include <array>
#include <cstring>
#include <string_view>

#include <arpa/inet.h>
#include <sys/un.h>

namespace Solvane::Lookup {

std::optional<Address> Address::parse(std::string const& text, unsigned int port)
{
    Address parsed;
    auto const networkPort = htons(static_cast<in_port_t>(port));
    if (inet_pton(AF_INET, text.c_str(), &parsed.m_address.v4.sin_addr) == 1) {
        parsed.m_address.v4.sin_family = AF_INET;
        parsed.m_address.v4.sin_port = networkPort;
        return parsed;
    }
    if (inet_pton(AF_INET6, text.c_str(), &parsed.m_address.v6.sin6_addr) == 1) {
        parsed.m_address.v6.sin6_family = AF_INET6;
        parsed.m_address.v6.sin6_port = networkPort;
        return parsed;
    }
    return std::nullopt;
}

std::optional<Address> Address::from(sockaddr const& address)
{
    Address copied;
    copied.m_address.any.sa_family = address.sa_family;
    if (address.sa_family != AF_INET && address.sa_family != AF_INET6) {
        return std::nullopt;
    }
    std::memcpy(&copied.m_address, &address, copied.size());
    return copied;
}

unsigned int Address::port() const
{
    return ntohs(family() == AF_INET ? m_address.v4.sin_port : m_address.v6.sin6_port);
}

std::string Address::host() const
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    void const* const bytes = family() == AF_INET
                                  ? static_cast<void const*>(&m_address.v4.sin_addr)
                                  : static_cast<void const*>(&m_address.v6.sin6_addr);
    inet_ntop(family(), bytes, text.data(), text.size());
    return text.data();
}

std::string Address::text() const { return host() + " port " + std::to_string(port()); }

socklen_t Address::size() const
{
    return family() == AF_INET ? sizeof m_address.v4 : sizeof m_address.v6;
}

bool Address::operator==(Address const& other) const
{
    if (family() != other.family() || port() != other.port()) {
        return false;
    }
    return family() == AF_INET ? m_address.v4.sin_addr.s_addr == other.m_address.v4.sin_addr.s_addr
                               : std::memcmp(&m_address.v6.sin6_addr, &other.m_address.v6.sin6_addr,
                                             sizeof(in6_addr)) == 0;
}

std::string uriOf(std::string const& socketPath)
{
    constexpr char digits[] = "0123456789ABCDEF";
    constexpr std::string_view unreserved = "abcdefghijklmnopqrstuvwxyz" // RFC 3986 section 2.3
                                            "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                            "0123456789-._~";
    std::string uri = "ldapi://";
    for (char const character : socketPath) {
        if (unreserved.find(character) != std::string_view::npos) {
            uri += character;
        } else {
            auto const byte = static_cast<unsigned char>(character);
            uri.append(1, '%').append(1, digits[byte >> 4]).append(1, digits[byte & 0x0F]);
        }
    }
    return uri;
}

std::string faultInSocketPath(std::string const& path)
{
    constexpr std::size_t longest = sizeof(sockaddr_un::sun_path) - 1;
    if (path.empty() || path.front() != '/') {
        return "is not absolute";
    }
    if (path.find('\0') != std::string::npos) {
        return "contains a NUL byte";
    }
    return path.size() <= longest ? std::string()
                                  : "is longer than " + std::to_string(longest) + " bytes";
}

std::string uriOf(bool secure, std::string const& host, unsigned int port)
{
    bool const isV6 = host.find(':') != std::string::npos;
    return std::string(secure ? "ldaps://" : "ldap://") + (isV6 ? '[' + host + ']' : host) + ':' +
           std::to_string(port);
}

} // namespace Solvane::Lookup
