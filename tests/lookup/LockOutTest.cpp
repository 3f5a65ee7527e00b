// With a wrong password, few binds are sent.
#include "Eventually.h"
#include "LdapMessages.h"
#include "Lookups.h"
#include "ScriptedServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace Solvane;
using Lookup::Outcome;
using std::chrono::milliseconds;
using testing::Each;
using testing::Field;
using testing::HasSubstr;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

/// Refuses binds, until told otherwise.
class RefusingServer {
public:
    std::size_t binds() const { return countOf(BindRequest, m_server.received()); }
    unsigned int port() const { return m_server.port(); }
    void accept() { m_accepts = true; }
    void giveCue() { m_server.giveCue(); }

private:
    void play(Peer& peer)
    {
        if (m_accepts) {
            return serving(answerFound)(peer);
        }
        std::string const bind = peer.receiveMessage();
        if (!bind.empty()) {
            peer.awaitCue();
            peer.send(bindResponse(messageIdOf(bind), 49));
            peer.receiveUntilClosed();
        }
    }

    std::atomic<bool> m_accepts{false};
    ScriptedServer m_server{[this](Peer& peer) { play(peer); }};
};

std::vector<LDAPLookup::Answer> findOnThreads(
    LDAPLookup& lookup, std::size_t threads, std::function<void()> const& meanwhile = [] {})
{
    std::vector<LDAPLookup::Answer> answers(threads);
    std::vector<std::thread> running;
    for (LDAPLookup::Answer& answer : answers) {
        running.emplace_back([&] { answer = lookup.find(addressOf(1)); });
    }
    meanwhile();
    for (std::thread& thread : running) {
        thread.join();
    }
    return answers;
}

auto const isRefused = testing::AllOf(Field(&LDAPLookup::Answer::outcome, Outcome::Refused),
                                      Field(&LDAPLookup::Answer::code, 49));

LDAPLookup::Settings settingsForThreads(std::vector<unsigned int> const& ports)
{
    auto settings = settingsFor(ports);
    settings.connections = 16;
    return settings;
}

} // namespace

TEST(AWrongPassword, IsSentOnceForManyThreads)
{
    RefusingServer server;
    LDAPLookup lookup(settingsForThreads({server.port()}));

    auto const answers = findOnThreads(lookup, 16, [&] {
        eventually([&] { return server.binds() != 0; });
        server.giveCue();
    });
    auto const later = findOnThreads(lookup, 16);

    EXPECT_THAT(answers, Each(isRefused));
    EXPECT_THAT(later, Each(isRefused));
    EXPECT_THAT(later.front().text, HasSubstr("not tried again for 60 s"));
    EXPECT_THAT(later.front().text, testing::Not(HasSubstr(readerPassword)));
    EXPECT_EQ(server.binds(), 1U);
}

TEST(AWrongPassword, IsSentOnceAgainWhenTheHoldIsOver)
{
    RefusingServer server;
    server.giveCue();
    auto settings = settingsForThreads({server.port()});
    settings.refusedHold = milliseconds(1);
    LDAPLookup lookup(settings);
    lookup.find(addressOf(1));

    bool const wasSent = eventually([&] {
        lookup.find(addressOf(1));
        return server.binds() == 2;
    });

    EXPECT_TRUE(wasSent);
}

TEST(AWrongPassword, IsNotTriedOnTheOtherServersMeanwhile)
{
    RefusingServer first;
    RefusingServer second;
    first.giveCue();
    LDAPLookup lookup(settingsForThreads({first.port(), second.port()}));

    auto const answers = findOnThreads(lookup, 16);

    EXPECT_THAT(answers, Each(isRefused));
    EXPECT_EQ(first.binds(), 1U);
    EXPECT_EQ(second.binds(), 0U);
}

TEST(AWrongPassword, IsTriedOnTheNextServerWhenTheHoldIsOver)
{
    RefusingServer first;
    RefusingServer second;
    first.giveCue();
    second.accept();
    auto settings = settingsForThreads({first.port(), second.port()});
    settings.refusedHold = milliseconds(1);
    LDAPLookup lookup(settings);
    lookup.find(addressOf(1));

    bool const isServed =
        eventually([&] { return lookup.find(addressOf(1)).outcome == Outcome::Found; });

    EXPECT_TRUE(isServed);
    EXPECT_EQ(first.binds(), 1U);
}

TEST(ARightPassword, IsSentByAllThreadsOnceItWasAccepted)
{
    ScriptedServer const server(serving(answerFound));
    LDAPLookup lookup(settingsForThreads({server.port()}));

    auto const answers = findOnThreads(lookup, 16);

    EXPECT_THAT(answers, Each(Field(&LDAPLookup::Answer::outcome, Outcome::Found)));
}

TEST(ANewLookup, TriesItsPasswordAtOnce)
{
    RefusingServer server;
    server.giveCue();
    LDAPLookup wrong(settingsFor({server.port()}));
    wrong.find(addressOf(1));
    server.accept();

    LDAPLookup right(settingsFor({server.port()}));

    EXPECT_EQ(right.find(addressOf(1)).outcome, Outcome::Found);
}

} // namespace SolvaneTest
