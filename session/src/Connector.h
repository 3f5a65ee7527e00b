// Connects to a server: by TCP, to the first address that accepts, or to a UNIX socket.
#ifndef SOLVANE_SESSION_SRC_CONNECTOR_H
#define SOLVANE_SESSION_SRC_CONNECTOR_H

#include <solvane/session/Address.h>
#include <solvane/session/Waits.h>

#include <solvane/ldap/RefCounted.h>

#include "Socket.h"

#include <optional>
#include <string>
#include <vector>

namespace Solvane::Lookup {

/// Connects by RFC 8305 ("happy eyeballs"): address families alternate; the next attempt starts 250
/// ms after the previous one, or at once if one fails. Attempts run in parallel; the first to
/// complete wins and the others are closed. So a dead address delays a connection by 250 ms, not by
/// a timeout. The caller enforces its deadline. Not thread-safe.
class Connector : public NonCopyable {
public:
    /// @param addresses  in order of preference; at least one
    explicit Connector(std::vector<Address> const& addresses);

    /// Makes as much progress as possible without blocking.
    void advance();
    /// Adds what `advance` waits for.
    void waits(Waits& waits) const;
    /// True once one address accepted or all failed.
    bool isSettled() const { return m_connected || isExhausted(); }
    /// The address that accepted, if any.
    std::optional<Address> const& peer() const { return m_connected; }
    /// The non-blocking connection to `peer`; call it once.
    Descriptor takeSocket() { return std::move(m_socket); }
    /// The failed attempts, each address with its cause, on one line.
    std::string failures() const;
    /// True if an attempt failed because there was no descriptor or memory for a socket, which says
    /// nothing about the server.
    bool lacksSocket() const { return m_lacksSocket; }
    /// The addresses in the order in which they are tried.
    std::vector<Address> const& order() const { return m_order; }

private:
    struct Attempt {
        Descriptor socket;
        Address address;
    };

    bool isExhausted() const { return m_next == m_order.size() && m_attempts.empty(); }
    void look();
    void startNext();
    void failed(Address const& address, int error);

    std::vector<Address> m_order;
    std::size_t m_next = 0;          // index of the next address to try
    Clock::time_point m_nextMoment;  // when to try it
    std::vector<Attempt> m_attempts; // in progress
    std::string m_failures;
    bool m_lacksSocket = false;
    std::optional<Address> m_connected;
    Descriptor m_socket; // to m_connected
};

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
