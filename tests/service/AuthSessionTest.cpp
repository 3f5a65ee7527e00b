// Dovecot's authentication protocol, line by line; and the limits of logins.
#include "AuthSession.h"
#include "LoginLimits.h"

#include <solvane/lookup/Verification.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Solvane::Service;
using namespace Solvane::Lookup;
using testing::HasSubstr;
using testing::IsEmpty;

namespace SolvaneTest {

namespace {

using Kind = AuthSession::Verdict::Kind;
using std::chrono::seconds;

// "\0anna\0secret", "anna" and "secret" in base64.
constexpr char plainOfAnna[] = "AGFubmEAc2VjcmV0";
constexpr char anna[] = "YW5uYQ==";
constexpr char secret[] = "c2VjcmV0";

AuthSession::Options options()
{
    AuthSession::Options options;
    options.process = 4711;
    options.connection = 3;
    options.cookie = "0123abcd";
    options.mostLogins = 4;
    return options;
}

class AuthProtocol : public testing::Test {
protected:
    /// Sends the lines of a client, without their line ends; returns what the server says to it.
    std::string exchange(std::string const& lines)
    {
        session.add(lines + "\n");
        return session.takeOutput();
    }

    /// Begins as every client does.
    void shakeHands()
    {
        session.takeOutput();
        exchange("VERSION\t1\t2\nCPID\t99");
    }

