// The bytes between OpenLDAP and a server.
#ifndef SOLVANE_SESSION_SRC_CHANNEL_H
#define SOLVANE_SESSION_SRC_CHANNEL_H

#include <solvane/session/Waits.h>

#include <solvane/ldap/RefCounted.h>

#include "MessageFrame.h"
#include "OpenLDAP.h"
#include "Socket.h"
#include "TlsStream.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Solvane::Lookup {

/// Two buffers between OpenLDAP and the socket, plain or under TLS.
///
/// OpenLDAP writes into memory and reads from memory: what it writes is gathered until `flush`, and it
/// is given a message only when all of it is there. So it never waits, never sees the end of a
/// connection, and has no reason to connect again by itself (without the bind, and to a server whose
/// certificate was not verified), nor to allocate what a server merely announces.
class Channel : public NonCopyable {
public:
    /// @param messageBytes  of the largest message that is taken
    /// @param patience      how long bytes may wait to be written without any progress
    Channel(Descriptor socket, std::size_t messageBytes, std::chrono::milliseconds patience);
    /// Closes the connection.
    ~Channel();

    /// Makes OpenLDAP read and write here. The channel must outlive the Sockbuf's use.
    bool installOn(Sockbuf* sockbuf);
    /// From now on everything goes through TLS.
    void secure(std::unique_ptr<TlsStream> tls) { m_tls = std::move(tls); }
    TlsStream* tls() const { return m_tls.get(); }
    Socket& socket() { return m_socket; }

    // Input

    /// What `fill` found.
    enum class Input { nothing, message, broken };
    /// Reads until a whole message stands in front, or there is nothing to read for now.
    Input fill();
    /// The message in front, after `fill` found one.
    MessageFrame const& front() const { return m_front; }
    std::string_view frontBytes() const { return {m_input.get() + m_begin, m_front.length}; }
    /// Lets OpenLDAP read the message in front, and no more.
    void deliver() { m_deliverable = m_front.length; }
    /// Takes the message in front away, read or not.
    void drop();
    /// The same; its bytes stay where they are until the next `fill`.
    void take();
    /// Whether an idle connection is as it was left: nothing has come, and nothing is to be sent. What
    /// TLS says to itself does not count, as the tickets that follow a handshake.
    bool isFresh();

    // Output

    /// While true, what OpenLDAP writes is erased from its own memory, and from here once it is sent.
    void handlesSecret(bool does) { m_handlesSecret = does; }
    /// Writes as far as the socket takes it.
    void flush();
    bool hasOutput() const { return m_sent < m_output.size(); }

    // Both

    void waits(Waits& waits) const;
    /// Good while the connection can be used; else why it cannot. After a write that failed, there may
    /// still be something to read.
    Verdict const& fault() const { return m_fault.isGood() ? m_writeFault : m_fault; }
    /// Ends the use of the connection.
    void fail(Outcome outcome, int code, std::string const& why);
    /// Whether this process may write to it, and nothing failed.
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
    void makeRoom();
    void append(char const* bytes, std::size_t length);
    void failBy(Flow flow);
    Verdict faultOf(Flow flow) const;

    static Sockbuf_IO s_layer;

    struct Free {
        void operator()(char* bytes) const { std::free(bytes); }
    };

    Socket m_socket;
    std::unique_ptr<TlsStream> m_tls; // none without TLS
    std::size_t m_messageBytes;
    std::chrono::milliseconds m_patience;
    Verdict m_fault;
    Verdict m_writeFault; // of a connection that is still read

    std::unique_ptr<char, Free> m_input;
    std::size_t m_capacity = 0;
    std::size_t m_begin = 0; // of what has been read and not been taken
    std::size_t m_end = 0;
    std::size_t m_deliverable = 0; // of the message in front
    MessageFrame m_front;
    std::uint64_t m_received = 0;

    std::string m_output;
    std::size_t m_sent = 0; // of the output
    bool m_handlesSecret = false;
    bool m_holdsSecret = false;                   // in the output
    std::optional<Clock::time_point> m_blockedAt; // when the socket took nothing of the output
};

} // namespace Solvane::Lookup

#endif
