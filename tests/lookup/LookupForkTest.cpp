// Processes that fork after lookups, with open connections, and with keys of a queue in flight.
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
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

using namespace Solvane;
using Lookup::Outcome;
using std::chrono::milliseconds;

namespace SolvaneTest {

namespace {

/// Whether the answer is this user's entry.
bool isRight(LDAPLookup::Answer const& answer, int user)
{
    std::string const local = addressOf(user).substr(0, addressOf(user).find('@'));
    return answer.outcome == Outcome::Found && answer.entries.size() == 1 &&
           answer.entries.front().entryName() == "uid=" + local + ",ou=people,dc=corp,dc=test";
}

/// Looks up users, different ones in each child; exits with the number of wrong answers.
[[noreturn]] void lookUpInChild(LDAPLookup& lookup, int child)
{
    int wrong = 0;
    for (int i = 0; i < 3; ++i) {
        int const user = child * 3 + i + 1;
        wrong += isRight(lookup.find(addressOf(user)), user) ? 0 : 1;
    }
    _exit(wrong);
}

/// Forks children at once. Returns the number of their wrong answers; -1 if one died.
int wrongAnswersOfChildren(LDAPLookup& lookup, int children)
{
    std::vector<pid_t> running;
    for (int child = 0; child < children; ++child) {
        pid_t const pid = fork();
        if (pid == 0) {
            alarm(30); // a child that hangs is one that died
            lookUpInChild(lookup, child);
        }
        running.push_back(pid);
    }
    int wrong = 0;
    for (pid_t const pid : running) {
        int status = 0;
        waitpid(pid, &status, 0);
        wrong += WIFEXITED(status) ? WEXITSTATUS(status) : 1000;
    }
    return wrong;
}

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

/// What is wrong with a queue of the parent, used in a child.
std::string wrongInAChild(LDAPLookupQueue& queue)
{
    if (queue.pending() != 0) {
        return "keys of the parent are pending";
    }
    if (awaitReadable(queue.descriptor(), milliseconds(0))) {
        return "readable for the parent's keys";
    }
    QueueLoop loop(queue);
    queue.submit(addressOf(2), 2);
    if (!loop.runUntil(1)) {
        return "no answer";
    }
    return loop.answer(2).outcome == Outcome::Found ? std::string() : loop.answer(2).text;
}

} // namespace

class ForkedLookups : public SuiteWithSlapd<ForkedLookups> {
public:
    static std::vector<std::string> options() { return {"--users", "60"}; }

protected:
    static LDAPLookup::Settings settings(WayIn way = WayIn::plain)
    {
        return settingsFor(slapd(), way);
    }

    void expectRightAnswers(LDAPLookup& lookup, int rounds, int children)
    {
        ASSERT_TRUE(isRight(lookup.find(addressOf(50)), 50));

        for (int round = 0; round < rounds; ++round) {
            ASSERT_EQ(wrongAnswersOfChildren(lookup, children), 0) << "round " << round;
        }

        EXPECT_TRUE(isRight(lookup.find(addressOf(51)), 51));
        EXPECT_EQ(lookup.statistics().opened, 1U);
        EXPECT_EQ(lookup.statistics().stale, 0U);
    }
};

TEST_F(ForkedLookups, AreRightInTwoChildrenAHundredTimes)
{
    LDAPLookup lookup(settings());

    expectRightAnswers(lookup, 100, 2);
}

TEST_F(ForkedLookups, AreRightInEightChildrenAHundredTimes)
{
    LDAPLookup lookup(settings());

    expectRightAnswers(lookup, 100, 8);
}

TEST_F(ForkedLookups, AreRightOverTls)
{
    LDAPLookup lookup(settings(WayIn::ldaps));

    expectRightAnswers(lookup, 10, 4);
}

TEST_F(ForkedLookups, AreRightWithStartTls)
{
    LDAPLookup lookup(settings(WayIn::startTls));

    expectRightAnswers(lookup, 10, 4);
}

TEST_F(ForkedLookups, LeaveTheParentsConnectionAloneWhenAChildDestroysItsLookup)
{
    auto lookup = std::make_unique<LDAPLookup>(settings());
    ASSERT_TRUE(isRight(lookup->find(addressOf(1)), 1));

    pid_t const pid = fork();
    if (pid == 0) {
        lookup.reset();
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);

    EXPECT_TRUE(isRight(lookup->find(addressOf(2)), 2));
    EXPECT_EQ(lookup->statistics().opened, 1U);
    EXPECT_EQ(lookup->statistics().stale, 0U);
}

// Another thread may hold their locks at the time of the fork.
TEST_F(ForkedLookups, DoNotHangWhileOtherThreadsOfTheParentLookUp)
{
    if (!allocatorForks) {
        GTEST_SKIP() << "the allocator does not support forks of processes with several threads";
    }
    LDAPLookup lookup(settings());
    std::atomic<bool> isOver{false};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            while (!isOver) {
                lookup.find(addressOf(60));
            }
        });
    }

    int wrong = 0;
    for (int round = 0; round < 20; ++round) {
        wrong += wrongAnswersOfChildren(lookup, 2);
    }
    isOver = true;
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(wrong, 0);
}

