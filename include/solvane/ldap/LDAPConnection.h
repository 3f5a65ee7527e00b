/// @file
/// Server descriptions, connections, and the pool that threads share.
#ifndef SOLVANE_LDAP_CONNECTION_H
#define SOLVANE_LDAP_CONNECTION_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPResult.h>
#include <solvane/ldap/RefCounted.h>

#include <solvart/Uri.h>

#include <boost/shared_ptr.hpp>
#include <boost/thread/shared_mutex.hpp>

#include <list>
#include <string>

namespace Solvane {

/// A session with one directory server.
///
/// Copies share one body and so one session; it ends when the last handle goes. Not synchronised:
/// one thread uses a connection at a time, with all its copies. Every operation but construction,
/// copying, assignment, `isNull` and `impl` throws `LDAPException` (code 1, type 0) on a null
/// handle.
class SOLVANE_LDAP_EXPORT LDAPConnection {
public:
    /// Protocol version, the number that travels in a bind (RFC 4511 section 4.2).
    enum Protocol : int { V2 = 2, V3 = 3 };

    /// Whether a bind is answered before `bind` returns. Any number but 0 means that it is not.
    enum BindMode : int { Synchronous = 0, Asynchronous = 1 };

    /// One server: where it is and how to talk to it. The host is resolved when it is made.
    class SOLVANE_LDAP_EXPORT Server {
    public:
        /// @param host            name or address; kept without surrounding blanks, in lower case
        /// @param port            TCP port
        /// @param protocol        protocol version, passed on unchecked
        /// @param secure          true: TLS from the first byte ("ldaps://")
        /// @param networkTimeout  seconds for opening the TCP connection, for the TLS handshake, for a
        ///                        write that makes no progress, and for the bind of a pooled connection
        /// @param firstFlag       stored; no operation of this library reads it
        /// @param secondFlag      stored; no operation of this library reads it
        /// @throws LDAPException  code 4, type 0, with the failure as its cause: the host does not
        ///                        resolve; both are written to the log
        Server(std::string const& host, unsigned int port, Protocol protocol, bool secure,
               unsigned int networkTimeout, bool firstFlag, bool secondFlag);
        virtual ~Server();

        std::string host;
        unsigned int port;
        Protocol protocol;
        bool secure;
        unsigned int networkTimeout; ///< seconds
        bool firstFlag;
        bool secondFlag;
        Uri uri; ///< scheme, address in brackets and port; what OpenLDAP is given

    private:
        std::string uriText() const;
    };

    /// A server description shared between its users.
    class SOLVANE_LDAP_EXPORT RefServer : public boost::shared_ptr<Server> {
    public:
        RefServer();
        /// Takes ownership of `server`, also when the shared count cannot be allocated.
        RefServer(Server* server);
        /// A new description; arguments and exceptions are those of `Server`'s constructor.
        RefServer(std::string const& host, unsigned int port, Protocol protocol, bool secure,
                  unsigned int networkTimeout, bool firstFlag, bool secondFlag);
    };

    /// 2 for `V2`, 3 for everything else.
    static int fromProtocol(Protocol protocol);
    /// `V2` for 2, `V3` for everything else.
    static Protocol toProtocol(int version);

    /// A null handle.
    LDAPConnection();
    /// Prepares a session: options and, for a secure server, TLS policy. No network traffic yet;
    /// the first operation connects.
    /// @param server     shared with the connection
    /// @param anonymous  whether the connection is meant for use without a bind
    /// @throws LDAPException  code 4: type 1 the session or TLS could not be set up, type 2 an
    ///                        option
    LDAPConnection(RefServer const& server, bool anonymous);
    LDAPConnection(LDAPConnection const& other);
    LDAPConnection& operator=(LDAPConnection const& other);
    /// Leaves `other` a null handle.
    LDAPConnection(LDAPConnection&& other) noexcept;
    LDAPConnection& operator=(LDAPConnection&& other) noexcept;
    virtual ~LDAPConnection();

    /// Authenticates with a simple bind (RFC 4511 section 4.2).
    ///
    /// Connects first where there is no connection yet; `networkTimeout` bounds that, the TLS
    /// handshake included. An asynchronous bind is completed by `bindWait`.
    /// @param dn        converted to UTF-8 for protocol version 3; may be empty
    /// @param password  sent up to its first zero byte
    /// @param mode      `Synchronous` waits for the answer, for as long as it takes
    /// @throws LDAPException  code 4: type 1 the server cannot be reached, type 3 any other
    ///                        refusal, and a connection that was unbound
    virtual void bind(std::string const& dn, std::string const& password, BindMode mode);

