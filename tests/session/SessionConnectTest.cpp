// Connecting: several addresses, unreachable peers, and calls at unusual times.
#include "Eventually.h"
#include "LdapMessages.h"
#include "ScriptedServer.h"
#include "Sessions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <ctime>

#include <ldap.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

using namespace Solvane;
using namespace Solvane::Lookup;
using std::chrono::milliseconds;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

Address loopback(unsigned int port) { return *Address::parse("127.0.0.1", port); }

/// Options of a session with these addresses.
SessionOptions optionsFor(std::vector<Address> const& addresses)
{
    SessionOptions options = plainOptions(addresses.front().port());
    options.host = "ldap.example.test";
    options.addresses = addresses;
    return options;
}

} // namespace

TEST(ConnectTo, AClosedPortIsTriedLater)
{
    RefusingPort const port;
    Session session(plainOptions(port.number()));

    Verdict const verdict = session.reach(Step::identify, soon());

    std::string const number = std::to_string(port.number());
    EXPECT_EQ(shown(verdict), "TryLater -1 ldap://127.0.0.1:" + number +
                                  ": cannot connect: 127.0.0.1 port " + number +
                                  ": Connection refused");
    EXPECT_EQ(session.step(), Step::connect);
    EXPECT_EQ(session.handle(), nullptr);
    EXPECT_EQ(session.peer(), "");
}

TEST(ConnectTo, AServerWithoutADescriptorLeftSpeaksOfThisProcess)
{
    ScriptedServer const server([](Peer& peer) { peer.receiveUntilClosed(); });
    Session session(plainOptions(server.port()));

    Verdict const verdict = [&] {
        NoDescriptors const limit;
        return session.reach(Step::connect, soon());
    }();

    std::string const number = std::to_string(server.port());
    EXPECT_EQ(shown(verdict), "TryLater -2 ldap://127.0.0.1:" + number +
                                  ": this process cannot connect: 127.0.0.1 port " + number +
                                  ": too many open files in this process");
}

TEST(ConnectTo, AnyServerAfterTheDeadlineIsNotTried)
{
    ScriptedServer const server([](Peer& peer) { peer.ignore(); });
    Session session(plainOptions(server.port()));

    Verdict const verdict = session.reach(Step::connect, Clock::now());

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("TryLater -5 "), HasSubstr("no time left")));
    EXPECT_EQ(server.connectionCount(), 0U);
}

TEST(ConnectTo, SeveralAddressesGoesOnAtOnceAfterARefusal)
{
    RefusingPort const first;
    RefusingPort const second;
    ScriptedServer const server([](Peer& peer) { peer.receiveUntilClosed(); });
    Session session(
        optionsFor({loopback(first.number()), loopback(second.number()), loopback(server.port())}));

    Verdict const verdict = session.reach(Step::connect, soon());

    EXPECT_EQ(shown(verdict), "Found 0 ");
    EXPECT_EQ(session.peer(), "127.0.0.1 port " + std::to_string(server.port()));
}

TEST(ConnectTo, SeveralAddressesTakesTheNextBesideOneThatHangs)
{
    HangingPort const hanging;
    ScriptedServer const server([](Peer& peer) { peer.receiveUntilClosed(); });
    SessionOptions options = optionsFor({loopback(hanging.number()), loopback(server.port())});
    options.networkTimeout = std::chrono::seconds(10);
    Session session(options);

    session.begin(Step::connect, soon());
    bool const wasSettledAtOnce = session.isSettled();
    Verdict const verdict = session.reach(Step::connect, soon());

    EXPECT_FALSE(wasSettledAtOnce);
    EXPECT_EQ(shown(verdict), "Found 0 ");
    EXPECT_EQ(session.peer(), "127.0.0.1 port " + std::to_string(server.port()));
}

TEST(ConnectTo, SeveralAddressesTellsOfEachWhyNot)
{
    HangingPort const hanging;
    RefusingPort const refusing;
    SessionOptions options = optionsFor({loopback(hanging.number()), loopback(refusing.number())});
    options.networkTimeout = milliseconds(600);
    Session session(options);

    Verdict const verdict = session.reach(Step::connect, soon());

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("TryLater -5 "), HasSubstr(": no connection within 0.600 s: "),
                      HasSubstr(std::to_string(hanging.number()) + ": no answer"),
                      HasSubstr(std::to_string(refusing.number()) + ": Connection refused")));
}

TEST(ConnectTo, AddressesOfBothFamiliesTriesThemInTurn)
{
    RefusingPort const port;
    auto const v6 = [&](char const* text) { return *Address::parse(text, port.number()); };
    Session session(optionsFor(
        {v6("::1"), v6("::ffff:127.0.0.1"), loopback(port.number()), loopback(port.number())}));

    session.reach(Step::connect, soon());

    ASSERT_EQ(session.addresses().size(), 4U);
    EXPECT_EQ(session.addresses()[0].host(), "::1");
    EXPECT_EQ(session.addresses()[1].host(), "127.0.0.1");
    EXPECT_EQ(session.addresses()[2].host(), "::ffff:127.0.0.1");
    EXPECT_EQ(session.addresses()[3].host(), "127.0.0.1");
}

