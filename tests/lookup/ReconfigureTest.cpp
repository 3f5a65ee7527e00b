// New settings while lookups are under way.
#include "Eventually.h"
#include "Lookups.h"
#include "Process.h"
#include "ProcessMemory.h"
#include "Slapd.h"

#include <solvane/ldap/LDAPException.h>
#include <solvane/session/PlainText.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <list>
#include <thread>

using namespace Solvane;
using Lookup::Outcome;
using testing::ElementsAre;
using testing::HasSubstr;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;
using Supply = LDAPLookup::Supply;

/// Answers each search when the test gives the cue.
ScriptedServer::Script servingOnCue()
{
    return serving([](Peer& peer, std::string const& request) {
        peer.awaitCue();
        answerFound(peer, request);
    });
}

bool hasSearch(ScriptedServer const& server)
{
    return countOf(SearchRequest, server.received()) != 0;
}

} // namespace

TEST(NewSettings, AreUsedByTheNextKey)
{
    ScriptedServer first(serving(answerFound));
    ScriptedServer second(serving(answerFound));
    LDAPLookup lookup(settingsFor({first.port()}));
    auto const before = lookup.find(addressOf(1));

    lookup.reconfigure(settingsFor({second.port()}));
    auto const after = lookup.find(addressOf(1));

    EXPECT_EQ(before.server, uriOf(first));
    EXPECT_EQ(after.server, uriOf(second));
    EXPECT_EQ(after.outcome, Outcome::Found);
    EXPECT_TRUE(first.awaitEndedScripts(1)) << "its idle connection was not closed";
    EXPECT_EQ(countOf(UnbindRequest, first.received()), 1U);
    EXPECT_EQ(lookup.statistics().opened, 2U);
}

TEST(NewSettings, AreNotUsedIfTheyAreInvalid)
{
    ScriptedServer server(serving(answerFound));
    LDAPLookup lookup(settingsFor({server.port()}));
    lookup.find(addressOf(1));
    auto invalid = settingsFor({server.port()});
    invalid.connections = 0;

    EXPECT_THROW(lookup.reconfigure(invalid), LDAPException);

    EXPECT_EQ(lookup.find(addressOf(1)).outcome, Outcome::Found);
    EXPECT_EQ(lookup.statistics().opened, 1U);
}

TEST(NewSettings, LeaveAKeyInFlightWithTheEarlierOnes)
{
    ScriptedServer first(servingOnCue());
    ScriptedServer second(serving(answerFound));
    LDAPLookup lookup(settingsFor({first.port()}));
    auto inFlight = std::async(std::launch::async, [&] { return lookup.find(addressOf(1)); });
    ASSERT_TRUE(eventually([&] { return hasSearch(first); }));

    lookup.reconfigure(settingsFor({second.port()}));
    auto const after = lookup.find(addressOf(2));
    first.giveCue();
    auto const answer = inFlight.get();

    EXPECT_EQ(after.server, uriOf(second));
    EXPECT_EQ(answer.server, uriOf(first));
    EXPECT_EQ(answer.outcome, Outcome::Found);
    EXPECT_FALSE(answer.wasRepeated);
    EXPECT_TRUE(first.awaitEndedScripts(1));
}

TEST(NewSettings, AreUsedByTheLaterKeysOfARunInOrder)
{
    ScriptedServer first(servingOnCue());
    ScriptedServer second(serving(answerFound));
    LDAPLookup lookup(settingsFor({first.port()}));
    int given = 0;
    std::vector<std::string> servers;

    lookup.findAll(
        [&](std::string& key, bool) {
            if (given == 1) {
                if (!hasSearch(first)) {
                    return Supply::nothing;
                }
                lookup.reconfigure(settingsFor({second.port()}));
            } else if (given == 3) {
                if (!hasSearch(second)) {
                    return Supply::nothing;
                }
                first.giveCue();
                return Supply::end;
            }
            key = addressOf(++given);
            return Supply::key;
        },
        [&](std::string const& key, LDAPLookup::Answer&& answer) {
            servers.push_back(key + ' ' + answer.server);
            return true;
        });

    EXPECT_THAT(servers,
                ElementsAre(addressOf(1) + ' ' + uriOf(first), addressOf(2) + ' ' + uriOf(second),
                            addressOf(3) + ' ' + uriOf(second)));
    EXPECT_TRUE(first.awaitEndedScripts(1));
}

