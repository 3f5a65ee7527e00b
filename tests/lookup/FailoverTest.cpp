// Combining the failures of several servers into one outcome.
#include "Failover.h"

#include <gtest/gtest.h>

using namespace Solvane::Lookup;

namespace SolvaneTest {

namespace {

Failure failure(std::size_t server, Outcome outcome, int code, bool isFinal = false)
{
    std::string const uri = "ldap://server" + std::to_string(server);
    Failure result;
    result.server = server;
    result.uri = uri;
    result.why = {outcome, code, uri + ": " + std::to_string(code)};
    result.isFinal = isFinal;
    return result;
}

} // namespace

TEST(AKeyThatNoServerAnswered, IsMisconfiguredIfAllSaySo)
{
    auto const conclusion =
        conclude({failure(0, Outcome::Misconfigured, 32), failure(1, Outcome::Misconfigured, 32)});

    EXPECT_EQ(conclusion.verdict.outcome, Outcome::Misconfigured);
    EXPECT_EQ(conclusion.verdict.code, 32);
    EXPECT_EQ(conclusion.verdict.text, "ldap://server0: 32; ldap://server1: 32");
    EXPECT_EQ(conclusion.server, "ldap://server0");
}

TEST(AKeyThatNoServerAnswered, IsRefusedIfAllRefuse)
{
    auto const conclusion =
        conclude({failure(0, Outcome::Refused, 50), failure(1, Outcome::Refused, 53)});

    EXPECT_EQ(conclusion.verdict.outcome, Outcome::Refused);
    EXPECT_EQ(conclusion.verdict.code, 50);
}

TEST(AKeyThatNoServerAnswered, IsToBeTriedLaterIfTheyDiffer)
{
    auto const conclusion =
        conclude({failure(0, Outcome::Refused, 50), failure(1, Outcome::Misconfigured, 32)});

    EXPECT_EQ(conclusion.verdict.outcome, Outcome::TryLater);
}

TEST(AKeyThatNoServerAnswered, IsToBeTriedLaterIfOneCouldNotBeAsked)
{
    auto const conclusion =
        conclude({failure(0, Outcome::Misconfigured, 32), failure(1, Outcome::TryLater, -1)});

    EXPECT_EQ(conclusion.verdict.outcome, Outcome::TryLater);
    EXPECT_EQ(conclusion.verdict.code, -1);
    EXPECT_EQ(conclusion.server, "ldap://server1");
}

TEST(AKeyThatNoServerAnswered, IsRefusedIfTheCredentialsAreHeld)
{
    auto const conclusion =
        conclude({failure(0, Outcome::TryLater, -1), failure(1, Outcome::Refused, 49, true)});

    EXPECT_EQ(conclusion.verdict.outcome, Outcome::Refused);
    EXPECT_EQ(conclusion.verdict.code, 49);
}

TEST(AKeyThatNoServerAnswered, IsToBeTriedLaterIfNoneIsKnown)
{
    EXPECT_EQ(conclude({}).verdict.outcome, Outcome::TryLater);
}

} // namespace SolvaneTest
