// Messages for the operator.
#include <solvart/Logger.h>

#include "CapturedStandardError.h"
#include "Threads.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <string>

namespace {

using Solvane::Logger;
using testing::AllOf;
using testing::ElementsAre;
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

} // namespace
