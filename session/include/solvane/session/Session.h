/// @file
/// One connection to a directory server, opened step by step without blocking.
#ifndef SOLVANE_SESSION_SESSION_H
#define SOLVANE_SESSION_SESSION_H

#include <solvane/session/Address.h>
#include <solvane/session/Certificate.h>
#include <solvane/session/Mechanism.h>
#include <solvane/session/TlsContext.h>
#include <solvane/session/Verdict.h>
#include <solvane/session/Waits.h>

#include <solvane/session/Export.h>

#include <solvane/ldap/RefCounted.h>
#include <solvane/ldap/impl/OpenLDAPOwners.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// @cond of OpenLDAP
typedef struct ldap LDAP;
/// @endcond

namespace Solvane::Lookup {

/// The steps of opening a session, in order. A session skips those that do not apply.
enum class Step {
    resolve,   ///< the host's addresses
    connect,   ///< TCP, to the first address that accepts, or a UNIX socket
    startTls,  ///< the request for TLS on a plain connection (RFC 4511 section 4.14)
    handshake, ///< TLS, including the verification of the certificate
    bind,      ///< simple or SASL bind (RFC 4511 section 4.2)
    identify, ///< "Who am I?" (RFC 4532): proves that the server is alive, and returns the identity
};

/// Where and how a session connects. A value.
struct SessionOptions {
    std::string host;         ///< name or address, IPv6 without brackets
    unsigned int port = 389;  ///< TCP port
    bool secure = false;      ///< TLS from the first byte ("ldaps://")
    bool startTls = false;    ///< TLS by StartTLS, required; nothing else is sent before it
    std::string socketPath;   ///< path of a UNIX socket ("ldapi://"), instead of host and port
    unsigned int version = 3; ///< of LDAP: 2 or 3
    std::chrono::milliseconds networkTimeout{10000}; ///< for each step
    std::size_t messageBytes = 64UL * 1024 * 1024;   ///< of the largest message accepted
    std::vector<Address> addresses;                  ///< already resolved; empty: resolves the name
    std::vector<std::string> nameServers; ///< "address" or "address:port"; empty: the system's
    std::shared_ptr<TlsContext> tls;      ///< required for TLS; shared by all sessions of an engine
    Mechanism mechanism = Mechanism::simple; ///< of the bind
    std::string authorizationId; ///< of a SASL bind, as "dn:..." or "u:..."; empty: the server's
    std::string bindDn;          ///< of a simple bind; empty: anonymous, no bind is sent
    std::string const* password = nullptr; ///< borrowed; must outlive the bind step

    /// Whether the connection is encrypted, from the first byte or by StartTLS.
    bool usesTls() const { return secure || startTls; }
    /// Whether no bind is sent.
    bool isAnonymous() const { return Lookup::isAnonymous(mechanism, bindDn); }
};

/// A search, prepared once for many filters. Must outlive the call of `send`.
struct SearchRequest {
    std::string base;                    ///< DN at which the search starts
    int scope = 2;                       ///< LDAP_SCOPE_...
    int deref = 0;                       ///< LDAP_DEREF_...
    std::vector<std::string> attributes; ///< empty asks for all user attributes
    unsigned int entryLimit = 0;         ///< sent as size limit; 0: none
    unsigned int timeLimit = 0;          ///< seconds; 0: none
};

/// A connection driven by its owner. Every call except `reach` returns at once, except that a bind by
/// GSSAPI may wait for a KDC; `waits` names what
/// to poll for before the next `advance` or `receive`. Each step ends in a `Verdict`; the calls
/// throw only `std::bad_alloc`. Not thread-safe, but it may be handed from one thread to another.
/// After a fork the child's copy is broken, and destroying it sends nothing.
class SOLVANE_LOOKUP_EXPORT Session : public NonCopyable {
public:
    /// Opens nothing yet.
    explicit Session(SessionOptions options);
    /// Sends an unbind if the connection is intact, and closes it. Never blocks.
    ~Session();

    /// Initialises OpenLDAP, which it would else do itself in the first session of a process: it looks
    /// up the host's own name, and waits as long as the system's resolver does. Call it where that
    /// does no harm, before a deadline begins. Thread-safe.
    static void initializeOpenLdap();

    // Opening

    /// Starts all steps up to and including `last`. The deadline bounds all of them together, the
    /// network timeout each one. Completed steps are not repeated, and nothing of a later step is
    /// sent.
    void begin(Step last, Clock::time_point deadline);
    /// Makes as much progress as possible without blocking.
    void advance();
    /// Adds what `advance` waits for, or what `receive` waits for once open.
    void waits(Waits& waits) const;
    /// True once the requested steps are done or one failed; see `verdict`.
    bool isSettled() const;
    /// Calls `begin`, then blocks until the session is settled. For callers that may block.
    Verdict reach(Step last, Clock::time_point deadline);

