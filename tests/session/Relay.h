// A man in the middle: relays one connection and may change what the server sends.
#ifndef SOLVANE_TESTS_SESSION_RELAY_H
#define SOLVANE_TESTS_SESSION_RELAY_H

#include "Descriptor.h"

#include <functional>
#include <string>
#include <thread>

namespace SolvaneTest {

/// Listens on a free port of 127.0.0.1, accepts one connection, and relays it to a server. The
/// destructor closes both sides.
class Relay {
public:
    /// Gets what the server wrote at once and its number, from 1; returns what the client receives.
    using Change = std::function<std::string(std::string bytes, int number)>;

    /// @param drips  sends byte by byte
    Relay(unsigned int serverPort, Change change, bool drips = false);
    Relay(Relay const&) = delete;
    Relay& operator=(Relay const&) = delete;
    ~Relay();

    unsigned int port() const { return m_port; }

private:
    void relay();
    bool toClient(int client, std::string const& bytes) const;

    Descriptor m_listener;
    Descriptor m_stop; ///< an event; readable from the destructor's start
    unsigned int m_port;
    unsigned int m_serverPort;
    Change m_change;
    bool m_drips;
    std::thread m_thread;
};

} // namespace SolvaneTest

#endif
