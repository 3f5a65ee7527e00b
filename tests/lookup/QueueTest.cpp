// A queue in an event loop: every key gets its answer, and the loop is woken when it should be.
#include "Eventually.h"
#include "Lookups.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <set>
#include <system_error>
#include <thread>

#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/select.h>

using namespace Solvane;
using Lookup::Outcome;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::HasSubstr;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

/// Never answers a search.
void answerNothing(Peer&, std::string const&) {}

/// The name of the user's entry.
std::string nameOf(int user)
{
    std::string const address = addressOf(user);
    return "uid=" + address.substr(0, address.find('@')) + ",ou=people,dc=corp,dc=test";
}

/// What is wrong with the answers to users whose numbers are the tags.
std::string wrongIn(QueueLoop const& loop)
{
    std::string wrong;
    for (auto const& [tag, answered] : loop.answers()) {
        int const user = static_cast<int>(tag);
        bool const isRight = answered.key == addressOf(user) &&
                             answered.answer.outcome == Outcome::Found &&
                             answered.answer.entries.size() == 1 &&
                             answered.answer.entries.front().entryName() == nameOf(user);
        wrong += isRight ? std::string() : answered.key + ": " + answered.answer.text + "; ";
    }
    return wrong;
}

bool awaitBySelect(int descriptor)
{
    fd_set read;
    FD_ZERO(&read);
    FD_SET(descriptor, &read);
    timeval timeout{10, 0};
    return select(descriptor + 1, &read, nullptr, nullptr, &timeout) == 1;
}

bool awaitByEpoll(int descriptor)
{
    Descriptor const outer(epoll_create1(EPOLL_CLOEXEC));
    epoll_event event{};
    event.events = EPOLLIN;
    epoll_ctl(outer.number(), EPOLL_CTL_ADD, descriptor, &event);
    return epoll_wait(outer.number(), &event, 1, 10000) == 1;
}

} // namespace

class QueueOnADirectory : public SuiteWithSlapd<QueueOnADirectory> {
public:
    static std::vector<std::string> options() { return {"--users", "2000"}; }

protected:
    static LDAPLookup::Settings settings() { return settingsFor({slapd().port()}); }

    /// Submits users from 1 on; the tag is the user's number.
    static void submitUsers(LDAPLookupQueue& queue, int count)
    {
        for (int user = 1; user <= count; ++user) {
            queue.submit(addressOf(user), static_cast<Tag>(user));
        }
    }
};

TEST_F(QueueOnADirectory, AnswersTwoThousandKeysInFlightEachOnce)
{
    LDAPLookup lookup(settings());
    LDAPLookupQueue queue(lookup);

    submitUsers(queue, 2000);
    std::size_t const pending = queue.pending();
    QueueLoop loop(queue);
    ASSERT_TRUE(loop.runUntil(2000));

    EXPECT_EQ(pending, 2000U);
    EXPECT_EQ(loop.count(), 2000U);
    EXPECT_EQ(loop.answers().size(), 2000U);
    EXPECT_EQ(wrongIn(loop), "");
    EXPECT_EQ(queue.pending(), 0U);
    EXPECT_LE(lookup.statistics().opened, 4U);
}

TEST_F(QueueOnADirectory, AnswersOverTls)
{
    auto secure = settingsFor({slapd().tlsPort()});
    secure.servers[0].secure = true;
    secure.tls.caFile = slapd().caFile().string();
    LDAPLookup lookup(secure);
    LDAPLookupQueue queue(lookup);

    submitUsers(queue, 500);
    QueueLoop loop(queue);
    ASSERT_TRUE(loop.runUntil(500));

    EXPECT_EQ(wrongIn(loop), "");
}

TEST_F(QueueOnADirectory, IsAwaitedBySelectAndEpollToo)
{
    LDAPLookup lookup(settings());
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);
    bool (*const waits[])(int) = {awaitBySelect, awaitByEpoll};

    for (Tag tag = 1; tag <= 20; ++tag) {
        queue.submit(addressOf(static_cast<int>(tag)), tag);
        while (loop.count() < tag) {
            ASSERT_TRUE(waits[tag % 2](queue.descriptor()));
            loop.take();
        }
    }

    EXPECT_EQ(wrongIn(loop), "");
}

TEST_F(QueueOnADirectory, MayBeAskedForOneAnswerAtAWakeUp)
{
    LDAPLookup lookup(settings());
    LDAPLookupQueue queue(lookup);
    submitUsers(queue, 300);
    std::set<Tag> tags;

    while (queue.pending() != 0) {
        ASSERT_TRUE(awaitReadable(queue.descriptor()));
        if (auto const result = queue.next()) {
            tags.insert(result->tag);
        }
    }

    EXPECT_EQ(tags.size(), 300U);
}

