// The directory that answers from memory.
#include "ReplayServer.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <stdexcept>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

namespace SolvaneBench {

using SolvaneTest::checked;

namespace {

/// The part of a message with id 1 after its id.
std::string operationIn(std::string const& message)
{
    constexpr std::size_t idBytes = 3;
    auto const length = static_cast<unsigned char>(message.at(1));
    std::size_t const headerBytes = length < 0x80 ? 2 : 2 + (length & 0x7fU);
    return message.substr(headerBytes + idBytes);
}

sockaddr* generic(sockaddr_in& address)
{
    return reinterpret_cast<sockaddr*>(&address); // the one address type of the socket calls
}

void watch(int events, int descriptor)
{
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    checked(epoll_ctl(events, EPOLL_CTL_ADD, descriptor, &event), "epoll_ctl");
}

bool sendAll(int socket, std::string const& bytes)
{
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        ssize_t const count = send(socket, &bytes[sent], bytes.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        sent += count < 0 ? 0 : static_cast<std::size_t>(count);
    }
    return true;
}

} // namespace

void Answer::add(std::string const& dn, std::vector<SolvaneTest::Attribute> const& attributes)
{
    m_operations.push_back(operationIn(SolvaneTest::searchEntry(1, dn, attributes)));
}

std::string Answer::messages(int messageId) const
{
    std::string bytes;
    for (std::string const& operation : m_operations) {
        bytes += SolvaneTest::ldapMessage(messageId, operation);
    }
    return bytes + SolvaneTest::searchDone(messageId);
}

ReplayServer::ReplayServer()
    : m_listener(checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket")),
      m_stop(checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")),
      m_events(checked(epoll_create1(EPOLL_CLOEXEC), "epoll")), m_port(0)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    checked(bind(m_listener.number(), generic(address), size), "bind");
    checked(getsockname(m_listener.number(), generic(address), &size), "getsockname");
    checked(listen(m_listener.number(), SOMAXCONN), "listen");
    m_port = ntohs(address.sin_port);
    watch(m_events.number(), m_listener.number());
    watch(m_events.number(), m_stop.number());
    m_thread = std::thread([this] { serve(); });
}

ReplayServer::~ReplayServer()
{
    eventfd_write(m_stop.number(), 1);
    m_thread.join();
}

std::string ReplayServer::uri() const { return "ldap://127.0.0.1:" + std::to_string(m_port); }

void ReplayServer::answer(Answer answer)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_answer = std::move(answer);
}

void ReplayServer::serve()
{
    std::array<epoll_event, 64> events = {};
    for (;;) {
        int const count = epoll_wait(m_events.number(), events.data(), events.size(), -1);
        for (int i = 0; i < count; ++i) {
            int const descriptor = events[static_cast<std::size_t>(i)].data.fd;
            if (descriptor == m_stop.number()) {
                return;
            }
            if (descriptor == m_listener.number()) {
                accept();
            } else {
                receive(descriptor);
            }
        }
    }
}

void ReplayServer::accept()
{
    int const client =
        checked(accept4(m_listener.number(), nullptr, nullptr, SOCK_CLOEXEC), "accept");
    int const one = 1;
    checked(setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one), "TCP_NODELAY");
    m_clients.try_emplace(client, client);
    watch(m_events.number(), client);
}

void ReplayServer::receive(int socket)
{
    std::array<char, 16384> bytes; // NOLINT(cppcoreguidelines-pro-type-member-init): written to
    ssize_t const count = recv(socket, bytes.data(), bytes.size(), 0);
    if (count <= 0) {
        m_clients.erase(socket);
        return;
    }
    std::string& pending = m_clients.at(socket).pending;
    pending.append(bytes.data(), static_cast<std::size_t>(count));
    for (;;) {
        std::size_t const length = SolvaneTest::messageLength(pending);
        if (length == 0 || length > pending.size()) {
            return;
        }
        if (!reply(socket, pending.substr(0, length))) {
            m_clients.erase(socket);
            return;
        }
        pending.erase(0, length);
    }
}

/// Returns false if the connection ended.
bool ReplayServer::reply(int socket, std::string const& request)
{
    int const id = SolvaneTest::messageIdOf(request);
    switch (SolvaneTest::operationOf(request)) {
    case SolvaneTest::BindRequest:
        return sendAll(socket, SolvaneTest::bindResponse(id));
    case SolvaneTest::SearchRequest: {
        std::lock_guard<std::mutex> const lock(m_mutex);
        return sendAll(socket, m_answer.messages(id));
    }
    default:
        return false;
    }
}

} // namespace SolvaneBench
