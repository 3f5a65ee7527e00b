// Limits: bounds of answers and keys, links that are slow but not silent, and servers that limit
// how many keys are in flight.
#include "Eventually.h"
#include "LdapMessages.h"
#include "Lookups.h"
#include "ScriptedServer.h"
#include "Slapd.h"
#include "TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <thread>

using namespace Solvane;
using Lookup::Outcome;
using std::chrono::milliseconds;
using testing::Each;
using testing::HasSubstr;
using testing::SizeIs;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

constexpr std::size_t kilobyte = 1024;

bool isFor(std::string const& text, std::string const& request)
{
    return request.find(text) != std::string::npos;
}

/// For "large": so many entries of so many bytes; for others one small entry.
OnSearch sendingLarge(std::size_t entries, std::size_t bytes)
{
    return [=](Peer& peer, std::string const& request) {
        if (!isFor("large", request)) {
            return answerFound(peer, request);
        }
        int const id = messageIdOf(request);
        std::string const entry = searchEntry(id, "cn=x", {{"cn", {std::string(bytes, 'v')}}});
        for (std::size_t i = 0; i < entries; ++i) {
            peer.send(entry);
        }
        peer.send(searchDone(id));
    };
}

std::vector<std::string> users(int count, int existing)
{
    std::vector<std::string> keys;
    for (int i = 0; i < count; ++i) {
        keys.push_back(addressOf(i % existing + 1));
    }
    return keys;
}

std::size_t countOf(Outcome outcome, std::vector<Answered> const& answers)
{
    return static_cast<std::size_t>(
        std::count_if(answers.begin(), answers.end(),
                      [outcome](Answered const& each) { return each.answer.outcome == outcome; }));
}

/// A slapd that closes connections with too many pending requests.
class SlapdWithFewPending {
public:
    explicit SlapdWithFewPending(std::string const& lines)
    {
        std::string const file = (m_folder.path() / "limits.conf").string();
        std::ofstream(file) << lines;
        m_slapd = std::make_unique<Slapd>(
            std::vector<std::string>{"--users", "100", "--global-conf", file});
    }
    unsigned int port() const { return m_slapd->port(); }

private:
    TemporaryDirectory m_folder;
    std::unique_ptr<Slapd> m_slapd;
};

} // namespace

TEST(AnAnswerBeyondItsBound, IsToBeTriedLaterAndSaysWhichSetting)
{
    ScriptedServer const server(serving(sendingLarge(40, 100 * kilobyte)));
    auto settings = settingsFor({server.port()});
    settings.answerBytes = 1000 * kilobyte;
    LDAPLookup lookup(settings);

    auto const answer = lookup.find("large@corp.test");

    EXPECT_EQ(answer.outcome, Outcome::TryLater);
    EXPECT_EQ(answer.code, 4);
    EXPECT_THAT(answer.text, HasSubstr("larger than 1024000 bytes (answer_bytes)"));
    EXPECT_LE(answer.entries.size(), 10U);
    EXPECT_EQ(lookup.find(addressOf(1)).outcome, Outcome::Found);
}

TEST(AnAnswerBeyondItsBound, LeavesTheOtherKeysAlone)
{
    ScriptedServer const server(serving(sendingLarge(40, 100 * kilobyte)));
    auto settings = settingsFor({server.port()});
    settings.answerBytes = 1000 * kilobyte;
    settings.connections = 1;
    LDAPLookup lookup(settings);
    std::vector<std::string> keys(60, addressOf(1));
    keys[20] = "large@corp.test";

    auto const answers = answersTo(lookup, keys);

    ASSERT_THAT(answers, SizeIs(60));
    for (Answered const& each : answers) {
        bool const isLarge = each.key == keys[20];
        EXPECT_EQ(each.answer.outcome, isLarge ? Outcome::TryLater : Outcome::Found)
            << each.answer.text;
    }
}

