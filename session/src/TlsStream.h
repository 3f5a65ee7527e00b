// TLS on a non-blocking socket.
#ifndef SOLVANE_SESSION_SRC_TLS_STREAM_H
#define SOLVANE_SESSION_SRC_TLS_STREAM_H

#include <solvane/session/Certificate.h>
#include <solvane/session/TlsContext.h>

#include "Socket.h"

#include <gnutls/gnutls.h>

#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <poll.h>

namespace Solvane::Lookup {

/// A TLS client session. Not thread-safe.
class TlsStream : public NonCopyable {
public:
    /// @param context  its verdict must be good
    /// @param socket   borrowed; must outlive the stream
    /// @param host     as configured: sent to the server (SNI) and matched with its certificate
    TlsStream(std::shared_ptr<TlsContext> context, Socket& socket, std::string const& host,
              unsigned int port);
    ~TlsStream();

    /// Continues the handshake and finally verifies the certificate. `moved`: it is complete.
    Flow handshake();
    /// What the handshake waits for: POLLIN or POLLOUT.
    short events() const;

    /// As `Socket::receive`, for decrypted bytes.
    Flow receive(char* bytes, std::size_t room, std::size_t& count);
    /// As `Socket::send`. After `blocked`, pass the same bytes again; more may follow them.
    Flow send(char const* bytes, std::size_t length, std::size_t& count);
    /// Whether `receive` may return input that poll on the socket does not report.
    bool hasPending() const
    {
        return !m_isBlocked &&
               (m_rawBegin != m_rawEnd || gnutls_record_check_pending(m_session) > 0);
    }
    /// Whether `receive` is blocked because TLS must write first.
    bool awaitsWriting() const { return m_isBlocked && events() == POLLOUT; }
    /// Sends close_notify if the socket accepts it.
    void sayGoodbye();

    /// The cause of the failure; good unless `failed` was returned.
    Verdict const& fault() const { return m_fault; }

    std::string version() const; ///< as "TLS1.3"
    std::string cipher() const;  ///< as "AES-256-GCM"
    /// The channel binding "tls-server-end-point" (RFC 5929): the hash of the server's certificate.
    /// Empty if there is none.
    std::string serverEndPoint() const;
    bool isResumed() const { return gnutls_session_is_resumed(m_session) != 0; }
    std::optional<Certificate> const& certificate() const { return m_certificate; }

private:
    static ssize_t pull(gnutls_transport_ptr_t stream, void* bytes, size_t room);
    static ssize_t push(gnutls_transport_ptr_t stream, giovec_t const* pieces, int count);
    static int pullTimeout(gnutls_transport_ptr_t stream, unsigned int milliseconds);

    Flow readRaw(char* bytes, std::size_t room, std::size_t& count);
    ssize_t transported(Flow flow, std::size_t count);
    void check(int error);
    Flow verify();
    Flow verifyChain(std::vector<Certificate> const& certificates);
    std::vector<Certificate> chain() const;
    void rememberSession();
    Flow fail(int error);
    Flow failWith(Outcome outcome, int code, std::string const& why);
    Flow refuse(std::string const& why);
    std::string whyClosed() const;
    std::string certificateRemark() const;
    std::string alertInWords() const;
    bool isRefusedByAlert() const;

    std::shared_ptr<TlsContext> m_context;
    Socket& m_socket;
    std::string m_host;
    std::string m_server; // key of the resumable session
    gnutls_session_t m_session = nullptr;
    Verdict m_fault;
    std::optional<Certificate> m_certificate;
    std::time_t m_validUntil = 0;  // of the chain, as verified now or before a resumption
    std::unique_ptr<char[]> m_raw; // read-ahead buffer: GnuTLS reads each record in two calls
    std::size_t m_rawBegin = 0;
    std::size_t m_rawEnd = 0;
    int m_firstByte = -1;    // received, which distinguishes TLS from other protocols; -1: none yet
    bool m_isSecure = false; // the handshake is done and the certificate accepted
    bool m_hasReceived = false; // application data has arrived
    bool m_wasBlocked = false;  // the last socket operation would block
    bool m_isBlocked = false;   // the last `receive` was blocked by the socket
    bool m_isSending = false;   // the last `send` was blocked
    bool m_isRemembered = false;
};

} // namespace Solvane::Lookup

#endif
