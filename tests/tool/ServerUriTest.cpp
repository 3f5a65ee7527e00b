// What a server's URI is read as; refusals are tried on the tool itself.
#include "ServerUri.h"

#include "Outcome.h"
#include "SettingValues.h"

#include <gmock/gmock.h>

#include <string>
#include <tuple>

namespace Solvane::Tool {
namespace {

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

} // namespace
} // namespace Solvane::Tool
