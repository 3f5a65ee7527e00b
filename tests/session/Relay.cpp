// One thread that polls both sides.
#include "Relay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>

namespace SolvaneTest {

namespace {

sockaddr_in loopback(unsigned int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int newSocket() { return checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"); }

std::string readSome(int socket)
{
    std::array<char, 65536> bytes;
    ssize_t const count = recv(socket, bytes.data(), bytes.size(), 0);
    return {bytes.data(), count > 0 ? static_cast<std::size_t>(count) : 0};
}

bool write(int socket, std::string const& bytes)
{
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        ssize_t const count = send(socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(count);
    }
    return true;
}

} // namespace

Relay::Relay(unsigned int serverPort, Change change, bool drips)
    : m_listener(newSocket()), m_stop(checked(eventfd(0, EFD_CLOEXEC), "eventfd")), m_port(0),
      m_serverPort(serverPort), m_change(std::move(change)), m_drips(drips)
{
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    checked(bind(m_listener.number(), any, length), "bind");
    checked(listen(m_listener.number(), 1), "listen");
    checked(getsockname(m_listener.number(), any, &length), "getsockname");
    m_port = ntohs(address.sin_port);
    m_thread = std::thread(&Relay::relay, this);
}

Relay::~Relay()
{
    std::uint64_t const one = 1;
    static_cast<void>(::write(m_stop.number(), &one, sizeof one));
    m_thread.join();
}

bool Relay::toClient(int client, std::string const& bytes) const
{
    if (!m_drips) {
        return write(client, bytes);
    }
    int const atOnce = 1;
    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &atOnce, sizeof atOnce);
    for (char const byte : bytes) {
        if (!write(client, std::string(1, byte))) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

void Relay::relay()
{
    std::array<pollfd, 2> listening = {pollfd{m_listener.number(), POLLIN, 0},
                                       pollfd{m_stop.number(), POLLIN, 0}};
    poll(listening.data(), listening.size(), -1);
    if (listening[0].revents == 0) {
        return;
    }
    Descriptor const client(accept4(m_listener.number(), nullptr, nullptr, SOCK_CLOEXEC));
    Descriptor const server(newSocket());
    sockaddr_in const address = loopback(m_serverPort);
    if (connect(server.number(), reinterpret_cast<sockaddr const*>(&address), sizeof address) !=
        0) {
        return;
    }
    std::array<pollfd, 3> sides = {pollfd{client.number(), POLLIN, 0},
                                   pollfd{server.number(), POLLIN, 0},
                                   pollfd{m_stop.number(), POLLIN, 0}};
    for (int number = 0;;) {
        poll(sides.data(), sides.size(), -1);
        if (sides[2].revents != 0) {
            return;
        }
        if (sides[0].revents != 0) {
            std::string const bytes = readSome(client.number());
            if (bytes.empty() || !write(server.number(), bytes)) {
                return;
            }
        }
        if (sides[1].revents != 0) {
            std::string const bytes = readSome(server.number());
            if (bytes.empty() || !toClient(client.number(), m_change(bytes, ++number))) {
                return;
            }
        }
    }
}

} // namespace SolvaneTest
