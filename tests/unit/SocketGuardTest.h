// What the tests of a session's guard have in common: a connection, and a guard that it is offered to.
#ifndef SOLVANE_TESTS_UNIT_SOCKET_GUARD_TEST_H
#define SOLVANE_TESTS_UNIT_SOCKET_GUARD_TEST_H

#include "SocketGuard.h"

#include "CallTest.h"

#include "Descriptor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <string>
#include <utility>

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace SolvaneTest {

/// The socket of a session, as OpenLDAP connects it: one end of a pair of sockets.
///
/// Layers of its own stand below TLS and above all others, so that a test can read and write as a
/// handshake does and as LDAP does.
class Connected {
public:
    Connected() : m_socket(ber_sockbuf_alloc()) { connect(); }
    ~Connected()
    {
        RealCalls const unseen;
        hangUp();
        end();
    }
    Connected(Connected const&) = delete;
    Connected& operator=(Connected const&) = delete;

    /// What the session's callback says to this connection.
    int offerTo(ldap_conncb* callback)
    {
        int const answer = callback->lc_add(nullptr, m_socket, nullptr, nullptr, callback);
        if (answer == 0) {
            RealCalls const unseen;
            ber_sockbuf_add_io(m_socket, &ber_sockbuf_io_tcp, LBER_SBIOD_LEVEL_PROVIDER, nullptr);
            ber_sockbuf_add_io(m_socket, &s_layer, LBER_SBIOD_LEVEL_TRANSPORT, &m_inHandshake);
            ber_sockbuf_add_io(m_socket, &s_layer, LBER_SBIOD_LEVEL_APPLICATION + 5, &m_inLdap);
        }
        return answer;
    }
    /// Connects the same socket anew. OpenLDAP leaves the layers of the last connection on it.
    void reconnect()
    {
        RealCalls const unseen;
        hangUp();
        connect();
    }

    /// Puts a layer between the two that says that it encrypts, and passes on what it is given.
    void startTls()
    {
        RealCalls const unseen;
        ber_sockbuf_add_io(m_socket, &s_tls, LBER_SBIOD_LEVEL_TRANSPORT, nullptr);
    }
    bool hasTls() const
    {
        RealCalls const unseen;
        return ber_sockbuf_ctrl(m_socket, LBER_SB_OPT_GET_SSL, nullptr) == 1;
    }
    /// Ends it as a session's end does.
    void end()
    {
        RealCalls const unseen;
        if (m_socket != nullptr) {
            ber_sockbuf_free(std::exchange(m_socket, nullptr));
        }
    }

    ber_slen_t readInHandshake() { return readBelow(m_inHandshake); }
    ber_slen_t writeInHandshake(std::string const& bytes)
    {
        return writeBelow(m_inHandshake, bytes);
    }
    ber_slen_t read() { return readBelow(m_inLdap); }
    ber_slen_t write(std::string const& bytes) { return writeBelow(m_inLdap, bytes); }

    /// The bytes of the last read.
    std::string const& bytes() const { return m_bytes; }
    /// Up to 64 bytes; empty: the end.
    /// @throws std::system_error  neither in ten seconds
    std::string peerReads() const
    {
        std::array<char, 64> bytes{};
        ssize_t const count = checked(::read(m_peer, bytes.data(), bytes.size()), "read");
        return std::string(bytes.data(), static_cast<std::size_t>(count));
    }
    void peerWrites(std::string const& bytes) const
    {
        checked(send(m_peer, bytes.data(), bytes.size(), MSG_NOSIGNAL), "send");
    }
    /// The error of a write of the peer's; 0: none.
    int writeAsPeer(std::string const& bytes) const
    {
        return send(m_peer, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0 ? errno : 0;
    }
    void closePeer()
    {
        if (m_peer >= 0) {
            close(std::exchange(m_peer, -1));
        }
    }
    /// Fills the socket, past the guard, until it takes no more.
    void fill() const
    {
        RealCalls const unseen;
        std::string const block(65536, 'x');
        while (send(descriptor(), block.data(), block.size(), MSG_DONTWAIT) > 0) {
        }
    }
    unsigned long maximumMessageSize() const
    {
        RealCalls const unseen;
        ber_len_t size = 0;
        ber_sockbuf_ctrl(m_socket, LBER_SB_OPT_GET_MAX_INCOMING, &size);
        return size;
    }
    Sockbuf* socket() const { return m_socket; }
    static Sockbuf_IO& layer() { return s_layer; }
    /// Whether OpenLDAP reads before it polls.
    bool isReady() const
    {
        RealCalls const unseen;
        return ber_sockbuf_ctrl(m_socket, LBER_SB_OPT_DATA_READY, nullptr) > 0;
    }
    /// How many layers stand at this level, below LDAP.
    int layersAt(int level) const
    {
        int count = 0;
        for (auto const* layer = m_inLdap; layer != nullptr; layer = layer->sbiod_next) {
            count += layer->sbiod_level == level ? 1 : 0;
        }
        return count;
    }
    int descriptor() const
    {
        RealCalls const unseen;
        ber_socket_t number = -1;
        ber_sockbuf_ctrl(m_socket, LBER_SB_OPT_GET_FD, &number);
        return number;
    }
    bool has(Sockbuf_IO& layer) const
    {
        RealCalls const unseen;
        return ber_sockbuf_ctrl(m_socket, LBER_SB_OPT_HAS_IO, &layer) == 1;
    }

private:
    void connect()
    {
        RealCalls const unseen;
        std::array<int, 2> ends{};
        checked(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), "socketpair");
        m_peer = ends[1];
        timeval const patience = {10, 0};
        setsockopt(m_peer, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        ber_sockbuf_ctrl(m_socket, LBER_SB_OPT_SET_FD, ends.data());
    }
    void hangUp()
    {
        closePeer();
        ber_socket_t none = -1;
        if (m_socket != nullptr && descriptor() != none) {
            close(descriptor());
            ber_sockbuf_ctrl(m_socket, LBER_SB_OPT_SET_FD, &none);
        }
    }

    static int setUp(Sockbuf_IO_Desc* layer, void* place)
    {
        *static_cast<Sockbuf_IO_Desc**>(place) = layer;
        return 0;
    }
    static int control(Sockbuf_IO_Desc* layer, int option, void* argument)
    {
        return LBER_SBIOD_CTRL_NEXT(layer, option, argument);
    }
    static ber_slen_t passRead(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length)
    {
        return LBER_SBIOD_READ_NEXT(layer, bytes, length);
    }
    static ber_slen_t passWrite(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length)
    {
        return LBER_SBIOD_WRITE_NEXT(layer, bytes, length);
    }

    ber_slen_t readBelow(Sockbuf_IO_Desc* layer)
    {
        std::array<char, 64> bytes{};
        errno = 0;
        ber_slen_t const count = LBER_SBIOD_READ_NEXT(layer, bytes.data(), bytes.size());
        m_bytes.assign(bytes.data(), static_cast<std::size_t>(std::max(count, ber_slen_t{0})));
        return count;
    }
    static ber_slen_t writeBelow(Sockbuf_IO_Desc* layer, std::string bytes)
    {
        errno = 0;
        return LBER_SBIOD_WRITE_NEXT(layer, bytes.data(), bytes.size());
    }

    static int controlTls(Sockbuf_IO_Desc* layer, int option, void* argument)
    {
        return option == LBER_SB_OPT_GET_SSL ? 1 : control(layer, option, argument);
    }

    static inline Sockbuf_IO s_layer = {setUp, nullptr, control, passRead, passWrite, nullptr};
    static inline Sockbuf_IO s_tls = {nullptr, nullptr, controlTls, passRead, passWrite, nullptr};

    Sockbuf* m_socket;
    int m_peer = -1;
    Sockbuf_IO_Desc* m_inHandshake = nullptr;
    Sockbuf_IO_Desc* m_inLdap = nullptr;
    std::string m_bytes;
};

class AGuard : public testing::Test {
protected:
    static constexpr std::chrono::milliseconds shortTime{200};

    /// The peer says nothing: a read waits for this time at most, and fails.
    void expectAHandshakeOf(std::chrono::milliseconds time)
    {
        std::vector<int> waits;
        openldap.poll = [&](pollfd* waited, nfds_t count, int milliseconds) {
            waits.push_back(milliseconds);
            return poll(waited, count, milliseconds);
        };

        EXPECT_EQ(connected.readInHandshake(), -1);
        EXPECT_EQ(errno, ETIMEDOUT);
        ASSERT_FALSE(waits.empty());
        EXPECT_GT(waits.front(), 0);
        EXPECT_LE(waits.front(), time.count());
    }

    explicit AGuard(std::chrono::milliseconds networkTimeout = shortTime)
        : guard(networkTimeout, 1000)
    {
    }

    FakeOpenLDAP openldap;
    Solvane::SocketGuard guard;
    Connected connected;
};

} // namespace SolvaneTest

#endif
