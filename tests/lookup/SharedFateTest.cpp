// What one key, run or thread meets must not be another one's fault or end.
#include "Eventually.h"
#include "LdapMessages.h"
#include "Lookups.h"
#include "NameServer.h"
#include "ScriptedServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Solvane;
using Lookup::Outcome;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::HasSubstr;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

/// Settings for a domain that names its servers, as this name server knows them.
LDAPLookup::Settings settingsOf(NameServer const& names)
{
    LDAPLookup::Settings settings = settingsFor(std::vector<unsigned int>{1});
    settings.servers.front().host.clear();
    settings.servers.front().srvDomain = "corp.test";
    settings.nameServers = {names.address()};
    return settings;
}

/// Waits until both of two threads have come.
class Meeting {
public:
    void wait()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_here;
        m_changed.notify_all();
        m_changed.wait(lock, [&] { return m_here >= 2; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_here = 0;
};

Lookup::Answer answerOfARun(LDAPLookup& lookup, std::string const& key)
{
    return answersTo(lookup, {key}).front().answer;
}

} // namespace

class TwoRunsThatFailOver : public testing::TestWithParam<int> {};

TEST_P(TwoRunsThatFailOver, DoNotWaitForEachOthersConnections)
{
    Meeting both;
    ScriptedServer first(serving([&](Peer& peer, std::string const& request) {
        both.wait(); // each has a connection to this one
        peer.send(searchDone(messageIdOf(request), GetParam()));
    }));
    ScriptedServer second(serving(answerFound));
    auto settings = settingsFor({first.port(), second.port()});
    settings.connections = 2;
    settings.window = 1;
    LDAPLookup lookup(settings);

    auto one = std::async(std::launch::async, [&] { return answerOfARun(lookup, addressOf(1)); });
    auto const other = answerOfARun(lookup, addressOf(2));

    EXPECT_EQ(one.get().outcome, Outcome::Found);
    EXPECT_EQ(other.outcome, Outcome::Found);
}

INSTANTIATE_TEST_SUITE_P(WhateverTheServerSays, TwoRunsThatFailOver, testing::Values(51, 32));

/// OpenLDAP's own codes for a lost server and a local error.
class ANegativeResultCode : public testing::TestWithParam<int> {};

TEST_P(ANegativeResultCode, IsTheAnswerToItsKeyAndLeavesTheOthersAlone)
{
    std::string first;
    ScriptedServer const server(serving([&](Peer& peer, std::string const& request) {
        if (first.empty()) { // answered when the second search is in flight too
            first = request;
            return;
        }
        std::string const code(1, static_cast<char>(GetParam()));
        std::string const noTexts("\x04\0\x04\0", 4);
        peer.send(
            ldapMessage(messageIdOf(first), berElement(0x65, berElement(0x0a, code) + noTexts)));
        answerFound(peer, request);
    }));
    LDAPLookup lookup(settingsFor({server.port()}));

    auto const answers = answersTo(lookup, {addressOf(1), addressOf(2)});
    auto const next = lookup.find(addressOf(3));

    EXPECT_EQ(answers.front().answer.outcome, Outcome::TryLater);
    EXPECT_EQ(answers.front().answer.code, GetParam());
    EXPECT_EQ(answers.back().answer.outcome, Outcome::Found);
    EXPECT_FALSE(answers.back().answer.wasRepeated);
    EXPECT_FALSE(next.wasRepeated);
    EXPECT_EQ(server.connectionCount(), 1U);
}

INSTANTIATE_TEST_SUITE_P(OfOpenLdap, ANegativeResultCode, testing::Values(-1, -2));

TEST(AKeyWhoseTimeEnds, IsToBeTriedLaterIfAnotherServerHangs)
{
    ScriptedServer first(serving([](Peer& peer, std::string const& request) {
        peer.send(searchDone(messageIdOf(request), 32));
    }));
    HangingPort second;
    auto settings = settingsFor({first.port(), second.number()});
    settings.deadline = milliseconds(500);
    LDAPLookup lookup(settings);

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::TryLater);
    EXPECT_THAT(answer.text, HasSubstr("32"));
}

