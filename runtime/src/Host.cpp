// Host names through the system's resolver.
#include <solvart/Host.h>

#include <solvart/Exception.h>

#include <memory>
#include <new>

#include <netdb.h>
#include <sys/socket.h>

namespace Solvane {

namespace {

using AddressList = std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)>;

/// Resolves `name` into `addresses`; returns an EAI_ number, 0 for success.
int resolve(std::string const& name, AddressList& addresses)
{
    if (name.empty() || name.find('\0') != std::string::npos) {
        return EAI_NONAME; // the resolver would use only the part before the zero byte
    }
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    // Without AI_ADDRCONFIG: it hides loopback addresses on hosts with no other network.
    addrinfo* found = nullptr;
    int const rc = ::getaddrinfo(name.c_str(), nullptr, &hints, &found);
    addresses.reset(found);
    return rc;
}

} // namespace

Host::Host(std::string const& name, bool mustResolve)
{
    AddressList addresses(nullptr, &::freeaddrinfo);
    int const rc = resolve(name, addresses);
    if (rc == EAI_MEMORY) {
        throw std::bad_alloc();
    }
    if (rc == 0) {
        m_address.emplace(*addresses->ai_addr);
    } else if (mustResolve) {
        Exception failure("Host", rc, "Host.cpp", __LINE__);
        failure.stringParameter(::gai_strerror(rc));
        throw failure;
    }
}

} // namespace Solvane