// Requests are batched before they are written: Nagle's algorithm would only hold them back.
TEST(ConnectTo, AServerSendsSmallMessagesAtOnce)
{
    ScriptedServer const server([](Peer& peer) { peer.receiveUntilClosed(); });
    Session session(plainOptions(server.port()));
    session.reach(Step::connect, soon());
    int socket = -1;
    ldap_get_option(session.handle(), LDAP_OPT_DESC, &socket);

    int isOn = 0;
    socklen_t size = sizeof isOn;
    getsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &isOn, &size);

    EXPECT_NE(isOn, 0);
}

TEST(ConnectTo, ASecureServerWithoutTlsSettingsIsMisconfigured)
{
    ScriptedServer const server([](Peer& peer) { peer.receiveUntilClosed(); });
    SessionOptions options = plainOptions(server.port());
    options.secure = true;
    Session session(options);

    EXPECT_EQ(shown(session.reach(Step::handshake, soon())),
              "Misconfigured -9 ldaps://127.0.0.1:" + std::to_string(server.port()) +
                  ": TLS is not configured");
}

TEST(ConnectTo, AnAddressWithAZoneIsMisconfigured)
{
    SessionOptions options = plainOptions(389);
    options.host = "fe80::1%lo";
    Session session(options);

    EXPECT_THAT(shown(session.reach(Step::connect, soon())),
                AllOf(StartsWith("Misconfigured -9 "), HasSubstr("zone")));
}

TEST(UriOfASession, HoldsTheHostAsTheUserNamedIt)
{
    SessionOptions options = plainOptions(636);
    options.secure = true;
    options.host = "LDAP.Example.test";
    Session const named(options);
    options.host = "::1";
    Session const numbered(options);

    EXPECT_EQ(named.uri(), "ldaps://LDAP.Example.test:636");
    EXPECT_EQ(numbered.uri(), "ldaps://[::1]:636");
}

// Odd times

TEST(SessionBeforeItsConnect, HasNothing)
{
    Session session(plainOptions(389));
    int id = 0;
    LDAPMessageBuffer message;

    session.advance();
    session.abandon(1);
    session.flush();
    Verdict const sent = session.send(peopleSearch(), "(cn=x)", id);
    Waits waits;
    session.waits(waits);

    EXPECT_TRUE(session.isSettled());
    EXPECT_TRUE(session.verdict().isGood());
    EXPECT_FALSE(session.isFresh());
    EXPECT_FALSE(session.isDone(Step::resolve));
    EXPECT_EQ(session.handle(), nullptr);
    EXPECT_EQ(session.tlsVersion(), "");
    EXPECT_EQ(session.tlsCipher(), "");
    EXPECT_FALSE(session.isTlsResumed());
    EXPECT_FALSE(session.certificate());
    EXPECT_EQ(session.receivedBytes(), 0U);
    EXPECT_EQ(session.messageSize(), 0U);
    EXPECT_THAT(waits.descriptors(), IsEmpty());
    EXPECT_THAT(shown(sent), StartsWith("TryLater -1 "));
    EXPECT_EQ(session.receive(message, id), Session::Received::broken);
}

TEST(SessionThatFailed, IsOfNoMoreUse)
{
    RefusingPort const port;
    Session session(plainOptions(port.number()));
    Verdict const first = session.reach(Step::connect, soon());

    session.advance();
    Verdict const again = session.reach(Step::identify, soon());
    Waits waits;
    session.waits(waits);

    EXPECT_TRUE(session.isSettled());
    EXPECT_EQ(shown(again), shown(first));
    EXPECT_THAT(waits.descriptors(), IsEmpty());
}

TEST(SessionThatIsOpen, IsSettledForEveryStepThatIsDone)
{
    ScriptedServer const server([](Peer& peer) { peer.receiveUntilClosed(); });
    Session session(plainOptions(server.port()));
    session.reach(Step::bind, soon());

    Verdict const verdict = session.reach(Step::connect, Clock::now()); // there is nothing to do

    EXPECT_EQ(shown(verdict), "Found 0 ");
    EXPECT_EQ(session.step(), Step::bind);
}

TEST(SessionUnderWay, IsAskedForAnEarlierDeadline)
{
    ScriptedServer const server([](Peer& peer) { peer.receiveUntilClosed(); });
    Session session(boundOptions(server.port()));
    session.begin(Step::bind, soon());

    Verdict const verdict = session.reach(Step::bind, in(milliseconds(200)));

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("TryLater -5 "), HasSubstr("the bind within 0.")));
}

TEST(SessionUnderWay, IsNotDisturbedBySignals)
{
    ScriptedServer const server([](Peer& peer) {
        std::string const bind = peer.receiveMessage();
        peer.drip(bindResponse(messageIdOf(bind)));
        peer.receiveUntilClosed();
    });
    struct sigaction handler = {};
    handler.sa_handler = [](int) {};
    struct sigaction before = {};
    sigaction(SIGALRM, &handler, &before); // without SA_RESTART
    itimerval const often = {{0, 500}, {0, 500}};
    setitimer(ITIMER_REAL, &often, nullptr);

    Session session(boundOptions(server.port()));
    Verdict const verdict = session.reach(Step::bind, soon());

    itimerval const never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_EQ(shown(verdict), "Found 0 ");
}

} // namespace SolvaneTest
