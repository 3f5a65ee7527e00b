// Credentials: the lock-out guard, what a server's response to a bind says of a user, and which
// passwords are sent.
#include "Credentials.h"
#include "Denials.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Solvane::Lookup;
using std::chrono::seconds;
using testing::HasSubstr;
using testing::IsEmpty;

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

// What a server's response to a bind says of a user, and which passwords are sent.

namespace {

using PolicyError = BindResult::PolicyError;

Denial denialOfCode(int code, PolicyError error = PolicyError::none)
{
    BindResult result;
    result.code = code;
    result.policyError = error;
    result.hasPolicy = error != PolicyError::none;
    return denialOf(result);
}

/// Of code 49 with the text of Active Directory.
Denial denialOfData(std::string const& data)
{
    BindResult result;
    result.code = 49;
    result.serverText = "80090308: LdapErr: DSID-0C090447, comment: AcceptSecurityContext error, "
                        "data " +
                        data;
    return denialOf(result);
}

} // namespace

TEST(DenialByCode, IsOneOfTheUserOnlyForCodesAboutTheUser)
{
    for (int const code : {1, 2, 3, 7, 8, 10, 11, 13, 32, 34, 50, 51, 52, 53, 80, 123, -1}) {
        EXPECT_EQ(denialOfCode(code), Denial::none) << code;
    }
    EXPECT_EQ(denialOfCode(0), Denial::none);
    EXPECT_EQ(denialOfCode(49), Denial::password);
    EXPECT_EQ(denialOfCode(48), Denial::password);
    EXPECT_EQ(denialOfCode(19), Denial::locked);
}

TEST(DenialByPolicy, SaysWhyThePasswordIsRefused)
{
    EXPECT_EQ(denialOfCode(49, PolicyError::passwordExpired), Denial::expired);
    EXPECT_EQ(denialOfCode(49, PolicyError::accountLocked), Denial::locked);
    EXPECT_EQ(denialOfCode(49, PolicyError::changeAfterReset), Denial::mustChange);
    EXPECT_EQ(denialOfCode(53, PolicyError::accountLocked), Denial::locked);
    EXPECT_EQ(denialOfCode(19, PolicyError::passwordExpired), Denial::expired);
}

TEST(DenialByPolicy, OutweighsASuccess)
{
    EXPECT_EQ(denialOfCode(0, PolicyError::passwordExpired), Denial::expired);
    EXPECT_EQ(denialOfCode(0, PolicyError::accountLocked), Denial::locked);
    EXPECT_EQ(denialOfCode(0, PolicyError::changeAfterReset), Denial::mustChange);
}

TEST(DenialByPolicy, GrantsAGraceLogin)
{
    BindResult result;
    result.hasPolicy = true;
    result.graceLogins = 0;

    EXPECT_EQ(denialOf(result), Denial::none);
    result.policyError = PolicyError::passwordExpired;
    EXPECT_EQ(denialOf(result), Denial::none);
}

TEST(DenialByNetscapesControl, IsAChangeThatIsDueUnlessThePolicySaysMore)
{
    BindResult result;
    result.isMarkedExpired = true;

    EXPECT_EQ(denialOf(result), Denial::mustChange);
    result.hasPolicy = true;
    EXPECT_EQ(denialOf(result), Denial::none);
    result.code = 49;
    EXPECT_EQ(denialOf(result), Denial::expired);
}

TEST(DenialByActiveDirectory, FollowsTheWindowsError)
{
    EXPECT_EQ(denialOfData("525, v4563"), Denial::password);
    EXPECT_EQ(denialOfData("52e, v4563"), Denial::password);
    EXPECT_EQ(denialOfData("52E, v4563"), Denial::password);
    EXPECT_EQ(denialOfData("52f, v4563"), Denial::locked);
    EXPECT_EQ(denialOfData("530, v4563"), Denial::locked);
    EXPECT_EQ(denialOfData("531, v4563"), Denial::locked);
    EXPECT_EQ(denialOfData("532, v4563"), Denial::expired);
    EXPECT_EQ(denialOfData("533, v4563"), Denial::locked);
    EXPECT_EQ(denialOfData("534, v4563"), Denial::locked);
    EXPECT_EQ(denialOfData("701, v4563"), Denial::locked);
    EXPECT_EQ(denialOfData("773, v4563"), Denial::mustChange);
    EXPECT_EQ(denialOfData("775, v1db1"), Denial::locked);
    EXPECT_EQ(denialOfData("775"), Denial::locked);
}

TEST(DenialByActiveDirectory, IsAWrongPasswordForOtherText)
{
    EXPECT_EQ(denialOfData("80090346, v4563"), Denial::password);
    EXPECT_EQ(denialOfData("775f, v4563"), Denial::password);
    EXPECT_EQ(denialOfData("775 minutes"), Denial::password);
    EXPECT_EQ(denialOfData("99999999999999999999, v"), Denial::password);
    EXPECT_EQ(denialOfData(""), Denial::password);
}

TEST(DenialBy389DirectoryServer, IsALockedAccountIfItIsInactivated)
{
    BindResult result;
    result.code = 53;
    result.serverText = "Account inactivated. Contact system administrator.";

    EXPECT_EQ(denialOf(result), Denial::locked);
}

TEST(PasswordToSend, HasNoFaultIfItIsText)
{
    EXPECT_THAT(faultOfPassword("x"), IsEmpty());
    EXPECT_THAT(faultOfPassword(" two words "), IsEmpty());
    EXPECT_THAT(faultOfPassword("gr\xC3\xBC\xC3\x9F\x65"), IsEmpty());
    EXPECT_THAT(faultOfPassword("tab\tand bell\a"), IsEmpty());
    EXPECT_THAT(faultOfPassword(std::string(1024, 'x')), IsEmpty());
}

TEST(PasswordToSend, IsNoneThatAServerCouldTakeForAnEmptyOne)
{
    EXPECT_THAT(faultOfPassword(""), HasSubstr("empty"));
    EXPECT_THAT(faultOfPassword("   "), HasSubstr("blank"));
    EXPECT_THAT(faultOfPassword("\t\r\n"), HasSubstr("blank"));
    EXPECT_THAT(faultOfPassword(std::string("\0secret", 7)), HasSubstr("NUL"));
    EXPECT_THAT(faultOfPassword(std::string("secret\0", 7)), HasSubstr("NUL"));
    EXPECT_THAT(faultOfPassword("\xFF"), HasSubstr("UTF-8"));
    EXPECT_THAT(faultOfPassword(std::string(1025, 'x')), HasSubstr("1024"));
}

} // namespace SolvaneTest