TEST(NewSettings, AreUsedByTheLaterKeysOfAQueue)
{
    ScriptedServer first(servingOnCue());
    ScriptedServer second(serving(answerFound));
    LDAPLookup lookup(settingsFor({first.port()}));
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);
    queue.submit(addressOf(1), 1);
    while (!hasSearch(first)) {
        awaitReadable(queue.descriptor(), std::chrono::milliseconds(10));
        loop.take();
    }

    lookup.reconfigure(settingsFor({second.port()}));
    queue.submit(addressOf(2), 2);
    bool const isSecondAnswered = loop.runUntil(1);
    first.giveCue();
    bool const isFirstAnswered = loop.runUntil(2);

    ASSERT_TRUE(isSecondAnswered && isFirstAnswered);
    EXPECT_EQ(loop.answer(2).server, uriOf(second));
    EXPECT_EQ(loop.answer(1).server, uriOf(first));
    EXPECT_TRUE(first.awaitEndedScripts(1));
}

TEST(NewSettings, CloseConnectionsThatAnIdleQueueOrRunUsed)
{
    ScriptedServer first(serving(answerFound));
    ScriptedServer second(serving(answerFound));
    LDAPLookup lookup(settingsFor({first.port()}));
    LDAPLookupQueue queue(lookup);
    QueueLoop loop(queue);
    queue.submit(addressOf(1), 1);
    ASSERT_TRUE(loop.runUntil(1));
    int given = 0;
    bool areClosed = false;

    lookup.findAll(
        [&](std::string& key, bool mayWait) {
            if (given == 1) {
                if (!mayWait) {
                    return Supply::nothing;
                }
                lookup.reconfigure(settingsFor({second.port()}));
                areClosed = first.awaitEndedScripts(first.connectionCount());
                return Supply::end;
            }
            key = addressOf(++given);
            return Supply::key;
        },
        [](std::string const&, LDAPLookup::Answer&&) { return true; });

    EXPECT_TRUE(areClosed);
}

TEST(NewSettings, ForgetARefusalOfOtherCredentialsOnly)
{
    ScriptedServer server([](Peer& peer) {
        std::string const bind = peer.receiveMessage();
        if (bind.find("right-pw") == std::string::npos) {
            peer.send(bindResponse(messageIdOf(bind), 49));
            return;
        }
        peer.send(bindResponse(messageIdOf(bind)));
        serving(answerFound)(peer);
    });
    auto settings = settingsFor({server.port()});
    LDAPLookup lookup(settings);
    auto const refused = lookup.find(addressOf(1));

    settings.deadline = std::chrono::milliseconds(5000);
    lookup.reconfigure(settings);
    auto const same = lookup.find(addressOf(1));
    std::size_t const bindsOfTheWrong = countOf(BindRequest, server.received());
    settings.password = "right-pw";
    lookup.reconfigure(settings);
    auto const other = lookup.find(addressOf(1));

    EXPECT_EQ(refused.outcome, Outcome::Refused);
    EXPECT_EQ(same.outcome, Outcome::Refused);
    EXPECT_THAT(same.text, HasSubstr("not tried again for"));
    EXPECT_EQ(bindsOfTheWrong, 1U);
    EXPECT_EQ(other.outcome, Outcome::Found) << other.text;
}

class PasswordOfAnEngine : public testing::Test {
protected:
    /// Too long for registers, whose contents may be found on a stack.
    std::string const m_password = "password-of-" + std::string(500, 'x');
    RefusingPort m_port;

