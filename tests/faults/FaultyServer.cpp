// Sockets never block; every wait is a poll that also sees the server's end.
#include "FaultyServer.h"

#include "Exchange.h"
#include "LdapMessages.h"
#include "ScriptedServer.h"

#include <array>
#include <cerrno>
#include <stdexcept>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

namespace SolvaneTest {

std::atomic<bool> FaultyServer::s_sparesReaders{false};

FaultyServer::FaultyServer(Script script)
    : m_script(std::move(script)),
      m_listener(checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket")),
      m_stop(checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")), m_port(0), m_playing(0)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = sizeof address;
    checked(bind(m_listener.number(), generic, length), "bind");
    checked(listen(m_listener.number(), 16), "listen");
    checked(getsockname(m_listener.number(), generic, &length), "getsockname");
    m_port = ntohs(address.sin_port);
    m_acceptor = std::thread([this] { acceptAll(); });
}

FaultyServer::~FaultyServer()
{
    eventfd_write(m_stop.number(), 1);
    m_acceptor.join();
    std::unique_lock<std::mutex> lock(m_mutex);
    m_allEnded.wait(lock, [this] { return m_playing == 0; });
}

void FaultyServer::acceptAll()
{
    acceptUntil(m_stop.number(), m_listener.number(), [this](int socket) {
        std::lock_guard<std::mutex> const lock(m_mutex);
        ++m_playing;
        std::thread([this, socket] { play(socket); }).detach(); // there may be thousands
    });
}

void FaultyServer::play(int socket)
{
    int const on = 1; // send single bytes at once
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    {
        Peer peer(*this, socket);
        try {
            if (m_isMended || (s_sparesReaders && peer.isOfReader())) {
                serveWell(peer);
            } else {
                m_script(peer);
            }
        } catch (std::out_of_range const&) {
            // The client speaks no LDAP, but TLS.
        }
    }
    std::lock_guard<std::mutex> const lock(m_mutex);
    --m_playing;
    m_allEnded.notify_all(); // under the lock: the server may be destroyed once it is released
}

/// False if the server has to stop, or on timeout.
bool FaultyServer::Peer::awaitSocket(short events, Milliseconds patience)
{
    std::array<pollfd, 2> waited = {pollfd{m_socket.number(), events, 0},
                                    pollfd{m_server.m_stop.number(), POLLIN, 0}};
    int const ready = poll(waited.data(), waited.size(), static_cast<int>(patience.count()));
    return (ready > 0 || (ready < 0 && errno == EINTR)) && waited[1].revents == 0;
}

/// False at the end of the input, or on timeout.
bool FaultyServer::Peer::receiveMore(Milliseconds patience)
{
    std::array<char, 65536> bytes;
    while (awaitSocket(POLLIN, patience)) {
        ssize_t const count = recv(m_socket.number(), bytes.data(), bytes.size(), 0);
        if (count > 0) {
            m_pending.append(bytes.data(), static_cast<std::size_t>(count));
            return true;
        }
        if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
            return false;
        }
    }
    return false;
}

std::string FaultyServer::Peer::receive(Milliseconds patience)
{
    for (;;) {
        std::size_t const length = messageLength(m_pending);
        if (length != 0 && length <= m_pending.size()) {
            std::string const message = m_pending.substr(0, length);
            m_pending.erase(0, length);
            note(message);
            return message;
        }
        if (!receiveMore(patience)) {
            return std::string();
        }
    }
}

bool FaultyServer::Peer::isOfReader()
{
    constexpr char sequence = 0x30; // else it is TLS
    while (m_pending.empty() || m_pending.front() == sequence) {
        std::size_t const length = messageLength(m_pending);
        if (length != 0 && length <= m_pending.size()) {
            return isBindOfReader(m_pending.substr(0, length));
        }
        if (!receiveMore(forever)) {
            return false;
        }
    }
    return false;
}

void FaultyServer::Peer::note(std::string const& message)
{
    Step const step = stepOf(message);
    m_isBound = m_isBound || step == Step::bind;
    m_server.m_wasBound = m_server.m_wasBound || m_isBound;
    // Before a bind is sent again, the server is asked for a sign of life.
    bool const isHarmless = step == Step::other || (s_sparesReaders && step == Step::whoAmI);
    if (!m_isBound && !isHarmless) {
        m_server.m_wasAskedAnonymously = true;
    }
}

bool FaultyServer::Peer::send(std::string const& bytes)
{
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        if (!awaitSocket(POLLOUT, forever)) {
            return false;
        }
        ssize_t const count =
            ::send(m_socket.number(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count >= 0) {
            sent += static_cast<std::size_t>(count);
        } else if (errno != EAGAIN && errno != EINTR) {
            return false;
        }
    }
    return true;
}

void FaultyServer::Peer::endSending() { shutdown(m_socket.number(), SHUT_WR); }

void FaultyServer::Peer::reset()
{
    linger const dropAll = {1, 0};
    setsockopt(m_socket.number(), SOL_SOCKET, SO_LINGER, &dropAll, sizeof dropAll);
    m_socket.close();
}

void FaultyServer::Peer::stayMute()
{
    while (receiveMore(forever)) {
    }
}

bool FaultyServer::Peer::pause(Milliseconds time)
{
    pollfd waited = {m_server.m_stop.number(), POLLIN, 0};
    return poll(&waited, 1, static_cast<int>(time.count())) == 0;
}

void serveWell(FaultyServer::Peer& peer)
{
    for (;;) {
        std::string const request = peer.receive();
        if (request.empty()) {
            return;
        }
        for (std::string const& reply : repliesTo(request)) {
            peer.send(reply);
        }
    }
}

} // namespace SolvaneTest
