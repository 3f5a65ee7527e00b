// The guard of a session: which connections it lets through, and how their sockets behave.
#include "SessionGuard.h"

#include "CallTest.h"

#include "Descriptor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

namespace SolvaneTest {
namespace {

using Solvane::LDAPConnection;
using Solvane::SessionGuard;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

/// The socket of a session, as OpenLDAP connects it: one end of a pair of sockets.
///
/// Layers of its own stand where TLS would and above all others, so that a test can read and write
/// as a handshake does and as LDAP does.
class Connected {
public:
    Connected() : m_socket(ber_sockbuf_alloc()) { connect(); }
    ~Connected()
    {
        RealCalls const unseen;
        hangUp();
        ber_sockbuf_free(m_socket);
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

    ber_slen_t readInHandshake() { return readBelow(m_inHandshake); }
    ber_slen_t writeInHandshake(std::string const& bytes)
    {
        return writeBelow(m_inHandshake, bytes);
    }
    ber_slen_t read() { return readBelow(m_inLdap); }
    ber_slen_t write(std::string const& bytes) { return writeBelow(m_inLdap, bytes); }

    /// The bytes of the last read.
    std::string const& bytes() const { return m_bytes; }
    std::string peerReads() const
    {
        std::array<char, 64> bytes{};
        ssize_t const count = checked(::read(m_peer, bytes.data(), bytes.size()), "read");
        return std::string(bytes.data(), static_cast<std::size_t>(count));
    }
    void peerWrites(std::string const& bytes) const
    {
        checked(::write(m_peer, bytes.data(), bytes.size()), "write");
    }
    void closePeer()
    {
        if (m_peer >= 0) {
            close(std::exchange(m_peer, -1));
        }
    }
    /// Writes until the socket takes no more. The error that ends it.
    int fill()
    {
        std::string const block(65536, 'x');
        for (;;) {
            errno = 0;
            if (write(block) < 0) {
                return errno;
            }
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
        ber_sockbuf_ctrl(m_socket, LBER_SB_OPT_SET_FD, ends.data());
    }
    void hangUp()
    {
        closePeer();
        ber_socket_t none = -1;
        if (descriptor() != none) {
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

    static Sockbuf_IO s_layer;

    Sockbuf* m_socket;
    int m_peer = -1;
    Sockbuf_IO_Desc* m_inHandshake = nullptr;
    Sockbuf_IO_Desc* m_inLdap = nullptr;
    std::string m_bytes;
};

Sockbuf_IO Connected::s_layer = {setUp, nullptr, control, passRead, passWrite, nullptr};

class AGuard : public testing::Test {
protected:
    explicit AGuard(unsigned int networkTimeout = 1) : guard(networkTimeout, 1000) {}

    FakeOpenLDAP openldap;
    SessionGuard guard;
    Connected connected;
};

class AGuardWithoutNetworkTimeout : public AGuard {
protected:
    AGuardWithoutNetworkTimeout() : AGuard(0) {}
};

/// A connection that was let through.
class AGuardedHandshake : public AGuard {
protected:
    AGuardedHandshake() { connected.offerTo(guard.callback()); }
};

/// A connection that speaks LDAP: one message went each way.
class AGuardedConnection : public AGuardedHandshake {
protected:
    AGuardedConnection()
    {
        connected.write("hello");
        connected.peerReads();
        openldap.forgetCalls();
    }
};

TEST_F(AGuard, LetsASessionConnectThatWasNeverBound)
{
    EXPECT_EQ(connected.offerTo(guard.callback()), 0);
}

TEST_F(AGuard, LetsASessionConnectAgainThatWasNeverBound)
{
    connected.offerTo(guard.callback());
    Connected second;

    EXPECT_EQ(second.offerTo(guard.callback()), 0);
}

TEST_F(AGuard, LetsASessionConnectWithinABind)
{
    SessionGuard::BindScope const bind(guard);

    EXPECT_EQ(connected.offerTo(guard.callback()), 0);
}

TEST_F(AGuard, RefusesASecondConnectionOfASessionThatWasGivenToABind)
{
    {
        SessionGuard::BindScope const bind(guard);
        connected.offerTo(guard.callback());
    }
    Connected second;

    EXPECT_EQ(second.offerTo(guard.callback()), -1);
}

TEST_F(AGuard, RefusesAConnectionAfterABindThatNeverConnected)
{
    {
        SessionGuard::BindScope const bind(guard);
    }

    EXPECT_EQ(connected.offerTo(guard.callback()), -1);
}

TEST_F(AGuard, LetsANewBindConnectAgain)
{
    {
        SessionGuard::BindScope const bind(guard);
        connected.offerTo(guard.callback());
    }
    Connected second;
    SessionGuard::BindScope const again(guard);

    EXPECT_EQ(second.offerTo(guard.callback()), 0);
}

// OpenLDAP would close it as well, but keep its number and take the session for connected.
TEST_F(AGuard, ClosesAConnectionThatItRefusesAndTakesItsNumberAway)
{
    {
        SessionGuard::BindScope const bind(guard);
    }

    connected.offerTo(guard.callback());

    EXPECT_EQ(connected.peerReads(), "");
    EXPECT_EQ(connected.descriptor(), -1);
}

class EachStepThatFails : public AGuard, public testing::WithParamInterface<int> {};

TEST_P(EachStepThatFails, RefusesTheConnectionAndClosesIt)
{
    int step = 0;
    openldap.ber_sockbuf_add_io = [&](Sockbuf* socket, Sockbuf_IO* io, int level, void* argument) {
        return ++step == GetParam() ? -1 : ber_sockbuf_add_io(socket, io, level, argument);
    };

    EXPECT_EQ(connected.offerTo(guard.callback()), -1);
    EXPECT_EQ(connected.peerReads(), "");
    EXPECT_EQ(connected.descriptor(), -1);
}

INSTANTIATE_TEST_SUITE_P(Of, EachStepThatFails, testing::Values(1, 2, 3));

TEST_F(AGuard, RefusesAConnectionWhoseMessagesItCannotBound)
{
    openldap.ber_sockbuf_ctrl = [](Sockbuf* socket, int option, void* argument) {
        return option == LBER_SB_OPT_SET_MAX_INCOMING ? 0
                                                      : ber_sockbuf_ctrl(socket, option, argument);
    };

    EXPECT_EQ(connected.offerTo(guard.callback()), -1);
    EXPECT_EQ(connected.descriptor(), -1);
}

TEST_F(AGuard, TakesTheLayersOfTheLastConnectionAway)
{
    connected.offerTo(guard.callback());
    connected.reconnect();

    guard.callback()->lc_add(nullptr, connected.socket(), nullptr, nullptr, guard.callback());

    EXPECT_FALSE(connected.has(ber_sockbuf_io_tcp));
    EXPECT_FALSE(connected.has(Connected::layer()));
}

TEST_F(AGuard, GuardsAConnectionThatWasMadeAgain)
{
    connected.offerTo(guard.callback());
    connected.reconnect();
    connected.offerTo(guard.callback());
    connected.peerWrites("again");

    EXPECT_EQ(connected.readInHandshake(), 5);
    EXPECT_EQ(connected.read(), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(AGuard, TakesAConnectionThatEndsFromWhatIsPolled)
{
    openldap.ldap_mark_select_clear = [](auto...) {};
    openldap.name(connected.socket(), "socket");
    connected.offerTo(guard.callback());
    openldap.forgetCalls();

    guard.callback()->lc_del(nullptr, connected.socket(), guard.callback());

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_mark_select_clear null socket"));
}

TEST_F(AGuard, HasNothingToDoWhenTheSessionGoes)
{
    connected.offerTo(guard.callback());
    openldap.forgetCalls();

    guard.callback()->lc_del(nullptr, nullptr, guard.callback());

    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AGuard, BoundsTheSizeOfAMessage)
{
    connected.offerTo(guard.callback());

    EXPECT_EQ(connected.maximumMessageSize(), 1000U);
}

TEST_F(AGuard, BoundsTheSizeOfAMessageAsToldBeforeTheConnection)
{
    guard.maximumMessageBytes(50);

    connected.offerTo(guard.callback());

    EXPECT_EQ(connected.maximumMessageSize(), 50U);
}

TEST_F(AGuard, EndsAConnectionThatAnnouncesALargerMessage)
{
    connected.offerTo(guard.callback());
    connected.peerWrites("\x30\x82\x03\xe9"); // 1001 bytes follow
    BerElement* const element = ber_alloc_t(LBER_USE_DER);
    ber_len_t length = 0;

    ber_tag_t const tag = ber_get_next(connected.socket(), &length, element);

    EXPECT_EQ(tag, LBER_ERROR);
    EXPECT_EQ(errno, ERANGE);
    ber_free(element, 1);
}

TEST_F(AGuard, ReadsAMessageOfTheLargestSize)
{
    connected.offerTo(guard.callback());
    connected.peerWrites("\x30\x82\x03\xe8" + std::string(1000, 'x'));
    BerElement* const element = ber_alloc_t(LBER_USE_DER);
    ber_len_t length = 0;

    ber_tag_t const tag = ber_get_next(connected.socket(), &length, element);

    EXPECT_EQ(tag, 0x30U);
    EXPECT_EQ(length, 1000U);
    ber_free(element, 1);
}

TEST_F(AGuardedHandshake, ReadsWhatIsThere)
{
    connected.peerWrites("hello");

    EXPECT_EQ(connected.readInHandshake(), 5);
    EXPECT_EQ(connected.bytes(), "hello");
}

TEST_F(AGuardedHandshake, WaitsForThePeersBytes)
{
    openldap.poll = [&](pollfd*, nfds_t, int) {
        connected.peerWrites("late");
        return 1;
    };

    EXPECT_EQ(connected.readInHandshake(), 4);
    EXPECT_EQ(connected.bytes(), "late");
}

TEST_F(AGuardedHandshake, WaitsNoLongerThanTheNetworkTimeout)
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
    EXPECT_LE(waits.front(), 1000);
}

TEST_F(AGuardedHandshake, HasOneDeadlineForAllItsReadsAndWrites)
{
    while (connected.readInHandshake() >= 0) {
    }
    openldap.forgetCalls();

    EXPECT_EQ(connected.readInHandshake(), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_THAT(openldap.calls(), Each(Not(StartsWith("poll"))));
}

TEST_F(AGuardedHandshake, SurvivesAnInterruptedRead)
{
    bool interrupted = false;
    openldap.recv = [&](int descriptor, void* bytes, size_t length, int flags) -> ssize_t {
        if (!interrupted) {
            interrupted = true;
            errno = EINTR;
            return -1;
        }
        return recv(descriptor, bytes, length, flags);
    };
    connected.peerWrites("hello");

    EXPECT_EQ(connected.readInHandshake(), 5);
}

TEST_F(AGuardedHandshake, SurvivesAnInterruptedWait)
{
    bool interrupted = false;
    openldap.poll = [&](pollfd*, nfds_t, int) {
        if (!interrupted) {
            interrupted = true;
            errno = EINTR;
            return -1;
        }
        connected.peerWrites("late");
        return 1;
    };

    EXPECT_EQ(connected.readInHandshake(), 4);
}

TEST_F(AGuardedHandshake, FailsWhenWaitingFails)
{
    openldap.poll = [](auto...) {
        errno = ENOMEM;
        return -1;
    };

    EXPECT_EQ(connected.readInHandshake(), -1);
    EXPECT_EQ(errno, ENOMEM);
}

TEST_F(AGuardedHandshake, SeesThatThePeerClosed)
{
    connected.closePeer();

    EXPECT_EQ(connected.readInHandshake(), 0);
}

TEST_F(AGuardedHandshake, Writes)
{
    EXPECT_EQ(connected.writeInHandshake("hello"), 5);
    EXPECT_EQ(connected.peerReads(), "hello");
}

TEST_F(AGuardedHandshake, FailsToWriteToAFullSocketAtTheDeadlineOfItsReads)
{
    openldap.poll = [](auto...) {
        errno = ENOMEM; // full, without the wait
        return -1;
    };
    while (connected.writeInHandshake(std::string(65536, 'x')) >= 0) {
    }
    openldap.poll = nullptr;
    while (connected.readInHandshake() >= 0) {
    }
    openldap.forgetCalls();

    EXPECT_EQ(connected.writeInHandshake("more"), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_THAT(openldap.calls(), Each(Not(StartsWith("poll"))));
}

TEST_F(AGuardedHandshake, IsOverOnceLdapIsRead)
{
    connected.read();
    openldap.forgetCalls();

    EXPECT_EQ(connected.readInHandshake(), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(openldap.calls().size(), 2U); // its descriptor and one read
}

TEST_F(AGuardedConnection, FailsToReadFromAnEmptySocketAtOnce)
{
    openldap.poll = [](auto...) {
        ADD_FAILURE() << "it waits";
        return 1;
    };

    EXPECT_EQ(connected.read(), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(AGuardedConnection, ReadsWhatIsThere)
{
    connected.peerWrites("hello");

    EXPECT_EQ(connected.read(), 5);
    EXPECT_EQ(connected.bytes(), "hello");
}

TEST_F(AGuardedConnection, SurvivesAnInterruptedWrite)
{
    bool interrupted = false;
    openldap.send = [&](int descriptor, void const* bytes, size_t length, int flags) -> ssize_t {
        if (!interrupted) {
            interrupted = true;
            errno = EINTR;
            return -1;
        }
        return send(descriptor, bytes, length, flags);
    };

    EXPECT_EQ(connected.write("hello"), 5);
    EXPECT_EQ(connected.peerReads(), "hello");
}

TEST_F(AGuardedConnection, MeetsAClosedPeerWithAnErrorAndNoSignal)
{
    auto const before = std::signal(SIGPIPE, SIG_DFL);
    connected.closePeer();

    EXPECT_EQ(connected.write("hello"), -1);
    EXPECT_EQ(errno, EPIPE);
    std::signal(SIGPIPE, before);
}

TEST_F(AGuardedConnection, WritesAsSoonAsAFullSocketHasRoom)
{
    openldap.poll = [](auto...) {
        errno = ENOMEM; // full, without the wait
        return -1;
    };
    connected.fill();
    openldap.poll = [&](pollfd* waited, nfds_t count, int) {
        connected.peerReads();
        return poll(waited, count, 0);
    };

    EXPECT_EQ(connected.write("more"), 4);
}

TEST_F(AGuardedConnection, FailsToWriteToAFullSocketWhenTheNetworkTimeoutIsOver)
{
    int longest = 0;
    openldap.poll = [&](pollfd* waited, nfds_t count, int milliseconds) {
        longest = std::max(longest, milliseconds);
        return poll(waited, count, milliseconds);
    };

    EXPECT_EQ(connected.fill(), ETIMEDOUT);
    EXPECT_GT(longest, 0);
    EXPECT_LE(longest, 1000);
}

TEST_F(AGuardWithoutNetworkTimeout, FailsToWriteToAFullSocketAtOnce)
{
    connected.offerTo(guard.callback());
    openldap.poll = [](auto...) {
        ADD_FAILURE() << "it waits";
        return 1;
    };

    EXPECT_EQ(connected.fill(), EAGAIN);
}

TEST_F(AGuardWithoutNetworkTimeout, GivesAHandshakeOneSecond)
{
    connected.offerTo(guard.callback());
    std::vector<int> waits;
    openldap.poll = [&](pollfd* waited, nfds_t count, int milliseconds) {
        waits.push_back(milliseconds);
        return poll(waited, count, milliseconds);
    };

    EXPECT_EQ(connected.readInHandshake(), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    ASSERT_FALSE(waits.empty());
    EXPECT_GT(waits.front(), 0);
    EXPECT_LE(waits.front(), 1000);
}

/// Connections as the library guards them.
class AGuardedSession : public CallTest {
protected:
    AGuardedSession()
    {
        openldap.ldap_set_option = [this](LDAP* session, int option, void const* value) {
            if (option == LDAP_OPT_CONNECT_CB) {
                callback = static_cast<ldap_conncb*>(const_cast<void*>(value));
            }
            return ldap_set_option(session, option, value);
        };
        connection = LDAPConnection(newServer(), false);
    }

    /// What the session says when OpenLDAP connects.
    int answerToAConnection() const
    {
        Connected connected;
        return connected.offerTo(callback);
    }

    ldap_conncb* callback = nullptr;
    LDAPConnection connection;
};

TEST_F(AGuardedSession, BoundsAMessageAtSixtyFourMebibytes)
{
    Connected connected;

    connected.offerTo(callback);

    EXPECT_EQ(connected.maximumMessageSize(), 67108864U);
}

TEST_F(AGuardedSession, BoundsAMessageAsTold)
{
    Connected connected;
    connection.impl()->maximumMessageSize(5000);

    connected.offerTo(callback);

    EXPECT_EQ(connected.maximumMessageSize(), 5000U);
}

TEST_F(AGuardedSession, ConnectsWhileItWasNeverBound)
{
    EXPECT_EQ(answerToAConnection(), 0);
    EXPECT_EQ(answerToAConnection(), 0);
}

TEST_F(AGuardedSession, ConnectsWithinASynchronousBindAndNeverAgain)
{
    int duringBind = 1;
    openldap.ldap_sasl_bind_s = [&](auto...) {
        duringBind = answerToAConnection();
        return LDAP_SUCCESS;
    };

    connection.bind("cn=admin", "secret", LDAPConnection::Synchronous);

    EXPECT_EQ(duringBind, 0);
    EXPECT_EQ(answerToAConnection(), -1);
}

TEST_F(AGuardedSession, ConnectsWithinAnAsynchronousBindAndNeverAgain)
{
    int duringBind = 1;
    openldap.ldap_sasl_bind = [&](auto...) {
        duringBind = answerToAConnection();
        return LDAP_SUCCESS;
    };

    connection.bind("cn=admin", "secret", LDAPConnection::Asynchronous);

    EXPECT_EQ(duringBind, 0);
    EXPECT_EQ(answerToAConnection(), -1);
}

TEST_F(AGuardedSession, ConnectsNoMoreAfterABindThatFailed)
{
    openldap.ldap_sasl_bind_s = [](auto...) { return LDAP_SERVER_DOWN; };

    thrownBy([&] { connection.bind("cn=admin", "secret", LDAPConnection::Synchronous); });

    EXPECT_EQ(answerToAConnection(), -1);
}

TEST_F(AGuardedSession, ConnectsAgainWithinANewBind)
{
    std::vector<int> answers;
    openldap.ldap_sasl_bind_s = [&](auto...) {
        answers.push_back(answerToAConnection());
        return LDAP_SUCCESS;
    };

    connection.bind("cn=admin", "secret", LDAPConnection::Synchronous);
    connection.bind("cn=admin", "secret", LDAPConnection::Synchronous);

    EXPECT_THAT(answers, ElementsAre(0, 0));
}

} // namespace
} // namespace SolvaneTest
