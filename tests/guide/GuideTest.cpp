// The code of the guide's pages on searches, changes, TLS, identities, passwords, event loops and Kerberos,
// run against a real directory, and of the page on values.
#include "Kdc.h"
#include "Process.h"
#include "ProcessMemory.h"
#include "Slapd.h"

#include <solvane/ldap.h>
#include <solvane/ldap/impl.h>
#include <solvane/lookup.h>
#include <solvane/session/EntryReader.h>
#include <solvane/session/ResultCodes.h>
#include <solvane/session/Session.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <ctime>
#include <functional>
#include <iostream>
#include <istream>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <ldap.h>
#include <poll.h>

namespace SolvaneTest {

namespace {

// Every block of these pages. What they include is included above. The compiler refuses a function
// that no test calls: it would be unused.
#include "pages.inc"

constexpr char anna[] = "user0000001@corp.test";
constexpr char annasDn[] = "uid=user0000001,ou=people,dc=corp,dc=test";
constexpr char annasPassword[] = "pw-user0000001";
constexpr char readerDn[] = "cn=reader,dc=corp,dc=test";
constexpr char adminDn[] = "cn=admin,dc=corp,dc=test";

/// Puts the test's value where the page has an example.
template <typename Value> void replace(Value& value, Value const& onThePage, Value const& here)
{
    EXPECT_EQ(value, onThePage);
    value = here;
}

/// The search of settings that a page leaves to its reader.
LDAPLookup::Settings searching(LDAPLookup::Settings settings)
{
    settings.base = "ou=people,dc=corp,dc=test";
    settings.queryTemplate = "(mail=$m)";
    return settings;
}

/// How a lookup with these settings ends; after it, whether the server confirmed an identity.
std::string resultWith(LDAPLookup::Settings const& settings)
{
    LDAPLookup lookup(searching(settings));
    auto const answer = lookup.find(anna);
    return name(answer.outcome) + (answer.text.empty() ? "" : ": " + answer.text) +
           (answer.identity == LDAPLookup::Identity::Confirmed ? ", confirmed" : "");
}

} // namespace

class TheGuidesCode : public SuiteWithSlapd<TheGuidesCode> {
public:
    static std::vector<std::string> options() { return {"--users", "20", "--client-certs", "try"}; }

protected:
    /// tls.md: the server of the page, here.
    static LDAPLookup::Settings startTlsSettings()
    {
        LDAPLookup::Server server = startTlsServer();
        replace<std::string>(server.host, "ldap.example.com", "localhost");
        replace(server.port, 389U, slapd().port());
        LDAPLookup::Settings settings;
        settings.servers = {server};
        settings.tls.caFile = slapd().caFile();
        return settings;
    }
    static LDAPLookup::Settings settings()
    {
        LDAPLookup::Settings settings;
        settings.servers = {{"127.0.0.1", slapd().port()}};
        return searching(settings);
    }
    static LDAPConnection::RefServer server(bool isSecure)
    {
        return LDAPConnection::RefServer("127.0.0.1", isSecure ? slapd().tlsPort() : slapd().port(),
                                         LDAPConnection::V3, isSecure, 10, false, false);
    }
};

// searching.md

TEST_F(TheGuidesCode, Searches)
{
    LDAPConnection connection(server(false), true);
    LDAPSearch search(connection, mailOf("user0000001"));
    search.send();

    EXPECT_TRUE(finishBy(search, time(nullptr) + 10));

    LDAPResult const result = answerOf(connection, mailOf("user0000001"));
    ASSERT_EQ(result.searchResultEntries().size(), 1U);
    LDAPSearchResultEntry const& found = result.searchResultEntries().front();
    EXPECT_EQ(found.entryName(), search.result().searchResultEntries().front().entryName());
    EXPECT_THAT(attributeOf(found, LDAPAttributeType("MAIL")).value(), testing::ElementsAre(anna));
    EXPECT_TRUE(attributeOf(found, LDAPAttributeType("sn")).isNull());
    testing::internal::CaptureStdout();
    print(found);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::HasSubstr(std::string("mail: ") + anna));
    EXPECT_EQ(foundTogether(connection, {"(uid=user0000001)", "(uid=nobody)", "(uid=user0000002)"}),
              2U);
}

