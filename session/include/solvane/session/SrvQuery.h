/// @file
/// Finds the directory servers of a domain without blocking.
#ifndef SOLVANE_SESSION_SRV_QUERY_H
#define SOLVANE_SESSION_SRV_QUERY_H

#include <solvane/session/Export.h>
#include <solvane/session/Verdict.h>
#include <solvane/session/Waits.h>

#include <solvane/ldap/RefCounted.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Solvane::Lookup {

/// A server from a domain's SRV records (RFC 2782).
struct SrvTarget {
    std::string host;      ///< name
    unsigned int port;     ///< TCP port
    unsigned int priority; ///< lower values are tried first
    unsigned int weight;   ///< share of first tries among targets of the same priority
};

/// Sorts targets into the order to try them: by priority; targets of the same priority at random,
/// with chances in proportion to their weights (RFC 2782).
/// @param targets  in any order
/// @param random   returns a number from 0 to its argument, inclusive
SOLVANE_LOOKUP_EXPORT std::vector<SrvTarget>
inOrderOfTrial(std::vector<SrvTarget> targets,
               std::function<std::uint32_t(std::uint32_t)> const& random);

/// Whether a target is the domain that was asked for or a name below it, ignoring case and a final
/// dot. DNS answers are not authenticated: a forged one can name a host outside of the domain, for
/// which the attacker has a valid certificate. False for an empty domain.
SOLVANE_LOOKUP_EXPORT bool isInside(std::string const& target, std::string const& domain);

/// The name whose SRV records are asked for, as "_ldap._tcp.example.com".
SOLVANE_LOOKUP_EXPORT std::string srvNameOf(std::string const& domain, bool secure);

/// Queries name servers for the SRV records of one domain: `_ldap._tcp` or `_ldaps._tcp`. Starts no
/// thread. Not thread-safe.
class SOLVANE_LOOKUP_EXPORT SrvQuery : public NonCopyable {
public:
    /// Starts the query.
    /// @param domain       as "example.com"
    /// @param secure       queries servers with TLS from the first byte
    /// @param nameServers  "address" or "address:port"; empty: the system's
    SrvQuery(std::string const& domain, bool secure,
             std::vector<std::string> const& nameServers = {});
    ~SrvQuery();

    /// Makes as much progress as possible without blocking.
    void advance();
    /// Adds what `advance` waits for. The caller adds its own deadline.
    void waits(Waits& waits) const;
    /// True once `verdict` and `targets` are final.
    bool isSettled() const;
    /// `TryLater` -1 if the domain names no server, -5 if no name server answers; `Misconfigured`
    /// -9 for an unusable name server.
    Verdict const& verdict() const;
    /// The servers in the order to try them; never empty after a good verdict.
    std::vector<SrvTarget> const& targets() const;

private:
    struct State;
    std::unique_ptr<State> m_state;
};

} // namespace Solvane::Lookup

#endif
