// A port at which connects are neither accepted nor refused.
#ifndef SOLVANE_TESTS_SUPPORT_HANGING_PORT_H
#define SOLVANE_TESTS_SUPPORT_HANGING_PORT_H

#include "Descriptor.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace SolvaneTest {

/// Listens with a full queue: the kernel drops further connects.
class HangingPort {
public:
    /// @param port  0: a free one
    explicit HangingPort(char const* host = "127.0.0.1", unsigned int port = 0)
        : m_listener(newSocket(0)), m_number(0)
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        checked(inet_pton(AF_INET, host, &address.sin_addr), "inet_pton");
        socklen_t length = sizeof address;
        auto* const any = reinterpret_cast<sockaddr*>(&address);
        checked(bind(m_listener.number(), any, length), "bind");
        checked(listen(m_listener.number(), 0), "listen");
        checked(getsockname(m_listener.number(), any, &length), "getsockname");
        m_number = ntohs(address.sin_port);
        // Connects until one gets no answer.
        constexpr int longEnough = 200;
        pollfd waited = {-1, POLLOUT, 0};
        do {
            m_clients.push_back(std::make_unique<Descriptor>(newSocket(SOCK_NONBLOCK)));
            waited.fd = m_clients.back()->number();
            static_cast<void>(connect(waited.fd, any, length));
        } while (poll(&waited, 1, longEnough) == 1);
    }

    unsigned int number() const { return m_number; }

private:
    static int newSocket(int flags)
    {
        return checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0), "socket");
    }

    Descriptor m_listener;
    unsigned int m_number;
    std::vector<std::unique_ptr<Descriptor>> m_clients;
};

} // namespace SolvaneTest

#endif
