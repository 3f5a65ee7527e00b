// Buffers the bytes between OpenLDAP and a server.
#ifndef SOLVANE_SESSION_SRC_CHANNEL_H
#define SOLVANE_SESSION_SRC_CHANNEL_H

#include <solvane/session/Waits.h>

#include <solvane/ldap/RefCounted.h>

#include "MessageFrame.h"
#include "OpenLDAP.h"
#include "SecurityLayer.h"
#include "Socket.h"
#include "TlsStream.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Solvane::Lookup {

/// Two buffers between OpenLDAP and the socket, plain, with TLS, or with the security layer of a SASL
/// bind. Not thread-safe.
///
/// OpenLDAP only reads and writes memory: its output is buffered until `flush`, and it gets a
/// message only when the whole message has arrived. Therefore OpenLDAP never blocks and never sees
/// the end of a connection. If it did, it would reconnect on its own, without the bind and without
/// verifying the server's certificate. Nor does it allocate memory for a length that a server
/// merely announces.
class Channel : public NonCopyable {
public:
    /// @param messageBytes  size of the largest message accepted
    /// @param patience      how long output may be pending without any progress
    Channel(Descriptor socket, std::size_t messageBytes, std::chrono::milliseconds patience);
    /// Closes the connection.
    ~Channel();

    /// Makes OpenLDAP read and write here. The channel must outlive the Sockbuf. False: out of
    /// memory.
    bool installOn(Sockbuf* sockbuf);
    /// Uses TLS from now on. There must be no input.
    void secure(std::unique_ptr<TlsStream> tls) { m_tls = std::move(tls); }
    TlsStream* tls() const { return m_tls.get(); }
    /// Uses the security layer of a complete exchange from now on. Bytes that have arrived already
    /// count as protected. False: the server answered before it received all requests.
    bool protect(std::unique_ptr<SaslExchange> exchange);
    Socket& socket() { return m_socket; }

    // Input

    /// Result of `fill`.
    enum class Input { nothing, message, broken };
    /// Reads until a complete message is at the front, or the socket has no more input for now.
    Input fill();
    /// The message at the front, after `fill` returned `message`.
    MessageFrame const& front() const { return m_front; }
    std::string_view frontBytes() const { return {m_input.get() + m_begin, m_front.length}; }
    /// Lets OpenLDAP read the message at the front, and nothing after it.
    void deliver() { m_deliverable = m_front.length; }
    /// Whether bytes behind the messages taken have been received.
    bool hasInput() const { return m_begin != m_end; }
    /// Removes the message at the front, whether it was read or not.
    void drop();
    /// The same; its bytes stay valid until the next `fill`.
    void take();
    /// Validates an idle connection: true if it is open, without input or output. TLS's own
    /// messages, such as the session tickets after a handshake, do not count as input.
    bool isFresh();

    // Output

    /// While true, output is wiped from OpenLDAP's memory at once, and from this buffer once it is
    /// sent.
    void handlesSecret(bool does) { m_handlesSecret = does; }
    /// Writes as much as the socket accepts.
    void flush();
    bool hasOutput() const { return m_sent < m_output.size(); }

    // Both

    void waits(Waits& waits) const;
    /// Good while the connection can be used; else the cause. After a failed write, input may still
    /// be readable.
    Verdict const& fault() const { return m_fault.isGood() ? m_writeFault : m_fault; }
    /// Marks the connection as unusable; the first cause is kept.
    void fail(Outcome outcome, int code, std::string const& why);
    /// Whether nothing has failed and this process owns the connection.
    bool isWhole() const { return fault().isGood() && m_socket.isOurs(); }
    std::uint64_t receivedBytes() const { return m_received; }

private:
    static int setUp(Sockbuf_IO_Desc* layer, void* channel);
    static int control(Sockbuf_IO_Desc* layer, int option, void* argument);
    static ber_slen_t readInput(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length);
    static ber_slen_t writeOutput(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length);

    bool isReady() const;
    bool findFront();
    Flow read();
    Flow write(std::size_t& count);
    void makeRoom();
    void append(char const* bytes, std::size_t length);
    void failBy(Flow flow);
    Verdict faultOf(Flow flow) const;

    static Sockbuf_IO s_layer;

    struct Free {
        void operator()(char* bytes) const { std::free(bytes); }
    };

    Socket m_socket;
    std::unique_ptr<TlsStream> m_tls;       // null without TLS
    std::unique_ptr<SecurityLayer> m_layer; // null without a layer
    std::size_t m_messageBytes;
    std::chrono::milliseconds m_patience;
    Verdict m_fault;
    Verdict m_writeFault; // of a failed write; input is still read

    std::unique_ptr<char, Free> m_input;
    std::size_t m_capacity = 0;
    std::size_t m_begin = 0; // of the input not yet consumed
    std::size_t m_end = 0;
    std::size_t m_deliverable = 0; // bytes of the message at the front
    MessageFrame m_front;
    std::uint64_t m_received = 0;

    std::string m_output;
    std::size_t m_sent = 0; // bytes of m_output already written
    bool m_handlesSecret = false;
    bool m_holdsSecret = false;                   // in the output
    std::optional<Clock::time_point> m_blockedAt; // when the socket took nothing of the output
};

} // namespace Solvane::Lookup

#endif