// Whatever it was asked for behind that answer, the rest of the answer would come first.
TEST(AnAnswerBeyondItsBound, LosesTheConnectionAndTheKeysBehindItAreSentAgain)
{
    ScriptedServer const server(serving([](Peer& peer, std::string const& request) {
        if (!isFor("large", request)) {
            return answerFound(peer, request);
        }
        int const id = messageIdOf(request);
        for (int i = 0; i < 20; ++i) {
            peer.send(searchEntry(id, "cn=x", {{"cn", {"x"}}}));
        }
        peer.ignore(); // the entry never ends
    }));
    auto settings = settingsFor({server.port()});
    settings.entryLimit = 10;
    settings.connections = 1;
    settings.deadline = std::chrono::seconds(5);
    LDAPLookup lookup(settings);

    auto const answers = answersTo(lookup, {"large@corp.test", addressOf(1), addressOf(2)});

    ASSERT_THAT(answers, SizeIs(3));
    EXPECT_EQ(answers[0].answer.code, 4) << answers[0].answer.text;
    EXPECT_EQ(answers[1].answer.outcome, Outcome::Found) << answers[1].answer.text;
    EXPECT_EQ(answers[2].answer.outcome, Outcome::Found) << answers[2].answer.text;
    EXPECT_EQ(server.connectionCount(), 2U);
}

TEST(AResultThatIsDamaged, LeavesTheOtherKeysAlone)
{
    ScriptedServer const server(serving([](Peer& peer, std::string const& request) {
        if (!isFor("odd", request)) {
            return answerFound(peer, request);
        }
        // A referral that is longer than the list that holds it; OpenLDAP hands the message over.
        constexpr unsigned char searchResultDone = 0x65;
        std::string const referral("\x0a\x01\x0a\x04\x00\x04\x00\xa3\x03\x04\x05x", 12);
        peer.send(ldapMessage(messageIdOf(request), berElement(searchResultDone, referral)));
    }));
    auto settings = settingsFor({server.port()});
    settings.connections = 1;
    LDAPLookup lookup(settings);

    auto const answers = answersTo(lookup, {addressOf(1), "odd@corp.test", addressOf(2)});

    ASSERT_THAT(answers, SizeIs(3));
    EXPECT_EQ(answers[0].answer.outcome, Outcome::Found) << answers[0].answer.text;
    EXPECT_EQ(answers[1].answer.outcome, Outcome::TryLater);
    EXPECT_EQ(answers[1].answer.code, -4) << answers[1].answer.text;
    EXPECT_EQ(answers[2].answer.outcome, Outcome::Found) << answers[2].answer.text;
}

TEST(AnAnswerWithinItsBound, IsWhole)
{
    ScriptedServer const server(serving(sendingLarge(9, 100 * kilobyte)));
    auto settings = settingsFor({server.port()});
    settings.answerBytes = 1000 * kilobyte;
    LDAPLookup lookup(settings);

    auto const answer = lookup.find("large@corp.test");

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_THAT(answer.entries, SizeIs(9));
}

TEST(AnEntryBeyondItsBound, IsToBeTriedLater)
{
    ScriptedServer const server(serving(sendingLarge(1, 2000 * kilobyte)));
    auto settings = settingsFor({server.port()});
    settings.entryBytes = 1000 * kilobyte;
    LDAPLookup lookup(settings);

    auto const answer = lookup.find("large@corp.test");

    EXPECT_EQ(answer.outcome, Outcome::TryLater);
    EXPECT_THAT(answer.text, HasSubstr("1024000 bytes"));
    EXPECT_EQ(lookup.find(addressOf(1)).outcome, Outcome::Found);
}

