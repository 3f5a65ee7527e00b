/// @file
/// A bind and a search as a state machine with a deadline.
#ifndef SOLVANE_LDAP_QUERY_H
#define SOLVANE_LDAP_QUERY_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPConnection.h>
#include <solvane/ldap/LDAPRequest.h>
#include <solvane/ldap/LDAPResult.h>
#include <solvane/ldap/RefCounted.h>

#include <boost/shared_ptr.hpp>

#include <string>

namespace Solvane {

/// One directory lookup as a state machine: an optional bind, then one search, then its result.
///
/// A derived class creates the search in `searchParameter`. `start` runs the whole query; to run
/// several queries concurrently, call the steps yourself. If requested, the destructor returns the
/// connection to the pool. Not thread-safe.
class SOLVANE_LDAP_EXPORT _LDAPQuery : public NonCopyable { // NOLINT(bugprone-reserved-identifier)
public:
    /// The states; the guide has a diagram of their transitions.
    enum State : int {
        QueryBindNeeded = 0, ///< the query has to bind first; nothing is sent
        QueryBinding = 1,    ///< the bind is sent
        QueryReady = 3,      ///< bound, or no bind needed; the search is not sent
        QuerySearching = 4,  ///< the search is sent
        QueryDone = 5,       ///< the result is complete, or there is no search
        QueryFailed = 6,     ///< the server refused the bind, or the deadline passed
        QueryError = 7       ///< `start` caught an exception
    };

    /// A query on a given connection, which the caller returns to the pool.
    /// @param connection shared with the query
    /// @param startTime  seconds since the epoch; start of the deadline
    /// @param timeout    seconds; the bind wait and the deadline are 2 seconds longer
    /// @param bindFirst  true: bind with `bindParameters` before the search
    _LDAPQuery(LDAPConnection& connection, long startTime, unsigned int timeout, bool bindFirst);
    /// A query for which a derived class checks a bound connection out of the pool; the destructor
    /// returns it.
    _LDAPQuery(long startTime, unsigned int timeout);
    /// The same with a deadline of 0; set one with `deadline`.
    _LDAPQuery();
    /// Returns the connection to the pool if `returnConnectionToCache` is set.
    virtual ~_LDAPQuery();

    /// Binds if needed, sends the search and waits for its result, up to the deadline. Catches every
    /// `Exception` and sets the state to `QueryError`.
    virtual void start();
    /// Sends the bind and waits for the response.
    /// @throws LDAPException  as `LDAPConnection::bind` and `LDAPConnection::bindWait`
    virtual void bind();
    /// Calls `searchParameter` and sends the search.
    /// @throws LDAPException  as `searchParameter` and `LDAPRequest::send` of a search
    virtual void submitSearch();
    /// Waits for the result of the search, up to the deadline. After the deadline, it sets every state
    /// to `QueryFailed`.
    /// @throws LDAPException  as `LDAPRequest::wait` of a search
    virtual void searchResponseHandler();
    /// Waits for the bind response. Without a response in time, the query counts as bound.
    /// @throws LDAPException  as `LDAPConnection::bindWait`
    virtual void bindResponseHandler();
    /// Creates `m_search`; called when the query is ready. May set the state to stop the query. If it
    /// leaves `m_search` null, the query is done without a search.
    virtual void searchParameter();

    /// Sets the DN and password of `bind`.
    void bindParameters(std::string const& dn, std::string const& password);

    /// The result of the search.
    /// @throws LDAPException  code 1, type 0, Search.cpp:81: there is no search
    LDAPResult const& result() const;
    /// One of `State`.
    int state() const { return m_state; }
    /// Sets the deadline, in seconds since the epoch.
    void deadline(long seconds) { m_deadline = seconds; }
    /// Sets whether the destructor returns the connection to the pool.
    void returnConnectionToCache(bool wanted) { m_returnConnectionToCache = wanted; }
    /// Whether the destructor returns the connection to the pool.
    bool returnConnectionToCache() const { return m_returnConnectionToCache; }

protected:
    long m_startTime;                     ///< seconds since the epoch
    int m_state;                          ///< one of `State`
    std::string m_errorMessage;           ///< text of the last exception that `start` caught
    unsigned int m_timeout;               ///< seconds, including the 2 added
    long m_deadline;                      ///< seconds since the epoch
    std::string m_bindDn;                 ///< of `bindParameters`
    std::string m_bindPassword;           ///< of `bindParameters`
    LDAPConnection m_connection;          ///< null until a derived class checks one out
    bool m_returnConnectionToCache;       ///< see the function of this name
    LDAPSearch::RefParameter m_parameter; ///< for derived classes to fill in
    LDAPSearch m_search;                  ///< for derived classes to create
};

/// A shared pointer to a query; the last one destroys it.
class SOLVANE_LDAP_EXPORT RefLDAPQuery : public boost::shared_ptr<_LDAPQuery> {
public:
    /// An empty pointer.
    RefLDAPQuery();
    /// Takes ownership of `query`, even if the reference count cannot be allocated.
    RefLDAPQuery(_LDAPQuery* query);
    /// Shares the query.
    RefLDAPQuery(RefLDAPQuery const& other);
    /// Releases its query and shares that of `other`.
    RefLDAPQuery& operator=(RefLDAPQuery const& other);
    virtual ~RefLDAPQuery();
};

} // namespace Solvane

#endif
