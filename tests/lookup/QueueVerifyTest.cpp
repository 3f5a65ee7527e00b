// Passwords in a queue: each gets its own verification, and no other one's.
#include "Eventually.h"
#include "Lookups.h"
#include "Process.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>

using namespace Solvane;
using Lookup::Denial;
using Lookup::Outcome;
using Lookup::VerifyOutcome;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

constexpr int users = 40;
constexpr char password[] = "correct horse";

std::string passwordOf(int user) { return "pw-" + addressOf(user).substr(0, 11); }

/// The DN of a user at scripted servers.
std::string dnOf(std::string const& address) { return "uid=" + address + ",dc=corp,dc=test"; }

/// Finds the entry of any user.
void answerUser(Peer& peer, std::string const& request)
{
    std::size_t const at = request.find("user");
    std::string const address = request.substr(at, addressOf(1).size());
    int const id = messageIdOf(request);
    peer.send(searchEntry(id, dnOf(address), {}) + searchDone(id));
}

/// Accepts a password if it is that of the user.
void judge(Peer& peer, std::string const& request)
{
    bool const isRight = bindContentOf(request).password == password;
    peer.send(bindResponse(messageIdOf(request), isRight ? 0 : 49));
}

/// The DNs of the binds as users, in order of arrival.
std::vector<std::string> loginsAt(ScriptedServer const& server)
{
    std::vector<std::string> logins;
    for (std::string const& message : server.received()) {
        if (operationOf(message) == BindRequest && bindContentOf(message).dn != readerDn) {
            logins.push_back(bindContentOf(message).dn);
        }
    }
    return logins;
}

/// Takes answers until the condition is true; false: it is still false after ten seconds.
template <typename Condition> bool runUntil(QueueLoop& loop, Condition condition)
{
    auto const end = std::chrono::steady_clock::now() + seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        loop.runFor(milliseconds(5));
    }
    return true;
}

} // namespace

class PasswordInAQueue : public SuiteWithSlapd<PasswordInAQueue> {
public:
    static std::vector<std::string> options() { return {"--users", std::to_string(users)}; }

protected:
    static LDAPLookup::Settings settings() { return settingsFor({slapd().port()}); }
};

TEST_F(PasswordInAQueue, IsAcceptedOrDeniedOrItsUserIsNotFound)
{
    LDAPLookup lookup(settings());
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    queue.submitVerify(addressOf(1), passwordOf(1), 1);
    queue.submitVerify(addressOf(2), passwordOf(1), 2);
    queue.submitVerify("nobody@corp.test", passwordOf(1), 3);
    EXPECT_EQ(queue.pending(), 3U);
    ASSERT_TRUE(loop.runUntil(3));

    auto const& accepted = loop.verification(1);
    EXPECT_EQ(accepted.outcome, VerifyOutcome::Accepted) << accepted.text;
    EXPECT_EQ(accepted.dn, "uid=user0000001,ou=people,dc=corp,dc=test");
    EXPECT_EQ(accepted.server, "ldap://127.0.0.1:" + std::to_string(slapd().port()));
    EXPECT_GT(accepted.milliseconds, 0);
    EXPECT_EQ(loop.verification(2).outcome, VerifyOutcome::Denied);
    EXPECT_EQ(loop.verification(2).denial, Denial::password);
    EXPECT_EQ(loop.verification(3).outcome, VerifyOutcome::NotFound);
    EXPECT_EQ(queue.pending(), 0U);
    EXPECT_FALSE(awaitReadable(queue.descriptor(), milliseconds(0)));
}

// A caller that mistakes it for a lookup must not take an entry that was found for a login.
TEST_F(PasswordInAQueue, IsReturnedWithItsKeyAndWithoutAnAnswer)
{
    LDAPLookup lookup(settings());
    LDAPLookupQueue queue(lookup);

    queue.submitVerify(addressOf(1), passwordOf(1), 7);
    auto const result = queue.next(seconds(10));

    ASSERT_TRUE(result && result->verification);
    EXPECT_EQ(result->tag, 7U);
    EXPECT_EQ(result->key, addressOf(1));
    EXPECT_EQ(result->answer.outcome, Outcome::TryLater);
    EXPECT_TRUE(result->answer.entries.empty());
}