TEST_F(QueueOnADirectory, WaitsForAnAnswerIfTold)
{
    LDAPLookup lookup(settings());
    LDAPLookupQueue queue(lookup);
    submitUsers(queue, 10);
    int found = 0;

    for (int key = 0; key < 10; ++key) {
        auto const result = queue.next(std::chrono::hours(1000000));
        found += result && result->answer.outcome == Outcome::Found ? 1 : 0;
    }

    EXPECT_EQ(found, 10);
    EXPECT_FALSE(queue.next(std::chrono::hours(1000000))) << "nothing is pending";
}

TEST_F(QueueOnADirectory, ReturnsItsConnectionsWhenItIsIdleAndTakesThemBack)
{
    auto narrow = settings();
    narrow.connections = 1;
    LDAPLookup lookup(narrow);
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);
    Outcome other = Outcome::TryLater;

    queue.submit(addressOf(1), 1);
    ASSERT_TRUE(loop.runUntil(1));
    std::thread([&] { other = lookup.find(addressOf(2)).outcome; }).join();
    queue.submit(addressOf(3), 3);
    ASSERT_TRUE(loop.runUntil(2));

    EXPECT_EQ(other, Outcome::Found);
    EXPECT_EQ(wrongIn(loop), "");
    EXPECT_EQ(lookup.statistics().opened, 1U);
}

TEST_F(QueueOnADirectory, SharesItsConnectionWithOthersWhileItIsBusy)
{
    auto narrow = settings();
    narrow.connections = 1;
    LDAPLookup lookup(narrow);
    LDAPLookupQueue queue(lookup);
    std::atomic<int> answered{0};
    Outcome other = Outcome::Found;
    Tag tag = 0;
    queue.submit(addressOf(1), ++tag);
    std::thread finder([&] {
        for (int user = 1; user <= 5; ++user, ++answered) {
            auto const outcome = lookup.find(addressOf(user)).outcome;
            other = outcome == Outcome::Found ? other : outcome;
        }
    });

    while (answered < 5) {
        while (queue.pending() < 50) {
            queue.submit(addressOf(static_cast<int>(tag % 100) + 1), tag);
            ++tag;
        }
        awaitReadable(queue.descriptor());
        while (queue.next()) {
        }
    }
    finder.join();

    EXPECT_EQ(other, Outcome::Found);
    EXPECT_EQ(lookup.statistics().opened, 1U);
}

TEST_F(QueueOnADirectory, StaysUsableWhenItsLookupIsMoved)
{
    LDAPLookup first(settings());
    LDAPLookupQueue queue(first);
    queue.submit(addressOf(1), 1);
    LDAPLookup const second(std::move(first));

    QueueLoop loop(queue);
    ASSERT_TRUE(loop.runUntil(1));

    EXPECT_EQ(wrongIn(loop), "");
    EXPECT_EQ(second.statistics().opened, 1U);
}

TEST(AQueue, ReturnsAnswersAsTheyCome)
{
    ScriptedServer server(serving([](Peer& peer, std::string const& request) {
        if (request.find(addressOf(1)) == std::string::npos) {
            answerFound(peer, request);
        }
    }));
    LDAPLookup lookup(settingsFor({server.port()}));
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    for (Tag tag = 1; tag <= 10; ++tag) {
        queue.submit(addressOf(static_cast<int>(tag)), tag);
    }
    ASSERT_TRUE(loop.runUntil(9));

    EXPECT_EQ(loop.answers().count(1), 0U);
    EXPECT_EQ(queue.pending(), 1U);
}

TEST(AQueue, AnswersKeysThatNoServerIsAskedFor)
{
    auto settings = settingsFor({RefusingPort().number()});
    settings.domains = {"corp.test"};
    LDAPLookup lookup(settings);
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    queue.submit("", 1);
    queue.submit("x@other.test", 2);
    ASSERT_TRUE(loop.runUntil(2));

    EXPECT_EQ(loop.answer(1).outcome, Outcome::BadKey);
    EXPECT_EQ(loop.answer(2).outcome, Outcome::Skipped);
}

TEST(AQueue, AnswersThatTheServerIsDown)
{
    RefusingPort const port;
    LDAPLookup lookup(settingsFor({port.number()}));
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    for (Tag tag = 1; tag <= 100; ++tag) {
        queue.submit(addressOf(1), tag);
    }
    ASSERT_TRUE(loop.runUntil(100));

    for (auto const& [tag, answered] : loop.answers()) {
        EXPECT_EQ(answered.answer.outcome, Outcome::TryLater);
    }
}

// Wake-ups

