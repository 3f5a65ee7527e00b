// The tool on a server, as an administrator runs it: the check command, and the guide's settings
// and templates.
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
using testing::IsEmpty;
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

std::string replaced(std::string text, std::string const& from, std::string const& to)
{
    for (std::string::size_type at = 0; (at = text.find(from, at)) != std::string::npos;
         at += to.size()) {
        text.replace(at, from.size(), to);
    }
    return text;
}

/// The lines below a heading, up to the next one of its level.
std::vector<std::string> sectionOf(std::string const& heading)
{
    std::ifstream guide(SOLVANE_GUIDE);
    std::vector<std::string> lines;
    bool isInside = false;
    for (std::string line; std::getline(guide, line);) {
        if (line.compare(0, 3, "## ") == 0) {
            isInside = line == heading;
        } else if (isInside) {
            lines.push_back(line);
        }
    }
    return lines;
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
    SolvaneTest::ProgramOutcome check(std::string const& uri,
                                      std::vector<std::string> const& options = {}) const
    {
        std::vector<std::string> all = {"-D", server()["READER_DN"], "-y", m_passwordFile};
        all.insert(all.end(), options.begin(), options.end());
        return checkWith(uri, all);
    }
    /// The options say as whom.
    static SolvaneTest::ProgramOutcome checkWith(std::string const& uri,
                                                 std::vector<std::string> const& options)
    {
        std::vector<std::string> command = {SOLVANE_TOOL, "check",
                                            "-H",         uri,
                                            "--tls-ca",   server()["CA_FILE"],
                                            "-b",         server()["PEOPLE"],
                                            "-t",         server()["TEMPLATE"],
                                            "--probe",    addressOf(7),
                                            "--repeat",   "5"};
        command.insert(command.end(), options.begin(), options.end());
        return run(command);
    }
    static void expectPassed(SolvaneTest::ProgramOutcome const& outcome,
                             std::vector<std::string> const& names)
    {
        auto steps = stepsOf(outcome.output);
        EXPECT_EQ(outcome.exitStatus, 0) << outcome.output;
        for (std::string const& name : names) {
            EXPECT_EQ(steps[name].verdict, "ok") << name << '\n' << outcome.output;
        }
        EXPECT_EQ(steps["who am I"].verdict, server().number("WHO_AM_I") == 0 ? "ok" : "warning");
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
    expectPassed(outcome,
                 {"settings", "template", "resolution", "TCP", "TLS", "certificate", "name",
                  "chain", "bind", "root DSE", "base", "probe", "pool", "latency"});
    EXPECT_THAT(steps["probe"].text, HasSubstr(server().personDn(7)));
}

TEST_F(CheckOfAServer, PassesByStartTls)
{
    auto const outcome = check(server()["LDAP_URI"], {"-ZZ"});

    expectPassed(outcome, {"TCP", "StartTLS", "TLS", "certificate", "name", "chain", "bind",
                           "probe", "pool"});
}

TEST_F(CheckOfAServer, PassesByKerberosOverStartTls)
{
    NameServer names;
    names.add(server()["KERBEROS_HOST"], {server().host()});
    std::string const uri = "ldap://" + server()["KERBEROS_HOST"] + ':' + server()["LDAP_PORT"];

    // Over TLS, the plugin of Cyrus SASL 2.1.28 loses the credentials of each bind.
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
    auto const outcome = checkWith(uri, {"-ZZ", "-Y", "GSSAPI", "--name-servers", names.address()});
    unsetenv("ASAN_OPTIONS");

    expectPassed(outcome, {"resolution", "StartTLS", "SASL", "probe", "pool"});
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

// The guide's settings and templates for a server, tried on it.

class GuideOnAServer : public ServerTest {
protected:
    GuideOnAServer()
    {
        TestedServer::writeAuthorities(m_authorities);
        bool isInside = false;
        std::ofstream settings(settingsFile);
        for (std::string const& line : sectionOf(server()["GUIDE"])) {
            if (line.compare(0, 3, "```") == 0) {
                isInside = line == "```ini";
            } else if (isInside) {
                settings << ours(line) << '\n';
            } else if (line.compare(0, 3, "| `") == 0) {
                templates.push_back(
                    replaced(ours(line.substr(3, line.find('`', 3) - 3)), R"(\|)", "|"));
            }
        }
        std::filesystem::permissions(settingsFile, std::filesystem::perms::owner_read |
                                                       std::filesystem::perms::owner_write);
    }

    /// A line of the guide, with this server's names.
    std::string ours(std::string line) const
    {
        for (char const* const host : {"ldap1", "dc1.ad"}) {
            line = replaced(line, std::string("ldaps://") + host + ".example.com",
                            server()["LDAPS_URI"]);
        }
        for (char const* const host : {"ldap2", "dc2.ad"}) {
            line = replaced(line, std::string("ldaps://") + host + ".example.com",
                            TestedServer::second()["LDAPS_URI"]);
        }
        line = replaced(line, "/etc/ssl/our-authority.pem", m_authorities);
        line = replaced(line, "change me", server()["READER_PW"]);
        line = replaced(line, "dc=example,dc=com", "dc=corp,dc=test");
        line = replaced(line, "DC=example,DC=com", "DC=corp,DC=test");
        return replaced(line, "example.com", "corp.test");
    }

private:
    TemporaryDirectory m_folder;
    std::string const m_authorities = m_folder.path() / "authorities.pem";

protected:
    std::string const settingsFile = m_folder.path() / "settings";
    std::vector<std::string> templates;
};

TEST_F(GuideOnAServer, HasSettingsThatPassTheCheckOnBothServers)
{
    auto const outcome = run({SOLVANE_TOOL, "-C", settingsFile, "check", "--probe", addressOf(7)});

    EXPECT_EQ(outcome.exitStatus, 0) << outcome.output;
    for (TestedServer const* const asked : {&server(), &TestedServer::second()}) {
        EXPECT_THAT(outcome.output, testing::HasSubstr((*asked)["LDAPS_URI"] + '\n'));
    }
}

TEST_F(GuideOnAServer, HasTemplatesThatFindThePerson)
{
    EXPECT_THAT(templates, Not(IsEmpty()));
    for (std::string const& tried : templates) {
        auto const found = run({SOLVANE_TOOL, "-C", settingsFile, "lookup", "-t", tried, "--attrs",
                                "mail", "--format", "values", addressOf(7)});
        auto const notFound =
            run({SOLVANE_TOOL, "-C", settingsFile, "lookup", "-t", tried, "nobody@corp.test"});

        EXPECT_EQ(found.exitStatus, 0) << tried << '\n' << found.output;
        EXPECT_EQ(found.output, addressOf(7) + '\n') << tried;
        EXPECT_EQ(notFound.exitStatus, 1) << tried << '\n' << notFound.output;
    }
}

TEST_F(GuideOnAServer, HasTemplatesWithoutAFault)
{
    for (std::string const& tried : templates) {
        auto const outcome = run({SOLVANE_TOOL, "expand", "--lint", "-t", tried});

        EXPECT_EQ(outcome.exitStatus, 0) << outcome.output;
        EXPECT_EQ(outcome.output, "") << tried;
    }
}

} // namespace SolvaneTest
