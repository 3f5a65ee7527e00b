// From a name to a connection: host names and SRV records, several addresses, unreachable peers,
// and calls at unusual times.
#include "Eventually.h"
#include "LdapMessages.h"
#include "NameServer.h"
#include "ScriptedServer.h"
#include "Sessions.h"

#include <solvane/session/Resolver.h>
#include <solvane/session/SrvQuery.h>

#include <ldap.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <optional>

using namespace Solvane;
using namespace Solvane::Lookup;
using std::chrono::milliseconds;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

/// Drives a resolver or a query to its end, for at most twenty seconds.
template <typename Query> void finish(Query& query)
{
    auto const deadline = in(std::chrono::seconds(20));
    Waits waits;
    while (!query.isSettled() && Clock::now() < deadline) {
        waits.clear();
        query.waits(waits);
        waits.until(deadline);
        waits.wait();
        query.advance();
    }
}

std::vector<std::string> textsOf(std::vector<Address> const& addresses)
{
    std::vector<std::string> texts;
    for (Address const& address : addresses) {
        texts.push_back(address.text());
    }
    return texts;
}

std::vector<std::string> hostsOf(std::vector<SrvTarget> const& targets)
{
    std::vector<std::string> hosts;
    for (SrvTarget const& target : targets) {
        hosts.push_back(target.host);
    }
    return hosts;
}

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

// Resolver

TEST(Resolving, AnAddressSendsNoQuery)
{
    NameServer const server;

    Resolver v4("192.0.2.1", 389, {server.address()});
    Resolver v6("2001:DB8::1", 636, {server.address()});

    EXPECT_TRUE(v4.isSettled());
    EXPECT_THAT(textsOf(v4.addresses()), ElementsAre("192.0.2.1 port 389"));
    EXPECT_THAT(textsOf(v6.addresses()), ElementsAre("2001:db8::1 port 636"));
    EXPECT_THAT(server.asked(), IsEmpty());
}

TEST(Resolving, ANameFindsItsAddressesOfBothFamilies)
{
    NameServer server;
    server.add("both.example.test", {"127.0.0.1", "127.0.0.2", "::1"});

    Resolver resolver("both.example.test", 389, {server.address()});
    finish(resolver);

    EXPECT_EQ(shown(resolver.verdict()), "Found 0 ");
    EXPECT_THAT(textsOf(resolver.addresses()),
                UnorderedElementsAre("127.0.0.1 port 389", "127.0.0.2 port 389", "::1 port 389"));
}

TEST(Resolving, ANameThatDoesNotExistIsTriedLater)
{
    NameServer const server;

    Resolver resolver("nobody.example.test", 389, {server.address()});
    finish(resolver);

    EXPECT_THAT(shown(resolver.verdict()),
                AllOf(StartsWith("TryLater -1 cannot resolve 'nobody.example.test': ")));
    EXPECT_THAT(resolver.addresses(), IsEmpty());
    EXPECT_THAT(server.asked(), Contains("nobody.example.test"));
}

TEST(Resolving, ByAServerThatFailsIsTriedLater)
{
    NameServer server;
    server.add("both.example.test", {"127.0.0.1"});
    server.fail(2);

    Resolver resolver("both.example.test", 389, {server.address()});
    finish(resolver);

    EXPECT_THAT(shown(resolver.verdict()), StartsWith("TryLater -"));
}

TEST(Resolving, WithoutADescriptorLeftSpeaksOfThisProcess)
{
    NameServer const server;
    auto limit = std::make_optional<NoDescriptors>();

    Resolver resolver("both.example.test", 389, {server.address()});
    finish(resolver);
    SrvQuery query("example.test", false, {server.address()});
    finish(query);
    limit.reset();

    std::string const lack = "this process has no descriptor or memory left to ask name servers";
    EXPECT_EQ(shown(resolver.verdict()), "TryLater -2 cannot resolve 'both.example.test': " + lack);
    EXPECT_EQ(shown(query.verdict()), "TryLater -2 cannot find the servers of 'example.test' "
                                      "(_ldap._tcp.example.test): " +
                                          lack);
}

TEST(Resolving, ByTheSecondServerIfTheFirstIsSilent)
{
    NameServer silent;
    silent.fallSilent();
    NameServer second;
    second.add("one.example.test", {"127.0.0.1"});

    Resolver resolver("one.example.test", 389, {silent.address(), second.address()});
    finish(resolver);

    EXPECT_THAT(textsOf(resolver.addresses()), ElementsAre("127.0.0.1 port 389"));
    EXPECT_THAT(silent.asked(), Contains("one.example.test"));
}

TEST(Resolving, WithInvalidNameServersIsMisconfigured)
{
    Resolver const resolver("one.example.test", 389, {"not an address"});

    EXPECT_TRUE(resolver.isSettled());
    EXPECT_THAT(shown(resolver.verdict()),
                AllOf(StartsWith("Misconfigured -9 "), HasSubstr("'not an address'")));
}

TEST(Resolving, AnInvalidNameIsMisconfigured)
{
    for (std::string const& name :
         {std::string(), std::string("fe80::1%eth0"), std::string("a\0.example.test", 15)}) {
        Resolver const resolver(name, 389, {});

        EXPECT_TRUE(resolver.isSettled());
        EXPECT_THAT(shown(resolver.verdict()), StartsWith("Misconfigured -9 cannot resolve '"));
    }
}

