// TCP to whichever address of a server accepts first.
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

/// Connects as RFC 8305 says ("happy eyeballs"): addresses of both families in turn, the next attempt
/// begins 250 ms after the one before, or at once when one fails. Attempts run side by side; the first
/// that completes wins, and the others are closed. A deadline is the caller's.
class Connector : public NonCopyable {
public:
    /// @param addresses  in the order in which they are preferred; at least one
    explicit Connector(std::vector<Address> const& addresses);

    /// Does what can be done now.
    void advance();
    /// Adds what `advance` waits for.
    void waits(Waits& waits) const;
    /// True once one accepted, or all failed.
    bool isSettled() const { return m_connected || isExhausted(); }
    /// Who accepted, if anybody did.
    std::optional<Address> const& peer() const { return m_connected; }
    /// The connection to `peer`, which does not block; to be taken once.
    Descriptor takeSocket() { return std::move(m_socket); }
    /// What was tried and did not work, each address with its cause, in one line.
    std::string failures() const;
    /// True if an attempt failed because there was no descriptor or memory for a socket, which says
    /// nothing about the server.
    bool lacksSocket() const { return m_lacksSocket; }
    /// The addresses in the order of trial.
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
    std::size_t m_next = 0;          // of those not tried yet
    Clock::time_point m_nextMoment;  // when that one is
    std::vector<Attempt> m_attempts; // under way
    std::string m_failures;
    bool m_lacksSocket = false;
    std::optional<Address> m_connected;
    Descriptor m_socket; // of the one that accepted
};

} // namespace Solvane::Lookup

#endif
