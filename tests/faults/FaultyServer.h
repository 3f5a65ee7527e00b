// A server that misbehaves until it is mended.
//
// Other tests' ScriptedServer waits as long as its script says. Here a fault may also be that nothing
// more comes, so waits end by themselves; half of a connection can be closed; and the same port serves
// well afterwards, so that the handles that met the fault show whether they recover.
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

namespace SolvaneTest {

/// Listens on a free port of 127.0.0.1. All its threads end with it.
class FaultyServer {
public:
    class Peer;
    /// Serves one connection, which is closed when it returns.
    using Script = std::function<void(Peer&)>;

    explicit FaultyServer(Script script);
    FaultyServer(FaultyServer const&) = delete;
    FaultyServer& operator=(FaultyServer const&) = delete;
    ~FaultyServer();

    unsigned int port() const { return m_port; }
    /// From now on, new connections are served without fault, and open ones as their scripts see to.
    void mend() { m_isMended = true; }
    /// Whether a connection that was not bound before asked for anything.
    bool wasAskedAnonymously() const { return m_wasAskedAnonymously; }

private:
    void acceptAll();
    void play(int socket);

    Script const m_script;
    Descriptor m_listener;
    Descriptor m_stop; ///< an event; readable from the destructor's start
    unsigned int m_port;
    std::atomic<bool> m_isMended{false};
    std::atomic<bool> m_wasAskedAnonymously{false};
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

    /// The next whole message; empty when the client or the server is gone, or the time is over.
    std::string receive(Milliseconds patience = forever);
    /// False when the client or the server is gone.
    bool send(std::string const& bytes);
    /// Says that nothing more will be sent, and goes on receiving (FIN).
    void endSending();
    /// Ends the connection with a reset.
    void reset();
    /// Takes what comes and answers nothing, until the client closes.
    void stayMute();
    /// Whether the server is to behave by now.
    bool isMended() const { return m_server.m_isMended; }
    /// Waits a little. False when the server is to end.
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

/// The script of a server without faults.
void serveWell(FaultyServer::Peer& peer);

} // namespace SolvaneTest

#endif
