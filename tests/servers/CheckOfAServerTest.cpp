// The tool's check command, as run by an administrator.
#include "Lookups.h"
#include "Process.h"
#include "TemporaryDirectory.h"
#include "TestedServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>

using testing::HasSubstr;
using testing::Not;

namespace SolvaneTest {

namespace {

/// Verdict and text of a step of the report.
struct Step {
    std::string verdict;
    std::string text;
};

std::map<std::string, Step> stepsOf(std::string const& report)
{
    std::regex const line(
        R"(  (ok|warning|FAILED|-) +([A-Za-z ]*[A-Za-z]) {2,}(?:[0-9.]+ ms)? *(.*))");
    std::map<std::string, Step> steps;
    std::istringstream lines(report);
    std::smatch parts;
    for (std::string text; std::getline(lines, text);) {
        if (std::regex_match(text, parts, line)) {
            steps[parts[2]] = Step{parts[1], parts[3]};
        }
    }
    return steps;
}

} // namespace

class CheckOfAServer : public ServerTest {
protected:
    CheckOfAServer() { writePassword(server()["READER_PW"]); }

    void writePassword(std::string const& password)
    {
        std::ofstream(m_passwordFile) << password;
        std::filesystem::permissions(m_passwordFile, std::filesystem::perms::owner_read |
                                                         std::filesystem::perms::owner_write);
    }
    SolvaneTest::ProgramOutcome check(std::string const& uri) const
    {
        return run({SOLVANE_TOOL, "check", "-H", uri, "--tls-ca", server()["CA_FILE"], "-D",
                    server()["READER_DN"], "-y", m_passwordFile, "-b", server()["PEOPLE"], "-t",
                    server()["TEMPLATE"], "--probe", addressOf(7), "--repeat", "5"});
    }

private:
    TemporaryDirectory m_folder;
    std::string const m_passwordFile = m_folder.path() / "password";
};

TEST_F(CheckOfAServer, PassesEveryStepThatTheServerSupports)
{
    auto const outcome = check(server()["LDAPS_URI"]);

    auto steps = stepsOf(outcome.output);
    measured("check", outcome.exitStatus);
    measured("check_who_am_i", steps["who am I"].verdict);
    EXPECT_EQ(outcome.exitStatus, 0) << outcome.output;
    for (char const* const name :
         {"settings", "template", "resolution", "TCP", "TLS", "certificate", "name", "chain",
          "bind", "root DSE", "base", "probe", "pool", "latency"}) {
        EXPECT_EQ(steps[name].verdict, "ok") << name << '\n' << outcome.output;
    }
    EXPECT_EQ(steps["who am I"].verdict, server().number("WHO_AM_I") == 0 ? "ok" : "warning");
    EXPECT_THAT(steps["probe"].text, HasSubstr(server().personDn(7)));
}

TEST_F(CheckOfAServer, TellsAWrongPassword)
{
    writePassword("guess");

    auto const outcome = check(server()["LDAPS_URI"]);

    EXPECT_EQ(outcome.exitStatus, 77);
    EXPECT_EQ(stepsOf(outcome.output)["bind"].verdict, "FAILED") << outcome.output;
    EXPECT_THAT(outcome.output, Not(HasSubstr("guess")));
}

TEST_F(CheckOfAServer, WithoutTlsTellsWhatTheServerMakesOfThePassword)
{
    auto const outcome = check(server()["LDAP_URI"]);

    measured("check_without_tls", outcome.exitStatus);
    Step const bind = stepsOf(outcome.output)["bind"];
    EXPECT_EQ(outcome.exitStatus, server().needsTls() ? 77 : 0) << outcome.output;
    EXPECT_EQ(bind.verdict, server().needsTls() ? "FAILED" : "ok") << outcome.output;
    EXPECT_THAT(bind.text, HasSubstr(server().needsTls() ? "ldaps://" : "as "));
}

TEST_F(CheckOfAServer, TellsAServerThatIsDown)
{
    server().kill();

    auto const outcome = check(server()["LDAPS_URI"]);

    EXPECT_EQ(outcome.exitStatus, 75) << outcome.output;
    EXPECT_EQ(stepsOf(outcome.output)["TCP"].verdict, "FAILED") << outcome.output;
}

} // namespace SolvaneTest