TEST(AKeyThatWaitsForAnotherServer, DoesNotHoldUpThoseThatNeedNot)
{
    ScriptedServer first(serving([](Peer& peer, std::string const& request) {
        if (request.find("poison") != std::string::npos) {
            peer.send(searchDone(messageIdOf(request), 11));
        } else {
            answerFound(peer, request);
        }
    }));
    HangingPort second;
    auto settings = settingsFor({first.port(), second.number()});
    settings.deadline = seconds(5);
    settings.connections = 4;
    LDAPLookup lookup(settings);
    ASSERT_EQ(lookup.find(addressOf(1)).outcome, Outcome::Found);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    constexpr int goodKeys = 10;
    std::atomic<int> searched{0};
    int taken = 0;
    bool isOver = false;
    std::atomic<bool> wasPoisonLast{false};
    int answered = 0;

    // The poisoned key comes first, then one key whenever the one before it was sent.
    auto const source = [&](std::string& key, bool) {
        if (isOver) {
            return LDAPLookup::Supply::end;
        }
        char byte = 0;
        if (taken != 0 && read(ends[0], &byte, 1) != 1) {
            return LDAPLookup::Supply::nothing;
        }
        key = taken == 0 ? "poison@corp.test" : addressOf(taken);
        isOver = ++taken > goodKeys;
        return LDAPLookup::Supply::key;
    };
    std::thread writer([&] {
        for (int count = 0; count < goodKeys; ++count) {
            EXPECT_TRUE(eventually([&] {
                return countOf(0x63, first.received()) >= static_cast<std::size_t>(count) + 2;
            }));
            EXPECT_EQ(write(ends[1], "k", 1), 1);
        }
        EXPECT_TRUE(eventually(
            [&] { return countOf(0x63, first.received()) >= std::size_t{goodKeys} + 2; }));
        ++searched;
    });
    lookup.findAll(source, ends[0], [&](std::string const& key, LDAPLookup::Answer&& answer) {
        if (key == "poison@corp.test") {
            wasPoisonLast = searched == 1; // all others were sent before it ended
            EXPECT_EQ(answer.outcome, Outcome::TryLater);
        } else {
            EXPECT_EQ(answer.outcome, Outcome::Found);
        }
        ++answered;
        return true;
    });
    writer.join();
    close(ends[0]);
    close(ends[1]);

    EXPECT_TRUE(wasPoisonLast);
    EXPECT_EQ(answered, goodKeys + 1);
}

TEST(AServerThatAnswersOthers, IsNotBlamedForOneSlowSearch)
{
    ScriptedServer first(serving([](Peer& peer, std::string const& request) {
        if (request.find("slow") == std::string::npos) {
            answerFound(peer, request);
        }
    }));
    ScriptedServer second(serving(answerFound));
    auto settings = settingsFor({first.port(), second.port()});
    settings.networkTimeout = 1;
    settings.backOff = settings.longestBackOff = std::chrono::hours(1);
    LDAPLookup lookup(settings);
    std::string const uri = "ldap://127.0.0.1:" + std::to_string(first.port());

    auto slow = std::async(std::launch::async, [&] { return lookup.find("slow@corp.test"); });
    while (slow.wait_for(milliseconds(5)) != std::future_status::ready) {
        EXPECT_EQ(lookup.find(addressOf(1)).outcome, Outcome::Found);
    }

    EXPECT_EQ(slow.get().outcome, Outcome::Found);
    EXPECT_EQ(lookup.find(addressOf(1)).server, uri);
}

TEST(AnOwnerThatIsSlow, DoesNotKeepOthersFromBinding)
{
    ScriptedServer server(serving(answerFound));
    auto settings = settingsFor({server.port()});
    settings.domains = {"corp.test"};
    settings.deadline = seconds(2);
    LDAPLookup lookup(settings);
    std::promise<void> isHeld;
    std::promise<void> mayGoOn;

    // Its second key has begun the first bind of all when its first answer comes.
    std::thread run([&] {
        lookup.findAll(sourceOf({"x@other.test", addressOf(1)}),
                       [&](std::string const& key, LDAPLookup::Answer&& answer) {
                           if (key == "x@other.test") {
                               isHeld.set_value();
                               mayGoOn.get_future().wait();
                           } else {
                               EXPECT_EQ(answer.outcome, Outcome::Found);
                           }
                           return true;
                       });
    });
    isHeld.get_future().wait();

    EXPECT_EQ(lookup.find(addressOf(2)).outcome, Outcome::Found);

    mayGoOn.set_value();
    run.join();
    EXPECT_EQ(lookup.find(addressOf(3)).outcome, Outcome::Found);
}