TEST_F(TheGuidesCode, SearchesInAStream)
{
    LDAPConnection connection(server(false), true);
    std::vector<std::string> names;
    auto const noteUpTo = [&names](std::size_t most) {
        return [&names, most](LDAPSearchResultEntry const& entry) {
            names.push_back(entry.entryName());
            return names.size() != most;
        };
    };

    EXPECT_EQ(forEachUser(connection, noteUpTo(1000)), 20U);
    EXPECT_EQ(names.size(), 20U);
    EXPECT_EQ(names.front(), annasDn);
    names.clear();
    EXPECT_EQ(forEachUser(connection, noteUpTo(3)), 3U);
}

// changing.md

TEST_F(TheGuidesCode, ChangesEntries)
{
    LDAPConnection connection(server(false), false);
    connection.bind(adminDn, "secret", LDAPConnection::Synchronous);
    std::string const moved = "cn=moved,ou=new,dc=corp,dc=test";
    std::string const photo("\xff\xd8\0\0\xff\xd9", 6);
    std::string const lara = "cn=lara,ou=new,dc=corp,dc=test";

    EXPECT_EQ(addWithPhoto(connection, lara, "lara", photo), 0);
    EXPECT_EQ(changeAddress(connection, lara, "lara@corp.test", photo), 16);
    LDAPModify number(connection, lara);
    number.replace("employeeNumber", {"1"});
    EXPECT_EQ(resultOf(number), 0);
    EXPECT_EQ(changeAddress(connection, lara, "lara@corp.test", photo), 0);
    EXPECT_EQ(resultOf(number), 0);
    EXPECT_EQ(moveUser(connection, lara, "moved", "ou=new,dc=corp,dc=test"), 0);
    EXPECT_FALSE(deleteUser(connection, moved, "2"));
    EXPECT_TRUE(deleteUser(connection, moved, "1"));
    EXPECT_EQ(deleteReferral(connection, "cn=elsewhere,ou=referrals,dc=corp,dc=test"), 0);
    EXPECT_EQ(identityOf(connection), std::string("dn:") + adminDn);
}

TEST_F(TheGuidesCode, DeletesAnEntryThatIsUnchanged)
{
    LDAPConnection connection(server(false), false);
    connection.bind(adminDn, "secret", LDAPConnection::Synchronous);
    std::string const dn = "cn=unchanged,ou=new,dc=corp,dc=test";
    LDAPSearchResultEntry last("");
    ASSERT_EQ(addWithPhoto(connection, dn, "unchanged", "\xff\xd8\xff\xd9"), 0);
    LDAPSearch::Parameter parameter(dn);
    parameter.attributes = {LDAPAttributeType("entryCSN")};
    LDAPSearch search(connection, parameter);
    search.send();
    ASSERT_FALSE(search.wait(10));
    LDAPSearchResultEntry const found = search.result().searchResultEntries().front();
    std::string const csn = found.attributes().attributes().front().value().front();

    EXPECT_FALSE(deleteUnchanged(connection, dn, "20000101000000.000000Z#000000#000#000000", last));
    EXPECT_TRUE(deleteUnchanged(connection, dn, csn, last));
    EXPECT_EQ(last.entryName(), dn);
}

TEST_F(TheGuidesCode, ChangesAPassword)
{
    constexpr char dn[] = "uid=user0000002,ou=people,dc=corp,dc=test";
    LDAPConnection connection(server(false), false);
    connection.bind(dn, "pw-user0000002", LDAPConnection::Synchronous);

    EXPECT_FALSE(changePassword(connection, "wrong", "new"));
    EXPECT_TRUE(changePassword(connection, "pw-user0000002", "new"));
    EXPECT_NO_THROW(connection.bind(dn, "new", LDAPConnection::Synchronous));
}

// values.md

TEST(TheGuidesValues, NameUsersAndGroups)
{
    EXPECT_EQ(userDn("a,ou=admins"), R"(uid=a\,ou=admins,ou=people,dc=corp,dc=test)");
    EXPECT_EQ(groupOf("cn=x, OU=Staff, ou=Groups,dc=corp,dc=test"), "Staff");
    EXPECT_EQ(groupOf("ou=groups,dc=corp,dc=test"), std::nullopt);
    EXPECT_EQ(groupOf(R"(cn=a\,ou=groups,dc=corp,dc=test)"), std::nullopt);
    EXPECT_EQ(groupOf("a"), std::nullopt);
}

