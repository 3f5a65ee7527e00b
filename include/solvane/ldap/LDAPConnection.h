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
/// copying, assignment, the static ones, `isNull` and `impl` throws `LDAPException` (code 1, type 0)
/// on a null handle, each with a line of its own.
class SOLVANE_LDAP_EXPORT LDAPConnection {
public:
    /// Protocol version, the number that travels in a bind (RFC 4511 section 4.2).
    enum Protocol : int { V2 = 2, V3 = 3 };

    /// Whether a bind is answered before `bind` returns. Any number but 0 means that it is not.
    enum BindMode : int { Synchronous = 0, Asynchronous = 1 };

    /// One server: where it is and how to talk to it. The host is resolved when it is made.
    ///
    /// A value: copies are apart. Any number of threads may read it; nothing in here changes it.
    class SOLVANE_LDAP_EXPORT Server {
    public:
        /// Resolves the host, which may wait for the resolver.
        /// @param host            name or address; kept without surrounding blanks, in lower case
        /// @param port            TCP port
        /// @param protocol        protocol version, passed on unchecked
        /// @param secure          true: TLS from the first byte ("ldaps://")
        /// @param networkTimeout  seconds for opening the TCP connection, for the TLS handshake, for a
        ///                        write that makes no progress, and for the bind of a pooled connection
        /// @param firstFlag       stored; no operation of this library reads it
        /// @param secondFlag      stored; no operation of this library reads it
        /// @throws LDAPException  code 4, type 0, Connection.cpp:63, with the failure as its cause:
        ///                        code 4, type 0, Connection.cpp:51 where the host does not resolve;
        ///                        both are written to the log
        Server(std::string const& host, unsigned int port, Protocol protocol, bool secure,
               unsigned int networkTimeout, bool firstFlag, bool secondFlag);
        virtual ~Server();

        std::string host;            ///< trimmed and in lower case; a change does not reach `uri`
        unsigned int port;           ///< TCP port, unchecked
        Protocol protocol;           ///< what a session is told to speak
        bool secure;                 ///< true: TLS from the first byte
        unsigned int networkTimeout; ///< seconds
        bool firstFlag;              ///< the caller's own
        bool secondFlag;             ///< the caller's own
        Uri uri; ///< scheme, address in brackets and port; what OpenLDAP is given

    private:
        std::string uriText() const;
    };

    /// A server description shared between its users, by a count that threads may share; the last
    /// one destroys it. Dereferencing an empty one ends the process.
    class SOLVANE_LDAP_EXPORT RefServer : public boost::shared_ptr<Server> {
    public:
        /// Holds no description.
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
    /// @throws LDAPException  code 4, type 1, Connection.cpp:403: OpenLDAP makes no session;
    ///                        code 4, type 1, Connection.cpp:433: TLS could not be set up;
    ///                        code 4, type 2, Connection.cpp:519: an option was refused
    LDAPConnection(RefServer const& server, bool anonymous);
    /// Shares the body, and so the session.
    LDAPConnection(LDAPConnection const& other);
    /// Lets go of its body and shares that of `other`.
    LDAPConnection& operator=(LDAPConnection const& other);
    /// Leaves `other` a null handle.
    LDAPConnection(LDAPConnection&& other) noexcept;
    /// Lets go of its body and leaves `other` a null handle.
    LDAPConnection& operator=(LDAPConnection&& other) noexcept;
    /// Lets go of the body; the last handle ends the session, as `unbind` does.
    virtual ~LDAPConnection();

    /// Authenticates with a simple bind (RFC 4511 section 4.2).
    ///
    /// Connects first where there is no connection yet; `networkTimeout` bounds that, the TLS
    /// handshake included. An asynchronous bind is completed by `bindWait`.
    /// @param dn        converted to UTF-8 for protocol version 3; may be empty
    /// @param password  sent up to its first zero byte
    /// @param mode      `Synchronous` waits for the answer, for as long as it takes
    /// @throws LDAPException  code 1, type 0, Connection.cpp:201: null handle;
    ///                        code 4, type 3, Connection.cpp:208: the connection was unbound;
    ///                        code 4, type 3, Connection.cpp:241: refused;
    ///                        code 4, type 1, Connection.cpp:241: the server cannot be reached. What
    ///                        OpenLDAP said is then in `openldapErrorCode` too
    virtual void bind(std::string const& dn, std::string const& password, BindMode mode);

