// The contract of the log and of debug output.
#include <solvart/Logger.h>

#include "CapturedStandardError.h"
#include "Threads.h"

#include <solvart/Debug.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <set>
#include <string>

namespace {

using basepp::dbg::debug;
using Solvane::Logger;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::SizeIs;

void log(std::string const& text)
{
    Logger::instance(false).log(0x30000, 0, "%d\x01%s", 6, text.c_str());
}

TEST(TheLogger, IsOneForTheProcess)
{
    EXPECT_EQ(&Logger::instance(false), &Logger::instance(false));
}

TEST(ALogMessage, IsOneReadableLine)
{
    StandardErrorLines const standardError;

    log("Invalid hostname: foo");

    auto const lines = standardError.lines();
    EXPECT_THAT(lines, ElementsAre(HasSubstr("Invalid hostname: foo")));
    EXPECT_THAT(lines, ElementsAre(testing::Not(HasSubstr("\x01"))));
}

TEST(ALogMessage, IsOneLineWhateverItsTextHolds)
{
    StandardErrorLines const standardError;

    log("first\r\nsecond\x01third");

    EXPECT_THAT(standardError.lines(),
                ElementsAre(AllOf(HasSubstr("first"), HasSubstr("second"), HasSubstr("third"))));
}

TEST(ALogMessage, MayComeWithoutParts)
{
    StandardErrorLines const standardError;

    Logger::instance(false).log(0x30000, 0, "%s", "plain text");

    EXPECT_THAT(standardError.lines(), ElementsAre(HasSubstr("plain text")));
}

TEST(ALogMessage, IsWrittenAtOnce)
{
    StandardErrorWrites standardError;

    log(std::string(10000, 'x'));

    EXPECT_THAT(standardError.lengths(), ElementsAre(testing::Gt(10000)));
}

TEST(ALogMessage, LeavesErrnoAlone)
{
    FullStandardError const standardError;

    errno = ENOENT;
    log("text");

    EXPECT_EQ(errno, ENOENT);
}

TEST(ALogMessage, DoesNotMixWithThoseOfOtherThreads)
{
    StandardErrorLines const standardError;

    onThreads(4, [](int) {
        for (int i = 0; i < 250; ++i) {
            log("always the same text");
        }
    });

    auto const lines = standardError.lines();
    EXPECT_THAT(lines, SizeIs(1000));
    EXPECT_THAT(std::set<std::string>(lines.begin(), lines.end()),
                ElementsAre(HasSubstr("always the same text")));
}

/// The mask of a new process, with `setting` before its command.
std::string maskOfNewProcess(std::string const& setting)
{
    std::string const command = setting + " '" PRINT_MASK_PROGRAM "'";
    std::FILE* const output = ::popen(command.c_str(), "r");
    char line[32] = "";
    EXPECT_NE(std::fgets(line, sizeof(line), output), nullptr);
    EXPECT_EQ(::pclose(output), 0);
    return line;
}

TEST(TheDebugMask, IsAssignable)
{
    unsigned int const before = basepp_dbg_mask_;

    basepp_dbg_mask_ = 0x80001;

    EXPECT_EQ(basepp_dbg_mask_, 0x80001u);
    basepp_dbg_mask_ = before;
}

TEST(TheDebugMask, StartsAtZero)
{
    EXPECT_EQ(maskOfNewProcess("env -u SOLVANE_DEBUG_MASK"), "0\n");
}

class TheDebugMaskOfTheEnvironment
    : public testing::TestWithParam<std::pair<char const*, char const*>> {};

TEST_P(TheDebugMaskOfTheEnvironment, IsReadInTheNotationOfC)
{
    auto const& [setting, mask] = GetParam();

    EXPECT_EQ(maskOfNewProcess(std::string("SOLVANE_DEBUG_MASK='") + setting + "'"), mask);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Numbers, TheDebugMaskOfTheEnvironment, testing::Values(
    std::pair{"0x80008",    "0x80008\n"},
    std::pair{"524289",     "0x80001\n"},
    std::pair{"010",        "0x8\n"},
    std::pair{"0xffffffff", "0xffffffff\n"}));
INSTANTIATE_TEST_SUITE_P(OtherText, TheDebugMaskOfTheEnvironment, testing::Values(
    std::pair{"",            "0\n"},
    std::pair{"on",          "0\n"},
    std::pair{"0x80008 ",    "0\n"},
    std::pair{" 8",          "0\n"},
    std::pair{"-1",          "0\n"},
    std::pair{"0x100000001", "0\n"},
    std::pair{"0xffffffffffffffffffff", "0\n"}));
// clang-format on

TEST(ADebugLine, TellsPlaceAndText)
{
    StandardErrorLines const standardError;

    debug("Connection", 248, "bind", 0, "Error '%s' errno=%d", "Can't contact LDAP server", 111);

    EXPECT_THAT(standardError.lines(),
                ElementsAre("Connection:248 bind: Error 'Can't contact LDAP server' errno=111"));
}

TEST(ADebugLine, IsOneLineWhateverItsTextHolds)
{
    StandardErrorLines const standardError;

    debug("Connection", 248, "bind", 0, "%s", "first\r\nsecond");

    EXPECT_THAT(standardError.lines(),
                ElementsAre(testing::AllOf(testing::HasSubstr("first"), EndsWith("second"))));
}

TEST(ADebugLine, HasAnyLength)
{
    StandardErrorLines const standardError;

    debug("Search", 1, "send", 0, "%s", std::string(1000000, 'x').c_str());

    std::string const expected = "Search:1 send: " + std::string(1000000, 'x');
    EXPECT_TRUE(standardError.lines() == std::vector<std::string>{expected});
}

TEST(ADebugLine, IsWrittenAtOnce)
{
    StandardErrorWrites standardError;

    debug("Search", 1, "send", 0, "%s", std::string(10000, 'x').c_str());

    EXPECT_THAT(standardError.lengths(), ElementsAre(10016));
}

TEST(ADebugLine, LeavesErrnoAlone)
{
    FullStandardError const standardError;

    errno = ENOENT;
    debug("Search", 1, "send", 0, "%s", "text");

    EXPECT_EQ(errno, ENOENT);
}

TEST(ADebugLine, DoesNotMixWithThoseOfOtherThreads)
{
    StandardErrorLines const standardError;

    onThreads(4, [](int thread) {
        for (int i = 0; i < 250; ++i) {
            debug("Search", i, "send", 0, "thread %d", thread);
        }
    });

    auto const lines = standardError.lines();
    std::set<std::string> expected;
    for (int thread = 0; thread < 4; ++thread) {
        for (int i = 0; i < 250; ++i) {
            expected.insert("Search:" + std::to_string(i) + " send: thread " +
                            std::to_string(thread));
        }
    }
    EXPECT_THAT(lines, SizeIs(1000));
    EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()), expected);
}

} // namespace