TEST(TheGuidesValues, AreFilters)
{
    EXPECT_EQ(peopleNamed({"a*", "b"}),
              R"((&(objectClass=person)(cn=*a\2A*b*)(!(pwdAccountLockedTime=*))))");
    EXPECT_TRUE(asksForPasswords(LDAPFilter::parse("(&(cn=a)(!(USERPASSWORD=*)))")));
    EXPECT_FALSE(asksForPasswords(LDAPFilter::parse("(|(cn=userPassword))")));
}

TEST(TheGuidesValues, AreRecords)
{
    std::istringstream in("dn: cn=a\nchangetype: delete\n\ndn: cn=b\ncn:: YQ\n\ndn: cn=c\n"
                          "changetype: modify\ndelete: sn\n-\n");
    std::ostringstream out;
    std::ostringstream errors;

    copyHarmless(in, out, errors);

    EXPECT_EQ(out.str(), "dn: cn=c\nchangetype: modify\ndelete: sn\n-\n\n");
    EXPECT_EQ(errors.str(), "line 5: invalid base64; correct the value\n");
}

TEST_F(TheGuidesCode, DoubtsAttributesThatTheServerDoesNotKnow)
{
    LDAPConnection const connection(server(false), true);

    EXPECT_EQ(doubtAbout(connection, "mail"), "");
    EXPECT_EQ(doubtAbout(connection, "2.5.4.3"), "");
    EXPECT_THAT(doubtAbout(connection, "maill"), testing::HasSubstr("nothing will be found"));
    EXPECT_THAT(doubtAbout(connection, "jpegPhoto"), testing::HasSubstr("cannot compare"));
}

TEST_F(TheGuidesCode, ExplainsAResult)
{
    LDAPConnection connection(server(false), true);
    LDAPDelete request(connection, "cn=nothing,dc=corp,dc=test");
    request.send();
    ASSERT_FALSE(request.wait(10));

    EXPECT_THAT(explain(request.result()), testing::MatchesRegex("[a-zA-Z]+: [A-Z].+[.]"));
}

// passwords.md

TEST_F(TheGuidesCode, DecidesOnALogin)
{
    LDAPLookup lookup(settings());
    auto down = settings();
    down.servers.front().port = 1;
    LDAPLookup unreachable(down);

    EXPECT_STREQ(actionFor(lookup, anna, annasPassword), "log in");
    EXPECT_STREQ(actionFor(lookup, anna, "wrong"), "authentication failed");
    EXPECT_STREQ(actionFor(lookup, "nobody@corp.test", annasPassword), "authentication failed");
    EXPECT_STREQ(actionFor(lookup, anna, ""), "authentication failed");
    EXPECT_STREQ(actionFor(unreachable, anna, annasPassword), "temporary authentication failure");
}

// identity.md

TEST_F(TheGuidesCode, ConnectsToASocketAsTheProcess)
{
    LDAPLookup::Settings settings = localSettings();
    replace<std::string>(settings.servers.front().socketPath, "/run/slapd/ldapi",
                         slapd().socketPath());

    EXPECT_EQ(resultWith(settings), "found, confirmed");
}

TEST_F(TheGuidesCode, AuthenticatesByCertificate)
{
    LDAPLookup::Settings settings = startTlsSettings();
    authenticateByCertificate(settings);
    replace<std::string>(settings.tls.certificateFile, "/etc/mail/ldap-client.pem",
                         slapd().tlsFile("client.pem"));
    replace<std::string>(settings.tls.keyFile, "/etc/mail/ldap-client.key",
                         slapd().tlsFile("client.key"));

    EXPECT_EQ(resultWith(settings), "found, confirmed");
}

// tls.md

TEST_F(TheGuidesCode, SecuresAConnectionByStartTls)
{
    LDAPConnection const connection = securedConnection(server(false), readerDn, "reader-pw");

    EXPECT_THAT(tlsVersionOf(connection), testing::StartsWith("TLS"));
}

// In processes of their own: the first secure connection decides.
TEST_F(TheGuidesCode, VerifiesChainsForTheWholeProcess)
{
    auto const bindTrusting = [](std::filesystem::path const& caFile) {
        return ForkedProcess([&]() -> std::string {
                   if (!verifyChains(caFile)) {
                       return "not set";
                   }
                   LDAPConnection connection(server(true), false);
                   connection.bind(readerDn, "reader-pw", LDAPConnection::Synchronous);
                   return "";
               })
            .complaint();
    };

    EXPECT_EQ(bindTrusting(slapd().caFile()), "");
    EXPECT_NE(bindTrusting(slapd().tlsFile("bad.pem")), "");
}

