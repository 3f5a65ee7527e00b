// Many keys in flight: limits of servers, and lost connections.
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
#include <fstream>
#include <thread>

using namespace Solvane;
using Lookup::Outcome;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

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
