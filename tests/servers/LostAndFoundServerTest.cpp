// Lookups by the engine while a server crashes, restarts or falls silent, and failover to another
// one.
#include "Lookups.h"
#include "TemporaryDirectory.h"
#include "TestedServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Solvane;
using Lookup::Outcome;
using std::chrono::milliseconds;
using testing::SizeIs;

namespace SolvaneTest {

class LostAndFoundServer : public ServerTest {
protected:
    /// Settings for both servers, in order, with the authorities of both.
    LDAPLookup::Settings settingsForBoth() const
    {
        std::string const authorities = m_folder.path() / "authorities.pem";
        TestedServer::writeAuthorities(authorities);
        auto settings = server().settings();
        settings.servers.push_back(TestedServer::second().entry());
        settings.tls.caFile = authorities;
        settings.backOff = settings.longestBackOff = milliseconds(1);
        return settings;
    }
    static std::string uriOf(TestedServer const& asked)
    {
        return asked[asked.needsTls() ? "LDAPS_URI" : "LDAP_URI"];
    }

private:
    TemporaryDirectory m_folder;
};

TEST_F(LostAndFoundServer, ThatStartedAgainIsAskedOnANewConnection)
{
    LDAPLookup lookup(server().settings());
    auto const before = lookup.find(addressOf(1));
    server().kill();
    server().restart();

    auto const after = lookup.find(addressOf(2));

    EXPECT_EQ(before.outcome, Outcome::Found) << before.text;
    EXPECT_EQ(after.outcome, Outcome::Found) << after.text;
    EXPECT_EQ(lookup.statistics().opened, 2U);
    EXPECT_EQ(lookup.statistics().stale + lookup.statistics().repeated, 1U);
}

TEST_F(LostAndFoundServer, ThatIsDownIsTriedLaterAndFoundOnceItIsBack)
{
    auto settings = server().settings();
    settings.backOff = settings.longestBackOff = milliseconds(1);
    LDAPLookup lookup(settings);
    lookup.find(addressOf(1));
    server().kill();

    auto const down = lookup.find(addressOf(1));
    server().restart();
    auto const back = lookup.find(addressOf(1));

    EXPECT_EQ(down.outcome, Outcome::TryLater);
    EXPECT_EQ(down.code, -1);
    EXPECT_EQ(back.outcome, Outcome::Found) << back.text;
}

TEST_F(LostAndFoundServer, ThatIsSilentEndsAKeyAtItsDeadline)
{
    auto settings = server().settings();
    settings.deadline = milliseconds(500);
    LDAPLookup lookup(settings);
    lookup.find(addressOf(1));
    server().pause();

    auto const silent = lookup.find(addressOf(1));
    auto const unopened = LDAPLookup(settings).find(addressOf(1));

    EXPECT_EQ(silent.outcome, Outcome::TryLater);
    EXPECT_EQ(silent.code, -5);
    EXPECT_LT(silent.milliseconds, 10000);
    EXPECT_EQ(unopened.outcome, Outcome::TryLater);
    EXPECT_EQ(unopened.code, -5);
}

TEST_F(LostAndFoundServer, LeavesItsKeysToTheOther)
{
    LDAPLookup lookup(settingsForBoth());
    auto const before = lookup.find(addressOf(1));
    server().kill();

    auto const meanwhile = lookup.find(addressOf(2));
    server().restart();
    std::string askedLast;
    for (int i = 0; i < 1000 && askedLast != before.server; ++i) {
        askedLast = lookup.find(addressOf(3)).server;
    }

    EXPECT_EQ(before.server, uriOf(server()));
    EXPECT_EQ(meanwhile.outcome, Outcome::Found) << meanwhile.text;
    EXPECT_EQ(meanwhile.server, uriOf(TestedServer::second()));
    EXPECT_EQ(askedLast, before.server);
}

TEST_F(LostAndFoundServer, ThatIsSilentLeavesItsKeysToTheOther)
{
    auto settings = settingsForBoth();
    settings.networkTimeout = 2;
    LDAPLookup lookup(settings);
    lookup.find(addressOf(1));
    server().pause();

    auto const answer = lookup.find(addressOf(2));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(answer.server, uriOf(TestedServer::second()));
}

TEST_F(LostAndFoundServer, ThatCrashesUnderManyKeysLosesNone)
{
    auto settings = settingsForBoth();
    settings.connections = 2;
    settings.window = 16;
    LDAPLookup lookup(settings);
    std::vector<std::string> keys;
    for (int i = 0; i < 1000; ++i) {
        keys.push_back(addressOf(i % server().number("USERS") + 1));
    }
    std::vector<Answered> answers;
    std::size_t fromTheSecond = 0;

    lookup.findAll(sourceOf(keys), [&](std::string const& key, LDAPLookup::Answer&& answer) {
        if (answers.size() == 50) {
            server().kill();
        }
        if (answer.server == uriOf(TestedServer::second())) {
            ++fromTheSecond;
        }
        answers.push_back({key, std::move(answer)});
        return true;
    });

    ASSERT_THAT(answers, SizeIs(1000));
    for (std::size_t i = 0; i < answers.size(); ++i) {
        ASSERT_EQ(answers[i].key, keys[i]);
        ASSERT_EQ(answers[i].answer.outcome, Outcome::Found) << answers[i].answer.text;
    }
    EXPECT_GT(fromTheSecond, 0U);
}

} // namespace SolvaneTest
