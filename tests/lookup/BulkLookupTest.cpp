// Bulk lookups, from one thread or from a source that reads a pipe: every key gets its answer, in
// order, also after failures.
#include "Eventually.h"
#include "LdapMessages.h"
#include "Lookups.h"
#include "ScriptedServer.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <thread>

using namespace Solvane;
using Lookup::Outcome;
using testing::ElementsAre;
using testing::SizeIs;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;
using Supply = LDAPLookup::Supply;

std::vector<std::string> users(int count, int existing)
{
    std::vector<std::string> keys;
    keys.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        keys.push_back(addressOf(i % existing + 1));
    }
    return keys;
}

std::vector<std::string> keysOf(std::vector<Answered> const& answers)
{
    std::vector<std::string> keys;
    keys.reserve(answers.size());
    for (Answered const& answered : answers) {
        keys.push_back(answered.key);
    }
    return keys;
}

std::size_t countOf(Outcome outcome, std::vector<Answered> const& answers)
{
    return static_cast<std::size_t>(
        std::count_if(answers.begin(), answers.end(), [outcome](Answered const& answered) {
            return answered.answer.outcome == outcome;
        }));
}

/// The address of an entry of the directory.
std::string ownerOf(LDAPLookup::Answer const& answer)
{
    std::string const& dn = answer.entries.front().entryName();
    return dn.substr(4, dn.find(',') - 4) + "@corp.test";
}

/// Lines that one side writes and a source reads.
class LinesThroughAPipe {
public:
    LinesThroughAPipe() { EXPECT_EQ(pipe2(m_ends, O_CLOEXEC | O_NONBLOCK), 0); }
    ~LinesThroughAPipe()
    {
        close(m_ends[0]);
        end();
    }

