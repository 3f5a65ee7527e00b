// Host names that resolve and names that do not.
#include <solvart/Host.h>

#include <solvart/Exception.h>
#include <solvart/IPAddress.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace {

using Solvane::Exception;
using Solvane::Host;

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

} // namespace