// Processes that fork with a lookup object that has connections open.

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

// Processes that fork with a queue that has keys in flight.

TEST(AQueueInAForkedChild, StartsAfreshAndLeavesTheParentsAlone)
{
    std::atomic<int> searches{0};
    ScriptedServer server(serving([&](Peer& peer, std::string const& request) {
        if (++searches == 1) {
            peer.awaitCue();
        }
        answerFound(peer, request);
    }));
    LDAPLookup lookup(settingsFor({server.port()}));
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);
    for (Tag tag = 1; tag <= 10; ++tag) {
        queue.submit(addressOf(1), tag);
    }
    while (searches == 0) {
        awaitReadable(queue.descriptor(), milliseconds(10));
        loop.take();
    }

    ForkedProcess child([&] { return wrongInAChild(queue); });
    std::string const wrong = child.complaint();
    server.giveCue();
    bool const isAnswered = loop.runUntil(10);

    EXPECT_EQ(wrong, "");
    ASSERT_TRUE(isAnswered);
    EXPECT_EQ(loop.answer(10).outcome, Outcome::Found);
    EXPECT_EQ(lookup.statistics().repeated, 0U);
    EXPECT_EQ(lookup.statistics().opened, 1U);
}

TEST(AQueueInAForkedChild, MayBeDestroyedThere)
{
    ScriptedServer server(serving([](Peer& peer, std::string const& request) {
        peer.awaitCue();
        answerFound(peer, request);
    }));
    LDAPLookup lookup(settingsFor({server.port()}));
    auto queue = std::make_unique<LDAPLookupQueue>(lookup);
    queue->submit(addressOf(1), 1);
    while (countOf(SearchRequest, server.received()) == 0) {
        queue->next(milliseconds(10));
    }

    std::string const wrong = ForkedProcess([&]() -> std::string {
                                  queue.reset();
                                  return "";
                              }).complaint();
    server.giveCue();
    QueueLoop loop(*queue);
    bool const isAnswered = loop.runUntil(1);

    EXPECT_EQ(wrong, "");
    ASSERT_TRUE(isAnswered);
    EXPECT_EQ(loop.answer(1).outcome, Outcome::Found);
    EXPECT_EQ(countOf(UnbindRequest, server.received()), 0U);
}

// A child that lives on has copies of the parent's sockets, which then stay open in the kernel.
TEST(AQueueWhoseProcessForked, IsNotWokenByConnectionsThatItClosed)
{
    std::atomic<int> answered{0};
    ScriptedServer server(serving([&](Peer& peer, std::string const& request) {
        if (request.find(addressOf(1)) != std::string::npos) {
            peer.awaitCue();
        }
        answerFound(peer, request);
        ++answered;
    }));
    LDAPLookup lookup(settingsFor({server.port()}));
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);
    queue.submit(addressOf(1), 1);
    while (countOf(SearchRequest, server.received()) == 0) {
        awaitReadable(queue.descriptor(), milliseconds(10));
        loop.take();
    }
    Gate gate;
    ForkedProcess child([&]() -> std::string {
        gate.pass();
        return "";
    });

    queue.cancel(1); // closes the connection
    server.giveCue();
    bool const hasCome = eventually([&] { return answered == 1; });
    loop.runFor(milliseconds(300));
    std::size_t const wakeUps = loop.wakeUps();
    queue.submit(addressOf(2), 2);
    bool const isAnswered = loop.runUntil(1);
    gate.open();

    EXPECT_EQ(child.complaint(), "");
    EXPECT_TRUE(hasCome);
    EXPECT_LE(wakeUps, 1U);
    ASSERT_TRUE(isAnswered);
    EXPECT_EQ(loop.answer(2).outcome, Outcome::Found) << loop.answer(2).text;
}

} // namespace SolvaneTest