    AuthSession session{options()};
};

Verification verified(VerifyOutcome outcome, Denial denial = Denial::none)
{
    Verification verification;
    verification.outcome = outcome;
    verification.denial = denial;
    return verification;
}

} // namespace

TEST_F(AuthProtocol, GreetsFirst)
{
    EXPECT_EQ(session.takeOutput(), "VERSION\t1\t2\n"
                                    "MECH\tPLAIN\tplaintext\n"
                                    "MECH\tLOGIN\tplaintext\n"
                                    "SPID\t4711\n"
                                    "CUID\t3\n"
                                    "COOKIE\t0123abcd\n"
                                    "DONE\n");
    EXPECT_THAT(session.takeOutput(), IsEmpty());
}

TEST_F(AuthProtocol, TakesPlainWithItsInitialResponse)
{
    shakeHands();

    exchange(std::string("AUTH\t1\tPLAIN\tservice=smtp\tnologin\tsecured\tlip=192.0.2.1\t"
                         "rip=192.0.2.9\tresp=") +
             plainOfAnna);
    auto const login = session.nextLogin();

    ASSERT_TRUE(login.has_value());
    EXPECT_EQ(login->user, "anna");
    EXPECT_EQ(login->password.text(), "secret");
    EXPECT_EQ(login->remoteAddress, "192.0.2.9");
    EXPECT_FALSE(session.nextLogin().has_value());
}

TEST_F(AuthProtocol, AsksForThePlainResponseIfItDidNotCome)
{
    shakeHands();

    EXPECT_EQ(exchange("AUTH\t7\tPLAIN\tservice=smtp\tsecured"), "CONT\t7\t\n");
    exchange(std::string("CONT\t7\t") + plainOfAnna);

    EXPECT_EQ(session.nextLogin()->user, "anna");
}

TEST_F(AuthProtocol, AsksForNameAndPasswordOfLogin)
{
    shakeHands();

    EXPECT_EQ(exchange("AUTH\t1\tLOGIN\tservice=smtp\tsecured"), "CONT\t1\tVXNlcm5hbWU6\n");
    EXPECT_EQ(exchange(std::string("CONT\t1\t") + anna), "CONT\t1\tUGFzc3dvcmQ6\n");
    exchange(std::string("CONT\t1\t") + secret);
    auto const login = session.nextLogin();

    ASSERT_TRUE(login.has_value());
    EXPECT_EQ(login->user, "anna");
    EXPECT_EQ(login->password.text(), "secret");
}

TEST_F(AuthProtocol, TakesTheNameOfLoginAsItsInitialResponse)
{
    shakeHands();

    EXPECT_EQ(exchange(std::string("AUTH\t1\tLOGIN\tsecured\tresp=") + anna),
              "CONT\t1\tUGFzc3dvcmQ6\n");
    exchange(std::string("CONT\t1\t") + secret);

    EXPECT_EQ(session.nextLogin()->password.text(), "secret");
}

/// Exim always sends "resp=", empty if its client sent no initial response.
TEST_F(AuthProtocol, AsksIfTheInitialResponseIsEmpty)
{
    shakeHands();

    EXPECT_EQ(exchange("AUTH\t1\tPLAIN\tsecured\tresp="), "CONT\t1\t\n");
    EXPECT_EQ(exchange("AUTH\t2\tLOGIN\tsecured\tresp="), "CONT\t2\tVXNlcm5hbWU6\n");
    EXPECT_EQ(exchange("AUTH\t3\tLOGIN\tsecured\tresp=="), "CONT\t3\tVXNlcm5hbWU6\n");
    exchange(std::string("CONT\t1\t") + plainOfAnna);
    exchange(std::string("CONT\t2\t") + anna);
    exchange(std::string("CONT\t2\t") + secret);

    for (int i = 0; i < 2; ++i) {
        auto const login = session.nextLogin();
        ASSERT_TRUE(login.has_value());
        EXPECT_EQ(login->user, "anna");
        EXPECT_EQ(login->password.text(), "secret");
    }
}

TEST_F(AuthProtocol, TakesMechanismsInAnyCase)
{
    shakeHands();

    exchange(std::string("AUTH\t1\tplain\tsecured\tresp=") + plainOfAnna);

    EXPECT_TRUE(session.nextLogin().has_value());
    EXPECT_EQ(exchange("AUTH\t2\tLogin\tsecured"), "CONT\t2\tVXNlcm5hbWU6\n");
}

TEST_F(AuthProtocol, TakesNoParameterFromTheResponse)
{
    shakeHands();

    EXPECT_EQ(exchange("AUTH\t1\tPLAIN\tresp=\tsecured"),
              "FAIL\t1\treason=passwords are refused without TLS\n");
    exchange(std::string("AUTH\t2\tPLAIN\tsecured\tresp=") + plainOfAnna + "\trip=192.0.2.9");

    EXPECT_THAT(session.nextLogin()->remoteAddress, IsEmpty());
}

TEST_F(AuthProtocol, AnswersInAnyOrder)
{
    shakeHands();
    exchange(std::string("AUTH\t1\tPLAIN\tsecured\tresp=") + plainOfAnna +
             "\nAUTH\t2\tPLAIN\tsecured\tresp=" + plainOfAnna);
    auto const first = session.nextLogin()->number;
    auto const second = session.nextLogin()->number;

    session.conclude(second, {Kind::accepted});
    session.conclude(first, {Kind::denied, "pass_expired"});

    EXPECT_EQ(session.takeOutput(), "OK\t2\tuser=anna\nFAIL\t1\tuser=anna\tcode=pass_expired\n");
    EXPECT_EQ(session.pending(), 0U);
}

TEST_F(AuthProtocol, ClosesTheConnectionIfThePasswordCannotBeVerified)
{
    shakeHands();
    exchange(std::string("AUTH\t1\tPLAIN\tsecured\tresp=") + plainOfAnna);

    session.conclude(session.nextLogin()->number, {Kind::tryLater});

    EXPECT_THAT(session.takeOutput(), IsEmpty());
    EXPECT_TRUE(session.isOver());
    EXPECT_THAT(session.fault(), IsEmpty());
}

TEST_F(AuthProtocol, SaysThatItIsTemporaryIfToldSo)
{
    auto failing = options();
    failing.trouble = AuthSession::Trouble::fail;
    AuthSession other(failing);
    other.takeOutput();
    other.add(std::string("VERSION\t1\t0\nCPID\t1\nAUTH\t1\tPLAIN\tsecured\tresp=") + plainOfAnna +
              "\n");

    other.conclude(other.nextLogin()->number, {Kind::tryLater});

    EXPECT_EQ(other.takeOutput(), "FAIL\t1\tuser=anna\ttemp\tcode=temp_fail\n");
    EXPECT_FALSE(other.isOver());
}

TEST_F(AuthProtocol, RefusesPasswordsWithoutTls)
{
    shakeHands();

    EXPECT_EQ(exchange(std::string("AUTH\t1\tPLAIN\tservice=smtp\tresp=") + plainOfAnna),
              "FAIL\t1\treason=passwords are refused without TLS\n");
    EXPECT_FALSE(session.nextLogin().has_value());
}

TEST_F(AuthProtocol, TakesPasswordsWithoutTlsIfToldSo)
{
    auto lenient = options();
    lenient.needsSecured = false;
    AuthSession other(lenient);
    other.add(std::string("VERSION\t1\t0\nAUTH\t1\tPLAIN\tresp=") + plainOfAnna + "\n");

    EXPECT_TRUE(other.nextLogin().has_value());
}

TEST_F(AuthProtocol, ForgetsACancelledLogin)
{
    shakeHands();
    std::string const login = std::string("AUTH\t1\tPLAIN\tsecured\tresp=") + plainOfAnna;
    exchange(login + "\nCANCEL\t1");

    EXPECT_FALSE(session.nextLogin().has_value());
    EXPECT_EQ(session.pending(), 0U);
}

TEST_F(AuthProtocol, GivesTheAnswerOfACancelledLoginToNoOther)
{
    shakeHands();
    std::string const login = std::string("AUTH\t1\tPLAIN\tsecured\tresp=") + plainOfAnna;
    exchange(login);
    auto const cancelled = session.nextLogin()->number;
    exchange("CANCEL\t1\n" + login);

    session.conclude(cancelled, {Kind::accepted});

    EXPECT_THAT(session.takeOutput(), IsEmpty());
    EXPECT_EQ(session.pending(), 1U);
}

TEST_F(AuthProtocol, RefusesMalformedResponses)
{
    shakeHands();

    for (std::string const response : {"=", "====", "A", "AG==x", "YW5uYQ==", "AGFubmE*", "AAAA"}) {
        EXPECT_THAT(exchange("AUTH\t1\tPLAIN\tsecured\tresp=" + response), HasSubstr("FAIL\t1\t"))
            << response;
        EXPECT_FALSE(session.nextLogin().has_value()) << response;
    }
    EXPECT_FALSE(session.isOver());
}

TEST_F(AuthProtocol, LetsNobodyActForAnotherUser)
{
    shakeHands();

    // "bert\0anna\0secret", then "anna\0anna\0secret"
    EXPECT_THAT(exchange("AUTH\t1\tPLAIN\tsecured\tresp=YmVydABhbm5hAHNlY3JldA=="),
                HasSubstr("FAIL\t1\t"));
    exchange("AUTH\t2\tPLAIN\tsecured\tresp=YW5uYQBhbm5hAHNlY3JldA==");

    EXPECT_EQ(session.nextLogin()->user, "anna");
}

TEST_F(AuthProtocol, RefusesOtherMechanisms)
{
    shakeHands();

    EXPECT_EQ(exchange("AUTH\t1\tCRAM-MD5\tsecured"), "FAIL\t1\treason=unsupported mechanism\n");
}

TEST_F(AuthProtocol, EscapesTheNameOfTheUser)
{
    shakeHands();
    exchange("AUTH\t1\tPLAIN\tsecured\tresp=AGEJYgpjAHg="); // "\0a\tb\nc\0x"

    session.conclude(session.nextLogin()->number, {Kind::accepted});

    EXPECT_EQ(session.takeOutput(), "OK\t1\tuser=a\001tb\001nc\n");
}

TEST_F(AuthProtocol, EndsForAClientOfAnotherVersion)
{
    session.takeOutput();

    EXPECT_THAT(exchange("VERSION\t2\t0"), IsEmpty());
    EXPECT_TRUE(session.isOver());
    EXPECT_THAT(session.fault(), HasSubstr("version"));
}

TEST_F(AuthProtocol, EndsForAClientThatDoesNotGreet)
{
    exchange("GET / HTTP/1.1");

    EXPECT_EQ(session.fault(), "the first line is not VERSION");
}

TEST_F(AuthProtocol, EndsAtALineThatIsTooLong)
{
    shakeHands();
    std::string const fits = "X" + std::string(AuthSession::longestLine - 1, 'x');

    exchange(fits);
    EXPECT_FALSE(session.isOver());
    session.add(fits);
    session.add("x");

    EXPECT_EQ(session.fault(), "a line has more than 16384 bytes");
}

TEST_F(AuthProtocol, EndsForTooManyLoginsAtATime)
{
    shakeHands();

    for (int id = 1; id <= 5; ++id) {
        exchange("AUTH\t" + std::to_string(id) + "\tPLAIN\tsecured\tresp=" + plainOfAnna);
    }

    EXPECT_EQ(session.fault(), "more than 4 logins at a time");
}

/// Postfix does not cancel the login of a client that hangs up before it sends its password.
TEST_F(AuthProtocol, ForgetsLoginsThatWereAbandoned)
{
    shakeHands();
    exchange(std::string("AUTH\t9\tPLAIN\tsecured\tresp=") + plainOfAnna);
    for (int id = 50; id > 10; --id) {
        EXPECT_EQ(exchange("AUTH\t" + std::to_string(id) + "\tPLAIN\tsecured"),
                  "CONT\t" + std::to_string(id) + "\t\n");
    }
    EXPECT_EQ(session.pending(), 4U);

    EXPECT_EQ(exchange(std::string("CONT\t14\t") + plainOfAnna),
              "FAIL\t14\ttemp\tcode=temp_fail\treason=the login has been forgotten\n");
    session.conclude(session.nextLogin()->number, {Kind::accepted}); // the first is not forgotten
    EXPECT_EQ(session.takeOutput(), "OK\t9\tuser=anna\n");
    exchange(std::string("CONT\t11\t") + plainOfAnna);
    EXPECT_TRUE(session.nextLogin().has_value());
    EXPECT_FALSE(session.isOver());
}

TEST_F(AuthProtocol, EndsForIdsThatMakeNoSense)
{
    for (std::string const lines :
         {"AUTH\tx\tPLAIN", "AUTH\t4294967296\tPLAIN", "AUTH\t-1\tPLAIN", "AUTH\t1", "CONT\t5",
          "CANCEL", "AUTH\t1\tPLAIN\tsecured\nAUTH\t1\tPLAIN\tsecured",
          "AUTH\t1\tPLAIN\tsecured\tresp=AGEAYg==\nCONT\t1\tAGEAYg=="}) {
        AuthSession other(options());
        other.add("VERSION\t1\t2\n" + lines + "\n");

        EXPECT_TRUE(other.isOver()) << lines;
    }
}

TEST_F(AuthProtocol, IgnoresUnknownCommands)
{
    shakeHands();

    EXPECT_THAT(exchange("NEWS\t1\tPLAIN"), IsEmpty());
    EXPECT_FALSE(session.isOver());
}

TEST(AuthEscapes, AreUndone)
{
    std::string const text("\0\1\t\r\nplain", 10);

    EXPECT_EQ(escaped(text), "\0010\0011\001t\001r\001nplain");
    EXPECT_EQ(unescaped(escaped(text)), text);
    EXPECT_FALSE(unescaped("a\001").has_value());
    EXPECT_FALSE(unescaped("a\001x").has_value());
}

TEST(AuthVerdict, AcceptsOnlyAcceptedBinds)
{
    EXPECT_EQ(verdictOn(verified(VerifyOutcome::Accepted)).kind, Kind::accepted);
    for (auto const outcome : {VerifyOutcome::Denied, VerifyOutcome::NotFound,
                               VerifyOutcome::Skipped, VerifyOutcome::BadKey}) {
        EXPECT_EQ(verdictOn(verified(outcome)).kind, Kind::denied);
    }
    for (auto const outcome :
         {VerifyOutcome::TryLater, VerifyOutcome::Refused, VerifyOutcome::Misconfigured}) {
        EXPECT_EQ(verdictOn(verified(outcome)).kind, Kind::tryLater);
    }
}

TEST(AuthVerdict, SaysWhyAnAccountIsDenied)
{
    EXPECT_STREQ(verdictOn(verified(VerifyOutcome::Denied, Denial::password)).code, "");
    EXPECT_STREQ(verdictOn(verified(VerifyOutcome::Denied, Denial::expired)).code, "pass_expired");
    EXPECT_STREQ(verdictOn(verified(VerifyOutcome::Denied, Denial::mustChange)).code,
                 "pass_expired");
    EXPECT_STREQ(verdictOn(verified(VerifyOutcome::Denied, Denial::locked)).code, "user_disabled");
}

class LimitedLogins : public testing::Test {
protected:
    void fail(int count, std::string const& user, std::string const& address)
    {
        for (int i = 0; i < count; ++i) {
            limits.failed(user, address, now);
        }
    }