    LDAPLookup::Settings settings() const
    {
        auto settings = settingsFor({m_port.number()});
        settings.password = m_password;
        return settings;
    }
    /// How often the password is in memory, besides the test's own.
    std::size_t copies() const { return occurrencesInMemory(m_password) - 1; }
};

TEST_F(PasswordOfAnEngine, IsWipedWhenSettingsChange)
{
    auto settings = this->settings();
    LDAPLookup lookup(settings);
    Lookup::wipe(settings.password);
    settings.bindDn.clear();

    std::size_t const before = copies();
    lookup.reconfigure(settings);

    EXPECT_EQ(before, 1U);
    EXPECT_EQ(copies(), 0U);
}

TEST_F(PasswordOfAnEngine, IsWipedWhenItIsDestroyed)
{
    auto settings = this->settings();
    auto lookup = std::make_unique<LDAPLookup>(settings);
    Lookup::wipe(settings.password);

    std::size_t const before = copies();
    lookup.reset();

    EXPECT_EQ(before, 1U);
    EXPECT_EQ(copies(), 0U);
}

class SettingsOfADirectory : public SuiteWithSlapd<SettingsOfADirectory> {
public:
    static std::vector<std::string> options() { return {"--users", "100"}; }
};

TEST_F(SettingsOfADirectory, ChangeAHundredTimesWhileEightThreadsAndAQueueLookUp)
{
    auto const settings = settingsFor({slapd().port()});
    LDAPLookup lookup(settings);
    std::atomic<bool> isOver{false};
    std::atomic<int> wrong{0};
    std::atomic<int> found{0};
    auto const note = [&](LDAPLookup::Answer const& answer) {
        ++(answer.outcome == Outcome::Found ? found : wrong);
    };
    std::list<std::thread> threads;
    for (int thread = 0; thread < 7; ++thread) {
        threads.emplace_back([&, thread] {
            for (int user = thread; !isOver; ++user) {
                note(lookup.find(addressOf(user % 100 + 1)));
            }
        });
    }
    threads.emplace_back([&] {
        LDAPLookupQueue queue(lookup);
        for (Tag tag = 0; !isOver || queue.pending() != 0;) {
            for (; !isOver && queue.pending() < 20; ++tag) {
                queue.submit(addressOf(static_cast<int>(tag % 100) + 1), tag);
            }
            if (auto const result = queue.next(std::chrono::milliseconds(100))) {
                note(result->answer);
            }
        }
    });

    for (unsigned int change = 0; change < 100; ++change) {
        auto changed = settings;
        changed.connections = 1 + change % 4;
        lookup.reconfigure(changed);
        int const seen = found;
        EXPECT_TRUE(eventually([&] { return found > seen || wrong != 0; }));
    }
    lookup.reconfigure(settings);
    isOver = true;
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(lookup.find(addressOf(1)).outcome, Outcome::Found);
    EXPECT_TRUE(eventually([&] { return slapd().connectionCount() <= 4; })) << "some leaked";
}

TEST_F(SettingsOfADirectory, MayChangeWhileTheProcessForks)
{
    if (!allocatorForks) {
        GTEST_SKIP() << "the allocator does not support forks of processes with several threads";
    }
    auto const settings = settingsFor({slapd().port()});
    LDAPLookup lookup(settings);
    std::atomic<bool> isOver{false};
    std::thread changer([&] {
        while (!isOver) {
            lookup.reconfigure(settings);
        }
    });

    std::string wrong;
    for (int round = 0; round < 20; ++round) {
        wrong += ForkedProcess([&] {
                     lookup.reconfigure(settings);
                     auto const answer = lookup.find(addressOf(1));
                     return answer.outcome == Outcome::Found ? std::string() : answer.text;
                 }).complaint();
    }
    isOver = true;
    changer.join();

    EXPECT_EQ(wrong, "");
}

