// A source that reads a pipe: keys are sent while others are in flight.
#include "Eventually.h"
#include "LdapMessages.h"
#include "Lookups.h"
#include "ScriptedServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

using namespace Solvane;
using Lookup::Outcome;
using testing::ElementsAre;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;
using Supply = LDAPLookup::Supply;

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
