// The connection pool. Part of unit "Connection".
//
// A connection is in the list from the time it is opened until it expires or is found invalid; its
// in-use marker, a semaphore of one token, says whether it is checked out. Under the lock, a checkout
// only walks the list: it takes the marker of the first match that is idle and valid. Connecting and
// binding happen without the lock, and so does destroying dropped connections, because the last
// handle sends an unbind.
#include <solvane/ldap/LDAPConnection.h>

#include <solvane/ldap/impl/LDAPConnectionImpl.h>

#include "ThrowSite.h"

#include <boost/thread/locks.hpp>

#include <ctime>
#include <utility>

#include <unistd.h>

namespace Solvane {

namespace {
// clang-format off
namespace at { // what unit "Connection" reports here
constexpr char unit[] = "Connection.cpp";
constexpr char traceUnit[] = "Connection";
//                                                 line  fault          stage
constexpr ThrowSite boundWrapped          { unit,  602, Fault::failed, Stage::general };
constexpr ThrowSite unboundWrapped        { unit,  650, Fault::failed, Stage::general };
//                                                      line  function         mask
constexpr TraceSite useCached             { traceUnit,  575, "getConnection", Trace::connection };
constexpr TraceSite expiredCached         { traceUnit,  579, "getConnection", Trace::connection };
constexpr TraceSite clearing              { traceUnit,  664, "clear",         Trace::error      };
} // namespace at
// clang-format on

/// Releases the in-use marker of a connection, unless the connection reaches the caller.
class MarkerGuard : public NonCopyable {
public:
    explicit MarkerGuard(Semaphore& marker) : m_marker(&marker) {}
    ~MarkerGuard()
    {
        if (m_marker != nullptr) {
            m_marker->post();
        }
    }
    void release() { m_marker = nullptr; }

private:
    Semaphore* m_marker;
};

} // namespace

/// What a checkout asks for.
struct LDAPConnectionCache::Wanted {
    LDAPConnection::RefServer const& server;
    bool anonymous;
    std::string const& dn;
    std::string const& password;

    /// Whether the connection matches and is idle; if so, marks it as in use.
    bool takes(LDAPConnectionImpl& body) const
    {
        return (body.m_server == server || body.m_server->uri == server->uri) &&
               body.m_anonymous == anonymous &&
               (anonymous || (body.m_bindDn == dn && body.m_bindPassword == password)) &&
               body.m_available.trywait();
    }
};

LDAPConnectionCache::LDAPConnectionCache() = default;
LDAPConnectionCache::~LDAPConnectionCache() = default;

LDAPConnection LDAPConnectionCache::getConnection(LDAPConnection::RefServer const& server)
{
    return wrappingAs(at::unboundWrapped, [&] {
        LDAPConnection cached = takeCached({server, true, std::string(), std::string()});
        return cached.isNull() ? openUnbound(server) : std::move(cached);
    });
}

LDAPConnection LDAPConnectionCache::getConnection(LDAPConnection::RefServer const& server,
                                                  std::string const& dn,
                                                  std::string const& password)
{
    return wrappingAs(at::boundWrapped, [&] {
        LDAPConnection cached = takeCached({server, false, dn, password});
        return cached.isNull() ? openBound(server, dn, password) : std::move(cached);
    });
}

/// Checks out the first match that is idle and valid; returns a null handle if there is none. With
/// credentials, it first drops expired connections.
LDAPConnection LDAPConnectionCache::takeCached(Wanted const& wanted)
{
    std::list<LDAPConnection> removed; // destroyed after unlocking: sends an unbind
    boost::unique_lock<boost::shared_mutex> const lock(m_lock);
    // Read under the lock, because waiting for the lock may take long.
    long const now = time(nullptr);
    if (!wanted.anonymous) {
        removeExpired(now, removed);
    }
    for (auto position = m_connections.begin(); position != m_connections.end();) {
        auto const current = position++;
        LDAPConnectionImpl& body = *current->m_impl.body();
        if (!wanted.takes(body)) {
            continue;
        }
        if (!body.isValid()) {
            removed.splice(removed.end(), m_connections, current);
            if (!wanted.anonymous) {
                SOLVANE_TRACE(at::expiredCached, "Expired cached LDAP connection to %s",
                              current->server()->uri.asString().c_str());
            }
            continue;
        }
        MarkerGuard marker(body.m_available);
        LDAPConnection hit(*current); // may throw std::bad_alloc: the marker must not be lost
        body.extendExpiryTime(now);
        m_cacheHits.increment();
        if (!wanted.anonymous) {
            SOLVANE_TRACE(at::useCached, "Use cached LDAP connection to %s",
                          wanted.server->uri.asString().c_str());
        }
        marker.release();
        return hit;
    }
    return LDAPConnection();
}

LDAPConnection LDAPConnectionCache::openUnbound(LDAPConnection::RefServer const& server)
{
    LDAPConnection connection(server, true);
    connection.cacheMarkAsUsed();
    boost::unique_lock<boost::shared_mutex> const lock(m_lock);
    m_connections.push_back(connection);
    m_cacheSize.increment();
    return connection;
}

LDAPConnection LDAPConnectionCache::openBound(LDAPConnection::RefServer const& server,
                                              std::string const& dn, std::string const& password)
{
    LDAPConnection connection(server, false);
    connection.bind(dn, password, LDAPConnection::Asynchronous);
    if (!connection.bindWait(server->networkTimeout)) {
        return LDAPConnection();
    }
    // Another thread may have opened a connection to the same server; the pool keeps both.
    boost::unique_lock<boost::shared_mutex> const lock(m_lock);
    m_connections.push_back(connection);
    m_cacheSize.increment();
    connection.cacheMarkAsUsed();
    return connection;
}

void LDAPConnectionCache::connections(std::list<LDAPConnection::RefServer>& servers) const
{
    boost::shared_lock<boost::shared_mutex> const lock(m_lock);
    for (LDAPConnection const& connection : m_connections) {
        servers.push_back(connection.server());
    }
}

void LDAPConnectionCache::clear()
{
    std::list<LDAPConnection> removed; // destroyed after unlocking
    boost::unique_lock<boost::shared_mutex> const lock(m_lock);
    SOLVANE_TRACE(at::clearing, "tid=%d: Clear the cache", gettid());
    removed.swap(m_connections);
    m_cacheSize.reset();
}

void LDAPConnectionCache::checkForExpiredConnections(long now)
{
    std::list<LDAPConnection> removed;
    removeExpired(now, removed);
}

/// Moves every expired connection to `removed`.
void LDAPConnectionCache::removeExpired(long now, std::list<LDAPConnection>& removed)
{
    for (auto position = m_connections.begin(); position != m_connections.end();) {
        auto const current = position++;
        if (current->m_impl.body()->hasExpired(now)) {
            removed.splice(removed.end(), m_connections, current);
            m_cacheSize.decrement();
        }
    }
}

} // namespace Solvane
