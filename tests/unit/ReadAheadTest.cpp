// What the guard of a session reads ahead where it is told to.
#include "SocketGuard.h"

#include "CallTest.h"

#include "Descriptor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <optional>
#include <utility>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace SolvaneTest {
namespace {

using Solvane::SocketGuard;

/// A connection whose peer is the test.
class ReadAhead : public testing::Test {
protected:
    ReadAhead() : m_socket(ber_sockbuf_alloc()) {}
    ~ReadAhead() override
    {
        RealCalls const unseen;
        hangUp();
        ber_sockbuf_free(m_socket);
    }

    void connect(SocketGuard::Reads reads = SocketGuard::Reads::ahead)
    {
        RealCalls const unseen;
        hangUp();
        makeSocket();
        guard.emplace(std::chrono::seconds(1), 1000, reads);
        ASSERT_EQ(guard->callback()->lc_add(nullptr, m_socket, nullptr, nullptr, guard->callback()),
                  0);
        ber_sockbuf_add_io(m_socket, &s_layer, LBER_SBIOD_LEVEL_APPLICATION + 5, &m_layer);
    }
    void peerWrites(std::string const& bytes) const
    {
        checked(::write(m_peer, bytes.data(), bytes.size()), "write");
    }
    void hangUpAfter(std::string const& bytes)
    {
        peerWrites(bytes);
        checked(::write(m_own, "unread", 6), "write"); // makes a reset of the end
        close(std::exchange(m_peer, -1));
    }
    /// The bytes of a read of at most `length`; what failed instead, by errno's name.
    std::string read(std::size_t length) const
    {
        RealCalls const unseen;
        std::string bytes(length, '?');
        ber_slen_t const count = LBER_SBIOD_READ_NEXT(m_layer, bytes.data(), length);
        if (count < 0) {
            return strerrorname_np(errno);
        }
        bytes.resize(static_cast<std::size_t>(count));
        return bytes;
    }
    bool isReady() const
    {
        RealCalls const unseen;
        return ber_sockbuf_ctrl(m_socket, LBER_SB_OPT_DATA_READY, nullptr) > 0;
    }
    bool socketHasInput() const
    {
        pollfd looked = {m_own, POLLIN, 0};
        return poll(&looked, 1, 0) > 0;
    }

    /// Ends the connection and makes the next one, as OpenLDAP does for the same session.
    void reconnect()
    {
        RealCalls const unseen;
        guard->callback()->lc_del(nullptr, nullptr, guard->callback());
        hangUp();
        makeSocket();
        ASSERT_EQ(guard->callback()->lc_add(nullptr, m_socket, nullptr, nullptr, guard->callback()),
                  0);
    }

    std::optional<SocketGuard> guard;

private:
    void makeSocket()
    {
        std::array<int, 2> ends{};
        checked(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), "socketpair");
        m_own = ends[0];
        m_peer = ends[1];
        ber_sockbuf_ctrl(m_socket, LBER_SB_OPT_SET_FD, ends.data());
    }
    void hangUp()
    {
        if (m_peer >= 0) {
            close(std::exchange(m_peer, -1));
        }
        if (m_own >= 0) {
            ber_socket_t none = -1;
            close(std::exchange(m_own, -1));
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

    static Sockbuf_IO s_layer;

    FakeOpenLDAP m_openldap;
    Sockbuf* m_socket;
    Sockbuf_IO_Desc* m_layer = nullptr;
    int m_own = -1;
    int m_peer = -1;
};

Sockbuf_IO ReadAhead::s_layer = {setUp, nullptr, control, nullptr, nullptr, nullptr};

TEST_F(ReadAhead, KeepsForTheNextReadWhatHasComeAlready)
{
    connect();
    peerWrites("abcdef");

    EXPECT_EQ(read(2), "ab");
    EXPECT_FALSE(socketHasInput());
    EXPECT_EQ(read(3), "cde");
    EXPECT_EQ(read(3), "f");
    EXPECT_EQ(read(3), "EAGAIN");
}

// OpenLDAP asks it before it polls, and so must everybody: the socket has nothing to read any more.
TEST_F(ReadAhead, SaysThatItHasSomething)
{
    connect();
    peerWrites("abc");
    bool const beforeAnyRead = isReady();

    read(2);
    bool const withSomethingLeft = isReady();
    read(1);

    EXPECT_FALSE(beforeAnyRead);
    EXPECT_TRUE(withSomethingLeft);
    EXPECT_FALSE(isReady());
}

// A message that is there whole is to be read whole.
TEST_F(ReadAhead, GoesOnWithWhatTheSocketHas)
{
    connect();
    peerWrites("abc");
    read(1);
    peerWrites("defg");

    EXPECT_EQ(read(5), "bcdef");
    EXPECT_EQ(read(5), "g");
}

TEST_F(ReadAhead, LeavesALargeReadToTheSocket)
{
    std::string const large(40000, 'x');
    connect();
    peerWrites("ab" + large);
    read(1);

    EXPECT_EQ(read(1 + large.size()), "b" + large);
}

TEST_F(ReadAhead, TellsOfAFailureAfterWhatCameBeforeIt)
{
    connect();
    hangUpAfter("abc");
    read(1);

    EXPECT_EQ(read(4), "bc");
    EXPECT_EQ(read(4), "ECONNRESET");
    EXPECT_EQ(read(4), "");
}

TEST_F(ReadAhead, ForgetsTheLastConnection)
{
    connect();
    peerWrites("of the last one");
    read(3);

    reconnect();
    peerWrites("new");

    EXPECT_FALSE(isReady());
    EXPECT_EQ(read(3), "new");
}

// A connection that OpenLDAP has given up: it asks on and on, and would never look at its clock or
// at the socket again.
TEST_F(ReadAhead, StopsSayingSoToThoseWhoDoNotRead)
{
    connect();
    peerWrites("abc");
    read(1);

    int answers = 0;
    while (isReady() && answers < 1000) {
        ++answers;
    }

    EXPECT_GE(answers, 4); // OpenLDAP asks a few times for each read
    EXPECT_LE(answers, 100);
    EXPECT_FALSE(guard->hasBuffered());
    EXPECT_EQ(read(1), "b");
    EXPECT_TRUE(isReady());
}

TEST_F(ReadAhead, IsNotDoneUnlessWanted)
{
    connect(SocketGuard::Reads::asAsked);
    peerWrites("abcdef");

    EXPECT_EQ(read(2), "ab");
    EXPECT_TRUE(socketHasInput());
    EXPECT_FALSE(isReady());
}

} // namespace
} // namespace SolvaneTest