    LoginLimits limits{3, seconds(60)};
    LoginLimits::Clock::time_point now = LoginLimits::Clock::now();
};

TEST_F(LimitedLogins, EndAfterTooManyFailuresOfAUser)
{
    fail(2, "anna", "192.0.2.1");
    EXPECT_TRUE(limits.admits("anna", "", now));

    EXPECT_TRUE(limits.failed("anna", "192.0.2.2", now)); // tells that it is the last one

    EXPECT_FALSE(limits.admits("anna", "192.0.2.3", now));
    EXPECT_TRUE(limits.admits("bert", "192.0.2.3", now));
}

TEST_F(LimitedLogins, EndAfterTooManyFailuresFromAnAddress)
{
    fail(1, "a", "192.0.2.1");
    fail(1, "b", "192.0.2.1");
    fail(1, "c", "192.0.2.1");

    EXPECT_FALSE(limits.admits("d", "192.0.2.1", now));
    EXPECT_TRUE(limits.admits("d", "192.0.2.2", now));
    EXPECT_TRUE(limits.admits("d", "", now));
}

TEST_F(LimitedLogins, DoNotBeginAgainInAnotherCase)
{
    fail(2, "anna@corp.test", "");
    fail(1, "Anna@CORP.test", "");

    EXPECT_FALSE(limits.admits("ANNA@corp.test", "", now));
}

TEST_F(LimitedLogins, BeginAgainLater)
{
    fail(3, "anna", "192.0.2.1");

    now += seconds(60);

    EXPECT_TRUE(limits.admits("anna", "192.0.2.1", now));
    fail(1, "anna", "192.0.2.1");
    EXPECT_TRUE(limits.admits("anna", "192.0.2.1", now));
}

TEST_F(LimitedLogins, BeginAgainForAUserWhoseLoginIsAccepted)
{
    fail(2, "anna", "192.0.2.1");

    limits.succeeded("anna");
    fail(2, "anna", "");

    EXPECT_TRUE(limits.admits("anna", "", now));
}

TEST_F(LimitedLogins, HaveNoLimitIfItIsZero)
{
    LoginLimits unlimited(0, seconds(60));
    for (int i = 0; i < 100; ++i) {
        unlimited.failed("anna", "192.0.2.1", now);
    }

    EXPECT_TRUE(unlimited.admits("anna", "192.0.2.1", now));
}

TEST(RecentValues, AreBounded)
{
    Recent<int> recent(2);
    recent.store("a", 1);
    recent.store("b", 2);
    recent.store("a", 3); // now younger than b

    recent.store("c", 4);

    EXPECT_EQ(recent.size(), 2U);
    EXPECT_EQ(recent.find("b"), nullptr);
    EXPECT_EQ(*recent.find("a"), 3);
    EXPECT_EQ(*recent.find("c"), 4);
}

} // namespace SolvaneTest
