// Processes that fork with a lookup object that has connections open.
#include "Eventually.h"
#include "Lookups.h"
#include "Process.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <list>
#include <thread>
#include <tuple>

using namespace Solvane;
using Lookup::Outcome;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

constexpr int users = 30;

/// Looks up one user. Returns what is wrong with the answer.
std::string wrongWith(LDAPLookup& lookup, int user)
{
    std::string const address = addressOf(user);
    LDAPLookup::Answer const answer = lookup.find(address);
    if (answer.outcome != Outcome::Found || answer.entries.size() != 1) {
        return address + ": " + testing::PrintToString(answer.outcome) + ", " +
               std::to_string(answer.entries.size()) + " entries, " + answer.text + "; ";
    }
    std::string const& name = answer.entries.front().entryName();
    bool const isRight = name.rfind("uid=" + address.substr(0, address.find('@')) + ',', 0) == 0;
    return isRight ? std::string() : address + ": found " + name + "; ";
}

/// Looks up a few users, different ones for each worker.
std::string wrongWithSome(LDAPLookup& lookup, int worker)
{
    std::string wrong;
    for (int i = 1; i <= 3; ++i) {
        wrong += wrongWith(lookup, worker * 3 + i);
    }
    return wrong;
}

/// Looks up an address in a child. Returns what is wrong with the answer.
std::string outcomeInAChild(LDAPLookup& lookup)
{
    ForkedProcess child([&] {
        LDAPLookup::Answer const answer = lookup.find(addressOf(2));
        return answer.outcome == Outcome::Found ? std::string() : "not found: " + answer.text;
    });
    return child.complaint();
}

} // namespace

/// The way to the server, and how many workers.
class WorkersForkedAfterFind : public SuiteWithSlapd<WorkersForkedAfterFind>,
                               public testing::WithParamInterface<std::tuple<WayIn, int>> {
public:
    static std::vector<std::string> options() { return {"--users", std::to_string(users)}; }

protected:
    static LDAPLookup::Settings settings() { return settingsFor(slapd(), std::get<0>(GetParam())); }
};

TEST_P(WorkersForkedAfterFind, AndTheirParentFindWhomTheyLookFor)
{
    int const count = std::get<1>(GetParam());
    LDAPLookup lookup(settings());
    ASSERT_EQ(wrongWith(lookup, 1), "");

    for (int round = 0; round < rounds; ++round) {
        Gate gate;
        std::list<ForkedProcess> workers;
        for (int worker = 1; worker <= count; ++worker) {
            workers.emplace_back([&, worker] {
                gate.pass();
                return wrongWithSome(lookup, worker);
            });
        }
        gate.open();
        ASSERT_EQ(wrongWithSome(lookup, 0), "") << "in the parent";
        for (ForkedProcess& worker : workers) {
            ASSERT_EQ(worker.complaint(), "");
        }
    }

    EXPECT_EQ(lookup.statistics().opened, 1U) << "the parent needed another connection";
    EXPECT_EQ(lookup.statistics().repeated, 0U);
}

INSTANTIATE_TEST_SUITE_P(ByWayAndCount, WorkersForkedAfterFind,
                         testing::Combine(testing::Values(WayIn::plain, WayIn::ldaps,
                                                          WayIn::startTls, WayIn::ldapi),
                                          testing::Values(2, 8)));

// The only connection is in use by a thread that does not exist in the child.
TEST(AWorkerForkedDuringALookup, HasConnectionsOfItsOwn)
{
    std::atomic<int> searches{0};
    ScriptedServer server(serving([&](Peer& peer, std::string const& request) {
        if (searches++ == 0) {
            peer.awaitCue();
        }
        answerFound(peer, request);
    }));
    auto settings = settingsFor({server.port()});
    settings.connections = 1;
    LDAPLookup lookup(settings);
    LDAPLookup::Answer underWay;
    std::thread thread([&] { underWay = lookup.find(addressOf(1)); });
    bool const isUnderWay = eventually([&] { return searches == 1; });

    std::string const wrong = outcomeInAChild(lookup);
    server.giveCue();
    thread.join();

    EXPECT_TRUE(isUnderWay);
    EXPECT_EQ(wrong, "");
    EXPECT_EQ(underWay.outcome, Outcome::Found) << underWay.text;
    EXPECT_FALSE(underWay.wasRepeated);
    EXPECT_EQ(server.connectionCount(), 2U);
}

TEST(AWorkerForkedAfterALookup, SendsNothingOnItsParentsConnection)
{
    ScriptedServer server(serving(answerFound));
    LDAPLookup lookup(settingsFor({server.port()}));
    lookup.find(addressOf(1));

    std::string const wrong = outcomeInAChild(lookup);
    LDAPLookup::Answer const answer = lookup.find(addressOf(1));

    EXPECT_EQ(wrong, "");
    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(countOf(UnbindRequest, server.received()), 0U);
    EXPECT_EQ(server.connectionCount(), 2U);
}

TEST(AWorkerForkedAfterALookup, MayDestroyItsCopyOfTheObject)
{
    ScriptedServer server(serving(answerFound));
    auto lookup = std::make_unique<LDAPLookup>(settingsFor({server.port()}));
    lookup->find(addressOf(1));

    std::string const wrong = ForkedProcess([&]() -> std::string {
                                  lookup.reset();
                                  return "";
                              }).complaint();
    LDAPLookup::Answer const answer = lookup->find(addressOf(1));

    EXPECT_EQ(wrong, "");
    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(countOf(UnbindRequest, server.received()), 0U);
    EXPECT_EQ(server.connectionCount(), 1U);
}

} // namespace SolvaneTest
