// A server that sends chosen bytes, to play faults that real servers do not produce on demand; ports that
// refuse and ports that hang.
#ifndef SOLVANE_TESTS_SUPPORT_SCRIPTED_SERVER_H
#define SOLVANE_TESTS_SUPPORT_SCRIPTED_SERVER_H

#include "Descriptor.h"
#include "ServerTls.h"

#include <array>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace SolvaneTest {

/// A port of 127.0.0.1 that refuses connections during the object's lifetime.
class RefusingPort {
public:
    RefusingPort();
    unsigned int number() const { return m_number; }

private:
    Descriptor m_socket;
    unsigned int m_number;
};

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

/// Passes each accepted, non-blocking socket to `take`, until `stop` is readable.
template <typename Take> void acceptUntil(int stop, int listener, Take const& take)
{
    std::array<pollfd, 2> waited = {pollfd{listener, POLLIN, 0}, pollfd{stop, POLLIN, 0}};
    for (;;) {
        poll(waited.data(), waited.size(), -1);
        if (waited[1].revents != 0) {
            return;
        }
        int const socket = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (socket >= 0) {
            take(socket);
        }
    }
}

/// Listens on a free port of 127.0.0.1 and runs a script on every connection, each in its own
/// thread. When a script returns, its connection is closed normally. The destructor ends all waits
/// of scripts.
class ScriptedServer {
public:
    class Peer;
    using Script = std::function<void(Peer&)>;

    /// @param receiveBuffer  size of the kernel's receive buffer in bytes; 0: the default
    explicit ScriptedServer(Script script, int receiveBuffer = 0);
    ScriptedServer(ScriptedServer const&) = delete;
    ScriptedServer& operator=(ScriptedServer const&) = delete;
    ~ScriptedServer();

    unsigned int port() const { return m_port; }
    /// How many connections were accepted.
    std::size_t connectionCount() const;
    /// Every whole message that a script has received, in order of arrival.
    std::vector<std::string> received() const;
    /// How many these are.
    std::size_t receivedCount() const;

    /// Wakes scripts in `Peer::awaitCue`.
    void giveCue();
    /// Waits until this many scripts have ended. False: timeout after ten seconds.
    bool awaitEndedScripts(std::size_t count);

private:
    void acceptAll();
    void play(int socket);

    Script const m_script;
    Descriptor m_listener;
    Descriptor m_stop; ///< an event; readable from the destructor's start
    unsigned int m_port;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::string> m_received; ///< guarded by m_mutex
    std::vector<std::thread> m_players;  ///< guarded by m_mutex
    std::size_t m_endedScripts;          ///< guarded by m_mutex
    bool m_hasCue;                       ///< guarded by m_mutex
    bool m_isStopping;                   ///< guarded by m_mutex
    std::thread m_acceptor;
};

/// One connection, as a script sees it.
class ScriptedServer::Peer {
public:
    ~Peer();

    /// Performs the handshake; uses TLS from then on.
    /// @param cutAfter  bytes to send before the connection is shut down
    /// @return false if the handshake failed
    bool startTls(ServerTls const& tls,
                  std::size_t cutAfter = std::numeric_limits<std::size_t>::max());
    /// Receives a StartTLS request, grants it and does the same.
    bool grantStartTls(ServerTls const& tls);
    /// The host name that the client asked for in the handshake (RFC 6066 section 3).
    std::string askedName() const;
    /// Asks for another handshake (TLS 1.2). Returns whether the client refuses it by an alert.
    bool isRefusedNewHandshake();
    /// Whether the client resumed an earlier TLS session.
    bool isTlsResumed() const;
    /// Sends additional TLS 1.3 tickets.
    void sendTickets(unsigned int count);
    /// Whether the client sent close_notify before it closed the connection.
    bool hasHeardGoodbye() const { return m_hasHeardGoodbye; }
    /// Bytes that TLS has sent.
    std::size_t tlsBytes() const { return m_tls->sentBytes(); }

    /// The next whole message; empty if the client or the test has ended.
    std::string receiveMessage();
    /// Bytes that have arrived and were not received yet, without TLS.
    std::size_t unreadBytes() const;
    /// Waits for bytes and keeps none of them in memory. Not with TLS.
    void discardSome();
    /// All bytes up to the end of the connection, or of the test.
    std::string receiveRest();
    /// Receives a bind request and accepts it.
    void grantBind();
    void send(std::string const& bytes);
    /// Sends byte by byte.
    void drip(std::string const& bytes);
    /// Ends the connection with a reset.
    void reset();
    /// Waits for the test's `giveCue`.
    void awaitCue();
    /// Keeps the connection open and receives until the client closes it.
    void receiveUntilClosed();
    /// Keeps the connection open without receiving.
    void ignore();

private:
    friend class ScriptedServer;
    Peer(ScriptedServer& server, int socket);

    bool awaitSocket(short events);
    bool awaitTls();
    bool receiveMore();
    ssize_t receiveSome(char* bytes, std::size_t room);
    ssize_t sendSome(char const* bytes, std::size_t length);

    ScriptedServer& m_server;
    Descriptor m_socket;
    std::unique_ptr<ServerTlsSession> m_tls; ///< none before startTls()
    bool m_hasHeardGoodbye = false;
    std::string m_pending; ///< received, but not yet a whole message
};

} // namespace SolvaneTest

#endif
