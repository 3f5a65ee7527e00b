// The lock-out guard: one bind at a time until one is accepted, and a pause after a refusal.
#include "Credentials.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Solvane::Lookup;
using std::chrono::seconds;

namespace SolvaneTest {

class NewCredentials : public testing::Test {
protected:
    using Turn = Credentials::Turn;

    Credentials credentials{true, seconds(60)};
    Clock::time_point const now = Clock::now();
    Verdict const wrong = {Outcome::Refused, 49, "ldap://a:389: the bind is refused"};
};

TEST(CredentialsOfABind, AreRefusedBySomeCodesForSaslOnly)
{
    for (Mechanism const mechanism : {Mechanism::simple, Mechanism::external, Mechanism::gssapi}) {
        bool const isOfSasl = mechanism != Mechanism::simple;
        EXPECT_TRUE(Credentials::areRefused(49, mechanism));
        EXPECT_EQ(Credentials::areRefused(48, mechanism), isOfSasl);
        EXPECT_EQ(Credentials::areRefused(50, mechanism), isOfSasl);
        EXPECT_FALSE(Credentials::areRefused(52, mechanism));
        EXPECT_FALSE(Credentials::areRefused(-1, mechanism));
    }
}

TEST_F(NewCredentials, AreTriedByOneCallerAtATime)
{
    EXPECT_EQ(credentials.turn(now), Turn::bind);
    credentials.begin(now + seconds(5));
    EXPECT_EQ(credentials.turn(now), Turn::wait);
    credentials.leftOpen();
    EXPECT_EQ(credentials.turn(now), Turn::bind);
}

TEST_F(NewCredentials, AreUsedByAllOnceTheyWereAccepted)
{
    credentials.begin(now + seconds(5));
    credentials.accepted();

    credentials.begin(now + seconds(5));

    EXPECT_EQ(credentials.turn(now), Turn::bind);
}

TEST_F(NewCredentials, AreNotSentForAWhileAfterARefusal)
{
    credentials.begin(now + seconds(5));
    credentials.refused(0, wrong, now);

    EXPECT_EQ(credentials.turn(now), Turn::refuse);
    EXPECT_EQ(credentials.turn(now + seconds(59)), Turn::refuse);
    EXPECT_EQ(credentials.turn(now + seconds(60)), Turn::bind);
    EXPECT_EQ(credentials.refusal(now + seconds(18)).text,
              "ldap://a:389: the bind is refused; not tried again for 42 s");
    EXPECT_EQ(credentials.refusal(now).code, 49);
}

TEST_F(NewCredentials, AreTriedOnTheNextServerAfterARefusal)
{
    EXPECT_EQ(credentials.firstServer(3), 0U);
    credentials.refused(1, wrong, now);
    EXPECT_EQ(credentials.firstServer(3), 2U);
    credentials.refused(2, wrong, now);
    EXPECT_EQ(credentials.firstServer(3), 0U);
}

TEST_F(NewCredentials, AreNotHeldForARefusalAfterAnotherServerAcceptedThem)
{
    credentials.accepted();

    credentials.refused(1, wrong, now);

    EXPECT_EQ(credentials.turn(now), Turn::bind);
    EXPECT_EQ(credentials.firstServer(3), 0U);
}

TEST(NoCredentials, AreNeverWaitedFor)
{
    Credentials anonymous(false, seconds(60));

    anonymous.begin(Clock::now() + seconds(5));

    EXPECT_EQ(anonymous.turn(Clock::now()), Credentials::Turn::bind);
}

} // namespace SolvaneTest
