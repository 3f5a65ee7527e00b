/// @file
/// The directory servers of a domain, without blocking.
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

/// One server that a domain names (RFC 2782).
struct SrvTarget {
    std::string host;      ///< name
    unsigned int port;     ///< TCP port
    unsigned int priority; ///< a lower one is tried first
    unsigned int weight;   ///< share of first trials among those of one priority
};

/// The order in which targets are to be tried: by priority; among those of one, at random, each with a
/// chance that is in proportion to its weight (RFC 2782).
/// @param targets  in any order
/// @param random   returns a number from 0 to its argument, both included
SOLVANE_LOOKUP_EXPORT std::vector<SrvTarget>
inOrderOfTrial(std::vector<SrvTarget> targets,
               std::function<std::uint32_t(std::uint32_t)> const& random);

/// Whether a target is the domain that was asked for or a name below it, ignoring case and a final
/// dot. DNS answers are not authenticated: a forged one can name a host outside of the domain, for which
/// the attacker has a valid certificate. False for an empty domain.
SOLVANE_LOOKUP_EXPORT bool isInside(std::string const& target, std::string const& domain);

/// The name whose SRV records are asked for, as "_ldap._tcp.example.com".
SOLVANE_LOOKUP_EXPORT std::string srvNameOf(std::string const& domain, bool secure);

/// Asks name servers for the directory servers of one domain: `_ldap._tcp` or `_ldaps._tcp`. Starts no
/// thread. Not thread-safe.
class SOLVANE_LOOKUP_EXPORT SrvQuery : public NonCopyable {
public:
    /// Begins.
    /// @param domain       as "example.com"
    /// @param secure       asks for servers with TLS from the first byte
    /// @param nameServers  "address" or "address:port"; empty: the system's
    SrvQuery(std::string const& domain, bool secure,
             std::vector<std::string> const& nameServers = {});
    ~SrvQuery();

    /// Does what can be done now.
    void advance();
    /// Adds what `advance` waits for. A deadline is the caller's.
    void waits(Waits& waits) const;
    /// True once `verdict` and `targets` are final.
    bool isSettled() const;
    /// `TryLater` -1 if the domain names no server, -5 if no name server answers; `Misconfigured` -9 for
    /// an unusable name server.
    Verdict const& verdict() const;
    /// The servers in the order of trial; never empty after a good verdict.
    std::vector<SrvTarget> const& targets() const;

private:
    struct State;
    std::unique_ptr<State> m_state;
};

} // namespace Solvane::Lookup

#endif
