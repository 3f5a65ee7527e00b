// Invalid settings are refused by the constructor.
#include "Lookups.h"

#include <solvane/ldap/LDAPException.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Solvane;
using testing::HasSubstr;
using testing::StartsWith;

namespace SolvaneTest {

namespace {

/// The text of the exception for the settings; empty if they are valid.
std::string refusalOf(LDAPLookup::Settings const& settings)
{
    try {
        LDAPLookup const lookup(settings);
    } catch (LDAPException const& fault) {
        EXPECT_EQ(fault.code(), 2);
        EXPECT_EQ(fault.getType(), 0);
        EXPECT_EQ(fault.fileName(), "LDAPLookup.cpp");
        EXPECT_EQ(fault.lineNumber(), 20U);
        return fault.stringParameter();
    }
    return {};
}

/// Valid settings with one change.
template <typename Change> std::string refusalWith(Change change)
{
    LDAPLookup::Settings settings = settingsFor({389});
    change(settings);
    return refusalOf(settings);
}

} // namespace

using Settings = LDAPLookup::Settings;

TEST(LookupSettings, ThatAreCompleteAreTakenWithoutAskingAServer)
{
    EXPECT_EQ(refusalOf(settingsFor({1})), "");
}

TEST(LookupSettings, NeedAServerWithHostAndPort)
{
    EXPECT_EQ(refusalOf(settingsFor({})), "no server is set");
    EXPECT_EQ(refusalOf(settingsFor({0})), "a server's port is not from 1 to 65535: 0");
    EXPECT_EQ(refusalOf(settingsFor({65536})), "a server's port is not from 1 to 65535: 65536");
    EXPECT_EQ(refusalWith([](Settings& s) { s.servers[0].host = ""; }), "a server has no host");
    EXPECT_EQ(refusalWith([](Settings& s) { s.servers[0].host = "a\nb"; }),
              "a server's host contains a control character at byte 1");
}

TEST(LookupSettings, HaveOneKindOfTlsForAServer)
{
    EXPECT_EQ(refusalWith([](Settings& s) { s.servers[0].startTls = true; }), "");
    EXPECT_EQ(refusalWith([](Settings& s) { s.servers[0].startTls = s.servers[0].secure = true; }),
              "a server has both TLS from the first byte and StartTLS");
    EXPECT_EQ(refusalWith([](Settings& s) {
                  s.servers[0].startTls = true;
                  s.servers[0].version = LDAPConnection::V2;
              }),
              "a server with StartTLS has LDAPv2: StartTLS needs LDAPv3");
}

TEST(LookupSettings, MayNameASocketInsteadOfAHost)
{
    auto const refusalOfSocket = [](std::string const& path, auto const& change) {
        return refusalWith([&](Settings& s) {
            s.servers[0].host.clear();
            s.servers[0].port = 0;
            s.servers[0].socketPath = path;
            change(s.servers[0]);
        });
    };
    auto const asItIs = [](LDAPLookup::Server&) {};
    std::string const path = "/run/slapd/ldapi";

    EXPECT_EQ(refusalOfSocket(path, asItIs), "");
    EXPECT_EQ(refusalOfSocket(path, [](auto& server) { server.host = "localhost"; }),
              "a server has both a socket and a host or SRV domain");
    EXPECT_EQ(refusalOfSocket(path, [](auto& server) { server.srvDomain = "corp.test"; }),
              "a server has both a socket and a host or SRV domain");
    for (bool LDAPLookup::Server::*const tls :
         {&LDAPLookup::Server::secure, &LDAPLookup::Server::startTls}) {
        EXPECT_EQ(refusalOfSocket(path, [tls](auto& server) { server.*tls = true; }),
                  "a server has TLS on a UNIX socket, where nothing leaves the host");
    }
    EXPECT_EQ(refusalOfSocket("ldapi", asItIs), "the path of a server's socket is not absolute");
    EXPECT_EQ(refusalOfSocket(std::string("/a\0b", 4), asItIs),
              "the path of a server's socket contains a NUL byte");
    EXPECT_EQ(refusalOfSocket("/a\nb", asItIs),
              "the path of a server's socket contains a control character at byte 2");
    EXPECT_EQ(refusalOfSocket(std::string(108, '/'), asItIs),
              "the path of a server's socket is longer than 107 bytes");
    EXPECT_EQ(refusalOfSocket(std::string(107, '/'), asItIs), "");
}

TEST(LookupSettings, NameTheDomainsThatAreServed)
{
    EXPECT_EQ(refusalWith([](Settings& s) {
                  s.domains = {"corp.test", ""};
              }),
              "a served domain has no name");
    EXPECT_EQ(refusalWith([](Settings& s) { s.domains = {"corp\n.test"}; }),
              "a served domain contains a control character at byte 4");
}

TEST(LookupSettings, NeverBindWithAnEmptyPassword)
{
    EXPECT_THAT(refusalWith([](Settings& s) { s.password.clear(); }),
                StartsWith("the bind DN has no password"));
    EXPECT_EQ(refusalWith([](Settings& s) { s.bindDn.clear(); }),
              "a password is set without a bind DN");
    EXPECT_THAT(refusalWith([](Settings& s) { s.password = std::string("a\0b", 3); }),
                StartsWith("the password contains a NUL byte"));
}

TEST(LookupSettings, GiveASaslBindNoPassword)
{
    auto const refusalOfExternal = [](auto const& change) {
        return refusalWith([&](Settings& s) {
            s.mechanism = Lookup::Mechanism::external;
            s.bindDn.clear();
            s.password.clear();
            s.servers[0].startTls = true;
            change(s);
        });
    };

    EXPECT_EQ(refusalOfExternal([](Settings&) {}), "");
    EXPECT_EQ(refusalOfExternal([](Settings& s) {
                  s.servers[0].startTls = false;
                  s.servers[0].host.clear();
                  s.servers[0].socketPath = "/run/slapd/ldapi";
              }),
              "");
    EXPECT_EQ(refusalOfExternal([](Settings& s) { s.bindDn = readerDn; }),
              "a SASL bind takes no bind DN and no password");
    EXPECT_EQ(refusalOfExternal([](Settings& s) { s.password = readerPassword; }),
              "a SASL bind takes no bind DN and no password");
    EXPECT_EQ(refusalOfExternal([](Settings& s) { s.servers[0].startTls = false; }),
              "SASL EXTERNAL needs servers with TLS and a client certificate, or with a socket");
    EXPECT_EQ(refusalOfExternal([](Settings& s) {
                  s.servers[0].startTls = false;
                  s.servers[0].secure = true;
                  s.servers[0].version = LDAPConnection::V2;
              }),
              "a server has LDAPv2: a SASL bind needs LDAPv3");
}

TEST(LookupSettings, HaveAnAuthorizationIdOfTheTwoKinds)
{
    auto const refusalOfId = [](std::string const& id) {
        return refusalWith([&](Settings& s) {
            s.mechanism = Lookup::Mechanism::external;
            s.bindDn.clear();
            s.password.clear();
            s.servers[0].secure = true;
            s.authorizationId = id;
        });
    };

    EXPECT_EQ(refusalOfId("dn:cn=somebody"), "");
    EXPECT_EQ(refusalOfId("u:somebody"), "");
    EXPECT_EQ(refusalOfId("somebody"), "the authorization id does not begin with dn: or u:");
    EXPECT_EQ(refusalOfId("u:a\nb"), "the authorization id contains a control character at byte 3");
    EXPECT_EQ(refusalWith([](Settings& s) { s.authorizationId = "u:somebody"; }),
              "an authorization id is set without a SASL bind");
}

TEST(LookupSettings, NameTheByteAtWhichATemplateIsWrong)
{
    EXPECT_THAT(refusalWith([](Settings& s) { s.queryTemplate = "(mail=$x)"; }),
                StartsWith("error in the template at byte 6: "));
    EXPECT_THAT(refusalWith([](Settings& s) { s.queryTemplate = ""; }),
                StartsWith("error in the template at byte 0: "));
    EXPECT_THAT(refusalWith([](Settings& s) { s.queryTemplate = "(mail=$m"; }),
                HasSubstr("error in the template"));
}

TEST(LookupSettings, TakeATemplateThatIsOnlyUnusual)
{
    EXPECT_EQ(refusalWith([](Settings& s) { s.queryTemplate = "(mail=x)"; }), "");
}

TEST(LookupSettings, NeedTimesAndRoom)
{
    using std::chrono::milliseconds;
    EXPECT_NE(refusalWith([](Settings& s) { s.networkTimeout = 0; }), "");
    EXPECT_NE(refusalWith([](Settings& s) { s.deadline = milliseconds(0); }), "");
    EXPECT_NE(refusalWith([](Settings& s) { s.connections = 0; }), "");
    EXPECT_NE(refusalWith([](Settings& s) { s.window = 0; }), "");
    EXPECT_NE(refusalWith([](Settings& s) { s.connections = 65537; }), "");
    EXPECT_NE(refusalWith([](Settings& s) { s.window = 65537; }), "");
    EXPECT_EQ(refusalWith([](Settings& s) { s.connections = s.window = 65536; }), "");
    EXPECT_NE(refusalWith([](Settings& s) { s.forms.clear(); }), "");
    EXPECT_NE(refusalWith([](Settings& s) { s.longestBackOff = milliseconds(10); }), "");
}

// Adding the longest duration to the current time would overflow into the past.
TEST(LookupSettings, AreRefusedWhereATimeIsMeantToHaveNoEnd)
{
    using std::chrono::hours;
    using std::chrono::milliseconds;
    EXPECT_EQ(refusalWith([](Settings& s) { s.deadline = milliseconds::max(); }),
              "the deadline is longer than a year");
    EXPECT_EQ(refusalWith([](Settings& s) { s.longestBackOff = milliseconds::max(); }),
              "the longest back-off is longer than a year");
    EXPECT_EQ(refusalWith([](Settings& s) { s.networkTimeout = 4294967295U; }),
              "the network timeout is longer than a year");
    EXPECT_EQ(refusalWith([](Settings& s) { s.deadline = s.longestBackOff = hours(8760); }), "");
}

TEST(LookupSettings, OfGroupsNameTheAttributesOfResults)
{
    auto const with = [](auto change) {
        return refusalWith([&](Settings& s) {
            s.specialResultAttributes = {"member"};
            s.leafResultAttributes = {"mail"};
            change(s);
        });
    };

    EXPECT_EQ(with([](Settings&) {}), "");
    EXPECT_THAT(with([](Settings& s) { s.leafResultAttributes.clear(); }),
                HasSubstr("but no result attribute"));
    EXPECT_THAT(refusalWith([](Settings& s) { s.resultFormat = "%u"; }),
                HasSubstr("but no result attribute"));
    EXPECT_THAT(refusalWith([](Settings& s) { s.expansionLimit = 1; }),
                HasSubstr("but no result attribute"));
    EXPECT_THAT(with([](Settings& s) {
                    s.attributes = {"cn", "*"};
                }),
                HasSubstr("one by one, not '*'"));
    EXPECT_THAT(with([](Settings& s) { s.attributes = {"Member"}; }),
                HasSubstr("'member' is a result attribute too"));
    EXPECT_THAT(with([](Settings& s) { s.terminalResultAttributes = {""}; }),
                HasSubstr("an attribute name is empty"));
    EXPECT_THAT(with([](Settings& s) { s.recursionLimit = 0; }), HasSubstr("at least 1"));
    EXPECT_THAT(with([](Settings& s) { s.resultFormat = "%s%"; }),
                HasSubstr("the result format ends with a single %"));
    EXPECT_THAT(with([](Settings& s) { s.resultFormat = "a\nb"; }), HasSubstr("control character"));
}

} // namespace SolvaneTest
