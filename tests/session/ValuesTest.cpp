// Addresses, waits, and the meaning of result codes.
#include <solvane/session/Address.h>
#include <solvane/session/ResultCodes.h>
#include <solvane/session/Waits.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include <unistd.h>

namespace Solvane::Lookup {
namespace {

TEST(AddressOfAServer, IsReadFromText)
{
    auto const v4 = Address::parse("192.0.2.1", 389);
    auto const v6 = Address::parse("2001:DB8:0::1", 636);

    ASSERT_TRUE(v4 && v6);
    EXPECT_EQ(v4->family(), AF_INET);
    EXPECT_EQ(v4->text(), "192.0.2.1 port 389");
    EXPECT_EQ(v6->family(), AF_INET6);
    EXPECT_EQ(v6->text(), "2001:db8::1 port 636");
    EXPECT_EQ(v6->host(), "2001:db8::1");
    EXPECT_EQ(v6->port(), 636U);
}

TEST(AddressOfAServer, IsNothingElse)
{
    for (char const* const text : {"", "localhost", "192.0.2", "192.0.2.256", "[::1]",
                                   "fe80::1%eth0", "192.0.2.1 ", "::1::", "0x7f000001"}) {
        EXPECT_FALSE(Address::parse(text, 389)) << text;
    }
    sockaddr other = {};
    other.sa_family = AF_UNIX;
    EXPECT_FALSE(Address::from(other));
}

TEST(AddressOfAServer, IsComparedWithItsPort)
{
    auto const address = [](char const* text, unsigned int port) {
        return *Address::parse(text, port);
    };

    EXPECT_EQ(address("192.0.2.1", 389), address("192.0.2.1", 389));
    EXPECT_NE(address("192.0.2.1", 389), address("192.0.2.1", 636));
    EXPECT_NE(address("192.0.2.1", 389), address("192.0.2.2", 389));
    EXPECT_EQ(address("::1", 389), address("0:0::1", 389));
    EXPECT_NE(address("::1", 389), address("::2", 389));
    EXPECT_NE(address("::ffff:192.0.2.1", 389), address("192.0.2.1", 389));
}

TEST(AddressOfAServer, IsWhatTheSystemTakes)
{
    auto const address = *Address::parse("2001:db8::1", 389);

    auto const copy = Address::from(*address.socketAddress());

    ASSERT_TRUE(copy);
    EXPECT_EQ(*copy, address);
    EXPECT_EQ(address.size(), sizeof(sockaddr_in6));
    EXPECT_EQ(Address::parse("192.0.2.1", 1)->size(), sizeof(sockaddr_in));
}

TEST(UriOfAServer, HasBracketsForIpv6)
{
    EXPECT_EQ(uriOf(false, "ldap.example.com", 389), "ldap://ldap.example.com:389");
    EXPECT_EQ(uriOf(true, "2001:db8::1", 636), "ldaps://[2001:db8::1]:636");
}

// Waits

TEST(Waiting, EndsAtTheEarliestMoment)
{
    Waits waits;
    waits.until(Clock::now() + std::chrono::hours(1));
    waits.until(Clock::now() + std::chrono::milliseconds(20));
    waits.until(Clock::now() + std::chrono::hours(2));
    auto const moment = waits.moment();

    waits.wait(); // or the watchdog ends the test

    EXPECT_GE(Clock::now(), moment);
}

TEST(Waiting, EndsWithADescriptor)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    Waits waits;
    waits.add(ends[0], POLLIN);
    waits.add(-1, POLLIN);

    waits.wait();

    ASSERT_EQ(waits.descriptors().size(), 1U);
    EXPECT_EQ(waits.descriptors().front().revents, POLLIN);
    close(ends[0]);
    close(ends[1]);
}

TEST(Waiting, ForNothingEndsAtOnce)
{
    Waits waits;
    waits.until(Clock::now() + std::chrono::hours(1));
    waits.add(0, POLLIN);
    waits.clear();

    waits.wait();

    EXPECT_EQ(waits.moment(), Clock::time_point::max());
}

TEST(Waiting, UntilAMomentThatHasPassedEndsAtOnce)
{
    Waits waits;
    waits.until(Clock::time_point::min());

    waits.wait();
}

// Result codes

TEST(ResultCode, ThatSpeaksOfTheServerMayBeAnsweredByAnother)
{
    std::set<int> const expected = {-11, -5, -4, -1, 1, 2, 3, 11, 32, 50, 51, 52, 53, 80};
    std::set<int> found;

    for (int code = -20; code <= 200; ++code) {
        if (speaksOfServer(code)) {
            found.insert(code);
        }
    }

    EXPECT_EQ(found, expected);
}

TEST(ResultCode, HasAnOutcome)
{
    EXPECT_EQ(outcomeOfSearch(0), Outcome::Found);
    EXPECT_EQ(outcomeOfSearch(32), Outcome::Misconfigured);
    EXPECT_EQ(outcomeOfBind(32), Outcome::Refused);
    EXPECT_EQ(outcomeOfSearch(49), Outcome::Refused);
    EXPECT_EQ(outcomeOfSearch(51), Outcome::TryLater);
    EXPECT_EQ(outcomeOfSearch(-11), Outcome::Refused);
    EXPECT_EQ(outcomeOfSearch(4711), Outcome::TryLater);
    for (int code = -20; code <= 200; ++code) {
        EXPECT_NE(outcomeOfSearch(code), Outcome::NotFound) << code;
    }
}

TEST(ResultCode, HasWords)
{
    EXPECT_EQ(wordsFor(51), "Server is busy (51)");
    EXPECT_EQ(wordsFor(51, "back at\nnoon"), "Server is busy (51): back at\\x0Anoon");
    EXPECT_EQ(wordsFor(51, "Server is busy"), "Server is busy (51)");
}

TEST(OutcomeOfALookup, HasAName)
{
    std::set<std::string> names;
    for (Outcome const outcome :
         {Outcome::Found, Outcome::NotFound, Outcome::Skipped, Outcome::BadKey, Outcome::TryLater,
          Outcome::Refused, Outcome::Misconfigured}) {
        names.insert(name(outcome));
    }

    EXPECT_EQ(names.size(), 7U);
    EXPECT_STREQ(name(Outcome::TryLater), "try later");
}

} // namespace
} // namespace Solvane::Lookup
