/// @file
/// Server descriptions, connections, and the connection pool.
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
/// Copies share one body and so one session, which ends when the last copy is destroyed. Not
/// thread-safe, and neither are copies of one connection. On a null handle, every operation throws
/// `LDAPException` (code 1, type 0), each with its own line, except construction, copying,
/// assignment, static operations, `isNull` and `impl`.
class SOLVANE_LDAP_EXPORT LDAPConnection {
public:
    /// Protocol version, the number sent in a bind (RFC 4511 section 4.2).
    enum Protocol : int { V2 = 2, V3 = 3 };

    /// Whether `bind` waits for the response. Any number except 0 means that it does not.
    enum BindMode : int { Synchronous = 0, Asynchronous = 1 };

    /// A SASL mechanism of `bindSasl` (RFC 4422).
    enum SaslMechanism : int {
        External = 0, ///< the client certificate of the TLS session
        Gssapi = 1    ///< Kerberos (RFC 4752), with the ticket of the process
    };

    /// One server: where it is and how to connect to it. The constructor resolves the host.
    ///
    /// A value: copies are independent. Thread-safe for reading.
    class SOLVANE_LDAP_EXPORT Server {
    public:
        /// Resolves the host, which may block in the resolver.
        /// @param host            name or address; trimmed and converted to lower case
        /// @param port            TCP port
        /// @param protocol        protocol version, not validated
        /// @param secure          true: TLS from the first byte ("ldaps://")
        /// @param networkTimeout  seconds for the TCP connect, for the TLS handshake, for a write that
        ///                        makes no progress, and for the bind of a pooled connection
        /// @param firstFlag       stored, but not used by the library
        /// @param secondFlag      stored, but not used by the library
        /// @throws LDAPException  code 4, type 0, Connection.cpp:63, with the failure as its cause:
        ///                        code 4, type 0, Connection.cpp:51: the host does not resolve;
        ///                        both are written to the log
        Server(std::string const& host, unsigned int port, Protocol protocol, bool secure,
               unsigned int networkTimeout, bool firstFlag, bool secondFlag);
        virtual ~Server();

        std::string host;            ///< trimmed, in lower case; changing it does not change `uri`
        unsigned int port;           ///< TCP port, not validated
        Protocol protocol;           ///< LDAP version of sessions
        bool secure;                 ///< true: TLS from the first byte
        unsigned int networkTimeout; ///< seconds
        bool firstFlag;              ///< for the caller's use
        bool secondFlag;             ///< for the caller's use
        Uri uri; ///< scheme, address in brackets and port, as passed to OpenLDAP

    private:
        std::string uriText() const;
    };

    /// A shared pointer to a server description, with a thread-safe reference count. Dereferencing an
    /// empty one aborts the process.
    class SOLVANE_LDAP_EXPORT RefServer : public boost::shared_ptr<Server> {
    public:
        /// An empty pointer.
        RefServer();
        /// Takes ownership of `server`, even if the reference count cannot be allocated.
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
    /// Prepares a session: options and, for a secure server, the TLS policy. Sends nothing; the first
    /// operation connects.
    /// @param server     shared with the connection
    /// @param anonymous  whether the connection is meant for use without a bind
    /// @throws LDAPException  code 4, type 1, Connection.cpp:403: OpenLDAP cannot create a session;
    ///                        code 4, type 1, Connection.cpp:433: the TLS policy cannot be set;
    ///                        code 4, type 2, Connection.cpp:519: OpenLDAP rejects an option
    LDAPConnection(RefServer const& server, bool anonymous);
    /// Shares the body, and so the session.
    LDAPConnection(LDAPConnection const& other);
    /// Releases its body and shares that of `other`.
    LDAPConnection& operator=(LDAPConnection const& other);
    /// Takes the body of `other` and leaves it a null handle.
    LDAPConnection(LDAPConnection&& other) noexcept;
    /// Releases its body, takes that of `other`, and leaves `other` a null handle.
    LDAPConnection& operator=(LDAPConnection&& other) noexcept;
    /// Releases the body; the last handle ends the session like `unbind`.
    virtual ~LDAPConnection();