// Domains that name their servers

TEST(ADomainThatDoesNotResolveAnyMore, KeepsItsServersInUse)
{
    NameServer names;
    std::atomic<bool> isDown{false};
    auto const answer = serving(answerFound);
    ScriptedServer server([&](Peer& peer) {
        if (isDown) {
            peer.reset();
        } else {
            answer(peer);
        }
    });
    names.addService("_ldap._tcp.corp.test", 0, 0, server.port(), "127.0.0.1");
    auto settings = settingsOf(names);
    settings.deadline = seconds(3);
    settings.backOff = settings.longestBackOff = milliseconds(200);
    LDAPLookup lookup(settings);
    isDown = true;
    EXPECT_EQ(lookup.find(addressOf(1)).outcome, Outcome::TryLater);
    isDown = false;
    names.fallSilent();
    std::size_t const asked = names.asked().size();

    // Answers come although, after a while, the servers are asked for again.
    EXPECT_TRUE(eventually([&] { return lookup.find(addressOf(1)).outcome == Outcome::Found; }));
    EXPECT_TRUE(eventually([&] {
        EXPECT_EQ(lookup.find(addressOf(1)).outcome, Outcome::Found);
        return names.asked().size() > asked;
    }));
}

TEST(ADomainThatNamesAnotherServer, LeadsToItWithShortLookupsOnly)
{
    NameServer names;
    std::atomic<bool> isDown{false};
    auto const answer = serving([&](Peer& peer, std::string const& request) {
        if (isDown) {
            peer.reset();
        } else {
            answerFound(peer, request);
        }
    });
    ScriptedServer first([&](Peer& peer) {
        if (isDown) {
            peer.reset();
        } else {
            answer(peer);
        }
    });
    ScriptedServer second(serving(answerFound));
    names.addService("_ldap._tcp.corp.test", 0, 0, first.port(), "127.0.0.1");
    LDAPLookup lookup(settingsOf(names));
    ASSERT_EQ(lookup.find(addressOf(1)).outcome, Outcome::Found);
    names.addService("_ldap._tcp.corp.test", 5, 0, second.port(), "127.0.0.1");
    std::string const uri = "ldap://127.0.0.1:" + std::to_string(second.port());

    isDown = true;

    EXPECT_TRUE(eventually([&] { return lookup.find(addressOf(1)).server == uri; }));
}

TEST(AForkWhileADomainIsResolved, LeavesTheChildAbleToResolveIt)
{
    NameServer names;
    ScriptedServer server(serving(answerFound));
    names.addService("_ldap._tcp.corp.test", 0, 0, server.port(), "127.0.0.1");
    names.fallSilent();
    auto settings = settingsOf(names);
    settings.deadline = seconds(2);
    LDAPLookup lookup(settings);
    auto parents = std::async(std::launch::async, [&] { return lookup.find(addressOf(1)); });
    ASSERT_TRUE(eventually([&] { return !names.asked().empty(); }));
    std::size_t const asked = names.asked().size();

    pid_t const child = fork();
    if (child == 0) {
        lookup.find(addressOf(2)); // in vain, but not without a question of its own
        _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);

    EXPECT_EQ(parents.get().outcome, Outcome::TryLater);
    EXPECT_GT(names.asked().size(), asked);
}

TEST(ADomainThatNamesAForeignHost, IsNotBelievedIfCertificatesAreToProveWhoItIs)
{
    NameServer names;
    names.addService("_ldaps._tcp.corp.test", 0, 0, 636, "ldap.attacker.test");
    auto settings = settingsOf(names);
    settings.servers.front().secure = true;
    LDAPLookup lookup(settings);

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Misconfigured);
    EXPECT_EQ(answer.text, "_ldaps._tcp.corp.test names only hosts outside of corp.test, as "
                           "ldap.attacker.test: their certificates prove nothing; set the servers "
                           "by their names");
}

TEST(ADomainThatCannotBeAskedFor, EndsALookupAtOnceEvenWithoutABackOff)
{
    NameServer names;
    auto settings = settingsOf(names);
    settings.nameServers = {"not an address"};
    settings.backOff = milliseconds(0);
    LDAPLookup lookup(settings);

    EXPECT_NE(lookup.find(addressOf(1)).outcome, Outcome::Found);
}

} // namespace SolvaneTest