TEST_F(PasswordInAQueue, IsVerifiedBesideLookups)
{
    LDAPLookup lookup(settings());
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);
    constexpr int count = 300;

    for (int i = 0; i < count; ++i) {
        int const user = 1 + i % users;
        switch (i % 3) {
        case 0:
            queue.submit(addressOf(user), static_cast<Tag>(i));
            break;
        case 1:
            queue.submitVerify(addressOf(user), passwordOf(user), static_cast<Tag>(i));
            break;
        default: // that of another user
            queue.submitVerify(addressOf(user), passwordOf(user % users + 1), static_cast<Tag>(i));
        }
    }
    ASSERT_TRUE(loop.runUntil(count));

    for (int i = 0; i < count; ++i) {
        auto const tag = static_cast<Tag>(i);
        if (i % 3 == 0) {
            EXPECT_EQ(loop.answer(tag).outcome, Outcome::Found) << loop.answer(tag).text;
            EXPECT_EQ(loop.verifications().count(tag), 0U);
        } else {
            EXPECT_EQ(loop.verification(tag).outcome,
                      i % 3 == 1 ? VerifyOutcome::Accepted : VerifyOutcome::Denied)
                << loop.verification(tag).text;
        }
    }
    EXPECT_LE(lookup.statistics().opened, 4U + 2U);
}

TEST_F(PasswordInAQueue, IsVerifiedWithTheSettingsOfItsTime)
{
    LDAPLookup lookup(settings());
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);
    for (Tag tag = 1; tag <= 20; ++tag) {
        queue.submitVerify(addressOf(1), passwordOf(1), tag);
    }
    loop.take(); // sends some

    auto next = settings();
    next.verifyConnections = 1;
    lookup.reconfigure(next);
    queue.submitVerify(addressOf(2), passwordOf(1), 21);
    ASSERT_TRUE(loop.runUntil(21));

    for (Tag tag = 1; tag <= 20; ++tag) {
        EXPECT_EQ(loop.verification(tag).outcome, VerifyOutcome::Accepted);
    }
    EXPECT_EQ(loop.verification(21).outcome, VerifyOutcome::Denied);
}

TEST_F(PasswordInAQueue, IsVerifiedByAForkedChildForItself)
{
    LDAPLookup lookup(settings());
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);
    for (int user = 1; user <= 20; ++user) {
        queue.submitVerify(addressOf(user), passwordOf(user), static_cast<Tag>(user));
    }
    ASSERT_TRUE(loop.runUntil(1)); // others are under way

    ForkedProcess child([&]() -> std::string {
        if (queue.pending() != 0 || awaitReadable(queue.descriptor(), milliseconds(0))) {
            return "passwords of the parent are pending";
        }
        QueueLoop own(queue);
        queue.submitVerify(addressOf(1), passwordOf(2), 1);
        queue.submitVerify(addressOf(2), passwordOf(2), 2);
        if (!own.runUntil(2)) {
            return "no answer";
        }
        bool const isRight = own.verification(1).outcome == VerifyOutcome::Denied &&
                             own.verification(2).outcome == VerifyOutcome::Accepted;
        return isRight ? "" : own.verification(1).text + ", " + own.verification(2).text;
    });
    EXPECT_EQ(child.complaint(), "");
    ASSERT_TRUE(loop.runUntil(20));

    for (auto const& [tag, verification] : loop.verifications()) {
        EXPECT_EQ(verification.outcome, VerifyOutcome::Accepted) << tag << verification.text;
    }
    EXPECT_EQ(lookup.statistics().repeated, 0U);
}

TEST(PasswordInAQueueThatIsInvalid, IsNotSent)
{
    ScriptedServer const server(loginServer(judge, answerUser));
    auto settings = settingsFor({server.port()});
    settings.domains = {"corp.test"};
    LDAPLookup lookup(settings);
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    queue.submitVerify(addressOf(1), "", 1);
    queue.submitVerify(addressOf(1), " ", 2);
    queue.submitVerify(addressOf(1), std::string("\0pass", 5), 3);
    queue.submitVerify("", password, 4);
    queue.submitVerify("anna@other.test", password, 5);
    ASSERT_TRUE(loop.runUntil(5));

    for (Tag tag = 1; tag <= 4; ++tag) {
        EXPECT_EQ(loop.verification(tag).outcome, VerifyOutcome::BadKey) << tag;
    }
    EXPECT_EQ(loop.verification(5).outcome, VerifyOutcome::Skipped);
    EXPECT_EQ(server.connectionCount(), 0U);
}