// A value takes longer to arrive than a server may be silent.
TEST(ASlowLink, IsNotSilence)
{
    ScriptedServer const server(serving([](Peer& peer, std::string const& request) {
        int const id = messageIdOf(request);
        std::string const entry =
            searchEntry(id, "cn=x", {{"cn", {std::string(40 * kilobyte, 'v')}}});
        constexpr std::size_t part = 2 * kilobyte;
        for (std::size_t sent = 0; sent < entry.size(); sent += part) {
            peer.send(entry.substr(sent, part));
            std::this_thread::sleep_for(milliseconds(100)); // the link itself
        }
        peer.send(searchDone(id));
    }));
    auto settings = settingsFor({server.port()});
    settings.networkTimeout = 1;
    settings.deadline = std::chrono::seconds(60);
    LDAPLookup lookup(settings);

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_GE(answer.milliseconds, 1000);
    EXPECT_FALSE(answer.wasRepeated);
}

TEST(AKeyBeyondItsBound, IsNeverSent)
{
    ScriptedServer server(serving(answerFound));
    LDAPLookup lookup(settingsFor({server.port()}));

    auto const answer = lookup.find(std::string(1001, 'x'));

    EXPECT_EQ(answer.outcome, Outcome::BadKey);
    EXPECT_THAT(answer.text, HasSubstr("1001 bytes"));
    EXPECT_EQ(server.connectionCount(), 0U);
}

TEST(AKeyBeyondItsBound, LeavesTheOthersAlone)
{
    ScriptedServer const server(serving(answerFound));
    LDAPLookup lookup(settingsFor({server.port()}));
    std::vector<std::string> keys;
    for (int i = 0; i < 300; ++i) {
        keys.push_back(i % 30 == 0 ? std::string(300 * kilobyte, 'x') : addressOf(i));
    }

    auto const answers = answersTo(lookup, keys);

    ASSERT_EQ(answers.size(), keys.size());
    for (Answered const& each : answers) {
        bool const isLong = each.key.size() > kilobyte;
        EXPECT_EQ(each.answer.outcome, isLong ? Outcome::BadKey : Outcome::Found);
    }
    EXPECT_EQ(lookup.statistics().repeated, 0U);
}

TEST(ADeadlineOfAMillisecond, EndsEveryKey)
{
    ScriptedServer const silent([](Peer& peer) { peer.receiveUntilClosed(); });
    auto settings = settingsFor({silent.port()});
    settings.deadline = milliseconds(1);
    LDAPLookup lookup(settings);

    std::vector<Outcome> outcomes = {lookup.find(addressOf(1)).outcome};
    for (Answered const& each : answersTo(lookup, std::vector<std::string>(100, addressOf(1)))) {
        outcomes.push_back(each.answer.outcome);
    }

    EXPECT_THAT(outcomes, SizeIs(101));
    EXPECT_THAT(outcomes, Each(Outcome::TryLater));
}

TEST(ALookup, CanBeMoved)
{
    ScriptedServer const server(serving(answerFound));
    LDAPLookup first(settingsFor({server.port()}));
    first.find(addressOf(1));

    LDAPLookup second(std::move(first));
    LDAPLookup third(settingsFor({server.port()}));
    third = std::move(second);

    EXPECT_EQ(third.find(addressOf(2)).outcome, Outcome::Found);
    EXPECT_EQ(third.statistics().opened, 1U);
    EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(AnAnswer, HasItsValuesByName)
{
    ScriptedServer const server(serving([](Peer& peer, std::string const& request) {
        int const id = messageIdOf(request);
        peer.send(searchEntry(id, "cn=a", {{"cn", {"A"}}}) +
                  searchEntry(id, "cn=b", {{"Mail", {"b@corp.test", "c@corp.test"}}}) +
                  searchEntry(id, "cn=c", {{"mail", {"d@corp.test"}}}) + searchDone(id));
    }));
    LDAPLookup lookup(settingsFor({server.port()}));

    auto const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.entries.front().dn(), "cn=a");
    EXPECT_EQ(answer.value("mail"), "b@corp.test");
    EXPECT_THAT(answer.values("MAIL"),
                testing::ElementsAre("b@corp.test", "c@corp.test", "d@corp.test"));
    EXPECT_EQ(answer.value("sn"), "");
    EXPECT_THAT(answer.values("sn"), testing::IsEmpty());
}

