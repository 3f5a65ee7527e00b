// Which texts are addresses, and how addresses are printed.
#include <solvart/IPAddress.h>

#include <solvart/Host.h>

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace {

using Solvane::Host;
using Solvane::IPAddress;

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

} // namespace
