/// @file
/// One connection to a directory server, opened step by step without blocking.
#ifndef SOLVANE_SESSION_SESSION_H
#define SOLVANE_SESSION_SESSION_H

#include <solvane/session/Address.h>
#include <solvane/session/Certificate.h>
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

/// The steps of opening a session, in their order. A session passes those that do not apply.
enum class Step {
    resolve,   ///< the host's addresses
    connect,   ///< TCP, to the first address that accepts
    handshake, ///< TLS, with the judgement of the certificate
    bind,      ///< simple bind (RFC 4511 section 4.2)
    identify,  ///< "Who am I?" (RFC 4532): the server answers, and as whom
};

/// Where and how a session connects. A value.
struct SessionOptions {
    std::string host;                                ///< name or address, IPv6 without brackets
    unsigned int port = 389;                         ///< TCP port
    bool secure = false;                             ///< TLS from the first byte ("ldaps://")
    unsigned int version = 3;                        ///< of LDAP: 2 or 3
    std::chrono::milliseconds networkTimeout{10000}; ///< for each step
    std::size_t messageBytes = 64UL * 1024 * 1024;   ///< of the largest message taken
    std::vector<Address> addresses;                  ///< known ones; empty: the name is resolved
    std::vector<std::string> nameServers; ///< "address" or "address:port"; empty: the system's
    std::shared_ptr<TlsContext> tls; ///< required if `secure`; shared by all sessions of an engine
    std::string bindDn;              ///< empty: anonymous, no bind is sent
    std::string const* password = nullptr; ///< borrowed; must outlive the bind step
};

/// A search, prepared once for many filters. Borrowed strings must outlive the call of `send`.
struct SearchRequest {
    std::string base;                    ///< DN at which the search starts
    int scope = 2;                       ///< LDAP_SCOPE_...
    int deref = 0;                       ///< LDAP_DEREF_...
    std::vector<std::string> attributes; ///< empty asks for all user attributes
    unsigned int entryLimit = 0;         ///< sent as size limit; 0: none
    unsigned int timeLimit = 0;          ///< seconds; 0: none
};

/// A connection that its owner drives: every call returns at once; what to wait for is told by
/// `waits`. Nothing is thrown but `std::bad_alloc`: each step ends in a `Verdict`. Not thread-safe; a
/// session may pass from thread to thread. In a child process of the one that connected, it is broken,
/// and letting go of it sends nothing.
class SOLVANE_LOOKUP_EXPORT Session : public NonCopyable {
public:
    /// Nothing is opened yet.
    explicit Session(SessionOptions options);
    /// Sends an unbind if the connection is whole, and closes it. Never blocks.
    ~Session();

    // Opening

    /// Goes on up to and including step `last`; the deadline bounds all steps up to there, the network
    /// timeout each one. Steps that were done are not repeated. Nothing of a later step is sent.
    void begin(Step last, Clock::time_point deadline);
    /// Does what can be done now.
    void advance();
    /// Adds what `advance` waits for, or what `receive` waits for once open.
    void waits(Waits& waits) const;
    /// True once the steps asked for are done, or one failed: `verdict` tells.
    bool isSettled() const;
    /// `begin`, then waiting and advancing until it is settled: for callers that may block.
    Verdict reach(Step last, Clock::time_point deadline);

    /// The step that is under way, that failed, or that was done last.
    Step step() const;
    /// Whether `step` is done (or did not apply).
    bool isDone(Step step) const;
    /// Good while nothing failed. After a failure the session is of no more use.
    ///
    /// resolve: `TryLater` -1 the name does not resolve, -5 not in time, -10 no memory. connect:
    /// `TryLater` -1 or -5, with each address and its cause; -2 no descriptor or memory for a socket.
    /// handshake: `Refused` -11 with what is wrong with the certificate or the server's TLS;
    /// `Misconfigured` -9 unusable files; `TryLater` -1 or -5. bind: the server's code by
    /// `outcomeOfBind`; an empty password, one with a NUL or a NUL in the DN is `Misconfigured` -9 and
    /// not sent. identify: `Refused` if the server says "anonymous" in spite of a bind; -1, -4, -5.
    Verdict const& verdict() const;

    // What was found on the way

    std::vector<Address> const& addresses() const; ///< of the host, in order of trial
    std::string peer() const;                      ///< "127.0.0.1 port 389"; empty before connect
    std::string const& uri() const;                ///< with the host as the user named it
    std::string tlsVersion() const;                ///< as "TLS1.3"; empty without TLS
    std::string tlsCipher() const;                 ///< likewise
    bool isTlsResumed() const;                     ///< false without TLS
    std::optional<Certificate> const& certificate() const; ///< also if it was refused
    Identity identity() const;                             ///< as whom answers are given
    std::string const& authorizationId() const; ///< as the server told it: "dn:cn=reader,..."

    // Requests, on an open session

    /// Puts a search into the output; `flush` (or `receive`) writes it.
    /// @param request  base, scope, attributes and limits
    /// @param filter  RFC 4515; an empty or invalid one is -7 `Misconfigured`, with nothing sent
    /// @param id      receives the message id
    Verdict send(SearchRequest const& request, std::string const& filter, int& id);
    /// Has `receive` take the answers to a request that the caller sent by `handle`; those of other
    /// requests are dropped.
    /// @param id  its message id, greater than all before it
    void expect(int id);
    /// Tells the server to stop; what still arrives of that request is dropped.
    void abandon(int id);
    /// Writes what is to be written as far as the socket takes it.
    void flush();

    /// What `receive` found.
    enum class Received {
        nothing, ///< no whole message yet
        message, ///< one
        broken,  ///< the connection ended, or sent what is not LDAP: `verdict` tells
    };
    /// The next message of any request, without waiting.
    /// @param message  receives it and owns it
    /// @param id       receives its message id
    Received receive(LDAPMessageBuffer& message, int& id);

    /// A message as it came.
    struct Message {
        int id = 0;               ///< of the request
        unsigned char type = 0;   ///< the tag of its operation: LDAP_RES_...
        std::string_view content; ///< of an entry, for `readEntry`; valid until the next call
        LDAPMessageBuffer parsed; ///< by OpenLDAP, if it is no entry
        bool isSuccess = false;   ///< a final response with code 0 that says nothing else
    };
    /// The same; entries are left in the session's buffer.
    Received receive(Message& message);

    /// Size in bytes of the message that `receive` gave last.
    std::size_t messageSize() const;

    /// When the last byte came; a slow link is not silence.
    Clock::time_point heardAt() const;
    /// Bytes received in all, for bounds.
    std::uint64_t receivedBytes() const;
    /// Whether an idle connection is as it was left: of this process, open, and with nothing to read.
    bool isFresh() const;
    /// OpenLDAP's session, to parse messages with; null before `connect` is done. Stays the session's.
    LDAP* handle() const;

private:
    class Steps;
    std::unique_ptr<Steps> m_steps;
};

} // namespace Solvane::Lookup

#endif
