// Hosts, IP addresses, URIs and e-mail addresses as values: what is one, and its parts.
#include <solvart/EmailAddress.h>
#include <solvart/Exception.h>
#include <solvart/Host.h>
#include <solvart/IPAddress.h>
#include <solvart/Uri.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <type_traits>

namespace {

using Solvane::EmailAddress;
using Solvane::Exception;
using Solvane::Host;
using Solvane::IPAddress;
using Solvane::Uri;

std::string addressOf(Host const& host)
{
    std::ostringstream out;
    out << *host.address();
    return out.str();
}

// None of these needs a server: the resolver itself knows better.
std::string const unresolvable[] = {"", std::string("localhost\0.test", 15),
                                    std::string(64, 'a') + ".invalid"};

TEST(AHost, ResolvesAnAddressToItself)
{
    EXPECT_EQ(addressOf(Host("127.0.0.1", false)), "127.0.0.1");
    EXPECT_EQ(addressOf(Host("::1", false)), "::1");
}

TEST(AHost, ResolvesTheNameOfThisMachine)
{
    Host const host("localhost", true);

    EXPECT_FALSE(host.isNull());
    EXPECT_THAT(addressOf(host), testing::AnyOf("127.0.0.1", "::1"));
}

TEST(AHost, IsNullWhenItsNameDoesNotResolve)
{
    for (std::string const& name : unresolvable) {
        Host const host(name, false);

        EXPECT_TRUE(host.isNull()) << name;
        EXPECT_EQ(host.address(), nullptr) << name;
    }
}

TEST(AHost, IsRefusedWhenItsNameMustResolve)
{
    for (std::string const& name : unresolvable) {
        EXPECT_THROW(Host(name, true), Exception) << name;
    }
}

TEST(AnAddressLiteral, IsADottedQuadOrAnIPv6AddressWithoutZone)
{
    EXPECT_TRUE(IPAddress::isValidIPAddress("127.0.0.1"));
    EXPECT_TRUE(IPAddress::isValidIPAddress("255.255.255.255"));
    EXPECT_TRUE(IPAddress::isValidIPAddress("::"));
    EXPECT_TRUE(IPAddress::isValidIPAddress("2001:DB8::1"));
    EXPECT_TRUE(IPAddress::isValidIPAddress("::ffff:192.0.2.1"));
}

TEST(AnAddressLiteral, IsNoOtherText)
{
    EXPECT_FALSE(IPAddress::isValidIPAddress(""));
    EXPECT_FALSE(IPAddress::isValidIPAddress("localhost"));
    EXPECT_FALSE(IPAddress::isValidIPAddress("127.1"));
    EXPECT_FALSE(IPAddress::isValidIPAddress("256.0.0.1"));
    EXPECT_FALSE(IPAddress::isValidIPAddress("127.0.0.1 "));
    EXPECT_FALSE(IPAddress::isValidIPAddress("127.0.0.1:389"));
    EXPECT_FALSE(IPAddress::isValidIPAddress("[::1]"));
    EXPECT_FALSE(IPAddress::isValidIPAddress("fe80::1%lo"));
    EXPECT_FALSE(IPAddress::isValidIPAddress("1::2::3"));
    EXPECT_FALSE(IPAddress::isValidIPAddress(std::string("127.0.0.1\0", 10)));
    EXPECT_FALSE(IPAddress::isValidIPAddress(std::string("127.0.0.1\0.test", 15)));
}

TEST(AnAddress, IsPrintedInItsUsualNotationWithoutBrackets)
{
    std::ostringstream out;

    out << *Host("192.0.2.1", true).address() << ' ' << *Host("2001:DB8:0::1", true).address();

    EXPECT_EQ(out.str(), "192.0.2.1 2001:db8::1");
}

TEST(AUri, GivesBackItsText)
{
    EXPECT_EQ(Uri("ldap://[127.0.0.1]:389/").asString(), "ldap://[127.0.0.1]:389/");
    EXPECT_EQ(Uri("ldaps://[2001:db8::1]:636/").asString(), "ldaps://[2001:db8::1]:636/");
}

TEST(AUri, StartsEmpty) { EXPECT_EQ(Uri().asString(), ""); }

TEST(AUri, IsNotMadeByConversion) { EXPECT_FALSE((std::is_convertible_v<std::string, Uri>)); }

TEST(AUri, EqualsAnotherOfTheSameText)
{
    Uri const uri("ldap://[127.0.0.1]:389/");

    EXPECT_TRUE(uri == Uri("ldap://[127.0.0.1]:389/"));
    EXPECT_FALSE(uri == Uri("ldaps://[127.0.0.1]:389/"));
    EXPECT_FALSE(uri == Uri("ldap://[127.0.0.1]:390/"));
    EXPECT_FALSE(uri == Uri());
}

TEST(AUri, IsCopiedByAssignment)
{
    Uri target;

    target = Uri("ldap://[127.0.0.1]:389/");

    EXPECT_EQ(target.asString(), "ldap://[127.0.0.1]:389/");
}

struct Parts {
    char const* address;
    char const* local;
    char const* domain;
};

class AnEmailAddress : public testing::TestWithParam<Parts> {};

TEST_P(AnEmailAddress, IsSplitAtItsLastAtSign)
{
    EmailAddress const address(GetParam().address);

    EXPECT_EQ(address.local(), GetParam().local);
    EXPECT_EQ(address.domain(), GetParam().domain);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(OfManyForms, AnEmailAddress, testing::Values(
    Parts{"jdoe@corp.test",         "jdoe",        "corp.test"},
    Parts{"\"j@doe\"@corp.test",    "\"j@doe\"",   "corp.test"},
    Parts{"J.Doe@[127.0.0.1]",      "J.Doe",       "[127.0.0.1]"},
    Parts{"jdoe@",                  "jdoe",        ""},
    Parts{"@corp.test",             "",            "corp.test"},
    Parts{"jdoe",                   "jdoe",        ""},
    Parts{"",                       "",            ""}));
// clang-format on

TEST(AnEmailAddressOfText, IsNotMadeByConversion)
{
    EXPECT_FALSE((std::is_convertible_v<std::string, EmailAddress>));
}

} // namespace
