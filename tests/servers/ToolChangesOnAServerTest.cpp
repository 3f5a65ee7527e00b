// The tool's searches and changes on a server, as an administrator runs them.
#include "Directory.h"
#include "Process.h"
#include "TemporaryDirectory.h"
#include "TestedServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

using namespace Solvane;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace SolvaneTest {

namespace {

constexpr char address[] = "user0000007@corp.test"; // personDn(7)'s

} // namespace

class ToolOnAServer : public ServerTest {
protected:
    ToolOnAServer() { passwordFile = written("password", server()["READER_PW"]); }

    /// A new file that only its owner may read.
    std::string written(std::string const& name, std::string const& content) const
    {
        std::string const file = m_folder.path() / name;
        std::ofstream(file) << content;
        std::filesystem::permissions(file, std::filesystem::perms::owner_read |
                                               std::filesystem::perms::owner_write);
        return file;
    }
    std::string pathOf(std::string const& name) const { return m_folder.path() / name; }

    /// A command as the reader.
    SolvaneTest::ProgramOutcome tool(std::string const& command,
                                     std::vector<std::string> const& arguments) const
    {
        std::vector<std::string> all = {SOLVANE_TOOL, command,
                                        "-H",         server()["LDAPS_URI"],
                                        "--tls-ca",   server()["CA_FILE"],
                                        "-D",         server()["READER_DN"],
                                        "-y",         passwordFile};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return run(all);
    }

    std::string passwordFile;

private:
    TemporaryDirectory m_folder;
};

using SearchByTheTool = ToolOnAServer;

TEST_F(SearchByTheTool, PrintsTheEntryAsLdif)
{
    auto const outcome = tool("search", {"-q", "-b", server()["PEOPLE"], "--format", "ldif",
                                         std::string("(mail=") + address + ')', "mail"});

    EXPECT_EQ(outcome.exitStatus, 0) << outcome.output;
    EXPECT_EQ(outcome.output, "dn: " + server().personDn(7) + "\nmail: " + address + "\n\n");
}

TEST_F(SearchByTheTool, CountsEveryEntryWithPages)
{
    // More than the server sends of one search where it has a limit, unless it counts pages together.
    auto const outcome = tool("search", {"-q", "-b", server()["ESCAPES"], "-s", "one", "-E", "pr=2",
                                         "--count", "(objectClass=*)"});

    EXPECT_EQ(outcome.exitStatus, 0) << outcome.output;
    EXPECT_EQ(outcome.output, "6\n");
}

TEST_F(SearchByTheTool, SortsOrSaysThatTheServerDoesNot)
{
    auto const outcome = tool("search", {"-b", server()["ESCAPES"], "-s", "one", "-E", "!sss=-cn",
                                         "--format", "values", "(objectClass=*)", "cn"});

    bool const sorts = server().number("CONTROL_SORT") == 0;
    EXPECT_EQ(outcome.exitStatus == 0, sorts) << outcome.output;
    if (!sorts) {
        EXPECT_THAT(outcome.output, HasSubstr("12")) << "unavailable critical extension";
    }
}

TEST_F(SearchByTheTool, SaysThatNothingIsFound)
{
    auto const outcome =
        tool("search", {"-q", "-b", server()["PEOPLE"], "(mail=nobody@corp.test)"});

    EXPECT_EQ(outcome.exitStatus, 1) << outcome.output;
    EXPECT_THAT(outcome.output, IsEmpty());
}

class ApplyByTheTool : public ToolOnAServer {
protected:
    static std::string dnOf(std::string const& name)
    {
        return "cn=" + name + ',' + server()["NEW"];
    }
    static std::string additionOf(std::string const& name)
    {
        return "dn: " + dnOf(name) + "\nchangetype: add\nobjectClass: inetOrgPerson\ncn: " + name +
               "\nsn: " + name + "\n\n";
    }
    static LDAPResult found(std::string const& name)
    {
        LDAPConnection reading = server().bound();
        return answerTo(reading, searchFor(server()["NEW"], "(cn=" + name + ')'));
    }
    static bool exists(std::string const& name) { return !namesIn(found(name)).empty(); }
    static std::vector<std::string> stored(std::string const& name, std::string const& type)
    {
        return valuesIn(found(name), type);
    }
};

TEST_F(ApplyByTheTool, MakesEachKindOfChangeInOneRun)
{
    std::string const changes = written(
        "changes.ldif",
        additionOf("applied") + "dn: " + dnOf("applied") +
            "\nchangetype: modify\nadd: title\ntitle: one\n-\nreplace: sn\nsn:: w4Q=\n-\n\n" +
            "dn: " + dnOf("applied") +
            "\nchangetype: modrdn\nnewrdn: cn=renamed\ndeleteoldrdn: 1\n\n" + additionOf("gone") +
            "dn: " + dnOf("gone") + "\nchangetype: delete\n");

    auto const outcome = tool("apply", {"-q", changes});

    EXPECT_EQ(outcome.exitStatus, 0) << outcome.output;
    EXPECT_EQ(outcome.output, "added " + dnOf("applied") + "\nmodified " + dnOf("applied") +
                                  "\nrenamed " + dnOf("applied") + " to cn=renamed\nadded " +
                                  dnOf("gone") + "\ndeleted " + dnOf("gone") + '\n');
    EXPECT_THAT(stored("renamed", "title"), ElementsAre("one"));
    EXPECT_THAT(stored("renamed", "sn"), ElementsAre("\xc3\x84"));
    EXPECT_FALSE(exists("applied"));
    EXPECT_FALSE(exists("gone"));
}

TEST_F(ApplyByTheTool, EndsAtTheFirstChangeThatIsRefused)
{
    std::string const changes =
        written("changes.ldif",
                "dn: " + dnOf("missing") + "\nchangetype: delete\n\n" + additionOf("after"));

    auto const outcome = tool("apply", {changes});

    EXPECT_EQ(outcome.exitStatus, 65) << outcome.output;
    EXPECT_THAT(outcome.output, HasSubstr("refused 32 " + dnOf("missing") + ": "));
    EXPECT_FALSE(exists("after"));
}

TEST_F(ApplyByTheTool, IsUndoneOrSaysThatTheServerShowsNoEntries)
{
    ASSERT_EQ(tool("apply", {"-q", written("first.ldif", additionOf("undone"))}).exitStatus, 0);
    std::string const undo = pathOf("undo.ldif");
    std::string const changes =
        written("changes.ldif", "dn: " + dnOf("undone") +
                                    "\nchangetype: modify\nadd: title\ntitle: one\n-\n" +
                                    "replace: sn\nsn: other\n-\n\n" + additionOf("unwanted"));

    auto const outcome = tool("apply", {"--pre-read", undo, changes});

    bool const shows =
        server().number("CONTROL_PRE_READ") == 0 && server().number("CONTROL_POST_READ") == 0;
    measured("apply_undo", shows ? 0 : outcome.exitStatus);
    ASSERT_EQ(outcome.exitStatus, shows ? 0 : 69) << outcome.output;
    EXPECT_THAT(stored("undone", "sn"), ElementsAre(shows ? "other" : "undone"));
    if (shows) {
        auto const undoing = tool("apply", {undo});
        EXPECT_EQ(undoing.exitStatus, 0) << undoing.output;
        EXPECT_THAT(stored("undone", "sn"), ElementsAre("undone"));
    }
    EXPECT_THAT(stored("undone", "title"), IsEmpty());
    EXPECT_FALSE(exists("unwanted"));
}

} // namespace SolvaneTest
