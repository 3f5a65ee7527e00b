// Maintains the list of servers and domains.
#include "ServerList.h"

#include <algorithm>
#include <limits>

namespace Solvane::Lookup {

namespace {

constexpr std::chrono::minutes lifetime(5);
constexpr std::chrono::seconds afterAFailure(1); ///< delay of the query after a server's failure

} // namespace

ServerList::ServerList(Settings const& settings)
    : m_limits{std::chrono::seconds(settings.networkTimeout), settings.backOff,
               settings.longestBackOff},
      m_window(settings.window), m_verifiesNames(settings.tls.verify == TlsVerify::full)
{
    for (Server const& server : settings.servers) {
        if (server.srvDomain.empty()) {
            m_entries.push_back({&recordOf(server), nullptr});
            continue;
        }
        m_domains.emplace_back();
        ServerDomain& domain = m_domains.back();
        domain.name = server.srvDomain;
        domain.settings = server;
        domain.settings.srvDomain.clear();
        domain.uri = srvNameOf(server.srvDomain, server.secure);
        m_entries.push_back({nullptr, &domain});
    }
    putInOrder();
}

/// Returns the record of this server; creates it if it is new.
ServerRecord& ServerList::recordOf(Server const& server)
{
    std::string uri = server.socketPath.empty() ? uriOf(server.secure, server.host, server.port)
                                                : uriOf(server.socketPath);
    auto const known =
        std::find_if(m_records.begin(), m_records.end(), [&](ServerRecord const& record) {
            return record.uri == uri && record.settings.version == server.version &&
                   record.settings.startTls == server.startTls;
        });
    if (known != m_records.end()) {
        return *known;
    }
    ServerRecord& added =
        m_records.emplace_back(m_records.size(), server, std::move(uri), m_limits, m_window);
    auto& counters = m_counters[added.uri];
    counters = counters ? counters : std::make_shared<ServerCounters>();
    added.counters = counters;
    return added;
}

ServerRecord* ServerList::recordNamed(std::string const& uri) const
{
    auto const known = std::find_if(m_order.begin(), m_order.end(),
                                    [&](ServerRecord const* server) { return server->uri == uri; });
    return known == m_order.end() ? nullptr : *known;
}

void ServerList::inherit(ServerList const& before)
{
    for (auto const& [uri, counters] : before.m_counters) {
        m_counters[uri] = counters;
    }
    for (ServerRecord& record : m_records) {
        record.counters = m_counters[record.uri];
    }
}

void ServerList::putInOrder()
{
    m_order.clear();
    std::size_t unresolved = 0;
    for (Entry const& entry : m_entries) {
        std::vector<ServerRecord*> named = {entry.server};
        if (entry.domain != nullptr) {
            named = entry.domain->servers;
            unresolved += named.empty() ? 1U : 0U;
        }
        for (ServerRecord* const server : named) { // each once
            if (std::find(m_order.begin(), m_order.end(), server) == m_order.end()) {
                m_order.push_back(server);
            }
        }
    }
    m_size.store(m_order.size() + unresolved, std::memory_order_relaxed);
}

ServerDomain* ServerList::claimDomain(Clock::time_point now, Clock::time_point until)
{
    for (ServerDomain& domain : m_domains) {
        if (now >= domain.claimedUntil && now >= domain.dueAt) {
            domain.claimedUntil = until;
            return &domain;
        }
    }
    return nullptr;
}

Clock::time_point ServerList::resolvingUntil(Clock::time_point now) const
{
    auto until = now;
    for (ServerDomain const& domain : m_domains) {
        if (domain.servers.empty()) {
            until = std::max(until, domain.claimedUntil);
        }
    }
    return until;
}

void ServerList::afterFork()
{
    for (ServerDomain& domain : m_domains) {
        domain.claimedUntil = Clock::time_point::min();
        domain.parked.reset();
    }
}

void ServerList::resolved(ServerDomain& domain, Verdict const& verdict,
                          std::vector<SrvTarget> const& targets, Clock::time_point now)
{
    domain.claimedUntil = Clock::time_point::min();
    domain.why = verdict;
    std::vector<Server> const servers = serversOf(domain, targets);
    if (verdict.isGood() && servers.empty()) {
        domain.why = {Outcome::Misconfigured, -9,
                      domain.uri + " names only hosts outside of " + domain.name + ", as " +
                          targets.front().host +
                          ": their certificates prove nothing; set the servers by their names"};
    }
    if (!domain.why.isGood()) {
        domain.backOff =
            std::min(std::max(domain.backOff * 2, m_limits.backOff), m_limits.longestBackOff);
        domain.dueAt = now + std::max<Clock::duration>(domain.backOff, afterAFailure);
        return;
    }
    domain.backOff = Clock::duration(0);
    domain.dueAt = now + lifetime;
    domain.servers.clear();
    for (Server const& server : servers) {
        domain.servers.push_back(&recordOf(server));
    }
    putInOrder();
}

/// DNS answers are not authenticated: where certificates are to prove which host it is, a name from
/// outside of the domain may be an attacker's own.
std::vector<Server> ServerList::serversOf(ServerDomain const& domain,
                                          std::vector<SrvTarget> const& targets) const
{
    std::vector<Server> servers;
    for (SrvTarget const& target : targets) {
        if (!domain.settings.usesTls() || !m_verifiesNames || isInside(target.host, domain.name)) {
            Server server = domain.settings;
            server.host = target.host;
            server.port = target.port;
            servers.push_back(std::move(server));
        }
    }
    return servers;
}

void ServerList::failed(ServerRecord const& server, Clock::time_point now)
{
    for (ServerDomain& domain : m_domains) {
        bool const isItsServer = std::find(domain.servers.begin(), domain.servers.end(), &server) !=
                                 domain.servers.end();
        if (isItsServer) {
            domain.dueAt = std::min(domain.dueAt, now + afterAFailure);
        }
    }
}

void ServerList::addFailures(std::vector<Failure>& failures) const
{
    for (ServerDomain const& domain : m_domains) {
        if (domain.servers.empty()) {
            Failure failure;
            failure.server = std::numeric_limits<std::size_t>::max();
            failure.uri = domain.uri;
            failure.why = domain.why.isGood()
                              ? Verdict{Outcome::TryLater, -1, domain.uri + ": not resolved"}
                              : domain.why;
            failures.push_back(std::move(failure));
        }
    }
}

} // namespace Solvane::Lookup