    /// Completes a bind started with `Asynchronous`.
    ///
    /// @param timeoutSeconds  whole seconds for *each* message awaited; 0 polls once
    /// @return true when the bind is done or the time ran out, false when the server refused it
    ///         with a code other than 49; the response is kept in the body's `m_bindResult`
    /// @throws LDAPException  code 4, type 3: no session, credentials refused (49), or the wait
    ///                        failed; what `LDAPResultImpl::parseMessage` throws
    virtual bool bindWait(unsigned int timeoutSeconds);

    /// Ends the session (RFC 4511 section 4.3); every later operation fails as on a dead server.
    /// @return OpenLDAP's result code; 0 where the session had ended before
    virtual int unbind();

    bool isNull() const;
    /// The OpenLDAP session (an `LDAP*`), which stays the connection's.
    void* context() const;
    RefServer const& server() const;
    /// The last OpenLDAP error recorded on the connection; other than 0, the pool drops it.
    int openldapErrorCode() const;
    void openldapErrorCode(int code);
    /// Message id of the last asynchronous bind.
    int id() const;

    /// Takes the in-use marker without waiting. False when somebody else has it.
    bool cacheMarkAsUsed();
    /// Gives the in-use marker back.
    void cacheMarkAsAvailable();

    /// The shared body, or null for a null handle.
    LDAPConnectionImpl* impl() const;

private:
    BodyReference<LDAPConnectionImpl> m_impl;
};

/// A pool of open connections that all threads of a process share.
///
/// A lookup hands out an idle, valid connection to the same server for the same credentials, marked
/// as in use, and opens one where there is none. A user that is done calls `cacheMarkAsAvailable`
/// on its handle; the connection stays in the pool for 300 seconds past its last use. The pool
/// never waits for a connection in use and does no network work under its lock.
class SOLVANE_LDAP_EXPORT LDAPConnectionCache : public NonCopyable {
public:
    /// @throws boost::thread_resource_error  no lock can be made
    LDAPConnectionCache();
    /// Lets go of the pool's connections; those in use live on with their users.
    virtual ~LDAPConnectionCache();

    /// A connection for use without a bind. It may be one that was never connected yet.
    /// @throws LDAPException  code 4, type 0: no connection can be made; the failure is the cause
    /// @warning Do not bind it: it would go back to the pool bound, to the next caller without one.
    LDAPConnection getConnection(LDAPConnection::RefServer const& server);

    /// A connection bound as `dn`. A new one waits for its bind's answer up to the server's network
    /// timeout; one whose answer has not come by then counts as bound.
    /// @return a null handle when the server refused the bind with another code than 49
    /// @throws LDAPException  code 4, type 0: the connection or the bind failed, credentials
    ///                        refused (49) included; the failure is the cause
    /// @warning Do not bind it again: other threads compare its credentials meanwhile.
    LDAPConnection getConnection(LDAPConnection::RefServer const& server, std::string const& dn,
                                 std::string const& password);

    /// Appends the server of every pooled connection, as often as there are connections to it.
    void connections(std::list<LDAPConnection::RefServer>& servers) const;

    /// Empties the pool. Connections in use stay usable, but do not come back.
    void clear();

    /// Drops every connection that expired before `now` (seconds since the epoch), in use or not.
    /// @note Takes no lock: for use where no other thread has the pool.
    void checkForExpiredConnections(long now);

    /// How often a connection was reused; never reset.
    Counter const& cacheHits() const { return m_cacheHits; }
    /// Connections added, less those that expired; 0 after `clear`. Connections dropped as invalid
    /// still count, so it may exceed the number of pooled ones.
    Counter const& cacheSize() const { return m_cacheSize; }

private:
    struct Wanted;

    LDAPConnection takeCached(Wanted const& wanted);
    LDAPConnection openUnbound(LDAPConnection::RefServer const& server);
    LDAPConnection openBound(LDAPConnection::RefServer const& server, std::string const& dn,
                             std::string const& password);
    void removeExpired(long now, std::list<LDAPConnection>& removed);

    mutable boost::shared_mutex m_lock; // guards everything below
    std::list<LDAPConnection> m_connections;
    Counter m_cacheHits;
    Counter m_cacheSize;
};

} // namespace Solvane

#endif
