// The switch for OpenLDAP's debug output: the calls, their order and results, and who prints where.
#include "FakeOpenLDAP.h"
#include "ReceivedMessages.h"
#include "TemporaryDirectory.h"

#include <solvane/ldap/DebugLogOpenLDAP.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

namespace SolvaneTest {
namespace {

using Solvane::DebugLogOpenLDAP;
using testing::ElementsAre;
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

TEST_F(TheDebugLog, ChangesNothingWhenItIsMade) { EXPECT_THAT(openldap.calls(), IsEmpty()); }

TEST_F(TheDebugLog, OpensItsFileAndSetsBothLevels)
{
    log.level(1, 2);

    EXPECT_THAT(openldap.calls(),
                ElementsAre("fopen '/var/spool/crashlog/ldap.log' 'w'",
                            "ber_set_option null LOG_PRINT_FILE file", "ber_set_option null 2 1",
                            "ldap_set_option null DEBUG_LEVEL 2"));
}

TEST_F(TheDebugLog, KeepsItsFileWhenItIsSwitchedOnAgain)
{
    log.level(1, 1);
    openldap.forgetCalls();

    log.level(1, 1);

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ber_set_option null 2 1", "ldap_set_option null DEBUG_LEVEL 1"));
}

TEST_F(TheDebugLog, KeepsItsFileForOtherLevels)
{
    log.level(1, 0);
    openldap.forgetCalls();

    log.level(0, 65535);

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ber_set_option null 2 0", "ldap_set_option null DEBUG_LEVEL 65535"));
}

TEST_F(TheDebugLog, TurnsLiblberToStandardErrorBeforeItClosesItsFile)
{
    log.level(1, 1);
    openldap.forgetCalls();

    log.level(0, 0);

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ber_set_option null 2 0", "ldap_set_option null DEBUG_LEVEL 0",
                            "ber_set_option null LOG_PRINT_FILE standard error", "fclose file"));
}

TEST_F(TheDebugLog, PassesNegativeLevelsOnWhenItIsSwitchedOff)
{
    log.level(1, 1);
    openldap.forgetCalls();

    log.level(-1, 0);

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ber_set_option null 2 -1", "ldap_set_option null DEBUG_LEVEL 0",
                            "ber_set_option null LOG_PRINT_FILE standard error", "fclose file"));
}

TEST_F(TheDebugLog, ClosesItsFileOnce)
{
    log.level(1, 1);
    log.level(0, 0);
    openldap.forgetCalls();

    log.level(0, 0);

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ber_set_option null 2 0", "ldap_set_option null DEBUG_LEVEL 0"));
}

TEST_F(TheDebugLog, OpensItsFileAnewAfterItWasClosed)
{
    log.level(1, 1);
    log.level(0, 0);
    openldap.forgetCalls();

    log.level(1, 1);

    EXPECT_THAT(openldap.calls(),
                ElementsAre("fopen '/var/spool/crashlog/ldap.log' 'w'",
                            "ber_set_option null LOG_PRINT_FILE file", "ber_set_option null 2 1",
                            "ldap_set_option null DEBUG_LEVEL 1"));
}

TEST_F(TheDebugLog, IsLeftOnWhenItsSwitchIsDestroyed)
{
    auto ending = std::make_unique<DebugLogOpenLDAP>();
    ending->level(1, 1);
    openldap.forgetCalls();

    ending.reset();

    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(TheDebugLogWithoutAFile, OnlySetsTheLevelsWhenItIsSwitchedOff)
{
    log.level(0, 0);

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ber_set_option null 2 0", "ldap_set_option null DEBUG_LEVEL 0"));
}

TEST_F(TheDebugLogWithoutAFile, PassesTheNullPointerOn)
{
    openldap.fopen = [](auto...) -> FILE* { return nullptr; };

    log.level(1, 1);

    EXPECT_THAT(openldap.calls(),
                ElementsAre("fopen '/var/spool/crashlog/ldap.log' 'w'",
                            "ber_set_option null LOG_PRINT_FILE null", "ber_set_option null 2 1",
                            "ldap_set_option null DEBUG_LEVEL 1"));
}

TEST_F(TheDebugLogWithoutAFile, TriesAgainWhenItIsSwitchedOnAgain)
{
    auto const open = openldap.fopen;
    openldap.fopen = [](auto...) -> FILE* { return nullptr; };
    log.level(1, 1);
    openldap.fopen = open;
    openldap.forgetCalls();

    log.level(1, 1);

    EXPECT_THAT(openldap.calls(),
                ElementsAre("fopen '/var/spool/crashlog/ldap.log' 'w'",
                            "ber_set_option null LOG_PRINT_FILE file", "ber_set_option null 2 1",
                            "ldap_set_option null DEBUG_LEVEL 1"));
}

TEST_F(TheDebugLogWithoutAFile, ClosesNothingWhenItIsSwitchedOff)
{
    openldap.fopen = [](auto...) -> FILE* { return nullptr; };
    log.level(1, 1);
    openldap.forgetCalls();

    log.level(0, 0);

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ber_set_option null 2 0", "ldap_set_option null DEBUG_LEVEL 0"));
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

struct LevelCase {
    int berLevel;
    int ldapLevel;
    bool isOn;
};

void PrintTo(LevelCase const& tested, std::ostream* out)
{
    *out << tested.berLevel << " and " << tested.ldapLevel;
}

class TheLevelsOfTheDebugLog : public DebugLogTest,
                               public testing::WithParamInterface<LevelCase> {};

TEST_P(TheLevelsOfTheDebugLog, AreOnWhenOneOfThemIsAboveZero)
{
    log.level(GetParam().berLevel, GetParam().ldapLevel);

    EXPECT_EQ(openldap.calls().front() == "fopen '/var/spool/crashlog/ldap.log' 'w'",
              GetParam().isOn);
}

INSTANTIATE_TEST_SUITE_P(Such, TheLevelsOfTheDebugLog,
                         testing::Values(LevelCase{1, 0, true}, LevelCase{0, 1, true},
                                         LevelCase{1, -1, true}, LevelCase{-1, 1, true},
                                         LevelCase{65535, 65535, true}, LevelCase{0, 0, false},
                                         LevelCase{-1, 0, false}, LevelCase{0, -1, false},
                                         LevelCase{-1, -1, false}));

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