TEST(Resolving, CanBeGivenUp)
{
    NameServer server;
    server.fallSilent();

    {
        Resolver resolver("one.example.test", 389, {server.address()});
        resolver.advance();
        EXPECT_FALSE(resolver.isSettled());
    }

    EXPECT_TRUE(eventually([&] { return !server.asked().empty(); }));
}

// Sessions with names

TEST(SessionWithAName, ConnectsToTheAddressThatListens)
{
    ScriptedServer server([](Peer& peer) { peer.receiveUntilClosed(); }); // on IPv4 only
    NameServer names;
    names.add("both.example.test", {"::1", "127.0.0.1"});
    SessionOptions options = plainOptions(server.port());
    options.host = "both.example.test";
    options.nameServers = {names.address()};
    Session session(options);

    Verdict const verdict = session.reach(Step::connect, soon());

    EXPECT_EQ(shown(verdict), "Found 0 ");
    EXPECT_EQ(session.peer(), "127.0.0.1 port " + std::to_string(server.port()));
    EXPECT_EQ(session.uri(), "ldap://both.example.test:" + std::to_string(server.port()));
    EXPECT_EQ(session.addresses().size(), 2U);
}

TEST(SessionWithAName, EndsAtTheDeadlineIfTheNameServiceIsDead)
{
    NameServer names;
    names.fallSilent();
    SessionOptions options = plainOptions(389);
    options.host = "one.example.test";
    options.nameServers = {names.address()};
    Session session(options);

    Verdict const verdict = session.reach(Step::identify, in(milliseconds(300)));

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("TryLater -5 ldap://one.example.test:389: no name server "
                                 "answered within "),
                      HasSubstr(" s")));
    EXPECT_EQ(session.step(), Step::resolve);
}

// One thread drives both, as the engine does.
TEST(SessionWithAName, WhoseNameServiceIsDeadHoldsNoOtherUp)
{
    ScriptedServer server([](Peer& peer) { peer.receiveUntilClosed(); });
    NameServer names;
    names.fallSilent();
    SessionOptions named = plainOptions(server.port());
    named.host = "one.example.test";
    named.nameServers = {names.address()};
    Session waiting(named);
    Session other(plainOptions(server.port()));

    waiting.begin(Step::connect, soon());
    Verdict const verdict = other.reach(Step::connect, soon());
    waiting.advance();

    EXPECT_EQ(shown(verdict), "Found 0 ");
    EXPECT_FALSE(waiting.isSettled());
}

// SRV

TEST(ServersOfADomain, AreFoundByPriority)
{
    NameServer names;
    names.addService("_ldap._tcp.example.test", 20, 0, 3893, "third.example.test");
    names.addService("_ldap._tcp.example.test", 5, 1, 3891, "first.example.test");
    names.addService("_ldap._tcp.example.test", 10, 100, 3892, "second.example.test");
    names.addService("_ldaps._tcp.example.test", 1, 1, 636, "secure.example.test");

    SrvQuery plain("example.test", false, {names.address()});
    SrvQuery secure("example.test", true, {names.address()});
    finish(plain);
    finish(secure);

    EXPECT_EQ(shown(plain.verdict()), "Found 0 ");
    EXPECT_THAT(hostsOf(plain.targets()),
                ElementsAre("first.example.test", "second.example.test", "third.example.test"));
    ASSERT_EQ(plain.targets().size(), 3U);
    EXPECT_EQ(plain.targets().front().port, 3891U);
    EXPECT_THAT(hostsOf(secure.targets()), ElementsAre("secure.example.test"));
}

TEST(ServersOfADomain, OfOnePriorityComeByChanceInProportionToTheirWeight)
{
    std::vector<SrvTarget> const targets = {
        {"ten", 389, 0, 10}, {"none", 389, 0, 0}, {"thirty", 389, 0, 30}};
    // The first is the one at which the running sum of weights, 0 first, reaches the number drawn.
    for (std::uint32_t chance = 0; chance <= 40; ++chance) {
        bool isFirst = true;
        auto const order = inOrderOfTrial(targets, [&](std::uint32_t highest) {
            return std::exchange(isFirst, false) ? chance : highest;
        });

        EXPECT_EQ(order.front().host, chance == 0 ? "none" : chance <= 10 ? "ten" : "thirty");
        EXPECT_THAT(hostsOf(order), UnorderedElementsAre("ten", "none", "thirty"));
    }
}

TEST(ServersOfADomain, ThatHasNoneAreTriedLater)
{
    NameServer names;
    names.addService("_ldap._tcp.none.example.test", 0, 0, 0, ".");

    SrvQuery none("none.example.test", false, {names.address()});
    SrvQuery unknown("unknown.example.test", false, {names.address()});
    finish(none);
    finish(unknown);

    EXPECT_THAT(shown(none.verdict()),
                AllOf(StartsWith("TryLater -1 cannot find the servers of 'none.example.test' "),
                      HasSubstr("has no LDAP server")));
    EXPECT_THAT(none.targets(), IsEmpty());
    EXPECT_THAT(shown(unknown.verdict()), StartsWith("TryLater -1 "));
}

TEST(ServersOfADomain, ThatIsInvalidIsMisconfigured)
{
    EXPECT_THAT(shown(SrvQuery("", false).verdict()), StartsWith("Misconfigured -9 "));
    EXPECT_THAT(shown(SrvQuery("example.test", false, {"nowhere"}).verdict()),
                StartsWith("Misconfigured -9 "));
}

// Connecting: several addresses, unreachable peers, and calls at unusual times.

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
