// A connection that the guard of its session let through: what its reads and writes wait for.
#include "SessionGuardTest.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

namespace SolvaneTest {
namespace {

using testing::Each;
using testing::Not;
using testing::StartsWith;

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

TEST_F(AGuardedHandshake, WaitsNoLongerThanTheNetworkTimeout) { expectAHandshakeOfOneSecond(); }

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
    expectAHandshakeOfOneSecond();
}

} // namespace
} // namespace SolvaneTest
