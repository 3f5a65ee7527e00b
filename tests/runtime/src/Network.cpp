// liblwipc of the smallest runtime: hosts and their addresses.
#include <solvart/Exception.h>
#include <solvart/Host.h>
#include <solvart/IPAddress.h>

#include <ostream>

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

namespace Solvane {

Host::Host(std::string const& name, bool mustResolve)
{
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(name.c_str(), nullptr, &hints, &found) == 0) {
        char text[NI_MAXHOST] = "";
        ::getnameinfo(found->ai_addr, found->ai_addrlen, text, sizeof text, nullptr, 0,
                      NI_NUMERICHOST);
        ::freeaddrinfo(found);
        m_address.reset(new IPAddress(text));
    } else if (mustResolve) {
        throw Exception("Host", 1, nullptr, 0);
    }
}

bool Host::isNull() const { return m_address == nullptr; }
IPAddress const* Host::address() const { return m_address.get(); }

IPAddress::IPAddress(std::string const& text) : m_text(text) {}

bool IPAddress::isValidIPAddress(std::string const& literal)
{
    unsigned char bytes[sizeof(in6_addr)];
    return ::inet_pton(AF_INET, literal.c_str(), bytes) == 1 ||
           ::inet_pton(AF_INET6, literal.c_str(), bytes) == 1;
}

std::ostream& operator<<(std::ostream& out, IPAddress const& address)
{
    return out << address.m_text;
}

} // namespace Solvane
