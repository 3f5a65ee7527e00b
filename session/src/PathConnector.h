// Connects to a UNIX socket.
#ifndef SOLVANE_SESSION_SRC_PATH_CONNECTOR_H
#define SOLVANE_SESSION_SRC_PATH_CONNECTOR_H

#include <solvane/session/Waits.h>

#include <solvane/ldap/RefCounted.h>

#include "Descriptor.h"

#include <string>

namespace Solvane::Lookup {

/// Connects to a socket in the file system. A connect to a UNIX socket never waits: it is done at
/// once, or fails, with EAGAIN if the server's queue is full. No event tells when there is room
/// again, so it is retried every few milliseconds. The caller enforces its deadline. Not
/// thread-safe.
class PathConnector : public NonCopyable {
public:
    /// @param path  absolute; `faultInPath` finds no fault in it
    explicit PathConnector(std::string path);

    /// Makes as much progress as possible without blocking.
    void advance();
    /// Adds what `advance` waits for.
    void waits(Waits& waits) const { waits.until(m_nextAt); }
    /// True once connected, or once it has failed.
    bool isSettled() const { return m_isConnected || m_error != 0; }
    bool isConnected() const { return m_isConnected; }
    /// The non-blocking connection; call it once.
    Descriptor takeSocket() { return std::move(m_socket); }
    /// Why it is not connected, with the path, on one line.
    std::string failure() const;
    /// True if it failed because there was no descriptor or memory for a socket, which says nothing
    /// about the server.
    bool lacksSocket() const;

private:
    std::string m_path;
    Descriptor m_socket;
    bool m_isConnected = false;
    int m_error = 0;            // of the last attempt, unless it is retried
    Clock::time_point m_nextAt; // when to try again
};

} // namespace Solvane::Lookup

#endif
