// Sockets never block; every wait is a poll that also sees the server's end.
#include "ScriptedServer.h"

#include "LdapMessages.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace SolvaneTest {

namespace {

void bindToFreePort(int socket)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    checked(bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address), "bind");
}

unsigned int portOf(int socket)
{
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    checked(getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length), "getsockname");
    return ntohs(address.sin_port);
}

int newSocket()
{
    return checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket");
}

} // namespace

// A port that is bound and not listened on.
RefusingPort::RefusingPort() : m_socket(newSocket()), m_number(0)
{
    bindToFreePort(m_socket.number());
    m_number = portOf(m_socket.number());
}

ScriptedServer::ScriptedServer(Script script, int receiveBuffer)
    : m_script(std::move(script)), m_listener(newSocket()),
      m_stop(checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")), m_port(0),
      m_endedScripts(0), m_hasCue(false), m_isStopping(false)
{
    int const listener = m_listener.number();
    if (receiveBuffer != 0) {
        checked(setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer),
                "SO_RCVBUF");
    }
    bindToFreePort(listener);
    checked(listen(listener, 16), "listen");
    m_port = portOf(listener);
    m_acceptor = std::thread([this] { acceptAll(); });
}

ScriptedServer::~ScriptedServer()
{
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_isStopping = true;
    }
    m_changed.notify_all();
    eventfd_write(m_stop.number(), 1);
    m_acceptor.join();
    for (std::thread& player : m_players) { // no more are added
        player.join();
    }
}

std::size_t ScriptedServer::connectionCount() const
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    return m_players.size();
}

std::size_t ScriptedServer::receivedCount() const
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    return m_received.size();
}

std::vector<std::string> ScriptedServer::received() const
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    return m_received;
}

void ScriptedServer::giveCue()
{
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_hasCue = true;
    }
    m_changed.notify_all();
}

bool ScriptedServer::awaitEndedScripts(std::size_t count)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(10),
                              [&] { return m_endedScripts >= count; });
}

void ScriptedServer::acceptAll()
{
    acceptUntil(m_stop.number(), m_listener.number(), [this](int socket) {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_players.emplace_back([this, socket] { play(socket); });
    });
}

void ScriptedServer::play(int socket)
{
    {
        Peer peer(*this, socket);
        m_script(peer);
    }
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        ++m_endedScripts;
    }
    m_changed.notify_all();
}