TEST(AQueueInALoop, IsNotWokenWhileItIsIdle)
{
    ScriptedServer server(serving(answerFound));
    auto settings = settingsFor({server.port()});
    settings.deadline = milliseconds(300);
    LDAPLookup lookup(settings);
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);
    queue.submit(addressOf(1), 1);
    ASSERT_TRUE(loop.runUntil(1));
    std::size_t const before = loop.wakeUps();

    loop.runFor(seconds(1));

    EXPECT_LE(loop.wakeUps() - before, 1U) << "the timer of the last key";
    EXPECT_FALSE(awaitReadable(queue.descriptor(), milliseconds(0)));
}

TEST(AQueueInALoop, IsNotWokenWhileAServerIsSilent)
{
    ScriptedServer server(serving(answerNothing));
    auto settings = settingsFor({server.port()});
    settings.deadline = seconds(1);
    LDAPLookup lookup(settings);
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    for (Tag tag = 1; tag <= 10; ++tag) {
        queue.submit(addressOf(1), tag);
    }
    ASSERT_TRUE(loop.runUntil(10));

    EXPECT_EQ(loop.answer(10).outcome, Outcome::TryLater);
    EXPECT_LE(loop.wakeUps(), 20U);
}

TEST(AQueueInALoop, IsNotWokenWhileItWaitsForRoom)
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
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);
    std::thread other([&] { lookup.find(addressOf(1)); });
    bool const isFull = eventually([&] { return searches == 1; });

    queue.submit(addressOf(2), 2);
    loop.runFor(milliseconds(300));
    std::size_t const wakeUps = loop.wakeUps();
    server.giveCue();
    bool const isAnswered = loop.runUntil(1);
    other.join();

    EXPECT_TRUE(isFull);
    EXPECT_LE(wakeUps, 2U);
    ASSERT_TRUE(isAnswered) << "room in the pool woke nobody";
    EXPECT_EQ(loop.answer(2).outcome, Outcome::Found);
}

// The new socket gets the number of the closed one, in the same call.
TEST(AQueueInALoop, IsWokenByAConnectionThatReplacesABrokenOne)
{
    std::atomic<int> searches{0};
    ScriptedServer server(serving([&](Peer& peer, std::string const& request) {
        if (++searches % 3 == 0) {
            peer.reset();
        } else {
            answerFound(peer, request);
        }
    }));
    auto settings = settingsFor({server.port()});
    settings.connections = 1;
    settings.deadline = seconds(60);
    settings.networkTimeout = 60;
    LDAPLookup lookup(settings);
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    for (Tag tag = 1; tag <= 20; ++tag) {
        queue.submit(addressOf(1), tag);
        ASSERT_TRUE(loop.runUntil(tag));
        EXPECT_EQ(loop.answer(tag).outcome, Outcome::Found) << loop.answer(tag).text;
    }

    EXPECT_GE(lookup.statistics().repeated, 5U);
}

TEST(AQueueInALoop, IsWokenByWhatIsLeftOverFromABurst)
{
    ScriptedServer server(serving(answerFound));
    auto settings = settingsFor({server.port()});
    settings.connections = 1;
    settings.window = 2;
    settings.answerBytes = 1024; // a few answers that wait hold the others back
    LDAPLookup lookup(settings);
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    for (Tag tag = 1; tag <= 500; ++tag) {
        queue.submit(addressOf(1), tag);
    }

    EXPECT_TRUE(loop.runUntil(500));
}

// Time

TEST(AQueueWithDeadlines, CountsThemFromSubmission)
{
    ScriptedServer server(serving(answerNothing));
    auto settings = settingsFor({server.port()});
    settings.connections = 1;
    settings.window = 1;
    settings.deadline = milliseconds(300);
    LDAPLookup lookup(settings);
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);
    auto const start = std::chrono::steady_clock::now();

    for (Tag tag = 1; tag <= 200; ++tag) {
        queue.submit(addressOf(1), tag);
    }
    ASSERT_TRUE(loop.runUntil(200));

    // One after another, they would take a minute.
    EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(20));
    EXPECT_EQ(loop.answer(200).outcome, Outcome::TryLater);
    EXPECT_EQ(loop.answer(200).code, -5);
    EXPECT_THAT(loop.answer(200).text, HasSubstr("within the deadline of 0.300 s"));
    EXPECT_LE(server.receivedCount(), 20U);
}

TEST(AQueueWithDeadlines, EndsAKeyForWhichNoConnectionBecomesFree)
{
    ScriptedServer server(serving(answerFound));
    auto settings = settingsFor({server.port()});
    settings.connections = 1;
    settings.deadline = milliseconds(500);
    LDAPLookup lookup(settings);
    std::promise<void> isFull;
    std::promise<void> isOver;
    std::thread other([&] { // a run whose sink takes its time holds the only connection
        lookup.findAll(sourceOf({addressOf(1)}), [&](std::string const&, LDAPLookup::Answer&&) {
            isFull.set_value();
            isOver.get_future().wait();
            return true;
        });
    });
    isFull.get_future().wait();
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    queue.submit(addressOf(2), 2);
    queue.submit(addressOf(3), 3);
    bool const isAnswered = loop.runUntil(2);
    isOver.set_value();
    other.join();

    ASSERT_TRUE(isAnswered);
    EXPECT_EQ(countOf(SearchRequest, server.received()), 1U);
    for (Tag const tag : {2U, 3U}) {
        EXPECT_EQ(loop.answer(tag).outcome, Outcome::TryLater);
        EXPECT_THAT(loop.answer(tag).text, HasSubstr("no connection became free"));
    }
}

