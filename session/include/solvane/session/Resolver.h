/// @file
/// Names into addresses, without blocking.
#ifndef SOLVANE_SESSION_RESOLVER_H
#define SOLVANE_SESSION_RESOLVER_H

#include <solvane/session/Address.h>
#include <solvane/session/Export.h>
#include <solvane/session/Verdict.h>
#include <solvane/session/Waits.h>

#include <solvane/ldap/RefCounted.h>

#include <memory>
#include <string>
#include <vector>

namespace Solvane::Lookup {

/// Resolves one host name into all its addresses, IPv4 and IPv6, in the order in which they are to be
/// tried (RFC 6724). Asks /etc/hosts and name servers as /etc/nsswitch.conf and /etc/resolv.conf say;
/// other services of nsswitch.conf are not asked. Starts no thread. Not thread-safe.
class SOLVANE_LOOKUP_EXPORT Resolver : public NonCopyable {
public:
    /// Begins. An address is its own answer, and nobody is asked.
    /// @param host         name or address, IPv6 without brackets
    /// @param port         of the addresses that are found
    /// @param nameServers  "address" or "address:port"; empty: the system's
    Resolver(std::string const& host, unsigned int port,
             std::vector<std::string> const& nameServers = {});
    ~Resolver();

    /// Does what can be done now.
    void advance();
    /// Adds what `advance` waits for. A deadline is the caller's.
    void waits(Waits& waits) const;
    /// True once `verdict` and `addresses` are final.
    bool isSettled() const;
    /// `TryLater` -1 if the name does not resolve, -5 if no name server answers; `Misconfigured` -9 for
    /// an unusable name server, and for an address with a zone.
    Verdict const& verdict() const;
    /// What was found; never empty after a good verdict.
    std::vector<Address> const& addresses() const;

private:
    struct State;
    std::unique_ptr<State> m_state;
};

} // namespace Solvane::Lookup

#endif