    /// Completes a bind started with `Asynchronous`.
    ///
    /// @param timeoutSeconds  whole seconds for *each* message awaited; 0 polls once
    /// @return true when the bind is done or the time ran out, false when the server refused it
    ///         with a code other than 49; the response is kept in the body's `m_bindResult`
    /// @throws LDAPException  code 1, type 0, Connection.cpp:258: null handle;
    ///                        code 4, type 3, Connection.cpp:278: the connection was unbound;
    ///                        code 4, type 3, Connection.cpp:297: credentials refused (49);
    ///                        code 4, type 3, Connection.cpp:315: the wait failed, and
    ///                        `openldapErrorCode` has the code; what `LDAPResultImpl::parseMessage`
    ///                        throws
    virtual bool bindWait(unsigned int timeoutSeconds);

    /// Ends the session (RFC 4511 section 4.3). OpenLDAP is not called with it any more: a later bind
    /// throws lines 208 and 278, a later send or wait fails as on a dead server.
    /// @return OpenLDAP's result code; 0 where the session had ended before
    /// @throws LDAPException  code 1, type 0, Connection.cpp:341: null handle
    virtual int unbind();

    /// True for a handle without a body.
    bool isNull() const;
    /// The OpenLDAP session (an `LDAP*`), which stays the connection's; after `unbind` it leads to
    /// freed memory.
    /// @throws LDAPException  code 1, type 0, Connection.cpp:129: null handle
    void* context() const;
    /// The description of the server, shared with the connection.
    /// @throws LDAPException  code 1, type 0, Connection.cpp:140: null handle
    RefServer const& server() const;
    /// The last OpenLDAP error recorded on the connection; other than 0, the pool drops it.
    /// @throws LDAPException  code 1, type 0, Connection.cpp:190: null handle
    int openldapErrorCode() const;
    /// Records an error, or with 0 that there is none.
    /// @throws LDAPException  code 1, type 0, Connection.cpp:178: null handle
    void openldapErrorCode(int code);
    /// Message id of the last asynchronous bind.
    /// @throws LDAPException  code 1, type 0, Connection.cpp:351: null handle
    int id() const;

    /// Takes the in-use marker without waiting. False when somebody else has it. For any thread.
    /// @throws LDAPException  code 1, type 0, Connection.cpp:154: null handle
    bool cacheMarkAsUsed();
    /// Gives the in-use marker back: once for each time it was taken. For any thread.
    /// @throws LDAPException  code 1, type 0, Connection.cpp:166: null handle
    void cacheMarkAsAvailable();

    /// The shared body, or null for a null handle.
    LDAPConnectionImpl* impl() const;

private:
    friend class LDAPConnectionCache;

    BodyReference<LDAPConnectionImpl> m_impl;
};

/// A pool of open connections that all threads of a process share.
///
/// A lookup hands out an idle, valid connection to the same server for the same credentials, marked
/// as in use, and opens one where there is none. A user that is done calls `cacheMarkAsAvailable`
/// on its handle; the connection stays in the pool for 300 seconds past its last use. The pool
/// never waits for a connection in use and does no network work under its lock. Any number of threads
/// may call it at once, but for its destructor and `checkForExpiredConnections`.
class SOLVANE_LDAP_EXPORT LDAPConnectionCache : public NonCopyable {
public:
    /// An empty pool.
    /// @throws boost::thread_resource_error  no lock can be made
    LDAPConnectionCache();
    /// Lets go of the pool's connections; those in use live on with their users.
    virtual ~LDAPConnectionCache();

    /// A connection for use without a bind. It may be one that was never connected yet.
    /// @throws LDAPException  code 4, type 0, Connection.cpp:650: no connection can be made; the
    ///                        failure is the cause
    /// @warning Do not bind it: it would go back to the pool bound, to the next caller without one.
    LDAPConnection getConnection(LDAPConnection::RefServer const& server);

    /// A connection bound as `dn`. A new one waits for its bind's answer up to the server's network
    /// timeout; one whose answer has not come by then counts as bound.
    /// @return a null handle when the server refused the bind with another code than 49
    /// @throws LDAPException  code 4, type 0, Connection.cpp:602: the connection or the bind failed,
    ///                        credentials refused (49) included; the failure is the cause
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