    int descriptor() const { return m_ends[0]; }
    void write(std::string const& line)
    {
        std::string const text = line + '\n';
        EXPECT_EQ(::write(m_ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    void end()
    {
        if (m_ends[1] != -1) {
            close(m_ends[1]);
            m_ends[1] = -1;
        }
    }

    Supply read(std::string& key, bool mayWait)
    {
        EXPECT_FALSE(mayWait);
        for (;;) {
            auto const end = m_read.find('\n');
            if (end != std::string::npos) {
                key = m_read.substr(0, end);
                m_read.erase(0, end + 1);
                return Supply::key;
            }
            char bytes[512];
            ssize_t const count = ::read(m_ends[0], bytes, sizeof bytes);
            if (count <= 0) {
                return count == 0 ? Supply::end : Supply::nothing;
            }
            m_read.append(bytes, static_cast<std::size_t>(count));
        }
    }

private:
    int m_ends[2] = {-1, -1};
    std::string m_read;
};

} // namespace

class BulkLookup : public SuiteWithSlapd<BulkLookup> {
public:
    static std::vector<std::string> options() { return {"--users", "300"}; }

protected:
    LDAPLookup::Settings settings() const { return settingsFor({slapd().port()}); }
};

TEST_F(BulkLookup, AnswersEveryKeyInOrderWithItsOwnEntry)
{
    LDAPLookup lookup(settings());
    auto const keys = users(3000, 300);

    auto const answers = answersTo(lookup, keys);

    EXPECT_EQ(keysOf(answers), keys);
    for (Answered const& answered : answers) {
        ASSERT_EQ(answered.answer.outcome, Outcome::Found) << answered.answer.text;
        ASSERT_EQ(ownerOf(answered.answer), answered.key);
    }
}

TEST_F(BulkLookup, KeepsTheOrderWhereSomeKeysAreAnsweredAtOnce)
{
    auto mixed = settings();
    mixed.domains = {"corp.test"};
    LDAPLookup lookup(mixed);

    auto const answers = answersTo(lookup, {"user0000001@corp.test", "", "nobody@corp.test",
                                            "x@other.test", "user0000002@corp.test", "\x01"});

    std::vector<Outcome> outcomes;
    for (Answered const& answered : answers) {
        outcomes.push_back(answered.answer.outcome);
    }
    EXPECT_THAT(outcomes, ElementsAre(Outcome::Found, Outcome::BadKey, Outcome::NotFound,
                                      Outcome::Skipped, Outcome::Found, Outcome::BadKey));
}

TEST_F(BulkLookup, OpensNoMoreConnectionsThanAreAllowed)
{
    auto narrow = settings();
    narrow.connections = 2;
    narrow.window = 3;
    LDAPLookup lookup(narrow);

    auto const answers = answersTo(lookup, users(500, 300));

    EXPECT_EQ(countOf(Outcome::Found, answers), 500U);
    EXPECT_EQ(lookup.statistics().opened, 2U);
    EXPECT_EQ(lookup.statistics().reused, 498U);
}

TEST_F(BulkLookup, GivesItsConnectionsBack)
{
    LDAPLookup lookup(settings());
    answersTo(lookup, users(500, 300));
    auto const opened = lookup.statistics().opened;

    lookup.find(addressOf(1));

    EXPECT_EQ(lookup.statistics().opened, opened);
}

TEST_F(BulkLookup, OfNoKeyContactsNoServer)
{
    LDAPLookup lookup(settings());

    EXPECT_THAT(answersTo(lookup, {}), SizeIs(0));
    EXPECT_EQ(lookup.statistics().opened, 0U);
}

TEST_F(BulkLookup, StopsWhereTheSinkWantsNoMore)
{
    LDAPLookup lookup(settings());
    int taken = 0;

    lookup.findAll(sourceOf(users(1000, 300)),
                   [&](std::string const&, LDAPLookup::Answer&&) { return ++taken < 10; });

    EXPECT_EQ(taken, 10);
    EXPECT_EQ(lookup.find(addressOf(1)).outcome, Outcome::Found);
}

TEST_F(BulkLookup, LetsWhatTheSinkThrowsPassAndStaysUsable)
{
    LDAPLookup lookup(settings());

    EXPECT_THROW(lookup.findAll(sourceOf(users(100, 300)),
                                [&](std::string const&, LDAPLookup::Answer&&) -> bool {
                                    throw std::runtime_error("full");
                                }),
                 std::runtime_error);

    EXPECT_EQ(lookup.find(addressOf(1)).outcome, Outcome::Found);
}

TEST_F(BulkLookup, AnswersAKeyBeforeItWaitsForTheNextOne)
{
    LDAPLookup lookup(settings());
    std::size_t given = 0;
    std::size_t answered = 0;
    std::vector<std::size_t> answeredWhenWaiting;

    lookup.findAll(
        [&](std::string& key, bool mayWait) {
            if (!mayWait) {
                return Supply::nothing;
            }
            answeredWhenWaiting.push_back(answered);
            if (given == 3) {
                return Supply::end;
            }
            key = addressOf(static_cast<int>(++given));
            return Supply::key;
        },
        [&](std::string const&, LDAPLookup::Answer&&) {
            ++answered;
            return true;
        });

    EXPECT_THAT(answeredWhenWaiting, ElementsAre(0, 1, 2, 3));
}

TEST_F(BulkLookup, RunsBesideSingleLookupsOnOnePool)
{
    auto narrow = settings();
    narrow.connections = 2;
    LDAPLookup lookup(narrow);
    std::vector<Answered> bulk;
    std::thread runner([&] { bulk = answersTo(lookup, users(2000, 300)); });

    std::vector<Outcome> single;
    for (int i = 1; i <= 20; ++i) {
        single.push_back(lookup.find(addressOf(i)).outcome);
    }
    runner.join();

    EXPECT_THAT(single, testing::Each(Outcome::Found));
    EXPECT_EQ(countOf(Outcome::Found, bulk), 2000U);
}

// Poll does not report input that the TLS layer has already read and decrypted.
TEST_F(BulkLookup, TakesTheAnswersThatTheTlsLayerHoldsBack)
{
    auto secure = settingsFor({slapd().tlsPort()});
    secure.servers[0].secure = true;
    secure.tls.caFile = slapd().caFile().string();
    secure.queryTemplate = "(|(mail=$m)(mail=user000000*))"; // several entries in one record
    LDAPLookup lookup(secure);

    auto const answers = answersTo(lookup, users(1000, 300));
    auto const opened = lookup.statistics().opened;
    auto const again = lookup.find(addressOf(1));

    EXPECT_EQ(countOf(Outcome::Found, answers), 1000U);
    EXPECT_EQ(again.outcome, Outcome::Found);
    EXPECT_EQ(lookup.statistics().opened, opened);
    EXPECT_EQ(lookup.statistics().stale, 0U);
    EXPECT_EQ(lookup.statistics().repeated, 0U);
}

// A run may last for ever and use all connections.
TEST_F(BulkLookup, TakesTurnsWithASingleLookupThatWaitsForAConnection)
{
    auto narrow = settings();
    narrow.connections = 1;
    LDAPLookup lookup(narrow);
    std::atomic<int> given{0};
    std::atomic<bool> isAnswered{false};
    Outcome other = Outcome::Found;
    std::thread runner([&] {
        lookup.findAll(
            [&](std::string& key, bool) {
                key = addressOf(++given % 300 + 1);
                return isAnswered ? Supply::end : Supply::key;
            },
            [&](std::string const&, LDAPLookup::Answer&& answer) {
                other = answer.outcome != Outcome::Found ? answer.outcome : other;
                return true;
            });
    });
    ASSERT_TRUE(eventually([&] { return given > 100; }));

    std::vector<Outcome> single;
    for (int i = 1; i <= 5; ++i) {
        single.push_back(lookup.find(addressOf(i)).outcome);
    }
    isAnswered = true;
    runner.join();

    EXPECT_THAT(single, testing::Each(Outcome::Found));
    EXPECT_EQ(other, Outcome::Found);
    EXPECT_EQ(lookup.statistics().opened, 1U);
}

// As a pager does: it reads only when its user turns the page.
TEST_F(BulkLookup, DoesNotChargeTheKeysWithTheTimeThatTheSinkTakes)
{
    auto patient = settings();
    patient.connections = 1;
    patient.window = 4;
    patient.deadline = std::chrono::milliseconds(500);
    patient.forms = {LDAPLookup::Form::full, LDAPLookup::Form::bare, LDAPLookup::Form::domain};
    LDAPLookup lookup(patient);
    std::vector<Outcome> outcomes;

    lookup.findAll(sourceOf(std::vector<std::string>(12, "nobody@corp.test")),
                   [&](std::string const&, LDAPLookup::Answer&& answer) {
                       if (outcomes.size() % 4 == 0) {
                           std::this_thread::sleep_for(std::chrono::milliseconds(600));
                       }
                       outcomes.push_back(answer.outcome);
                       return true;
                   });

    EXPECT_THAT(outcomes, SizeIs(12));
    EXPECT_THAT(outcomes, testing::Each(Outcome::NotFound));
}

TEST(BulkLookupWindow, HasThisManySearchesInFlightOnAConnection)
{
    ScriptedServer server([](Peer& peer) {
        std::vector<std::string> held;
        serving([&held](Peer& answering, std::string const& request) {
            held.push_back(request);
            if (held.size() < 5) {
                return;
            }
            // In reverse order: servers may answer in any order.
            for (auto asked = held.rbegin(); asked != held.rend(); ++asked) {
                answerFound(answering, *asked);
            }
            held.clear();
        })(peer);
    });
    auto settings = settingsFor({server.port()});
    settings.connections = 1;
    settings.window = 5;
    LDAPLookup lookup(settings);
    auto const keys = users(50, 50);

    auto const answers = answersTo(lookup, keys);

    EXPECT_EQ(keysOf(answers), keys);
    EXPECT_EQ(countOf(Outcome::Found, answers), 50U);
    EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(BulkLookupInTrouble, RepeatsWhatWasInFlightOnceAndLosesNothing)
{
    std::atomic<int> searches{0};
    ScriptedServer server(serving([&](Peer& peer, std::string const& request) {
        if (++searches == 100) {
            peer.reset();
        } else {
            answerFound(peer, request);
        }
    }));
    auto settings = settingsFor({server.port()});
    settings.connections = 1;
    settings.window = 8;
    LDAPLookup lookup(settings);
    auto const keys = users(300, 300);

    auto const answers = answersTo(lookup, keys);

    EXPECT_EQ(keysOf(answers), keys);
    EXPECT_EQ(countOf(Outcome::Found, answers), 300U);
    EXPECT_EQ(server.connectionCount(), 2U);
    EXPECT_GE(lookup.statistics().repeated, 1U);
    EXPECT_LE(lookup.statistics().repeated, 8U);
}

TEST(BulkLookupInTrouble, GoesOnWithTheSecondServerWhenTheFirstIsKilled)
{
    Slapd first({"--users", "200"});
    Slapd second({"--users", "200"});
    LDAPLookup lookup(settingsFor({first.port(), second.port()}));
    auto keys = users(3000, 200);
    std::vector<Answered> answers;

    lookup.findAll(sourceOf(keys), [&](std::string const& key, LDAPLookup::Answer&& answer) {
        answers.push_back({key, std::move(answer)});
        if (answers.size() == 1000) {
            first.kill();
        }
        return true;
    });

    EXPECT_EQ(keysOf(answers), keys);
    EXPECT_EQ(countOf(Outcome::Found, answers), 3000U);
    EXPECT_EQ(answers.back().answer.server, "ldap://127.0.0.1:" + std::to_string(second.port()));
}

TEST(BulkLookupInTrouble, TellsErrorsFromNotFoundWhileTheOnlyServerIsDown)
{
    Slapd slapd({"--users", "100"});
    LDAPLookup lookup(settingsFor({slapd.port()}));
    auto keys = users(2000, 100);
    std::vector<Answered> answers;

    lookup.findAll(sourceOf(keys), [&](std::string const& key, LDAPLookup::Answer&& answer) {
        answers.push_back({key, std::move(answer)});
        if (answers.size() == 500) {
            slapd.kill();
        }
        if (answers.size() == 1500) {
            slapd.restart();
        }
        return true;
    });

    EXPECT_EQ(keysOf(answers), keys);
    EXPECT_EQ(countOf(Outcome::NotFound, answers), 0U);
    EXPECT_GT(countOf(Outcome::TryLater, answers), 0U);
    EXPECT_EQ(countOf(Outcome::Found, answers) + countOf(Outcome::TryLater, answers), 2000U);
    EXPECT_EQ(answers.back().answer.outcome, Outcome::Found);
}

TEST(BulkLookupInTrouble, AnswersTheOthersWhileOneKeyIsNeverAnswered)
{
    std::atomic<bool> isFirst{true};
    ScriptedServer server(serving([&](Peer& peer, std::string const& request) {
        if (!isFirst.exchange(false)) {
            answerFound(peer, request);
        }
    }));
    auto settings = settingsFor({server.port()});
    settings.connections = 1;
    settings.window = 4;
    settings.deadline = std::chrono::milliseconds(500);
    LDAPLookup lookup(settings);

    auto const answers = answersTo(lookup, users(20, 20));

    ASSERT_THAT(answers, SizeIs(20));
    EXPECT_EQ(answers.front().answer.outcome, Outcome::TryLater);
    EXPECT_EQ(answers.front().answer.code, -5);
    EXPECT_EQ(countOf(Outcome::Found, answers), 19U);
    EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(BulkLookupInTrouble, EndsAKeyInTimeWhileAnotherConnectionDoesNotOpen)
{
    std::atomic<bool> isFirst{true};
    ScriptedServer server([&](Peer& peer) {
        if (isFirst.exchange(false)) {
            serving([](Peer& silent, std::string const&) { silent.receiveUntilClosed(); })(peer);
        } else {
            peer.receiveUntilClosed();
        }
    });
    auto settings = settingsFor({server.port()});
    settings.connections = 2;
    settings.window = 1;
    settings.deadline = std::chrono::milliseconds(30000);
    settings.networkTimeout = 30;
    LDAPLookup lookup(settings);
    settings.deadline = std::chrono::milliseconds(1000);
    LDAPLookup hurried(settings);
    int given = 0;
    std::vector<LDAPLookup::Answer> answers;

    hurried.findAll(
        [&](std::string& key, bool) {
            if (given == 2) {
                return Supply::end;
            }
            key = addressOf(++given);
            return Supply::key;
        },
        [&](std::string const&, LDAPLookup::Answer&& answer) {
            answers.push_back(std::move(answer));
            return true;
        });

    ASSERT_THAT(answers, SizeIs(2));
}

// A source that reads a pipe: keys are sent while others are in flight.

class ADialogue : public testing::Test {
protected:
    ~ADialogue() override
    {
        m_pipe.end();
        m_server.giveCue();
        if (m_runner.joinable()) {
            m_runner.join();
        }
    }

    void start()
    {
        m_runner = std::thread([this] {
            LDAPLookup lookup(settingsFor({m_server.port()}));
            lookup.findAll(
                [&](std::string& key, bool mayWait) { return m_pipe.read(key, mayWait); },
                m_pipe.descriptor(),
                [&](std::string const& key, LDAPLookup::Answer&& answer) {
                    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
                    m_answered.push_back(key);
                    ++m_count;
                    return true;
                });
        });
    }

    void finish()
    {
        m_pipe.end();
        m_runner.join();
    }

    bool areSearched(std::size_t count)
    {
        return eventually([&] { return countOf(SearchRequest, m_server.received()) == count; });
    }

    LinesThroughAPipe m_pipe;
    std::vector<std::string> m_answered; ///< read after finish()
    std::atomic<std::size_t> m_count{0};
    std::atomic<bool> m_holdsTheFirst{true};
    ScriptedServer m_server{serving([this](Peer& peer, std::string const& request) {
        if (request.find("slow") != std::string::npos) {
            m_slow = request;
            return;
        }
        answerFound(peer, request);
        if (request.find("last") != std::string::npos) {
            answerFound(peer, m_slow);
        }
    })};
    std::string m_slow;
    std::thread m_runner;
};

TEST_F(ADialogue, AnswersEachKeyWhileItsOtherEndWaits)
{
    start();

    for (std::size_t i = 1; i <= 3; ++i) {
        m_pipe.write(addressOf(static_cast<int>(i)));
        ASSERT_TRUE(eventually([&] { return m_count == i; }));
    }
    finish();

    EXPECT_THAT(m_answered, ElementsAre(addressOf(1), addressOf(2), addressOf(3)));
}

TEST_F(ADialogue, SendsAKeyWhileAnotherIsInFlight)
{
    start();
    m_pipe.write("slow@corp.test");
    ASSERT_TRUE(areSearched(1));

    m_pipe.write(addressOf(2));
    bool const isSent = areSearched(2);
    m_pipe.write("last@corp.test");
    finish();

    EXPECT_TRUE(isSent);
    EXPECT_THAT(m_answered, ElementsAre("slow@corp.test", addressOf(2), "last@corp.test"));
}

TEST_F(ADialogue, TakesManyKeysThatWereWrittenAtOnce)
{
    std::string lines = addressOf(0);
    for (int i = 1; i < 1000; ++i) {
        lines += '\n' + addressOf(i);
    }
    m_pipe.write(lines);
    start();
    finish();

    EXPECT_EQ(m_answered.size(), 1000U);
}

TEST_F(ADialogue, EndsWhenItsOtherEndIsClosed)
{
    start();
    finish();

    EXPECT_TRUE(m_answered.empty());
}

} // namespace SolvaneTest