    /// The current step, the failed one, or the last one completed.
    Step step() const;
    /// Whether `step` is done or does not apply.
    bool isDone(Step step) const;
    /// Good while nothing has failed. After a failure the session cannot be used any more.
    ///
    /// before the first step: `Misconfigured` -9 for options that contradict each other. resolve:
    /// `TryLater` -1 the name does not resolve, -5 not in time, -10 no memory. connect: `TryLater`
    /// -1 or -5, with each address and its cause; -2 no descriptor or memory for a socket.
    /// startTls: `Refused` with the server's code if it refuses TLS, -11 if anything follows its
    /// response; `TryLater` 51, -1, -4 or -5. handshake: `Refused` -11 with what is wrong with the
    /// certificate or the server's TLS; `Misconfigured` -9 unusable files; `TryLater` -1 or -5.
    /// bind: the server's code by `outcomeOfBind`; an empty password or one with a NUL, a NUL in a
    /// name are `Misconfigured` -9, and nothing is sent; `Refused` -11 if a TLS 1.3 server rejects
    /// the client certificate, which it does after the handshake. With GSSAPI, nothing is sent
    /// either without a valid ticket: `Misconfigured` -9 no or an expired ticket, an unusable
    /// keytab, a clock that is off, or no GSSAPI plugin; `Refused` 49 an old key in the keytab;
    /// `Misconfigured` -6 the KDC does not know the server; `TryLater` -6 no KDC answers, or any
    /// other failure of Kerberos. `Refused` -6 the server does not prove its identity. The Kerberos
    /// library may wait for a KDC, and `advance` blocks meanwhile. identify: `Refused` if the
    /// server says "anonymous" in spite of a bind; -1, -4, -5.
    Verdict const& verdict() const;

    // Properties of the connection

    std::vector<Address> const& addresses() const; ///< of the host, in the order to try them
    std::string peer() const;       ///< "127.0.0.1 port 389" or a path; empty before connect
    std::string const& uri() const; ///< with the host as configured
    std::string tlsVersion() const; ///< as "TLS1.3"; empty without TLS
    std::string tlsCipher() const;  ///< as "AES-256-GCM"; empty without TLS
    bool isTlsResumed() const;      ///< false without TLS
    std::optional<Certificate> const& certificate() const; ///< also a refused one
    Identity identity() const;                             ///< identity of the answers
    std::string const& authorizationId() const; ///< from the server, as "dn:cn=reader,..."

    // Requests, on an open session

    /// Queues a search; `flush` or `receive` writes it.
    /// @param request  base, scope, attributes and limits
    /// @param filter  RFC 4515; an empty or invalid one is -7 `Misconfigured`, with nothing sent
    /// @param id      receives the message id
    Verdict send(SearchRequest const& request, std::string const& filter, int& id);
    /// Queues a simple bind, and asks for the state of the password (the password policy control).
    /// Its response is a message of `receive`, for `readBindResult`; from then on, the connection has
    /// that identity, or none if the bind was refused. OpenLDAP's and the session's copies of the
    /// password are wiped once they are written.
    /// @param dn        not empty, as the bind would be anonymous
    /// @param password  not empty, for the same reason; borrowed until the call returns
    /// @param id        receives the message id
    /// @return -9 `Misconfigured`, with nothing sent: an empty DN or password, or one with a NUL
    ///         byte; or other requests are pending (RFC 4511 section 4.2.1)
    Verdict authenticate(std::string const& dn, std::string const& password, int& id);
    /// Makes `receive` return the answers to a request that the caller sent with `handle`; answers
    /// to unknown requests are dropped.
    /// @param id    its message id, greater than all previous ones
    /// @param kind  of the request, for messages; a literal
    void expect(int id, char const* kind = "request");
    /// Abandons a request; answers that still arrive are dropped.
    void abandon(int id);
    /// Writes queued requests, as far as the socket accepts them.
    void flush();

    /// Result of `receive`.
    enum class Received {
        nothing, ///< no complete message yet
        message, ///< a message
        broken,  ///< the connection ended or sent something other than LDAP; see `verdict`
    };
    /// Returns the next message of any request, without waiting.
    /// @param message  receives and owns it
    /// @param id       receives its message id
    Received receive(LDAPMessageBuffer& message, int& id);

    /// A received message.
    struct Message {
        int id = 0;             ///< of the request
        unsigned char type = 0; ///< the tag of its operation: LDAP_RES_...
        std::string_view
            content; ///< of an entry, for `readEntry`; borrowed, valid until the next call
        LDAPMessageBuffer parsed; ///< by OpenLDAP; null for an entry
        bool isSuccess = false;   ///< a final response with code 0 and nothing else
    };
    /// The same; entries stay in the session's buffer.
    Received receive(Message& message);

    /// Size in bytes of the last message that `receive` returned.
    std::size_t messageSize() const;

    /// When the last byte arrived. Bytes of incomplete messages count: a slow link is not silence.
    Clock::time_point heardAt() const;
    /// Total bytes received.
    std::uint64_t receivedBytes() const;
    /// Validates an idle connection: true if it belongs to this process, is open and has no input.
    bool isFresh() const;
    /// OpenLDAP's session, for parsing messages; null before `connect` is done. Owned by this
    /// session.
    LDAP* handle() const;

private:
    class Steps;
    std::unique_ptr<Steps> m_steps;
};

} // namespace Solvane::Lookup

#endif
