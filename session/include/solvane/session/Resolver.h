/// @file
/// Resolves host names without blocking.
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

/// Resolves one host name into all its addresses, IPv4 and IPv6, in the order to try them (RFC
/// 6724). Uses /etc/hosts and name servers as configured in /etc/nsswitch.conf and
/// /etc/resolv.conf; ignores other services of nsswitch.conf. Starts no thread. Not thread-safe.
class SOLVANE_LOOKUP_EXPORT Resolver : public NonCopyable {
public:
    /// Starts the lookup. An address is returned as it is, without a query.
    /// @param host         name or address, IPv6 without brackets
    /// @param port         of the resulting addresses
    /// @param nameServers  "address" or "address:port"; empty: the system's
    Resolver(std::string const& host, unsigned int port,
             std::vector<std::string> const& nameServers = {});
    ~Resolver();

    /// Makes as much progress as possible without blocking.
    void advance();
    /// Adds what `advance` waits for. The caller adds its own deadline.
    void waits(Waits& waits) const;
    /// True once `verdict` and `addresses` are final.
    bool isSettled() const;
    /// `TryLater` -1 if the name does not resolve, -5 if no name server answers; `Misconfigured` -9
    /// for an unusable name server, and for an address with a zone.
    Verdict const& verdict() const;
    /// The addresses; never empty after a good verdict.
    std::vector<Address> const& addresses() const;

private:
    struct State;
    std::unique_ptr<State> m_state;
};

} // namespace Solvane::Lookup

#endif
