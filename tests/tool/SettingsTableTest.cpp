// The table of settings, and what the manual pages say of its rows.
#include "SettingsTable.h"

#include "Files.h"
#include "Outcome.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <regex>
#include <set>
#include <sstream>

namespace {

using namespace Solvane::Tool;
using testing::ContainsRegex;
using testing::HasSubstr;

std::string manualPage(std::string const& name)
{
    return readFile("the manual page", std::string(SOLVANE_SOURCE_DIR) + "/docs/man/" + name);
}

/// The text of a page's lines without its requests: "Fl" and "Cm" are left out, as are quotes.
std::string plain(std::string const& lines)
{
    std::string text = std::regex_replace(lines, std::regex("(^|\n)\\.[A-Z][a-z]"), "$1");
    text = std::regex_replace(text, std::regex("\\b(Fl|Cm|Ar|Li|Ns) "), "");
    text = std::regex_replace(text, std::regex("\\s+"), " ");
    return std::regex_replace(text, std::regex(" ([.,;])"), "$1");
}

/// The items of a page's lists: heads without request, and the lines below them.
std::map<std::string, std::string> itemsOf(std::string const& page)
{
    std::map<std::string, std::string> items;
    std::istringstream lines(page);
    std::string* current = nullptr;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(".It ", 0) == 0) {
            current = &items[line.substr(4)];
        } else if (line.rfind(".El", 0) == 0 || line.rfind(".Bl", 0) == 0) {
            current = nullptr;
        } else if (current != nullptr) {
            *current += line + '\n';
        }
    }
    return items;
}

/// The names in solvane-ldap.conf(5), with their descriptions.
std::map<std::string, std::string> namesInTheManual()
{
    std::map<std::string, std::string> names;
    for (auto const& [head, text] : itemsOf(manualPage("solvane-ldap.conf.5"))) {
        std::istringstream words(head);
        for (std::string word; words >> word;) {
            if (word != "Cm" && word != ",") {
                names[word] = text;
            }
        }
    }
    return names;
}

/// The description of an option in solvane-ldap(1); empty if it is not listed.
std::string inTheManual(std::string const& option)
{
    for (auto const& [head, text] : itemsOf(manualPage("solvane-ldap.1"))) {
        std::istringstream words(head);
        std::string before;
        for (std::string word; words >> word; before = word) {
            if ((before == "Fl" || before == ",") && '-' + word == option) {
                return text;
            }
        }
    }
    return "";
}

std::vector<std::string> optionsOf(Setting const& setting)
{
    std::vector<std::string> options;
    std::istringstream words(setting.options);
    for (std::string word; std::getline(words, word, ',');) {
        options.push_back(word);
    }
    return options;
}

/// A default at the end of a sentence, or in the explanation of the value.
std::string statementOf(std::string const& value)
{
    std::string const text = std::regex_replace(value, std::regex("[+.]"), "\\$&");
    return "default (Sq )?" + text + "\\.|" + text + ", the default";
}

TEST(SettingsTable, NamesWhatTheManualNames)
{
    std::set<std::string> inTable;
    for (Setting const& setting : settingsTable()) {
        inTable.insert(setting.name);
    }
    std::set<std::string> inManual;
    for (auto const& [name, text] : namesInTheManual()) {
        inManual.insert(name);
    }

    EXPECT_EQ(inTable, inManual);
}

TEST(SettingsTable, HasTheOptionsAndDefaultsThatTheManualOfTheFileTells)
{
    auto const manual = namesInTheManual();
    for (Setting const& setting : settingsTable()) {
        if (!setting.value.fromFile) {
            continue;
        }
        SCOPED_TRACE(setting.name);
        std::string const& text = manual.at(setting.name);

        if (setting.value.fromOption) {
            EXPECT_THAT(text, HasSubstr("Fl " + optionsOf(setting).front().substr(1)));
        }
        if (!setting.defaultText().empty()) {
            EXPECT_THAT(plain(text), ContainsRegex(statementOf(setting.defaultText())));
        }
    }
}

