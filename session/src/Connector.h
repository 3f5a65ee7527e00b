// Connects by TCP to the first address of a server that accepts.
#ifndef SOLVANE_SESSION_SRC_CONNECTOR_H
#define SOLVANE_SESSION_SRC_CONNECTOR_H

#include <solvane/session/Address.h>
#include <solvane/session/Waits.h>

#include <solvane/ldap/RefCounted.h>

#include "Descriptor.h"

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

} // namespace Solvane::Lookup

#endif