// Many keys in flight: limits of servers, and lost connections.

TEST(AWideWindow, LosesNoKeyOnAnAnonymousConnection)
{
    if (!Slapd::isInstalled()) {
        Slapd::reportMissing();
        return;
    }
    Slapd const slapd({"--users", "100"});
    auto settings = settingsFor({slapd.port()});
    settings.bindDn.clear();
    settings.password.clear();
    settings.connections = 1;
    settings.window = 128;
    LDAPLookup lookup(settings);

    auto const answers = answersTo(lookup, users(2000, 100));

    EXPECT_EQ(countOf(Outcome::Found, answers), 2000U);
    EXPECT_GT(lookup.statistics().repeated, 0U); // slapd did close connections
}

TEST(AWideWindow, LosesNoKeyOnABoundConnection)
{
    if (!Slapd::isInstalled()) {
        Slapd::reportMissing();
        return;
    }
    SlapdWithFewPending const slapd("conn_max_pending 5\nconn_max_pending_auth 20\n");
    auto settings = settingsFor({slapd.port()});
    settings.connections = 2;
    settings.window = 1024;
    LDAPLookup lookup(settings);

    auto const answers = answersTo(lookup, users(2000, 100));

    EXPECT_EQ(countOf(Outcome::Found, answers), 2000U);
    EXPECT_GT(lookup.statistics().repeated, 0U); // slapd did close connections
}

TEST(AKeyThatBreaksConnections, FailsAloneAmongMany)
{
    ScriptedServer const server(serving([](Peer& peer, std::string const& request) {
        if (request.find("poison") != std::string::npos) {
            peer.reset();
        } else {
            answerFound(peer, request);
        }
    }));
    auto settings = settingsFor({server.port()});
    settings.connections = 2;
    LDAPLookup lookup(settings);
    auto keys = users(300, 300);
    for (std::size_t const position : {0U, 1U, 50U, 150U, 299U}) {
        keys[position] = "poison" + std::to_string(position) + "@corp.test";
    }

    auto const answers = answersTo(lookup, keys);

    ASSERT_EQ(answers.size(), keys.size());
    for (Answered const& each : answers) {
        bool const isPoison = each.key.find("poison") == 0;
        EXPECT_EQ(each.answer.outcome, isPoison ? Outcome::TryLater : Outcome::Found)
            << each.key << ": " << each.answer.text;
    }
}

TEST(TenThousandKeys, AreInFlightAtOnce)
{
    constexpr std::size_t connections = 10;
    constexpr std::size_t window = 1000;
    std::atomic<std::size_t> inFlight{0};
    ScriptedServer server([&](Peer& peer) {
        std::vector<std::string> held;
        serving([&](Peer& answering, std::string const& request) {
            held.push_back(request);
            ++inFlight;
            if (held.size() == window) {
                answering.awaitCue();
                for (auto asked = held.rbegin(); asked != held.rend(); ++asked) {
                    answerFound(answering, *asked);
                }
                held.clear();
            }
        })(peer);
    });
    auto settings = settingsFor({server.port()});
    settings.connections = connections;
    settings.window = window;
    settings.deadline = std::chrono::seconds(60);
    LDAPLookup lookup(settings);
    auto const keys = users(connections * window, connections * window);
    std::vector<Answered> answers;

    std::thread runner([&] { answers = answersTo(lookup, keys); });
    bool const areInFlight = eventually([&] { return inFlight == connections * window; });
    server.giveCue();
    runner.join();

    EXPECT_TRUE(areInFlight);
    EXPECT_EQ(countOf(Outcome::Found, answers), keys.size());
    EXPECT_EQ(server.connectionCount(), connections);
}

} // namespace SolvaneTest