TEST_F(TheGuidesCode, VerifiesChainAndNameForOneConnection)
{
    LDAPConnection trusting = verifiedConnection(server(true), slapd().caFile());
    LDAPConnection doubting = verifiedConnection(server(true), slapd().tlsFile("bad.pem"));

    EXPECT_NO_THROW(trusting.bind(readerDn, "reader-pw", LDAPConnection::Synchronous));
    EXPECT_THROW(doubting.bind(readerDn, "reader-pw", LDAPConnection::Synchronous), LDAPException);
}

TEST_F(TheGuidesCode, VerifiesTheServerOfLookups)
{
    LDAPLookup::Settings settings = verifiedSettings();
    replace<std::string>(settings.servers.front().host, "ldap.example.com", "localhost");
    replace(settings.servers.front().port, 636U, slapd().tlsPort());
    replace<std::string>(settings.tls.caFile, "/etc/ssl/our-authority.pem", slapd().caFile());
    auto doubting = settings;
    doubting.tls.caFile = slapd().tlsFile("bad.pem");

    EXPECT_EQ(resultWith(settings), "found");
    EXPECT_THAT(resultWith(doubting), testing::HasSubstr("the certificate is not accepted"));
}

TEST_F(TheGuidesCode, LooksUpByStartTls) { EXPECT_EQ(resultWith(startTlsSettings()), "found"); }

// event-loop.md

TEST_F(TheGuidesCode, LooksUpAndVerifiesInALoop)
{
    LDAPLookup lookup(settings());
    Lookups lookups(lookup);
    std::map<std::string, LDAPLookupQueue::Result> results;
    auto const keep = [&](std::string const& name) {
        return [&, name](LDAPLookupQueue::Result const& result) { results[name] = result; };
    };

    lookups.find(anna, keep("known"));
    lookups.find("nobody@corp.test", keep("unknown"));
    lookups.verify(anna, annasPassword, keep("right"));
    lookups.verify(anna, "wrong", keep("wrong"));
    while (lookups.pending() != 0) {
        pollfd polled[] = {lookups.polled()};
        ASSERT_EQ(poll(polled, 1, 10000), 1);
        lookups.takeAnswers();
    }

    EXPECT_EQ(results["known"].answer.outcome, Lookup::Outcome::Found);
    EXPECT_EQ(results["unknown"].answer.outcome, Lookup::Outcome::NotFound);
    EXPECT_EQ(results["right"].verification.value().outcome, Lookup::VerifyOutcome::Accepted);
    EXPECT_EQ(results["wrong"].verification.value().outcome, Lookup::VerifyOutcome::Denied);
}

TEST_F(TheGuidesCode, SearchesOnASessionOfItsOwn)
{
    auto const outcomeOf = [](unsigned int port, std::string const& filter) {
        Lookup::SessionOptions options;
        options.host = "127.0.0.1";
        options.port = port;
        Lookup::SearchRequest request;
        request.base = "ou=people,dc=corp,dc=test";
        LoopSearch search(options, request, filter);
        Lookup::Outcome const outcome = runAlone(search);
        EXPECT_EQ(search.entries().size(), outcome == Lookup::Outcome::Found ? 1U : 0U);
        return outcome;
    };

    EXPECT_EQ(outcomeOf(slapd().port(), "(uid=user0000001)"), Lookup::Outcome::Found);
    EXPECT_EQ(outcomeOf(slapd().port(), "(uid=nobody)"), Lookup::Outcome::NotFound);
    EXPECT_EQ(outcomeOf(1, "(uid=nobody)"), Lookup::Outcome::TryLater);
}

// kerberos.md

TEST(TheGuidesCodeForKerberos, BindsWithATicket)
{
    if (!Slapd::isInstalled() || !Kdc::isInstalled()) {
        Kdc::reportMissing();
        return;
    }
    ToleratedLeak const overTls;
    Kdc kdc;
    Slapd const slapd({"--users", "1", "--kerberos", kdc.folder()});
    kdc.useTicket("reader");
    LDAPLookup::Settings settings = settingsWithKerberos();
    replace<std::string>(settings.servers.front().host, "ldap.example.com", "localhost");
    replace(settings.servers.front().port, 636U, slapd.tlsPort());
    settings.tls.caFile = slapd.caFile();

    EXPECT_EQ(resultWith(settings), "found, confirmed");
}

} // namespace SolvaneTest
