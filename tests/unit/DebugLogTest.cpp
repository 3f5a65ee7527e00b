// The switch for OpenLDAP's debug output: the calls, their order and results, and who prints where.
#include "FakeOpenLDAP.h"
#include "ReceivedMessages.h"
#include "TemporaryDirectory.h"

#include <solvane/ldap/DebugLogOpenLDAP.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace SolvaneTest {
namespace {

using Solvane::DebugLogOpenLDAP;
using testing::IsEmpty;
using testing::Not;

/// A switch whose calls are all replaced: nothing is opened, and nothing is printed anywhere.
class DebugLogTest : public testing::Test {
protected:
    DebugLogTest()
    {
        openldap.name(stderr, "standard error");
        openldap.fopen = [this](char const*, char const*) {
            return reinterpret_cast<FILE*>(&m_file);
        };
        openldap.fclose = [](FILE*) { return 0; };
        openldap.ber_set_option = [](auto...) { return LBER_OPT_SUCCESS; };
        openldap.ldap_set_option = [](auto...) { return LDAP_OPT_SUCCESS; };
    }

    FakeOpenLDAP openldap;
    DebugLogOpenLDAP log;

private:
    char m_file = 0;
};

using TheDebugLog = DebugLogTest;
using TheDebugLogWithoutAFile = DebugLogTest;
using TheResultOfTheDebugLog = DebugLogTest;

using Calls = std::vector<std::string>;

Calls operator+(Calls left, Calls const& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// The level of liblber, and that of libldap.
struct Levels {
    int ber;
    int ldap;
};

/// The calls that set them.
Calls setting(Levels const& levels)
{
    return {"ber_set_option null 2 " + std::to_string(levels.ber),
            "ldap_set_option null DEBUG_LEVEL " + std::to_string(levels.ldap)};
}

Calls const opening{"fopen '/var/spool/crashlog/ldap.log' 'w'",
                    "ber_set_option null LOG_PRINT_FILE file"};
Calls const openingInVain{opening.front(), "ber_set_option null LOG_PRINT_FILE null"};
Calls const closing{"ber_set_option null LOG_PRINT_FILE standard error", "fclose file"};

/// What a switch does that was set to some levels before.
struct Switching {
    char const* shows;
    std::vector<Levels> before;
    Levels last;
    Calls calls;
};

// clang-format off
Switching const switchings[] = {
    {"opens its file and sets both levels",       {},               {1, 2},         opening + setting({1, 2})},
    {"keeps its file when it is switched on again", {{1, 1}},       {1, 1},         setting({1, 1})},
    {"keeps its file for other levels",           {{1, 0}},         {0, 65535},     setting({0, 65535})},
    {"turns liblber to standard error before it closes its file", {{1, 1}}, {0, 0}, setting({0, 0}) + closing},
    {"passes negative levels on when it is switched off", {{1, 1}}, {-1, 0},        setting({-1, 0}) + closing},
    {"closes its file once",                      {{1, 1}, {0, 0}}, {0, 0},         setting({0, 0})},
    {"opens its file anew after it was closed",   {{1, 1}, {0, 0}}, {1, 1},         opening + setting({1, 1})},
    // On when one of the levels is above zero.
    {"is on by liblber's level",                  {},               {1, 0},         opening + setting({1, 0})},
    {"is on by libldap's level",                  {},               {0, 1},         opening + setting({0, 1})},
    {"is on although the other level is negative", {},              {1, -1},        opening + setting({1, -1})},
    {"is on although the first level is negative", {},              {-1, 1},        opening + setting({-1, 1})},
    {"is on with all bits",                       {},               {65535, 65535}, opening + setting({65535, 65535})},
    {"only sets the levels when it is switched off", {},            {0, 0},         setting({0, 0})},
    {"is off with a negative level",              {},               {-1, 0},        setting({-1, 0})},
    {"is off with the other one negative",        {},               {0, -1},        setting({0, -1})},
    {"is off with both negative",                 {},               {-1, -1},       setting({-1, -1})},
};
// clang-format on

TEST_F(TheDebugLog, ChangesNothingWhenItIsMade) { EXPECT_THAT(openldap.calls(), IsEmpty()); }

TEST_F(TheDebugLog, MakesTheseCallsInThisOrder)
{
    for (Switching const& row : switchings) {
        DebugLogOpenLDAP tested;
        for (Levels const& levels : row.before) {
            tested.level(levels.ber, levels.ldap);
        }
        openldap.forgetCalls();

        tested.level(row.last.ber, row.last.ldap);

        EXPECT_EQ(openldap.calls(), row.calls) << row.shows;
    }
}

TEST_F(TheDebugLog, IsLeftOnWhenItsSwitchIsDestroyed)
{
    auto ending = std::make_unique<DebugLogOpenLDAP>();
    ending->level(1, 1);
    openldap.forgetCalls();

    ending.reset();

    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(TheDebugLogWithoutAFile, PassesTheNullPointerOnAndClosesNothing)
{
    openldap.fopen = [](auto...) -> FILE* { return nullptr; };

    log.level(1, 1);
    EXPECT_EQ(openldap.calls(), openingInVain + setting({1, 1}));

    openldap.forgetCalls();
    log.level(0, 0);
    EXPECT_EQ(openldap.calls(), setting({0, 0}));
}

TEST_F(TheDebugLogWithoutAFile, TriesAgainWhenItIsSwitchedOnAgain)
{
    auto const open = openldap.fopen;
    openldap.fopen = [](auto...) -> FILE* { return nullptr; };
    log.level(1, 1);
    openldap.fopen = open;
    openldap.forgetCalls();

    log.level(1, 1);

    EXPECT_EQ(openldap.calls(), opening + setting({1, 1}));
}

TEST_F(TheResultOfTheDebugLog, IsThatOfLibldapsOption)
{
    openldap.ber_set_option = [](auto...) { return LBER_OPT_ERROR; };
    openldap.ldap_set_option = [](auto...) { return 5; };

    EXPECT_EQ(log.level(1, 1), 5);
    EXPECT_EQ(log.level(2, 2), 5);
}

TEST_F(TheResultOfTheDebugLog, IsThatOfLibldapsOptionWhenThereIsNoFileToClose)
{
    openldap.ldap_set_option = [](auto...) { return 5; };

    EXPECT_EQ(log.level(0, 0), 5);
}

TEST_F(TheResultOfTheDebugLog, IsThatOfClosingTheFile)
{
    log.level(1, 1);
    openldap.ldap_set_option = [](auto...) { return 5; };
    openldap.fclose = [](FILE*) { return EOF; };

    EXPECT_EQ(log.level(0, 0), EOF);
}

TEST_F(TheResultOfTheDebugLog, IsZeroWhenAllGoesWell)
{
    EXPECT_EQ(log.level(1, 1), 0);
    EXPECT_EQ(log.level(0, 0), 0);
}

/// The switch on the real libraries, with its file in a folder of the test's own.
///
/// The file is not really closed, so that what is printed into it afterwards can be seen.
class TheOutputOfOpenLDAP : public testing::Test {
protected:
    TheOutputOfOpenLDAP()
    {
        openldap.fopen = [this](char const*, char const* mode) {
            m_file = std::fopen((m_directory.path() / "ldap.log").c_str(), mode);
            return m_file;
        };
        openldap.fclose = [](FILE* file) { return std::fflush(file); };
        testing::internal::CaptureStderr();
    }
    ~TheOutputOfOpenLDAP() override
    {
        log.level(0, 0);
        RealCalls const unseen;
        std::fclose(m_file);
        testing::internal::GetCapturedStderr();
    }

    long written()
    {
        std::fflush(m_file);
        return std::ftell(m_file);
    }
    /// What has been printed to standard error, where OpenLDAP prints besides, since the last call.
    static std::string printed()
    {
        RealCalls const unseen;
        std::string const text = testing::internal::GetCapturedStderr();
        testing::internal::CaptureStderr();
        return text;
    }

    FakeOpenLDAP openldap;
    DebugLogOpenLDAP log;

private:
    TemporaryDirectory m_directory;
    FILE* m_file = nullptr;
};

TEST_F(TheOutputOfOpenLDAP, GoesIntoTheFileWhileItIsOn)
{
    log.level(0xffff, 0xffff);

    ReceivedMessages peer;
    ldap_msgfree(peer.entry("cn=a"));

    EXPECT_GT(written(), 0);
}

// A session keeps its initial level: it keeps printing after the switch is off.
TEST_F(TheOutputOfOpenLDAP, OfASessionThatOutlivesTheSwitchDoesNotGoIntoTheClosedFile)
{
    log.level(0xffff, 0xffff);
    ReceivedMessages peer;
    ldap_msgfree(peer.entry("cn=a"));
    log.level(0, 0);
    long const whenClosed = written();
    printed();

    ldap_msgfree(peer.entry("cn=a"));

    EXPECT_GT(whenClosed, 0);
    EXPECT_EQ(written(), whenClosed);
    EXPECT_THAT(printed(), Not(IsEmpty())) << "the session was to print";
}

} // namespace
} // namespace SolvaneTest
