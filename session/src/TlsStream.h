// TLS on a socket that never blocks.
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

/// One TLS session, as a client.
class TlsStream : public NonCopyable {
public:
    /// @param context  a good one
    /// @param socket   must outlive the stream
    /// @param host     as the user named it: told to the server (SNI), and what its certificate is for
    TlsStream(std::shared_ptr<TlsContext> context, Socket& socket, std::string const& host,
              unsigned int port);
    ~TlsStream();

    /// Goes on with the handshake, and verifies the certificate in the end. `moved`: all of it is done.
    Flow handshake();
    /// What the handshake waits for: POLLIN or POLLOUT.
    short events() const;

    /// As those of `Socket`, of decrypted bytes.
    Flow receive(char* bytes, std::size_t room, std::size_t& count);
    /// The bytes of a call that was blocked must be given again, and more may follow them.
    Flow send(char const* bytes, std::size_t length, std::size_t& count);
    /// Whether `receive` may find something that the socket tells nothing of.
    bool hasPending() const
    {
        return !m_isBlocked &&
               (m_rawBegin != m_rawEnd || gnutls_record_check_pending(m_session) > 0);
    }
    /// Whether `receive` was blocked by something that TLS has to write first.
    bool awaitsWriting() const { return m_isBlocked && events() == POLLOUT; }
    /// Tells the peer that no more will come, if the socket takes it.
    void sayGoodbye();

    /// Why the stream failed; good unless `failed` was returned.
    Verdict const& fault() const { return m_fault; }

    std::string version() const; ///< as "TLS1.3"
    std::string cipher() const;  ///< as "AES-256-GCM"
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
    std::string alertInWords() const;
    bool isRefusedByAlert() const;

    std::shared_ptr<TlsContext> m_context;
    Socket& m_socket;
    std::string m_host;
    std::string m_server; // by which the session is remembered
    gnutls_session_t m_session = nullptr;
    Verdict m_fault;
    std::optional<Certificate> m_certificate;
    std::time_t m_validUntil = 0;  // of the chain that was verified, now or before
    std::unique_ptr<char[]> m_raw; // read ahead, as GnuTLS reads each record in two
    std::size_t m_rawBegin = 0;
    std::size_t m_rawEnd = 0;
    int m_firstByte = -1;       // that came, which tells TLS from anything else; -1: none yet
    bool m_isSecure = false;    // the handshake is done and the certificate accepted
    bool m_hasReceived = false; // any bytes after the handshake
    bool m_wasBlocked = false;  // the socket, since this was set to false
    bool m_isBlocked = false;   // the last `receive`, by the socket
    bool m_isSending = false;   // the last `send` was blocked
    bool m_isRemembered = false;
};

} // namespace Solvane::Lookup

#endif