ScriptedServer::Peer::Peer(ScriptedServer& server, int socket) : m_server(server), m_socket(socket)
{
    int const on = 1; // send single bytes at once
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

ScriptedServer::Peer::~Peer()
{
    if (m_tls && m_socket.number() >= 0) {
        gnutls_bye(m_tls->get(), GNUTLS_SHUT_WR);
    }
}

bool ScriptedServer::Peer::startTls(ServerTls const& tls, std::size_t cutAfter)
{
    m_tls = std::make_unique<ServerTlsSession>(tls, m_socket.number(), cutAfter);
    for (;;) {
        int const rc = gnutls_handshake(m_tls->get());
        if (rc >= 0) {
            return true;
        }
        if (gnutls_error_is_fatal(rc) != 0) {
            m_tls->sendAlert(rc);
            return false;
        }
        if (rc == GNUTLS_E_AGAIN && !awaitTls()) {
            return false;
        }
    }
}

bool ScriptedServer::Peer::grantStartTls(ServerTls const& tls)
{
    std::string const request = receiveMessage();
    if (request.empty()) {
        return false;
    }
    send(startTlsResponse(messageIdOf(request)));
    return startTls(tls);
}

std::string ScriptedServer::Peer::askedName() const
{
    std::array<char, 256> name{};
    size_t size = name.size();
    unsigned int type = 0;
    int const rc = gnutls_server_name_get(m_tls->get(), name.data(), &size, &type, 0);
    return rc == 0 ? std::string(name.data()) : std::string();
}

bool ScriptedServer::Peer::isRefusedNewHandshake()
{
    gnutls_rehandshake(m_tls->get());
    char byte = 0;
    ssize_t rc = GNUTLS_E_AGAIN;
    while (rc == GNUTLS_E_AGAIN && awaitTls()) {
        rc = gnutls_record_recv(m_tls->get(), &byte, 1);
    }
    return rc == GNUTLS_E_WARNING_ALERT_RECEIVED &&
           gnutls_alert_get(m_tls->get()) == GNUTLS_A_NO_RENEGOTIATION;
}

bool ScriptedServer::Peer::isTlsResumed() const
{
    return gnutls_session_is_resumed(m_tls->get()) != 0;
}

void ScriptedServer::Peer::sendTickets(unsigned int count)
{
    gnutls_session_ticket_send(m_tls->get(), count, 0);
}

/// False if the server has to stop.
bool ScriptedServer::Peer::awaitTls()
{
    return awaitSocket(gnutls_record_get_direction(m_tls->get()) == 0 ? POLLIN : POLLOUT);
}

/// As recv(2) on a non-blocking socket.
ssize_t ScriptedServer::Peer::receiveSome(char* bytes, std::size_t room)
{
    if (!m_tls) {
        return recv(m_socket.number(), bytes, room, 0);
    }
    ssize_t const received = gnutls_record_recv(m_tls->get(), bytes, room);
    m_hasHeardGoodbye = received == 0;
    if (received >= 0) {
        return received;
    }
    errno = gnutls_error_is_fatal(static_cast<int>(received)) != 0 ? EIO : EAGAIN;
    return -1;
}

/// As send(2).
ssize_t ScriptedServer::Peer::sendSome(char const* bytes, std::size_t length)
{
    if (!m_tls) {
        return ::send(m_socket.number(), bytes, length, MSG_NOSIGNAL);
    }
    ssize_t const sent = gnutls_record_send(m_tls->get(), bytes, length);
    if (sent >= 0) {
        return sent;
    }
    errno = gnutls_error_is_fatal(static_cast<int>(sent)) != 0 ? EIO : EAGAIN;
    return -1;
}

/// False if the server has to stop.
bool ScriptedServer::Peer::awaitSocket(short events)
{
    std::array<pollfd, 2> waited = {pollfd{m_socket.number(), events, 0},
                                    pollfd{m_server.m_stop.number(), POLLIN, 0}};
    poll(waited.data(), waited.size(), -1);
    return waited[1].revents == 0;
}

/// False at the end of the input.
bool ScriptedServer::Peer::receiveMore()
{
    std::array<char, 65536> bytes;
    bool const hasPending = m_tls && gnutls_record_check_pending(m_tls->get()) > 0;
    while (hasPending || awaitSocket(POLLIN)) {
        ssize_t const count = receiveSome(bytes.data(), bytes.size());
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

std::string ScriptedServer::Peer::receiveMessage()
{
    for (;;) {
        std::size_t const length = messageLength(m_pending);
        if (length != 0 && length <= m_pending.size()) {
            std::string const message = m_pending.substr(0, length);
            m_pending.erase(0, length);
            std::lock_guard<std::mutex> const lock(m_server.m_mutex);
            m_server.m_received.push_back(message);
            return message;
        }
        if (!receiveMore()) {
            return std::string();
        }
    }
}

std::string ScriptedServer::Peer::receiveRest()
{
    while (receiveMore()) {
    }
    return std::exchange(m_pending, std::string());
}

std::size_t ScriptedServer::Peer::unreadBytes() const
{
    int count = 0;
    checked(ioctl(m_socket.number(), FIONREAD, &count), "FIONREAD");
    return m_pending.size() + static_cast<std::size_t>(count);
}

void ScriptedServer::Peer::discardSome()
{
    std::array<char, 4096> bytes;
    if (awaitSocket(POLLIN)) {
        static_cast<void>(recv(m_socket.number(), bytes.data(), bytes.size(), 0));
        explicit_bzero(bytes.data(), bytes.size());
    }
}

void ScriptedServer::Peer::grantBind()
{
    std::string const request = receiveMessage();
    if (!request.empty()) {
        send(bindResponse(messageIdOf(request)));
    }
}

void ScriptedServer::Peer::send(std::string const& bytes)
{
    std::size_t sent = 0;
    while (sent < bytes.size() && awaitSocket(POLLOUT)) {
        ssize_t const count = sendSome(bytes.data() + sent, bytes.size() - sent);
        if (count >= 0) {
            sent += static_cast<std::size_t>(count);
        } else if (errno != EAGAIN && errno != EINTR) {
            return;
        }
    }
}

void ScriptedServer::Peer::drip(std::string const& bytes)
{
    for (char const byte : bytes) {
        send(std::string(1, byte));
        // So that the reader wakes up for each: it must find the message incomplete, and wait
        // again.
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void ScriptedServer::Peer::reset()
{
    linger const dropAll = {1, 0};
    setsockopt(m_socket.number(), SOL_SOCKET, SO_LINGER, &dropAll, sizeof dropAll);
    m_socket.close();
}

void ScriptedServer::Peer::awaitCue()
{
    std::unique_lock<std::mutex> lock(m_server.m_mutex);
    m_server.m_changed.wait(lock, [&] { return m_server.m_hasCue || m_server.m_isStopping; });
}

void ScriptedServer::Peer::receiveUntilClosed()
{
    while (!receiveMessage().empty()) {
    }
}

void ScriptedServer::Peer::ignore()
{
    std::unique_lock<std::mutex> lock(m_server.m_mutex);
    m_server.m_changed.wait(lock, [&] { return m_server.m_isStopping; });
}

} // namespace SolvaneTest
