// Guards the connection of an OpenLDAP session.
#ifndef SOLVANE_LDAP_SRC_SOCKET_GUARD_H
#define SOLVANE_LDAP_SRC_SOCKET_GUARD_H

#include <solvane/ldap/RefCounted.h>

#include <chrono>
#include <optional>

#include <ldap.h>

namespace Solvane {

/// Two layers on the socket of a session: one next to the socket, which reads and writes in
/// OpenLDAP's place, and one above TLS and SASL, where LDAP messages pass.
///
/// - A session that was given to a bind connects only within a bind: OpenLDAP would silently
///   connect again, without the bind, and let its operations run anonymously.
/// - A session that was given to StartTLS or to a SASL bind connects only within the first step of
///   that: later a bind would send its password in plain text, and the layers of SASL would stay on
///   the new connection.
/// - Reads never block: a peer that sends half a message and stops leaves the waiting to
///   `ldap_result`, which keeps its timeout.
/// - A TLS handshake ends when the network timeout is over, also one that the peer asks for later:
///   against a silent peer, OpenLDAP 2.5 spins for ever.
/// - A write is done whole or ends the connection, at the latest when nothing was sent for the
///   network timeout: both directions are shut down, and nothing is written any more, not even an
///   unbind or a goodbye of TLS. Half a request may stand there, which the next bytes would
///   complete. TLS must not be asked again either: OpenLDAP takes half a record for one that it
///   will send later, and reports success; GnuTLS takes the next message for the rest of that
///   record, and says that it sent more than it was given, whereupon OpenLDAP sends what lies
///   behind the message in memory.
/// - A write to a closed peer raises no SIGPIPE.
/// - A message that is announced as larger than the bound ends the connection before it is stored.
/// - A connection belongs to the process that made it. In a child that was forked since, nothing is
///   read from it or written to it, as if the peer had gone, and to close it ends the child's
///   descriptor only.
/// - A session that connects again starts afresh: what is left of OpenLDAP's last TLS layer and of
///   this guard's is taken away, and the old socket is no longer polled. Layers of others stay.
///
/// Must outlive the session. Not thread-safe, like the session. A network timeout of 0 counts
/// as 1 second, but does not delay the first write, which OpenLDAP then does later.
class SocketGuard : public NonCopyable {
public:
    using Clock = std::chrono::steady_clock;

    /// @param maximumMessageBytes  size of the largest incoming message accepted
    SocketGuard(std::chrono::milliseconds networkTimeout, unsigned long maximumMessageBytes);

    /// The value of the option LDAP_OPT_CONNECT_CB.
    ldap_conncb* callback() { return &m_callback; }
    /// From the next connection on.
    void maximumMessageBytes(unsigned long bytes) { m_maximumMessageBytes = bytes; }

    /// False where the connection was ended, and in a child of the process that connected.
    bool isUsable() const;
    /// Ends the connection. Nothing is written any more, not even an unbind.
    void end();

    /// During its lifetime, the session may connect; afterwards it counts as bound.
    class BindScope : public NonCopyable {
    public:
        explicit BindScope(SocketGuard& guard) : m_guard(guard)
        {
            m_guard.m_connectsItself = false;
            m_guard.m_isBinding = true;
        }
        ~BindScope() { m_guard.m_isBinding = false; }

    private:
        SocketGuard& m_guard;
    };

    /// During its lifetime, the session may connect; afterwards never again.
    class LastConnectScope : public NonCopyable {
    public:
        explicit LastConnectScope(SocketGuard& guard) : m_guard(guard), m_bind(guard) {}
        ~LastConnectScope() { m_guard.m_connectsNoMore = true; }

    private:
        SocketGuard& m_guard;
        BindScope m_bind;
    };

    /// During its lifetime, messages are wiped where OpenLDAP keeps them, as soon as they are written:
    /// it would free them unwiped after the response.
    class SecretScope : public NonCopyable {
    public:
        explicit SecretScope(SocketGuard& guard) : m_guard(guard) { m_guard.m_isSecret = true; }
        ~SecretScope() { m_guard.m_isSecret = false; }

    private:
        SocketGuard& m_guard;
    };

private:
    class MessageScope;

    static int connected(LDAP* session, Sockbuf* socket, LDAPURLDesc* server, sockaddr* address,
                         ldap_conncb* callback);
    static void disconnected(LDAP* session, Sockbuf* socket, ldap_conncb* callback);

    // The layer next to the socket.
    static int removeSocket(Sockbuf_IO_Desc* layer);
    static int controlSocket(Sockbuf_IO_Desc* layer, int option, void* argument);
    static ber_slen_t readSocket(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length);
    static ber_slen_t writeSocket(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length);
    static int closeSocket(Sockbuf_IO_Desc* layer);
    // The layer above TLS.
    static int controlMessage(Sockbuf_IO_Desc* layer, int option, void* argument);
    static ber_slen_t readMessage(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length);
    static ber_slen_t writeMessage(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length);
    static int setUp(Sockbuf_IO_Desc* layer, void* guard);

    bool takeOver(Sockbuf* socket);
    ber_slen_t receive(char* bytes, ber_len_t length);
    bool mayReadAgain();
    ber_slen_t send(char const* bytes, ber_len_t length);
    bool mayBeConnecting() const { return m_networkTimeout.count() == 0 && !m_hasSent; }
    ber_slen_t endWith(int error);
    bool awaitSocket(short events);
    std::chrono::milliseconds patience() const;

    static Sockbuf_IO s_socketLayer;
    static Sockbuf_IO s_messageLayer;

    ldap_conncb m_callback;
    std::chrono::milliseconds m_networkTimeout;
    ber_len_t m_maximumMessageBytes;
    bool m_connectsItself; // outside of binds
    bool m_isBinding;
    bool m_connectsNoMore; // not even within a bind
    bool m_isSecret;       // messages that are written contain a password
    // Of the current connection; a session without referral chasing has one at a time.
    Sockbuf* m_socket;       // null without one
    unsigned long m_process; // that connected, or is to
    int m_error;             // errno that ended it; else 0
    bool m_hasSent;          // anything
    bool m_isInMessage;      // OpenLDAP reads or writes LDAP; else it is TLS that does
    int m_emptyReads;        // how often it asked in vain for bytes of this message
    int m_unheeded;          // how often OpenLDAP was told of bytes since it last read
    std::optional<Clock::time_point> m_handshakeDeadline; // once one has begun
};

} // namespace Solvane

#endif
