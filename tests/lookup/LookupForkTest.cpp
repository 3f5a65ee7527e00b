// After lookups a process forks, and all children use the lookup at the same time.
#include "Lookups.h"
#include "Process.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

using namespace Solvane;
using Lookup::Outcome;

namespace SolvaneTest {

namespace {

/// Whether the answer is this user's entry.
bool isRight(LDAPLookup::Answer const& answer, int user)
{
    std::string const local = addressOf(user).substr(0, addressOf(user).find('@'));
    return answer.outcome == Outcome::Found && answer.entries.size() == 1 &&
           answer.entries.front().entryName() == "uid=" + local + ",ou=people,dc=corp,dc=test";
}

/// Looks up users, different ones in each child; exits with the number of wrong answers.
[[noreturn]] void lookUpInChild(LDAPLookup& lookup, int child)
{
    int wrong = 0;
    for (int i = 0; i < 3; ++i) {
        int const user = child * 3 + i + 1;
        wrong += isRight(lookup.find(addressOf(user)), user) ? 0 : 1;
    }
    _exit(wrong);
}

/// Forks children at once. Returns the number of their wrong answers; -1 if one died.
int wrongAnswersOfChildren(LDAPLookup& lookup, int children)
{
    std::vector<pid_t> running;
    for (int child = 0; child < children; ++child) {
        pid_t const pid = fork();
        if (pid == 0) {
            alarm(30); // a child that hangs is one that died
            lookUpInChild(lookup, child);
        }
        running.push_back(pid);
    }
    int wrong = 0;
    for (pid_t const pid : running) {
        int status = 0;
        waitpid(pid, &status, 0);
        wrong += WIFEXITED(status) ? WEXITSTATUS(status) : 1000;
    }
    return wrong;
}

} // namespace

class ForkedLookups : public SuiteWithSlapd<ForkedLookups> {
public:
    static std::vector<std::string> options() { return {"--users", "60"}; }

protected:
    static LDAPLookup::Settings settings(WayIn way = WayIn::plain)
    {
        return settingsFor(slapd(), way);
    }

    void expectRightAnswers(LDAPLookup& lookup, int rounds, int children)
    {
        ASSERT_TRUE(isRight(lookup.find(addressOf(50)), 50));

        for (int round = 0; round < rounds; ++round) {
            ASSERT_EQ(wrongAnswersOfChildren(lookup, children), 0) << "round " << round;
        }

        EXPECT_TRUE(isRight(lookup.find(addressOf(51)), 51));
        EXPECT_EQ(lookup.statistics().opened, 1U);
        EXPECT_EQ(lookup.statistics().stale, 0U);
    }
};

TEST_F(ForkedLookups, AreRightInTwoChildrenAHundredTimes)
{
    LDAPLookup lookup(settings());

    expectRightAnswers(lookup, 100, 2);
}

TEST_F(ForkedLookups, AreRightInEightChildrenAHundredTimes)
{
    LDAPLookup lookup(settings());

    expectRightAnswers(lookup, 100, 8);
}

TEST_F(ForkedLookups, AreRightOverTls)
{
    LDAPLookup lookup(settings(WayIn::ldaps));

    expectRightAnswers(lookup, 10, 4);
}

TEST_F(ForkedLookups, AreRightWithStartTls)
{
    LDAPLookup lookup(settings(WayIn::startTls));

    expectRightAnswers(lookup, 10, 4);
}

TEST_F(ForkedLookups, LeaveTheParentsConnectionAloneWhenAChildDestroysItsLookup)
{
    auto lookup = std::make_unique<LDAPLookup>(settings());
    ASSERT_TRUE(isRight(lookup->find(addressOf(1)), 1));

    pid_t const pid = fork();
    if (pid == 0) {
        lookup.reset();
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);

    EXPECT_TRUE(isRight(lookup->find(addressOf(2)), 2));
    EXPECT_EQ(lookup->statistics().opened, 1U);
    EXPECT_EQ(lookup->statistics().stale, 0U);
}

// Another thread may hold their locks at the time of the fork.
TEST_F(ForkedLookups, DoNotHangWhileOtherThreadsOfTheParentLookUp)
{
    if (!allocatorForks) {
        GTEST_SKIP() << "the allocator does not support forks of processes with several threads";
    }
    LDAPLookup lookup(settings());
    std::atomic<bool> isOver{false};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            while (!isOver) {
                lookup.find(addressOf(60));
            }
        });
    }

    int wrong = 0;
    for (int round = 0; round < 20; ++round) {
        wrong += wrongAnswersOfChildren(lookup, 2);
    }
    isOver = true;
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(wrong, 0);
}

} // namespace SolvaneTest
