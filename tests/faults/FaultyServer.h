// A server that misbehaves until it is repaired.
//
// Unlike the ScriptedServer of other tests: waits have a timeout, as a fault may be silence; half
// of a connection can be closed; and the same port serves correctly afterwards, to see whether the
// handles that met the fault recover.
#ifndef SOLVANE_TESTS_FAULTS_FAULTY_SERVER_H
#define SOLVANE_TESTS_FAULTS_FAULTY_SERVER_H

#include "Descriptor.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include <poll.h>

namespace SolvaneTest {

/// Listens on a free port of 127.0.0.1. All its threads end with it.
class FaultyServer {
public:
    class Peer;
    /// Serves one connection, which is closed when it returns.
    using Script = std::function<void(Peer&)>;

    explicit FaultyServer(Script script);

    /// From now on, all servers of this process serve every connection correctly that begins with a
    /// bind as the reader: only those of users are disturbed.
    static void spareReaders() { s_sparesReaders = true; }

    FaultyServer(FaultyServer const&) = delete;
    FaultyServer& operator=(FaultyServer const&) = delete;
    ~FaultyServer();

    unsigned int port() const { return m_port; }
    /// From now on, new connections are served correctly, and open ones as their scripts decide.
    void mend() { m_isMended = true; }
    /// Whether a connection that was not bound before asked for anything.
    bool wasAskedAnonymously() const { return m_wasAskedAnonymously; }
    /// Whether a bind was sent to it, which is in plain text.
    bool wasBound() const { return m_wasBound; }

private:
    void acceptAll();
    void play(int socket);

    static std::atomic<bool> s_sparesReaders;

    Script const m_script;
    Descriptor m_listener;
    Descriptor m_stop; ///< an event; readable from the destructor's start
    unsigned int m_port;
    std::atomic<bool> m_isMended{false};
    std::atomic<bool> m_wasAskedAnonymously{false};
    std::atomic<bool> m_wasBound{false};
    std::mutex m_mutex;
    std::condition_variable m_allEnded;
    unsigned int m_playing; ///< guarded by m_mutex; connections that are being served
    std::thread m_acceptor;
};

/// One connection, as a script sees it.
class FaultyServer::Peer {
public:
    using Milliseconds = std::chrono::milliseconds;
    static constexpr Milliseconds forever{-1};

    Peer(FaultyServer& server, int socket) : m_server(server), m_socket(socket) {}

    /// The next whole message; empty if the client or the server has ended, or on timeout.
    std::string receive(Milliseconds patience = forever);
    /// False if the client or the server has ended.
    bool send(std::string const& bytes);
    /// Waits for any bytes. False if the client or the server has ended.
    bool awaitBytes() { return awaitSocket(POLLIN, forever); }
    /// Closes the sending side (FIN) and keeps receiving.
    void endSending();
    /// Ends the connection with a reset.
    void reset();
    /// Waits for the first message, which stays to be received; whether it is a reader's bind.
    bool isOfReader();
    /// Receives without answering, until the client closes.
    void stayMute();
    /// Whether the server has been repaired.
    bool isMended() const { return m_server.m_isMended; }
    /// Waits a little. False if the server has to stop.
    bool pause(Milliseconds time);

private:
    bool awaitSocket(short events, Milliseconds patience);
    bool receiveMore(Milliseconds patience);
    void note(std::string const& message);

    FaultyServer& m_server;
    Descriptor m_socket;
    std::string m_pending;
    bool m_isBound = false;
};

/// The script of a healthy server.
void serveWell(FaultyServer::Peer& peer);

} // namespace SolvaneTest

#endif