TEST(AQueueWhoseLoopIsBusy, TakesWhatArrivedMeanwhileEvenAfterTheDeadline)
{
    std::atomic<int> searches{0};
    ScriptedServer server(serving([&](Peer& peer, std::string const& request) {
        answerFound(peer, request);
        ++searches;
    }));
    auto settings = settingsFor({server.port()});
    settings.networkTimeout = 1;
    settings.deadline = milliseconds(500);
    LDAPLookup lookup(settings);
    lookup.find(addressOf(1));
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    for (Tag tag = 1; tag <= 20; ++tag) {
        queue.submit(addressOf(1), tag);
    }
    loop.take();
    ASSERT_TRUE(eventually([&] { return searches == 21; }));
    std::this_thread::sleep_for(milliseconds(700)); // the deadline, while the loop does other work
    loop.take();

    ASSERT_EQ(loop.count(), 20U);
    EXPECT_EQ(loop.answer(20).outcome, Outcome::Found) << loop.answer(20).text;
    EXPECT_EQ(lookup.statistics().repeated, 0U);
}

TEST(AQueueWhoseLoopIsBusy, EndsKeysThatWereNotSentInTime)
{
    ScriptedServer server(serving(answerFound));
    auto settings = settingsFor({server.port()});
    settings.deadline = milliseconds(300);
    LDAPLookup lookup(settings);
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    queue.submit(addressOf(1), 1);
    std::this_thread::sleep_for(milliseconds(400)); // the deadline
    loop.take();

    ASSERT_EQ(loop.count(), 1U);
    EXPECT_EQ(loop.answer(1).outcome, Outcome::TryLater);
    EXPECT_EQ(server.connectionCount(), 0U);
}

// The server did its part at once. Its connection would not be open in half of the deadline.
TEST(AQueueWhoseLoopIsBusy, DoesNotCountTheTimeAgainstTheServer)
{
    ScriptedServer first(serving(answerFound));
    ScriptedServer second(serving(answerFound));
    auto settings = settingsFor({first.port(), second.port()});
    settings.deadline = seconds(6);
    LDAPLookup lookup(settings);
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    queue.submit(addressOf(1), 1);
    loop.take();
    ASSERT_TRUE(eventually([&] { return first.connectionCount() == 1; }));
    std::this_thread::sleep_for(milliseconds(3200)); // longer than the server's share
    ASSERT_TRUE(loop.runUntil(1));

    EXPECT_EQ(loop.answer(1).outcome, Outcome::Found) << loop.answer(1).text;
    EXPECT_THAT(loop.answer(1).server, HasSubstr(std::to_string(first.port())));
    EXPECT_EQ(second.connectionCount(), 0U);
}

// Failures

TEST(AQueueInTrouble, GoesOnWithTheSecondServerWhenTheFirstIsKilled)
{
    Slapd first({"--users", "200"});
    Slapd second({"--users", "200"});
    LDAPLookup lookup(settingsFor({first.port(), second.port()}));
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    for (Tag tag = 1; tag <= 2000; ++tag) {
        queue.submit(addressOf(static_cast<int>(tag % 200) + 1), tag);
    }
    ASSERT_TRUE(loop.runUntil(500));
    first.kill();
    ASSERT_TRUE(loop.runUntil(2000));

    for (auto const& [tag, answered] : loop.answers()) {
        ASSERT_EQ(answered.answer.outcome, Outcome::Found) << answered.answer.text;
        ASSERT_EQ(answered.answer.entries.front().entryName(),
                  nameOf(static_cast<int>(tag % 200) + 1));
    }
    EXPECT_EQ(loop.count(), 2000U);
}

TEST(AQueueInTrouble, NeedsDescriptors)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "UndefinedBehaviorSanitizer needs a pipe to look at an exception";
#endif
    RefusingPort const port;
    LDAPLookup lookup(settingsFor({port.number()}));
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit none = before;
    none.rlim_cur = 3;
    setrlimit(RLIMIT_NOFILE, &none);

    EXPECT_THROW(LDAPLookupQueue{lookup}, std::system_error);

    setrlimit(RLIMIT_NOFILE, &before);
}

} // namespace SolvaneTest
