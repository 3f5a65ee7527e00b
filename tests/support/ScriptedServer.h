// A server that sends chosen bytes, to play faults that real servers do not produce on demand.
#ifndef SOLVANE_TESTS_SUPPORT_SCRIPTED_SERVER_H
#define SOLVANE_TESTS_SUPPORT_SCRIPTED_SERVER_H

#include "Descriptor.h"
#include "ServerTls.h"

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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
