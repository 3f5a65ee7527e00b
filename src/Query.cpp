// Queries: one lookup as a state machine.
#include <solvane/ldap/LDAPQuery.h>

#include <algorithm>
#include <ctime>
#include <limits>

namespace Solvane {

namespace {

/// Seconds that a query adds to the caller's timeout.
constexpr unsigned int grace = 2;

/// The time left until the deadline as a timeout; both in seconds.
unsigned int timeoutUntil(long deadline, long now)
{
    constexpr long longest = std::numeric_limits<unsigned int>::max();
    return static_cast<unsigned int>(std::min(deadline - now, longest));
}

} // namespace

_LDAPQuery::_LDAPQuery(LDAPConnection& connection, long startTime, unsigned int timeout,
                       bool bindFirst)
    : m_startTime(startTime), m_state(bindFirst ? QueryBindNeeded : QueryReady),
      m_timeout(timeout + grace), m_deadline(startTime + static_cast<long>(m_timeout)),
      m_connection(connection), m_returnConnectionToCache(false)
{
}

_LDAPQuery::_LDAPQuery(long startTime, unsigned int timeout)
    : m_startTime(startTime), m_state(QueryReady), m_timeout(timeout + grace),
      m_deadline(startTime + static_cast<long>(m_timeout)), m_returnConnectionToCache(true)
{
}

_LDAPQuery::_LDAPQuery()
    : m_startTime(0), m_state(QueryReady), m_timeout(0), m_deadline(0),
      m_returnConnectionToCache(true)
{
}

_LDAPQuery::~_LDAPQuery()
{
    if (m_returnConnectionToCache && !m_connection.isNull()) {
        m_connection.cacheMarkAsAvailable();
    }
}

void _LDAPQuery::start()
{
    try {
        if (m_state == QueryBindNeeded) {
            bind();
        }
        if (m_state != QueryReady) {
            return;
        }
        submitSearch();
        if (m_state == QuerySearching) {
            searchResponseHandler();
        }
    } catch (Exception const& caught) {
        m_errorMessage = caught.asString();
        m_state = QueryError;
    }
}

void _LDAPQuery::bind()
{
    if (m_state != QueryBindNeeded) {
        return;
    }
    m_connection.bind(m_bindDn, m_bindPassword, LDAPConnection::Asynchronous);
    m_state = QueryBinding;
    bindResponseHandler();
}

void _LDAPQuery::bindResponseHandler()
{
    if (m_state == QueryBinding) {
        m_state = m_connection.bindWait(m_timeout) ? QueryReady : QueryFailed;
    }
}

void _LDAPQuery::submitSearch()
{
    if (m_state != QueryReady) {
        return;
    }
    searchParameter();
    if (m_state != QueryReady) {
        return;
    }
    if (m_search.isNull()) {
        m_state = QueryDone;
        return;
    }
    m_search.send();
    m_state = QuerySearching;
}

void _LDAPQuery::searchResponseHandler()
{
    long const now = time(nullptr);
    if (now > m_deadline) {
        m_state = QueryFailed;
        return;
    }
    if (m_state != QuerySearching) {
        return;
    }
    if (m_search.wait(timeoutUntil(m_deadline, now))) {
        m_state = QueryFailed;
    } else if (!result().isNull()) {
        m_state = QueryDone;
    }
}

void _LDAPQuery::searchParameter() {}

void _LDAPQuery::bindParameters(std::string const& dn, std::string const& password)
{
    m_bindDn = dn;
    m_bindPassword = password;
}

LDAPResult const& _LDAPQuery::result() const { return m_search.result(); }

RefLDAPQuery::RefLDAPQuery() = default;
RefLDAPQuery::RefLDAPQuery(_LDAPQuery* query) : boost::shared_ptr<_LDAPQuery>(query) {}
RefLDAPQuery::RefLDAPQuery(RefLDAPQuery const& other) = default;
RefLDAPQuery& RefLDAPQuery::operator=(RefLDAPQuery const& other) = default;
RefLDAPQuery::~RefLDAPQuery() = default;

} // namespace Solvane