    /// Authenticates with a simple bind (RFC 4511 section 4.2).
    ///
    /// Connects if there is no connection yet; `networkTimeout` limits the connect and the TLS
    /// handshake. `bindWait` completes an asynchronous bind.
    /// @param dn        converted to UTF-8 for protocol version 3; may be empty
    /// @param password  sent up to its first zero byte
    /// @param mode      `Synchronous` waits for the response without a time limit
    /// @throws LDAPException  code 1, type 0, Connection.cpp:201: null handle;
    ///                        code 4, type 3, Connection.cpp:208: the connection was unbound;
    ///                        code 4, type 3, Connection.cpp:241: refused;
    ///                        code 4, type 1, Connection.cpp:241: the server is unreachable;
    ///                        `openldapErrorCode` then has OpenLDAP's code
    virtual void bind(std::string const& dn, std::string const& password, BindMode mode);

    /// Completes a bind started with `Asynchronous`.
    ///
    /// @param timeoutSeconds  whole seconds for *each* message awaited; 0 polls once
    /// @return true if the bind succeeded **or the time ran out**, false if the server refused it
    ///         with a code other than 49; the body's `m_bindResult` has the response
    /// @throws LDAPException  code 1, type 0, Connection.cpp:258: null handle;
    ///                        code 4, type 3, Connection.cpp:278: the connection was unbound;
    ///                        code 4, type 3, Connection.cpp:297: invalid credentials (49);
    ///                        code 4, type 3, Connection.cpp:315: the wait failed, and
    ///                        `openldapErrorCode` has the code; what `LDAPResultImpl::parseMessage`
    ///                        throws
    virtual bool bindWait(unsigned int timeoutSeconds);

    /// Starts TLS on a plain connection (StartTLS, RFC 4511 section 4.14).
    ///
    /// Connects if there is no connection yet. Call it before `bind`, with no request in flight. The
    /// network timeout limits the connect, the response and the handshake, each. The policy is that of
    /// secure servers: any certificate is accepted, unless the session has a TLS context of its own
    /// (`LDAP_OPT_X_TLS_NEWCTX`). From then on the session never connects again, not even to bind.
    /// @throws LDAPException  code 1, type 0, Security.cpp:41: null handle;
    ///                        code 4, type 3, Security.cpp:48: the connection was unbound;
    ///                        code 4, type 3, Security.cpp:55: the connection has TLS already, and
    ///                        nothing is sent;
    ///                        code 4, type 3, Security.cpp:76: refused;
    ///                        code 4, type 1, Security.cpp:76: the server is unreachable, did not
    ///                        answer in time, or the handshake failed. After line 76 the session has
    ///                        ended, and `openldapErrorCode` has the code;
    ///                        code 4, type 1, Connection.cpp:433: the TLS policy cannot be set
    void startTls();

    /// Authenticates with a SASL bind (RFC 4513 section 5.2), and waits for the result.
    ///
    /// Connects if there is no connection yet. The network timeout limits the connect and each response;
    /// Kerberos has its own limits for its servers. From then on the session never reconnects, not even
    /// in `bind`. A security layer of `Gssapi` protects all that follows; the session's option
    /// `LDAP_OPT_X_SASL_SECPROPS` and `ldap.conf` select it. The ticket must be for the name that DNS
    /// returns for the server's address.
    /// @param mechanism        which credentials to use
    /// @param authorizationId  identity to act as, "dn:..." or "u:..."; empty: the authenticated one
    /// @throws LDAPException  code 1, type 0, Security.cpp:101: null handle;
    ///                        code 4, type 3, Security.cpp:108: the connection was unbound;
    ///                        code 2, type 0, Security.cpp:115: an unknown mechanism;
    ///                        code 4, type 3, Security.cpp:136: refused, or there are no credentials;
    ///                        code 4, type 1, Security.cpp:136: the server is unreachable or did not
    ///                        answer in time; `openldapErrorCode` then has the code. Unless the server
    ///                        refused it, the connection has ended
    void bindSasl(SaslMechanism mechanism, std::string const& authorizationId = std::string());

