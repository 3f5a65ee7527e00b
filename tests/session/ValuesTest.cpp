// Addresses, waits, the meaning of result codes, validation of text, and how invalid bytes are
// shown.
#include <solvane/session/Address.h>
#include <solvane/session/PlainText.h>
#include <solvane/session/ResultCodes.h>
#include <solvane/session/Waits.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include <unistd.h>

namespace Solvane::Lookup {
namespace {

using namespace std::string_literals;

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

// Validation of text, and how invalid bytes are shown

TEST(PlainText, IsUtf8WithoutControlCharacters)
{
    for (std::string const& text :
         {""s, "a b~"s, "\xC2\xA0"s, "\xDF\xBF"s, "\xE0\xA0\x80"s, "\xED\x9F\xBF"s, "\xEE\x80\x80"s,
          "\xEF\xBF\xBF"s, "\xF0\x90\x80\x80"s, "\xF4\x8F\xBF\xBF"s}) {
        EXPECT_FALSE(faultIn(text).has_value()) << oneLine(text);
        EXPECT_EQ(oneLine(text), text);
    }
}

TEST(PlainText, HasNoControlCharacters)
{
    for (std::string const& text :
         {"ab\0"s, "ab\t"s, "ab\x1F"s, "ab\x7F"s, "ab\xC2\x80"s, "ab\xC2\x9F"s, "ab\x01\xFF"s}) {
        auto const fault = faultIn(text);

        ASSERT_TRUE(fault.has_value()) << oneLine(text);
        EXPECT_EQ(fault->kind, TextFault::controlCharacter);
        EXPECT_EQ(fault->position, 2U);
    }
}

TEST(PlainText, TellsTheFirstFaultBehindCharactersOfEveryLength)
{
    auto const fault = faultIn("a\xC3\xBC"
                               "b\xE2\x82\xAC\xF0\x9F\x98\x80"
                               "c\xFF\n");

    ASSERT_TRUE(fault.has_value());
    EXPECT_EQ(fault->kind, TextFault::invalidUtf8);
    EXPECT_EQ(fault->position, 12U);
}

TEST(PlainText, NamesAFaultInWords)
{
    EXPECT_EQ(describe({TextFault::invalidUtf8, 7}), "invalid UTF-8 at byte 7");
    EXPECT_EQ(describe({TextFault::controlCharacter, 0}), "a control character at byte 0");
}

TEST(Utf8, HasNeitherOverlongFormsNorSurrogatesNorAnythingAboveUnicode)
{
    for (std::string const& text :
         {"\x80"s, "\xBF"s, "\xC0\x80"s, "\xC1\xBF"s, "\xC2"s, "\xC2\x41"s, "\xE0\x9F\xBF"s,
          "\xE2\x82"s, "\xED\xA0\x80"s, "\xED\xBF\xBF"s, "\xF0\x8F\xBF\xBF"s, "\xF4\x90\x80\x80"s,
          "\xF5\x80\x80\x80"s, "\xF8\x88\x80\x80\x80"s, "\xFE"s, "\xFF"s}) {
        EXPECT_FALSE(isUtf8("a" + text)) << oneLine(text);
        EXPECT_EQ(faultIn("a" + text)->position, 1U) << oneLine(text);
    }
}

TEST(Utf8, MayHaveControlCharacters)
{
    EXPECT_TRUE(isUtf8(""));
    EXPECT_TRUE(isUtf8("a\0\n\xC2\x85z"s));
}

TEST(OneLine, EscapesEveryByteThatIsNotPlainText)
{
    EXPECT_EQ(oneLine("a\n\xC3\xBC\xFF\xC2\x85\xE2\x82"s),
              "a\\x0A\xC3\xBC\\xFF\\xC2\\x85\\xE2\\x82");
}

TEST(SmallTexts, TellBlanksAndNulBytes)
{
    EXPECT_TRUE(isBlank(""));
    EXPECT_TRUE(isBlank(" \t\r\n"));
    EXPECT_FALSE(isBlank(" a "));
    EXPECT_TRUE(hasNul("a\0b"s));
    EXPECT_FALSE(hasNul("ab"));
}

TEST(SmallTexts, GiveTimesInSeconds)
{
    using std::chrono::milliseconds;

    EXPECT_EQ(inSeconds(milliseconds(0)), "0 s");
    EXPECT_EQ(inSeconds(milliseconds(2000)), "2 s");
    EXPECT_EQ(inSeconds(milliseconds(1050)), "1.050 s");
    EXPECT_EQ(inSeconds(milliseconds(7)), "0.007 s");
}

TEST(SmallTexts, WipeASecretInItsPlace)
{
    std::string secret = "a secret that is longer than what a string keeps in itself";
    char const* const place = secret.data();
    std::size_t const length = secret.size();

    wipe(secret);

    EXPECT_TRUE(secret.empty());
    ASSERT_EQ(secret.data(), place);
    EXPECT_EQ(std::string(place, length), std::string(length, '\0'));
}

} // namespace
} // namespace Solvane::Lookup
