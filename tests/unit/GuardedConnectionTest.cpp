// A connection that the guard of its session let through: what its reads and writes wait for.
#include "SocketGuardTest.h"

#include "Process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>

namespace SolvaneTest {
namespace {

using Solvane::SocketGuard;
using testing::Each;
using testing::Not;
using testing::StartsWith;

class AGuardWithoutNetworkTimeout : public AGuard {
protected:
    AGuardWithoutNetworkTimeout() : AGuard(std::chrono::milliseconds(0)) {}
};

/// What stands for TLS takes nothing, and says this.
int g_tlsError = 0;

ber_slen_t takeNothing(Sockbuf_IO_Desc*, void*, ber_len_t)
{
    errno = g_tlsError;
    return 0;
}

/// A call that a signal interrupts the first time, and that then does what `real` does.
template <typename Real> auto interruptedOnce(Real real)
{
    return
        [real, isInterrupted = false](auto... arguments) mutable -> decltype(real(arguments...)) {
            if (!isInterrupted) {
                isInterrupted = true;
                errno = EINTR;
                return -1;
            }
            return real(arguments...);
        };
}

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

TEST_F(AGuardedHandshake, WaitsNoLongerThanTheNetworkTimeout) { expectAHandshakeOf(shortTime); }

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
    openldap.recv = interruptedOnce(::recv);
    connected.peerWrites("hello");