TEST(SharedConnections, ServeAnotherSearch)
{
    ScriptedServer server(serving(answerFound));
    auto settings = settingsFor({server.port()});
    LDAPLookup one(settings);
    settings.queryTemplate = "(uid=$u)";
    settings.attributes = {"cn"};
    LDAPLookup another(settings, one);

    one.find(addressOf(1));
    auto const answer = another.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Found);
    EXPECT_THAT(answer.filter, HasSubstr("(uid="));
    EXPECT_EQ(server.connectionCount(), 1U);
    EXPECT_EQ(one.statistics().reused, 1U);
    EXPECT_EQ(another.servers().front().answered, 2U);
}

TEST(SharedConnections, AreAtMostAsManyAsTheSettingsSay)
{
    ScriptedServer server(servingOnCue());
    auto settings = settingsFor({server.port()});
    settings.connections = 1;
    LDAPLookup one(settings);
    LDAPLookup another(settings, one);
    auto first = std::async(std::launch::async, [&] { return one.find(addressOf(1)); });
    ASSERT_TRUE(eventually([&] { return hasSearch(server); }));
    auto second = std::async(std::launch::async, [&] { return another.find(addressOf(2)); });

    server.giveCue();

    EXPECT_EQ(first.get().outcome, Outcome::Found);
    EXPECT_EQ(second.get().outcome, Outcome::Found);
    EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(SharedConnections, OutliveTheLookupThatOpenedThem)
{
    ScriptedServer server(serving(answerFound));
    auto const settings = settingsFor({server.port()});
    auto one = std::make_unique<LDAPLookup>(settings);
    one->find(addressOf(1));
    LDAPLookup another(settings, *one);

    one.reset();

    EXPECT_EQ(another.find(addressOf(1)).outcome, Outcome::Found);
    EXPECT_EQ(another.statistics().opened, 1U);
}

TEST(SharedConnections, AreNotThoseOfNewSettings)
{
    ScriptedServer first(serving(answerFound));
    ScriptedServer second(serving(answerFound));
    LDAPLookup one(settingsFor({first.port()}));
    LDAPLookup another(settingsFor({first.port()}), one);

    another.reconfigure(settingsFor({second.port()}));

    EXPECT_EQ(another.find(addressOf(1)).server, uriOf(second));
    EXPECT_EQ(one.find(addressOf(1)).server, uriOf(first));
}

TEST(SharedConnections, NeedTheSameServersIdentityAndLimits)
{
    auto const settings = settingsFor({389});
    LDAPLookup const one(settings);
    auto const refused = [&](auto change) {
        auto changed = settings;
        change(changed);
        try {
            LDAPLookup const another(changed, one);
        } catch (LDAPException const& fault) {
            return fault.stringParameter() ==
                   "the settings need other connections than those to share";
        }
        return false;
    };
    using Settings = LDAPLookup::Settings;

    EXPECT_TRUE(refused([](Settings& each) { each.servers.front().port = 390; }));
    EXPECT_TRUE(refused([](Settings& each) { each.servers.front().startTls = true; }));
    EXPECT_TRUE(refused([](Settings& each) { each.servers.push_back(each.servers.front()); }));
    EXPECT_TRUE(refused([](Settings& each) { each.password += "x"; }));
    EXPECT_TRUE(refused([](Settings& each) { each.bindDn = "cn=other"; }));
    EXPECT_TRUE(refused([](Settings& each) { each.tls.caFile = "/ca.pem"; }));
    EXPECT_TRUE(refused([](Settings& each) { ++each.connections; }));
    EXPECT_TRUE(refused([](Settings& each) { each.deadline *= 2; }));
    EXPECT_FALSE(refused([](Settings& each) { each.base = "dc=other"; }));
    EXPECT_FALSE(refused([](Settings& each) { each.domains = {"corp.test"}; }));
    EXPECT_FALSE(refused([](Settings& each) { ++each.window; }));
    EXPECT_FALSE(refused([](Settings& each) { each.specialResultAttributes = {"member"}; }));
    EXPECT_FALSE(refused([](Settings& each) { each.resultFormat = "<%s>"; }));
}

} // namespace SolvaneTest
