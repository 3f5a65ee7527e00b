// The servers in order of preference, from the settings or from SRV records.
#ifndef SOLVANE_LOOKUP_SRC_SERVER_LIST_H
#define SOLVANE_LOOKUP_SRC_SERVER_LIST_H

#include "Failover.h"
#include "ServerRecord.h"

#include <solvane/lookup/Settings.h>

#include <solvane/session/SrvQuery.h>

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Solvane::Lookup {

/// A domain of the settings. Its SRV records are queried at first use, every five minutes, and
/// after one of its servers failed. While a query fails, the last known servers stay in use.
struct ServerDomain {
    std::string name;
    Server settings;
    std::string uri; ///< for messages, as "_ldap._tcp.example.com"
    Clock::time_point claimedUntil = Clock::time_point::min(); ///< a caller asks for them
    std::unique_ptr<SrvQuery> parked; ///< a question that its caller did not wait for
    Clock::time_point parkedUntil;
    Clock::time_point dueAt = Clock::time_point::min();
    Clock::duration backOff{0}; ///< while queries fail
    Verdict why;                ///< result of the last query
    std::vector<ServerRecord*> servers;
};

/// Not thread-safe except for `size`: guarded by the pool's mutex. Servers are only added, never
/// removed, so that sessions and failures can refer to them.
class ServerList {
public:
    explicit ServerList(Settings const& settings);

    /// Goes on with the counts of these servers.
    void inherit(ServerList const& before);

    /// The number of servers; an unresolved domain counts as one. Thread-safe.
    std::size_t size() const { return m_size.load(std::memory_order_relaxed); }

    std::vector<ServerRecord*> const& inOrder() const { return m_order; }
    ServerRecord& record(std::size_t index) { return m_records[index]; }
    /// The server in use with this URI; null if there is none.
    ServerRecord* recordNamed(std::string const& uri) const;

    /// Returns a domain due for a query and marks it as being queried; null if none is due.
    ServerDomain* claimDomain(Clock::time_point now, Clock::time_point until);
    /// Until when a caller asks for the servers of a domain that has named none so far.
    Clock::time_point resolvingUntil(Clock::time_point now) const;
    void resolved(ServerDomain& domain, Verdict const& verdict,
                  std::vector<SrvTarget> const& targets, Clock::time_point now);
    /// What the parent process asked is not answered here.
    void afterFork();
    /// A server failed: query its domain again soon, as it may have new servers.
    void failed(ServerRecord const& server, Clock::time_point now);
    /// Adds a failure for each domain without servers.
    void addFailures(std::vector<Failure>& failures) const;

private:
    ServerRecord& recordOf(Server const& server);
    void putInOrder();
    std::vector<Server> serversOf(ServerDomain const& domain,
                                  std::vector<SrvTarget> const& targets) const;

    ServerHealth::Limits m_limits;
    std::size_t m_window;
    bool m_verifiesNames; ///< of servers, in their certificates
    std::map<std::string, std::shared_ptr<ServerCounters>> m_counters; ///< by URI
    std::deque<ServerRecord> m_records;
    std::deque<ServerDomain> m_domains;
    /// A row of the configured list: either of the two.
    struct Entry {
        ServerRecord* server;
        ServerDomain* domain;
    };
    std::vector<Entry> m_entries;
    std::vector<ServerRecord*> m_order;
    std::atomic<std::size_t> m_size{0};
};

} // namespace Solvane::Lookup

#endif
