// What users write: the table of settings, URIs of servers, and names in filters.
#include "AttributeNames.h"
#include "Files.h"
#include "Outcome.h"
#include "ServerUri.h"
#include "SettingValues.h"
#include "SettingsTable.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <tuple>

namespace Solvane::Tool {
namespace {

using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// The table of settings, and what the manual pages say of its rows.

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

// What a server's URI is read as; refusals are tried on the tool itself.

auto partsOf(std::string const& text)
{
    ServerUri const uri(text);
    return std::tuple(uri.host, uri.port, uri.isSecure);
}

TEST(AServerUri, HasTheDefaultPortOfItsScheme)
{
    EXPECT_EQ(partsOf("ldap://h"), std::tuple("h", 389U, false));
    EXPECT_EQ(partsOf("ldaps://h/"), std::tuple("h", 636U, true));
}

TEST(AServerUri, MayNameAPort)
{
    EXPECT_EQ(partsOf("ldap://h.example:1"), std::tuple("h.example", 1U, false));
    EXPECT_EQ(partsOf("ldaps://h.example:65535/"), std::tuple("h.example", 65535U, true));
}

TEST(AServerUri, HasAnIpv6AddressInBrackets)
{
    EXPECT_EQ(partsOf("ldap://[::1]"), std::tuple("::1", 389U, false));
    EXPECT_EQ(partsOf("ldap://[2001:db8::1]:3389/"), std::tuple("2001:db8::1", 3389U, false));
}

TEST(AServerUri, HasASchemeInAnyCase)
{
    EXPECT_EQ(partsOf("LDAPS://h"), std::tuple("h", 636U, true));
}

auto partsOfHost(std::string const& text)
{
    ServerUri const uri = ServerUri::fromHost(text, 1389);
    return std::tuple(uri.host, uri.port, uri.isSecure);
}

TEST(AServersHost, HasThePortOfTheOthersUnlessItNamesOne)
{
    EXPECT_EQ(partsOfHost("h.example"), std::tuple("h.example", 1389U, false));
    EXPECT_EQ(partsOfHost("h.example:390"), std::tuple("h.example", 390U, false));
    EXPECT_EQ(partsOfHost("192.0.2.1"), std::tuple("192.0.2.1", 1389U, false));
}

TEST(AServersHost, MayBeAnIpv6AddressWithOrWithoutBrackets)
{
    EXPECT_EQ(partsOfHost("::1"), std::tuple("::1", 1389U, false));
    EXPECT_EQ(partsOfHost("[::1]"), std::tuple("::1", 1389U, false));
    EXPECT_EQ(partsOfHost("[2001:db8::1]:390"), std::tuple("2001:db8::1", 390U, false));
}

TEST(AServersHost, MayBeAUri)
{
    EXPECT_EQ(partsOfHost("ldap://h"), std::tuple("h", 389U, false));
    EXPECT_EQ(partsOfHost("ldaps://h"), std::tuple("h", 636U, true));
}

TEST(AServerUri, MayNameASocket)
{
    EXPECT_EQ(ServerUri("ldapi://%2Frun%2Fslapd%2Fldapi").socketPath, "/run/slapd/ldapi");
    EXPECT_EQ(ServerUri("LDAPI://%2frun%2fa%20b/").socketPath, "/run/a b");
    EXPECT_EQ(ServerUri("ldapi:///").socketPath, "/var/run/slapd/ldapi");
    EXPECT_EQ(ServerUri::fromHost("ldapi://%2Fx", 1389).socketPath, "/x");
    EXPECT_EQ(partsOf("ldapi://%2Fx"), std::tuple("", 0U, false));
    EXPECT_EQ(ServerUri("ldap://h").socketPath, "");
}

auto domainOf(std::string const& text)
{
    ServerUri const uri(text);
    return std::tuple(uri.host, uri.srvDomain, uri.isSecure);
}

TEST(AServerUri, MayNameADomain)
{
    EXPECT_EQ(domainOf("ldap+srv:///dc=example,dc=com"), std::tuple("", "example.com", false));
    EXPECT_EQ(domainOf("ldaps+srv:///dc=example,dc=com"), std::tuple("", "example.com", true));
    EXPECT_EQ(domainOf("LDAP+SRV:///DC=example,%20dc=co,dc=uk"),
              std::tuple("", "example.co.uk", false));
    EXPECT_EQ(ServerUri("ldap://h").srvDomain, "");
}

TEST(AServerUri, NamesADomainByItsPartsAlone)
{
    for (char const* const text :
         {"ldap+srv:", "ldap+srv://", "ldap+srv:///", "ldap+srv://h/dc=x",
          "ldap+srv:///example.com", "ldap+srv:///ou=x,dc=example,dc=com", "ldap+srv:///dc=x+dc=y",
          "ldap+srv:///dc=", "ldap+srv:///dc=x?cn", "ldap+srv:///dc=x%0Ay"}) {
        EXPECT_THROW(ServerUri{text}, Failure) << text;
    }
}

TEST(AListOfServers, KeepsTheCommasOfADomain)
{
    EXPECT_THAT(
        serversIn("a, ldap+srv:///dc=x,dc=y b ldaps+srv:///dc=z,ldap://c:1"),
        testing::ElementsAre("a", "ldap+srv:///dc=x,dc=y", "b", "ldaps+srv:///dc=z", "ldap://c:1"));
}

// Names in filters, and names that a schema knows.

TEST(AttributesInAFilter, AreThoseOfEachComparison)
{
    EXPECT_THAT(attributesInFilter("(|(mail=a@b)(&(uid~=a)(!(age>=3))(age<=9)))"),
                ElementsAre("mail", "uid", "age", "age"));
}

TEST(AttributesInAFilter, HaveNoOptionsAndNoMatchingRules)
{
    EXPECT_THAT(attributesInFilter("(|(cn;lang-fr=a)(ou:dn:caseIgnoreMatch:=b))"),
                ElementsAre("cn", "ou"));
}

TEST(AttributesInAFilter, MayFollowBlanks)
{
    EXPECT_THAT(attributesInFilter("(& ( mail=a))"), ElementsAre("mail"));
}

TEST(AttributesInAFilter, AreNotWantedFromARuleAloneOrFromAnInvalidFilter)
{
    EXPECT_THAT(attributesInFilter("(:caseExactMatch:=a)"), IsEmpty());
    EXPECT_THAT(attributesInFilter("("), IsEmpty());
    EXPECT_THAT(attributesInFilter("(mail =a)"), IsEmpty());
    EXPECT_THAT(attributesInFilter(""), IsEmpty());
}

TEST(AnAttributeName, IsASelectorWithoutItsOptions)
{
    EXPECT_EQ(attributeNameOf("userCertificate;binary"), "userCertificate");
    EXPECT_EQ(attributeNameOf("mail"), "mail");
}

TEST(AnAttributeName, IsNotASelectorOfMany)
{
    for (char const* const selector : {"*", "+", "@person", "1.1"}) {
        EXPECT_EQ(attributeNameOf(selector), "") << selector;
    }
}

class KnownNames : public testing::Test {
protected:
    KnownNames()
    {
        names.add("( 0.9.2342.19200300.100.1.3 NAME ( 'mail' 'rfc822Mailbox' ) SYNTAX "
                  "1.3.6.1.4.1.1466.115.121.1.26{256} )");
        names.add("( 2.5.4.3 NAME 'cn' SUP name )");
        names.add("( 1.2.3.4 NAME 'mailAlternateAddress' )");
    }

    LDAPSchema names;
};

TEST_F(KnownNames, AreSuggestedForMisspeltOnes)
{
    EXPECT_EQ(similarAttribute(names, "maill"), "mail");
    EXPECT_EQ(similarAttribute(names, "maik"), "mail");
    EXPECT_EQ(similarAttribute(names, "CM"), "cn");
    EXPECT_EQ(similarAttribute(names, "mailalternateadress"), "mailAlternateAddress");
}

TEST_F(KnownNames, AreNotSuggestedForOthers)
{
    EXPECT_EQ(similarAttribute(names, "telephoneNumber"), "");
    EXPECT_EQ(similarAttribute(names, "uid"), "");
    EXPECT_EQ(similarAttribute(LDAPSchema(), "mail"), "");
}

} // namespace
} // namespace Solvane::Tool