    /// Ends the session (RFC 4511 section 4.3). OpenLDAP is not called with it any more: a later bind
    /// throws lines 208 and 278, a later send or wait fails as on a dead server.
    /// @return OpenLDAP's result code; 0 if the session ended before
    /// @throws LDAPException  code 1, type 0, Connection.cpp:341: null handle
    virtual int unbind();

    /// True for a handle without a body.
    bool isNull() const;
    /// The OpenLDAP session (an `LDAP*`), owned by the connection; dangling after `unbind`.
    /// @throws LDAPException  code 1, type 0, Connection.cpp:129: null handle
    void* context() const;
    /// The description of the server, shared with the connection.
    /// @throws LDAPException  code 1, type 0, Connection.cpp:140: null handle
    RefServer const& server() const;
    /// The last OpenLDAP error recorded on the connection. If it is not 0, the pool drops the
    /// connection at the next checkout.
    /// @throws LDAPException  code 1, type 0, Connection.cpp:190: null handle
    int openldapErrorCode() const;
    /// Records an error; 0 clears it.
    /// @throws LDAPException  code 1, type 0, Connection.cpp:178: null handle
    void openldapErrorCode(int code);
    /// Message id of the last asynchronous bind.
    /// @throws LDAPException  code 1, type 0, Connection.cpp:351: null handle
    int id() const;

    /// Takes the in-use marker without blocking. Returns false if it is taken. Thread-safe.
    /// @throws LDAPException  code 1, type 0, Connection.cpp:154: null handle
    bool cacheMarkAsUsed();
    /// Releases the in-use marker, which returns a pooled connection. Call it exactly once for each
    /// checkout. Thread-safe.
    /// @throws LDAPException  code 1, type 0, Connection.cpp:166: null handle
    void cacheMarkAsAvailable();

    /// The shared body, or null for a null handle.
    LDAPConnectionImpl* impl() const;

private:
    friend class LDAPConnectionCache;

    BodyReference<LDAPConnectionImpl> m_impl;
};

/// A pool of open connections.
///
/// A checkout returns an idle, valid connection to the same server with the same credentials and
/// marks it as in use; it opens one if there is none. It never waits for a connection in use.
/// `cacheMarkAsAvailable` returns a connection, which expires 300 seconds after its last checkout.
/// Thread-safe, except for the destructor and `checkForExpiredConnections`. The lock is not held
/// during network work.
class SOLVANE_LDAP_EXPORT LDAPConnectionCache : public NonCopyable {
public:
    /// An empty pool.
    /// @throws boost::thread_resource_error  the lock cannot be created
    LDAPConnectionCache();
    /// Releases the pooled connections; those in use stay usable.
    virtual ~LDAPConnectionCache();

    /// Checks out a connection without a bind, which may not be connected yet.
    /// @throws LDAPException  code 4, type 0, Connection.cpp:650: no connection can be created; the
    ///                        failure is the cause
    /// @warning Do not bind it: the next caller that asks for an unbound connection would get it.
    LDAPConnection getConnection(LDAPConnection::RefServer const& server);

    /// Checks out a connection bound as `dn`. For a new one, waits for the bind response at most the
    /// server's network timeout; without a response, the connection counts as bound.
    /// @return a null handle if the server refused the bind with a code other than 49
    /// @throws LDAPException  code 4, type 0, Connection.cpp:602: the connection or the bind failed,
    ///                        including invalid credentials (49); the failure is the cause
    /// @warning Do not bind it again: other threads may be comparing its credentials.
    LDAPConnection getConnection(LDAPConnection::RefServer const& server, std::string const& dn,
                                 std::string const& password);

    /// Appends the server of each pooled connection.
    void connections(std::list<LDAPConnection::RefServer>& servers) const;

    /// Empties the pool. Connections in use stay usable, but are no longer pooled.
    void clear();

    /// Drops every connection that expired before `now` (seconds since the epoch), idle or in use.
    /// @note Takes no lock: no other thread may use the pool at the same time.
    void checkForExpiredConnections(long now);

    /// Number of checkouts that reused a connection; never reset.
    Counter const& cacheHits() const { return m_cacheHits; }
    /// Connections added minus connections expired; 0 after `clear`. Connections dropped as invalid
    /// still count, so it may exceed the number of pooled connections.
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