// Permission

TEST_F(PasswordInAQueue, IsSentOnlyIfItsCallerPermitsTheBind)
{
    LDAPLookup lookup(settings());
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);
    std::vector<std::string> asked;
    auto const answering = [&asked](bool answer) {
        return [&asked, answer](std::string const& dn) {
            asked.push_back(dn);
            return answer;
        };
    };

    queue.submitVerify(addressOf(1), passwordOf(1), 1, answering(false));
    queue.submitVerify("nobody@corp.test", passwordOf(1), 2, answering(false));
    ASSERT_TRUE(loop.runUntil(2));
    auto const servers = lookup.verifyServers();
    queue.submitVerify(addressOf(1), passwordOf(1), 3, answering(true));
    ASSERT_TRUE(loop.runUntil(3));

    EXPECT_EQ(loop.verification(1).outcome, VerifyOutcome::TryLater);
    EXPECT_EQ(loop.verification(1).text, "the bind was not permitted, and not sent");
    EXPECT_EQ(loop.verification(2).outcome, VerifyOutcome::NotFound);
    EXPECT_EQ(loop.verification(3).outcome, VerifyOutcome::Accepted);
    std::string const dn = "uid=user0000001,ou=people,dc=corp,dc=test";
    EXPECT_THAT(asked, ElementsAre(dn, dn));
    ASSERT_EQ(servers.size(), 1U);
    EXPECT_EQ(servers.front().answered, 0U);
    EXPECT_EQ(lookup.verifyServers().front().answered, 1U);
}

TEST(BindOfAQueue, IsPermittedAnewForEachServer)
{
    ScriptedServer const broken(
        loginServer([](Peer& peer, std::string const&) { peer.reset(); }, answerUser));
    ScriptedServer const sound(loginServer(judge, answerUser));
    auto settings = settingsFor({broken.port(), sound.port()});
    LDAPLookup lookup(settings);
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);
    int permitted = 0;

    queue.submitVerify(addressOf(1), password, 1,
                       [&](std::string const&) { return ++permitted > 0; });
    ASSERT_TRUE(loop.runUntil(1));

    EXPECT_EQ(loop.verification(1).outcome, VerifyOutcome::Accepted);
    EXPECT_GE(permitted, 2);
}

// Connections

TEST(BindsOfAQueue, AreAsManyAtATimeAsTheSettingsAllow)
{
    std::atomic<int> underWay{0};
    std::atomic<int> most{0};
    ScriptedServer server(loginServer(
        [&](Peer& peer, std::string const& request) {
            int const now = ++underWay;
            for (int known = most; known < now && !most.compare_exchange_weak(known, now);) {
            }
            peer.awaitCue();
            --underWay;
            judge(peer, request);
        },
        answerUser));
    auto settings = settingsFor({server.port()});
    settings.connections = 1;
    settings.verifyConnections = 3;
    LDAPLookup lookup(settings);
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    for (Tag tag = 1; tag <= 50; ++tag) {
        queue.submitVerify(addressOf(1), password, tag);
    }
    bool const areFull = runUntil(loop, [&] { return underWay == 3; });
    server.giveCue();
    ASSERT_TRUE(loop.runUntil(50));

    EXPECT_TRUE(areFull);
    EXPECT_EQ(most, 3);
    EXPECT_EQ(server.connectionCount(), 1U + 3U);
    EXPECT_EQ(loop.verification(50).outcome, VerifyOutcome::Accepted);
}

TEST(BindsOfAQueue, DoNotHoldUpLookups)
{
    ScriptedServer server(loginServer(
        [&](Peer& peer, std::string const& request) {
            peer.awaitCue();
            judge(peer, request);
        },
        answerUser));
    auto settings = settingsFor({server.port()});
    settings.connections = settings.verifyConnections = 1;
    settings.window = 4;
    LDAPLookup lookup(settings);
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    for (Tag tag = 1; tag <= 100; ++tag) {
        queue.submitVerify(addressOf(1), password, 1000 + tag);
        queue.submit(addressOf(1), tag);
    }
    bool const areAnswered = loop.runUntil(100);
    std::size_t const verified = loop.verifications().size();
    server.giveCue();
    ASSERT_TRUE(loop.runUntil(200));

    EXPECT_TRUE(areAnswered);
    EXPECT_EQ(verified, 0U);
    EXPECT_EQ(loop.verifications().size(), 100U);
}

