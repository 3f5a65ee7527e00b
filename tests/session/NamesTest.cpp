// Resolving host names and SRV records with the test's own name server.
#include "Eventually.h"
#include "NameServer.h"
#include "ScriptedServer.h"
#include "Sessions.h"

#include <solvane/session/Resolver.h>
#include <solvane/session/SrvQuery.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
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

} // namespace SolvaneTest