TEST(SettingsTable, HasTheDefaultsThatTheManualOfTheToolTells)
{
    for (Setting const& setting : settingsTable()) {
        for (std::string const& option : optionsOf(setting)) {
            SCOPED_TRACE(option);
            std::string const text = inTheManual(option);

            ASSERT_NE(text, "");
            if (!setting.defaultText().empty()) {
                EXPECT_THAT(plain(text), ContainsRegex(statementOf(setting.defaultText())));
            }
        }
    }
}

TEST(SettingsTable, TakesItsDefaultsFromTheEngine)
{
    Solvane::LDAPLookup::Settings const engine;

    EXPECT_EQ(settingOfFile("timeout")->defaultText(), std::to_string(engine.networkTimeout));
    EXPECT_EQ(settingOfFile("connections")->defaultText(), std::to_string(engine.connections));
    EXPECT_EQ(settingOfFile("deadline")->defaultText(),
              std::to_string(engine.deadline.count() / 1000));
    EXPECT_EQ(settingOfFile("tls_verify")->defaultText(), "full");
    EXPECT_EQ(settingOfFile("forms")->defaultText(), "full");
    EXPECT_EQ(settingOfFile("delimiter")->defaultText(), "+");
}

TEST(SettingsTable, ReadsTheDefaultsItShows)
{
    for (Setting const& setting : settingsTable()) {
        std::string const shown = setting.defaultText();
        if (shown.empty() || !setting.value.fromFile) {
            continue;
        }
        SCOPED_TRACE(setting.name);
        Draft draft;

        setting.value.fromFile(shown)(draft);

        EXPECT_EQ(setting.value.text(draft), shown);
    }
}

TEST(SettingsTable, TakesAddressesOfNameServers)
{
    auto const& reader = settingOfFile("name_servers")->value.fromFile;
    Draft draft;

    reader("192.0.2.1, 192.0.2.1:53 2001:db8::1 [2001:db8::1]:53")(draft);

    EXPECT_THAT(draft.lookup.nameServers, testing::ElementsAre("192.0.2.1", "192.0.2.1:53",
                                                               "2001:db8::1", "[2001:db8::1]:53"));
    for (char const* const text : {"", "ns.example.com", "192.0.2.1:0", "192.0.2.1:x",
                                   "192.0.2.1:", "[192.0.2.1]:53", "[2001:db8::1", "192.0.2.256"}) {
        EXPECT_THROW(reader(text), Failure) << text;
    }
}

TEST(SettingsTable, KnowsNoOtherName)
{
    EXPECT_EQ(settingOfFile("nonsense"), nullptr);
    EXPECT_EQ(settingOfFile(""), nullptr);
}

TEST(Draft, StartsTlsWhereItIsNeeded)
{
    Draft draft;
    settingOfFile("start_tls")->value.fromFile("yes")(draft);
    settingOfFile("server_host")->value.fromFile("one, ldaps://two, ldapi://%2Fthree")(draft);

    auto const servers = draft.serverList();

    ASSERT_EQ(servers.size(), 3U);
    EXPECT_TRUE(servers[0].startTls);
    EXPECT_FALSE(servers[1].startTls);
    EXPECT_FALSE(servers[2].startTls);
    EXPECT_EQ(servers[2].socketPath, "/three");
}

TEST(Draft, PrefersServersOfTheCommandLine)
{
    Draft draft;
    settingOfFile("server_port")->value.fromFile("1389")(draft);
    settingOfFile("server_host")->value.fromFile("one, two:2389")(draft);
    auto const fromFile = draft.serverList();
    settingOfFile("server_host")->value.fromOption("ldaps://three")(draft);
    settingOfFile("version")->value.fromOption("2")(draft);
    auto const fromBoth = draft.serverList();

    ASSERT_EQ(fromFile.size(), 2U);
    EXPECT_EQ(fromFile.front().port, 1389U);
    EXPECT_EQ(fromFile.back().port, 2389U);
    ASSERT_EQ(fromBoth.size(), 1U);
    EXPECT_EQ(fromBoth.front().host, "three");
    EXPECT_TRUE(fromBoth.front().secure);
    EXPECT_EQ(fromBoth.front().version, Solvane::LDAPConnection::V2);
}

} // namespace