TEST(BindsOfAQueue, GoToTheServerThatFoundTheEntry)
{
    std::string const held = addressOf(1);
    std::string const elsewhere = addressOf(3);
    ScriptedServer first(loginServer(
        [&](Peer& peer, std::string const& request) {
            if (bindContentOf(request).dn == dnOf(held)) {
                peer.awaitCue();
            }
            judge(peer, request);
        },
        [&](Peer& peer, std::string const& request) {
            if (request.find(elsewhere) == std::string::npos) {
                answerUser(peer, request);
            } else {
                peer.send(searchDone(messageIdOf(request), 51));
            }
        }));
    ScriptedServer second(loginServer(judge, answerUser));
    auto settings = settingsFor({first.port(), second.port()});
    settings.verifyConnections = 2;
    LDAPLookup lookup(settings);
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    queue.submitVerify(held, password, 1);
    queue.submitVerify(addressOf(2), password, 2);
    bool const hasIdleOne = loop.runUntil(1); // a connection to the first server, beside the held
    queue.submitVerify(elsewhere, password, 3);
    bool const isVerified = loop.runUntil(2);
    first.giveCue();
    ASSERT_TRUE(loop.runUntil(3));

    EXPECT_TRUE(hasIdleOne);
    EXPECT_TRUE(isVerified);
    EXPECT_EQ(loop.verification(3).outcome, VerifyOutcome::Accepted);
    EXPECT_THAT(loginsAt(second), ElementsAre(dnOf(elsewhere)));
}

TEST(BindsOfAQueue, GoToAnotherServerIfThatOneCannotAnswer)
{
    std::atomic<int> binds{0};
    ScriptedServer first(loginServer(
        [&](Peer& peer, std::string const&) {
            ++binds;
            peer.reset();
        },
        answerUser));
    ScriptedServer second(loginServer(judge, answerUser));
    LDAPLookup lookup(settingsFor({first.port(), second.port()}));
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    for (Tag tag = 1; tag <= 10; ++tag) {
        queue.submitVerify(addressOf(1), tag % 2 == 0 ? password : "wrong", tag);
    }
    ASSERT_TRUE(loop.runUntil(10));

    for (Tag tag = 1; tag <= 10; ++tag) {
        EXPECT_EQ(loop.verification(tag).outcome,
                  tag % 2 == 0 ? VerifyOutcome::Accepted : VerifyOutcome::Denied)
            << loop.verification(tag).text;
    }
    EXPECT_GE(binds, 1);
}

TEST(BindsOfAQueue, EndAtTheDeadlineWithTheirConnection)
{
    std::atomic<bool> isFirst{true};
    ScriptedServer server(loginServer(
        [&](Peer& peer, std::string const& request) {
            if (isFirst.exchange(false)) {
                peer.awaitCue(); // until its time is over
                peer.send(bindResponse(messageIdOf(request)));
            } else {
                judge(peer, request);
            }
        },
        answerUser));
    auto settings = settingsFor({server.port()});
    settings.connections = settings.verifyConnections = 1;
    settings.deadline = milliseconds(300);
    LDAPLookup lookup(settings);
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    queue.submitVerify(addressOf(1), "wrong", 1);
    queue.submitVerify(addressOf(1), "wrong", 2);
    bool const areLate = loop.runUntil(2);
    server.giveCue();
    queue.submitVerify(addressOf(1), "wrong", 3);
    ASSERT_TRUE(areLate && loop.runUntil(3));

    for (Tag const tag : {1U, 2U}) {
        EXPECT_EQ(loop.verification(tag).outcome, VerifyOutcome::TryLater);
        EXPECT_EQ(loop.verification(tag).code, -5);
    }
    EXPECT_THAT(loop.verification(1).text, HasSubstr("within the deadline of 0.300 s"));
    EXPECT_THAT(loop.verification(2).text, HasSubstr("no connection became free"));
    EXPECT_EQ(loop.verification(3).outcome, VerifyOutcome::Denied);
    EXPECT_EQ(server.connectionCount(), 1U + 2U);
}

// Cancelled