    EXPECT_EQ(connected.readInHandshake(), 5);
}

TEST_F(AGuardedHandshake, SurvivesAnInterruptedWait)
{
    openldap.poll = interruptedOnce([&](pollfd*, nfds_t, int) {
        connected.peerWrites("late");
        return 1;
    });

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
    connected.fill();
    while (connected.readInHandshake() >= 0) {
    }
    openldap.forgetCalls();

    EXPECT_EQ(connected.writeInHandshake("more"), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_THAT(openldap.calls(), Each(Not(StartsWith("poll"))));
}

// One that is asked for over LDAP, or a new one on a connection that goes on.
TEST_F(AGuardedHandshake, HasTimeOfItsOwnAfterAMessage)
{
    while (connected.readInHandshake() >= 0) {
    }

    connected.read();

    expectAHandshakeOf(shortTime);
}

TEST_F(AGuardedHandshake, HasTimeOfItsOwnOnANewConnection)
{
    while (connected.readInHandshake() >= 0) {
    }

    connected.reconnect();
    connected.offerTo(guard.callback());

    expectAHandshakeOf(shortTime);
}

TEST_F(AGuardedConnection, FailsToReadFromAnEmptySocketAtOnce)
{
    openldap.poll = [](auto...) {
        ADD_FAILURE() << "it waits";
        return 1;
    };

    for (int message = 0; message < 20;
         ++message) { // the empty reads of one do not count for the next
        EXPECT_EQ(connected.read(), -1);
        EXPECT_EQ(errno, EAGAIN);
    }
}

/// What stands for TLS asks for bytes again and again, as it does in a handshake that is asked for later.
ber_slen_t askAgain(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length)
{
    ber_slen_t count = -1;
    do {
        errno = 0;
        count = LBER_SBIOD_READ_NEXT(layer, bytes, length);
    } while (count < 0 && errno == EAGAIN);
    return count;
}

class AGuardedConnectionInALateHandshake : public AGuardedConnection {
protected:
    AGuardedConnectionInALateHandshake()
    {
        ber_sockbuf_add_io(connected.socket(), &s_tls, LBER_SBIOD_LEVEL_TRANSPORT, nullptr);
        openldap.forgetCalls();
    }

private:
    static inline Sockbuf_IO s_tls = {nullptr, nullptr, nullptr, askAgain, nullptr, nullptr};
};

TEST_F(AGuardedConnectionInALateHandshake, WaitsForThePeersBytes)
{
    openldap.poll = [&](pollfd*, nfds_t, int) {
        connected.peerWrites("late");
        return 1;
    };

    EXPECT_EQ(connected.read(), 4);
    EXPECT_EQ(connected.bytes(), "late");
}

TEST_F(AGuardedConnectionInALateHandshake, EndsWithTheNetworkTimeout)
{
    std::vector<int> waits;
    openldap.poll = [&](pollfd* waited, nfds_t count, int milliseconds) {
        waits.push_back(milliseconds);
        return poll(waited, count, milliseconds);
    };

    EXPECT_EQ(connected.read(), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_FALSE(guard.isUsable());
    ASSERT_FALSE(waits.empty());
    EXPECT_LE(waits.front(), shortTime.count());
}

TEST_F(AGuardedConnection, ReadsWhatIsThere)
{
    connected.peerWrites("hello");

    EXPECT_EQ(connected.read(), 5);
    EXPECT_EQ(connected.bytes(), "hello");
}

TEST_F(AGuardedConnection, SurvivesAnInterruptedWrite)
{
    openldap.send = interruptedOnce(::send);

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
    connected.fill();
    openldap.poll = [&](pollfd* waited, nfds_t count, int) {
        connected.peerReads();
        return poll(waited, count, 0);
    };

    EXPECT_EQ(connected.write("more"), 4);
}

// TLS takes a part of a record that was sent for one that it is to send later.
TEST_F(AGuardedConnection, SendsTheRestOfWhatTheSocketTookAPartOf)
{
    openldap.send = [&](int descriptor, void const* bytes, size_t length, int flags) {
        return send(descriptor, bytes, std::min(length, size_t{2}), flags);
    };

    EXPECT_EQ(connected.write("hello"), 5);
    EXPECT_EQ(connected.peerReads(), "hello");
}

// Three waits, which take longer than the network timeout together.
TEST_F(AGuardedConnection, HasTheNetworkTimeoutForEachPartThatIsSent)
{
    bool isFull = false;
    openldap.send = [&](int descriptor, void const* bytes, size_t length, int flags) -> ssize_t {
        isFull = !isFull;
        errno = EAGAIN;
        return isFull ? -1 : send(descriptor, bytes, std::min(length, size_t{2}), flags);
    };
    int waits = 0;
    openldap.poll = [&](pollfd*, nfds_t, int milliseconds) {
        ++waits;
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
        return 1;
    };

    EXPECT_EQ(connected.write("hello"), 5);
    EXPECT_EQ(waits, 3);
}

TEST_F(AGuardedConnection, FailsToWriteToAFullSocketWhenTheNetworkTimeoutIsOver)
{
    connected.fill();
    int longest = 0;
    openldap.poll = [&](pollfd* waited, nfds_t count, int milliseconds) {
        longest = std::max(longest, milliseconds);
        return poll(waited, count, milliseconds);
    };

    EXPECT_EQ(connected.write("more"), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GT(longest, 0);
    EXPECT_LE(longest, shortTime.count());
}

/// A connection on which a write was given up.
class AStalledConnection : public AGuardedConnection {
protected:
    AStalledConnection()
    {
        connected.fill();
        openldap.poll = [](auto...) {
            errno = ENOMEM; // instead of the wait
            return -1;
        };
        connected.write("more");
        m_error = errno;
        openldap.poll = nullptr;
        openldap.forgetCalls();
    }

    int m_error; ///< of that write
};

TEST_F(AStalledConnection, IsOver)
{
    EXPECT_FALSE(guard.isUsable());
    EXPECT_TRUE(connected.isReady()); // the next read fails, so nobody needs to wait for it
}

TEST_F(AStalledConnection, IsShutDownInBothDirections)
{
    while (!connected.peerReads().empty()) {
    }

    EXPECT_EQ(connected.writeAsPeer("late"), EPIPE);
}

TEST_F(AStalledConnection, IsNeverWrittenToAgain)
{
    EXPECT_EQ(connected.write("unbind"), -1);
    EXPECT_EQ(connected.writeInHandshake("goodbye of TLS"), -1);
    EXPECT_THAT(openldap.calls(), Each(Not(StartsWith("send"))));
}

TEST_F(AStalledConnection, IsNeverReadFromAgain)
{
    EXPECT_EQ(connected.read(), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(connected.readInHandshake(), -1);
    EXPECT_THAT(openldap.calls(), Each(Not(StartsWith("recv"))));
}

ber_slen_t giveDecrypted(Sockbuf_IO_Desc*, void*, ber_len_t) { return 1; }

TEST_F(AStalledConnection, GivesNothingThatTlsHasDecrypted)
{
    static Sockbuf_IO tls = {nullptr, nullptr, nullptr, giveDecrypted, nullptr, nullptr};
    ber_sockbuf_add_io(connected.socket(), &tls, LBER_SBIOD_LEVEL_TRANSPORT, nullptr);

    EXPECT_EQ(connected.read(), -1);
    EXPECT_EQ(errno, ECONNRESET);
}

TEST_F(AStalledConnection, SaysWhatEndedIt) { EXPECT_EQ(m_error, ENOMEM); }

TEST_F(AStalledConnection, IsFollowedByANewOneThatIsUsable)
{
    connected.reconnect();
    connected.offerTo(guard.callback());

    EXPECT_TRUE(guard.isUsable());
    EXPECT_EQ(connected.write("hello"), 5);
    EXPECT_EQ(connected.peerReads(), "hello");
}

/// What TLS says that took a part of a message, or none of it.
class AConnectionWhoseTlsTakesNothing : public AGuardedConnection,
                                        public testing::WithParamInterface<int> {};

// Two of these mean to OpenLDAP that it may send the rest later, and that all is well.
TEST_P(AConnectionWhoseTlsTakesNothing, IsOverWhateverItSays)
{
    static Sockbuf_IO tls = {nullptr, nullptr, nullptr, nullptr, takeNothing, nullptr};
    ber_sockbuf_add_io(connected.socket(), &tls, LBER_SBIOD_LEVEL_TRANSPORT, nullptr);
    g_tlsError = GetParam();

    EXPECT_EQ(connected.write("hello"), -1);
    EXPECT_NE(errno, 0);
    EXPECT_NE(errno, EAGAIN);
    EXPECT_NE(errno, ENOTCONN);
    EXPECT_FALSE(guard.isUsable());
}

INSTANTIATE_TEST_SUITE_P(AndSays, AConnectionWhoseTlsTakesNothing,
                         testing::Values(0, EAGAIN, ENOTCONN, ECONNRESET));

// It may not be connected yet, and nothing of the message is under way.
TEST_F(AGuardWithoutNetworkTimeout, LeavesTheFirstWriteToOpenLdap)
{
    connected.offerTo(guard.callback());
    connected.fill();
    openldap.poll = [](auto...) {
        ADD_FAILURE() << "it waits";
        return 1;
    };

    EXPECT_EQ(connected.write("hello"), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_TRUE(guard.isUsable());
}

TEST_F(AGuardWithoutNetworkTimeout, LeavesTheFirstWriteOfANewConnectionToOpenLdapToo)
{
    connected.offerTo(guard.callback());
    connected.write("hello");

    connected.reconnect();
    connected.offerTo(guard.callback());
    connected.fill();

    EXPECT_EQ(connected.write("hello"), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_TRUE(guard.isUsable());
}

TEST_F(AGuardWithoutNetworkTimeout, GivesEachLaterWriteOneSecond)
{
    connected.offerTo(guard.callback());
    connected.write("hello");
    connected.fill();
    int longest = 0;
    openldap.poll = [&](pollfd* waited, nfds_t count, int milliseconds) {
        longest = std::max(longest, milliseconds);
        return poll(waited, count, milliseconds);
    };

    EXPECT_EQ(connected.write("more"), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_FALSE(guard.isUsable());
    EXPECT_GT(longest, 0);
    EXPECT_LE(longest, 1000);
}

TEST_F(AGuardWithoutNetworkTimeout, GivesAHandshakeOneSecond)
{
    connected.offerTo(guard.callback());
    expectAHandshakeOf(std::chrono::seconds(1));
}

int sayReady(Sockbuf_IO_Desc* layer, int option, void* argument)
{
    return option == LBER_SB_OPT_DATA_READY ? 1 : LBER_SBIOD_CTRL_NEXT(layer, option, argument);
}

// A connection that OpenLDAP has given up: it asks on and on, and would never look at its clock or at
// the socket again.
TEST_F(AGuardedConnection, StopsSayingThatTlsHasBytesIfNobodyReadsThem)
{
    static Sockbuf_IO tls = {nullptr, nullptr, sayReady, giveDecrypted, nullptr, nullptr};
    ber_sockbuf_add_io(connected.socket(), &tls, LBER_SBIOD_LEVEL_TRANSPORT, nullptr);

    int answers = 0;
    while (connected.isReady() && answers < 1000) {
        ++answers;
    }

    EXPECT_GE(answers, 4); // OpenLDAP asks a few times for each read
    EXPECT_LE(answers, 100);
    EXPECT_EQ(connected.read(), 1);
    EXPECT_TRUE(connected.isReady());
}

TEST_F(AGuardedConnection, IsFollowedByANewOneThatSaysAgainThatTlsHasBytes)
{
    static Sockbuf_IO tls = {nullptr, nullptr, sayReady, giveDecrypted, nullptr, nullptr};
    ber_sockbuf_add_io(connected.socket(), &tls, LBER_SBIOD_LEVEL_TRANSPORT, nullptr);
    for (int answers = 0; connected.isReady() && answers < 1000; ++answers) {
    }
    ASSERT_FALSE(connected.isReady());

    connected.reconnect();
    connected.offerTo(guard.callback());

    EXPECT_TRUE(connected.isReady());
}

/// The same connection, in a child of the process that made it.
class AGuardedConnectionOfAParent : public AGuardedConnection {
protected:
    /// What the work returns, in a child.
    static std::string inAChild(ForkedProcess::Work const& work)
    {
        return ForkedProcess(work).complaint();
    }
    /// The error of a read or write that fails.
    static std::string failure(ber_slen_t count)
    {
        return count == -1 ? strerrorname_np(errno) : "it succeeds";
    }
};

TEST_F(AGuardedConnectionOfAParent, IsNeitherReadNorWritten)
{
    connected.peerWrites("for the parent");

    EXPECT_EQ(inAChild([&] { return failure(connected.read()); }), "ECONNRESET");
    EXPECT_EQ(inAChild([&] { return failure(connected.readInHandshake()); }), "ECONNRESET");
    EXPECT_EQ(inAChild([&] { return failure(connected.write("unbind")); }), "EPIPE");
    EXPECT_EQ(inAChild([&] { return failure(connected.writeInHandshake("goodbye")); }), "EPIPE");
    EXPECT_EQ(connected.read(), 14);
    EXPECT_EQ(connected.write("hello"), 5);
    EXPECT_EQ(connected.peerReads(), "hello");
}

TEST_F(AGuardedConnectionOfAParent, IsNotUsable)
{
    EXPECT_EQ(inAChild([&] { return guard.isUsable() ? "usable" : ""; }), "");
    EXPECT_EQ(inAChild([&] { return connected.isReady() ? "" : "would be waited for"; }), "");
    EXPECT_TRUE(guard.isUsable());
}

TEST_F(AGuardedConnectionOfAParent, LivesOnWhereTheChildClosesIt)
{
    std::string const wrong = inAChild([&]() -> std::string {
        int const descriptor = connected.descriptor();
        connected.end();
        return fcntl(descriptor, F_GETFD) == -1 ? "" : "it is open";
    });

    EXPECT_EQ(wrong, "");
    EXPECT_EQ(connected.write("hello"), 5);
    EXPECT_EQ(connected.peerReads(), "hello");
    connected.peerWrites("hello");
    EXPECT_EQ(connected.read(), 5);
}

TEST_F(AGuardedConnectionOfAParent, IsFollowedByOneOfTheChildsOwn)
{
    std::string const wrong = inAChild([&]() -> std::string {
        connected.reconnect();
        connected.offerTo(guard.callback());
        return guard.isUsable() && connected.write("hello") == 5 ? "" : "not usable";
    });

    EXPECT_EQ(wrong, "");
}

} // namespace
} // namespace SolvaneTest
