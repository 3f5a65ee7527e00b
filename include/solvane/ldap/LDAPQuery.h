/// @file
/// A bind and a search that their owner steps through under a deadline.
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
/// A derived class supplies the search in `searchParameter`. `start` goes as far as it can; from
/// then on the owner calls `searchResponseHandler` until the state says that it is over. One thread
/// at a time. The destructor gives the connection's in-use marker back, where that is asked for.
class SOLVANE_LDAP_EXPORT _LDAPQuery : public NonCopyable { // NOLINT(bugprone-reserved-identifier)
public:
    /// Where a query stands; the guide has the ways between the states.
    enum State : int {
        QueryBindNeeded = 0, ///< a bind was asked for; nothing has been sent
        QueryBinding = 1,    ///< the bind was sent
        QueryReady = 3,      ///< bound, or no bind needed; the search has not been sent
        QuerySearching = 4,  ///< the search was sent
        QueryDone = 5,       ///< the result is complete, or there was nothing to search
        QueryFailed = 6,     ///< the bind was refused, or the time is over
        QueryError = 7       ///< `start` caught an exception
    };

    /// A query on a given connection, which stays its giver's to mark as available.
    /// @param connection shared with the query
    /// @param startTime  seconds since the epoch, from which the deadline counts
    /// @param timeout    seconds; the bind wait and the deadline allow 2 more
    /// @param bindFirst  true: bind with `bindParameters` before the search
    _LDAPQuery(LDAPConnection& connection, long startTime, unsigned int timeout, bool bindFirst);
    /// A query for which a derived class takes a bound connection from the pool, to be given back.
    _LDAPQuery(long startTime, unsigned int timeout);
    /// The same with a deadline of 0, to be set by `deadline`.
    _LDAPQuery();
    /// Gives the connection's in-use marker back, where that is asked for.
    virtual ~_LDAPQuery();

    /// Binds where needed, sends the search and waits for its result up to the deadline. Catches
    /// every `Exception`: the state is `QueryError` then.
    virtual void start();
    /// Sends the bind and waits for its answer.
    /// @throws LDAPException  as `LDAPConnection::bind` and `LDAPConnection::bindWait`
    virtual void bind();
    /// Prepares the search and sends it.
    /// @throws LDAPException  as `searchParameter` and `LDAPRequest::send` of a search
    virtual void submitSearch();
    /// Waits for the search's result up to the deadline. Past the deadline, the query has failed,
    /// whatever its state was.
    /// @throws LDAPException  as `LDAPRequest::wait` of a search
    virtual void searchResponseHandler();
    /// Waits for the bind's answer. A wait that runs out counts as bound.
    /// @throws LDAPException  as `LDAPConnection::bindWait`
    virtual void bindResponseHandler();
    /// Makes `m_search`; called when the query is ready. May change the state to stop the query, or
    /// leave `m_search` null: the query is done then, without a search.
    virtual void searchParameter();

    /// The DN and password of `bind`.
    void bindParameters(std::string const& dn, std::string const& password);

    /// The search's result.
    /// @throws LDAPException  code 1, type 0, Search.cpp:81: there is no search
    LDAPResult const& result() const;
    /// One of `State`.
    int state() const { return m_state; }
    /// Sets when the query ends, in seconds since the epoch.
    void deadline(long seconds) { m_deadline = seconds; }
    /// Whether the destructor gives the connection's in-use marker back.
    void returnConnectionToCache(bool wanted) { m_returnConnectionToCache = wanted; }
    /// True when the destructor will give the connection's in-use marker back.
    bool returnConnectionToCache() const { return m_returnConnectionToCache; }

protected:
    long m_startTime;                     ///< seconds since the epoch
    int m_state;                          ///< one of `State`
    std::string m_errorMessage;           ///< of the exception that `start` caught last
    unsigned int m_timeout;               ///< seconds, the 2 more included
    long m_deadline;                      ///< seconds since the epoch
    std::string m_bindDn;                 ///< of `bindParameters`
    std::string m_bindPassword;           ///< of `bindParameters`
    LDAPConnection m_connection;          ///< null until a derived class takes one from the pool
    bool m_returnConnectionToCache;       ///< as the function of this name says
    LDAPSearch::RefParameter m_parameter; ///< for derived classes to fill
    LDAPSearch m_search;                  ///< for derived classes to make
};

/// A query shared between its users; the last one ends it.
class SOLVANE_LDAP_EXPORT RefLDAPQuery : public boost::shared_ptr<_LDAPQuery> {
public:
    /// Holds no query.
    RefLDAPQuery();
    /// Takes ownership of `query`, also when the shared count cannot be allocated.
    RefLDAPQuery(_LDAPQuery* query);
    /// Shares the query.
    RefLDAPQuery(RefLDAPQuery const& other);
    /// Lets go of its query and shares that of `other`.
    RefLDAPQuery& operator=(RefLDAPQuery const& other);
    virtual ~RefLDAPQuery();
};

} // namespace Solvane

#endif