TEST(ACancelledPassword, IsNotSentIfItWasNotYet)
{
    ScriptedServer const server(loginServer(judge, answerUser));
    LDAPLookup lookup(settingsFor({server.port()}));
    LDAPLookupQueue queue(lookup);
    queue.submitVerify(addressOf(1), password, 1);

    queue.cancel(1);

    EXPECT_EQ(queue.pending(), 0U);
    EXPECT_FALSE(queue.next());
    EXPECT_FALSE(awaitReadable(queue.descriptor(), milliseconds(0)));
    EXPECT_EQ(server.connectionCount(), 0U);
}

// The response to the one that is given up says "accepted".
TEST(ACancelledPassword, LeavesItsResponseToNobodyElse)
{
    std::atomic<bool> isFirst{true};
    ScriptedServer server(loginServer(
        [&](Peer& peer, std::string const& request) {
            if (isFirst.exchange(false)) {
                peer.awaitCue();
                peer.send(bindResponse(messageIdOf(request)));
            } else {
                judge(peer, request);
            }
        },
        answerUser));
    auto settings = settingsFor({server.port()});
    settings.connections = settings.verifyConnections = 1;
    LDAPLookup lookup(settings);
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);

    queue.submitVerify(addressOf(1), password, 1);
    queue.submitVerify(addressOf(2), "wrong", 2);
    bool const isSent = runUntil(loop, [&] { return loginsAt(server).size() == 1; });
    queue.cancel(1);
    server.giveCue();
    ASSERT_TRUE(isSent && loop.runUntil(1));

    EXPECT_EQ(loop.verification(2).outcome, VerifyOutcome::Denied);
    EXPECT_EQ(loop.verifications().count(1), 0U);
    EXPECT_EQ(countOf(AbandonRequest, server.received()), 0U);
    EXPECT_EQ(queue.pending(), 0U);
    EXPECT_EQ(server.connectionCount(), 1U + 2U);
}

// Trouble

TEST(PasswordsOfAQueueUnderTrouble, AreNeverAcceptedIfTheyAreWrongNorDeniedIfTheyAreRight)
{
    Slapd first({"--users", std::to_string(users)});
    Slapd second({"--users", std::to_string(users)});
    auto settings = settingsFor({first.port(), second.port()});
    settings.verifyConnections = 4;
    settings.networkTimeout = 1;
    settings.deadline = seconds(5);
    settings.backOff = milliseconds(50);
    settings.longestBackOff = milliseconds(200);
    LDAPLookup lookup(settings);
    LDAPLookupQueue queue(lookup);
    Tag last = 0;
    std::map<VerifyOutcome, int> count;
    std::string wrong;
    auto const awaitVerified = [&](int wanted) {
        auto const end = std::chrono::steady_clock::now() + seconds(30);
        for (int verified = 0; verified < wanted && std::chrono::steady_clock::now() < end;) {
            while (queue.pending() < 60) {
                int const user = 1 + static_cast<int>(++last % users);
                bool const isRight = last % 2 == 0;
                int const owner = isRight ? user : user % users + 1;
                last % 3 == 0 ? queue.submit(addressOf(user), last)
                              : queue.submitVerify(addressOf(user), passwordOf(owner), last);
            }
            auto const result = queue.next(milliseconds(100));
            if (!result || !result->verification) {
                continue;
            }
            VerifyOutcome const outcome = result->verification->outcome;
            auto const right =
                result->tag % 2 == 0 ? VerifyOutcome::Accepted : VerifyOutcome::Denied;
            ++count[outcome];
            verified += outcome == right ? 1 : 0;
            if (outcome != right && outcome != VerifyOutcome::TryLater) {
                wrong += std::to_string(result->tag) + ": " + name(outcome) + ' ' +
                         result->verification->text + "; ";
            }
        }
    };

    awaitVerified(100);
    first.kill();
    awaitVerified(100);
    first.restart();
    awaitVerified(100);
    first.pause();
    awaitVerified(100);
    first.resume();
    second.kill();
    awaitVerified(100);
    first.kill();
    queue.next(milliseconds(300));
    first.restart();
    awaitVerified(100);

    EXPECT_EQ(wrong, "");
    EXPECT_GE(count[VerifyOutcome::Accepted] + count[VerifyOutcome::Denied], 600);
}

} // namespace SolvaneTest
