// What keeps an OpenLDAP session from doing harm by itself.
#ifndef SOLVANE_LDAP_SRC_SESSION_GUARD_H
#define SOLVANE_LDAP_SRC_SESSION_GUARD_H

#include "OpenLDAP.h"

#include <solvane/ldap/RefCounted.h>

#include <chrono>
#include <memory>

namespace Solvane {

/// A callback for the connections that a session opens, and a socket layer for each of them.
///
/// - A session that was given to a bind opens no connection except within a bind: OpenLDAP would
///   silently connect again, without the bind, and let its operations run anonymously.
/// - A session that connects again starts afresh: nothing of its last connection is polled, closed or
///   written through.
/// - The TLS handshake ends when the network timeout is over (one of 0 counts as 1 second): against
///   a silent peer, OpenLDAP 2.5 spins for ever.
/// - Reads never block: a peer that sends half a message and stops leaves the waiting to
///   `ldap_result`, which keeps its timeout. A write that makes no progress ends with the network
///   timeout.
/// - A write to a closed peer raises no SIGPIPE.
/// - A message announced as larger than the bound ends the connection before it is stored.
/// - Without TLS, what has come is read in one go and kept for the reads that follow: OpenLDAP reads
///   each message in three. The socket may then have nothing to read although the session has, so
///   who polls it asks `LBER_SB_OPT_DATA_READY` first, as OpenLDAP does.
/// - A connection belongs to the process that made it. In a child that was forked since, nothing is
///   read from it or written to it, as if the peer had gone, and to close it ends the child's
///   descriptor only: no unbind, no goodbye of TLS, no shutdown of the socket that both share.
///
/// Must outlive the session that it was installed on.
class SessionGuard : public NonCopyable {
public:
    /// @param networkTimeout       seconds
    /// @param maximumMessageBytes  bound of an incoming message
    SessionGuard(unsigned int networkTimeout, unsigned long maximumMessageBytes);

    /// The value of the session's option LDAP_OPT_CONNECT_CB.
    ldap_conncb* callback() { return &m_callback; }
    void maximumMessageBytes(unsigned long bytes) { m_maximumMessageBytes = bytes; }
    /// False in a child of the process that connected.
    bool isOfThisProcess() const;

    /// The next message of a request, as `ldap_result` gives it, from the guarded session. When this
    /// says that none came in time, nothing is left that was read ahead: `ldap_result` looks at the
    /// clock after each message of another request, and the caller may go on to poll the socket.
    int awaitMessage(LDAP* session, int id, timeval timeout, LDAPMessage** message);

    /// While it lives, the session may connect; from then on it is bound, or was to be.
    class BindScope : public NonCopyable {
    public:
        explicit BindScope(SessionGuard& guard) : m_guard(guard)
        {
            m_guard.m_isForBind = true;
            m_guard.m_isBinding = true;
        }
        ~BindScope() { m_guard.m_isBinding = false; }

    private:
        SessionGuard& m_guard;
    };

private:
    static int connected(LDAP* session, Sockbuf* socket, LDAPURLDesc* server, sockaddr* address,
                         ldap_conncb* callback);
    static void disconnected(LDAP* session, Sockbuf* socket, ldap_conncb* callback);

    bool install(Sockbuf* socket, bool isPlain);

    // The layer next to the socket.
    static int controlSocket(Sockbuf_IO_Desc* layer, int option, void* argument);
    static ber_slen_t readSocket(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length);
    static ber_slen_t writeSocket(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length);
    static int closeSocket(Sockbuf_IO_Desc* layer);
    // The layer above TLS: what passes it is LDAP, so the handshake is over.
    static ber_slen_t readMessage(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length);
    static ber_slen_t writeMessage(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length);
    static int setUp(Sockbuf_IO_Desc* layer, void* guard);

    ber_slen_t receive(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length) const;
    ber_slen_t readAhead(Sockbuf_IO_Desc* layer, char* bytes, ber_len_t length);
    ber_slen_t refill(Sockbuf_IO_Desc* layer, char* bytes, ber_len_t length);
    ber_len_t takeBuffered(char* bytes, ber_len_t length);
    void forgetBuffered();
    bool hasBuffered() const { return m_bufferBegin != m_bufferEnd; }

    using Clock = std::chrono::steady_clock;

    static Sockbuf_IO s_socketLayer;
    static Sockbuf_IO s_messageLayer;

    ldap_conncb m_callback;
    std::chrono::seconds m_networkTimeout;
    ber_len_t m_maximumMessageBytes;
    bool m_isForBind;
    bool m_isBinding;
    unsigned long m_process; // that connected, or is to
    // Of the current connection; a session without referral chasing has one at a time.
    bool m_isShakingHands;
    Clock::time_point m_handshakeDeadline;
    std::unique_ptr<char[]> m_buffer; // null where nothing is read ahead
    ber_len_t m_bufferBegin;          // of what has been read and not yet been asked for
    ber_len_t m_bufferEnd;
    int m_bufferError; // errno that comes after it; else 0
};

} // namespace Solvane

#endif
