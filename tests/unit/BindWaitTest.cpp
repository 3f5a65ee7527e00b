// Completing an asynchronous bind: results of each answer, of silence and of failures.
#include "CallTest.h"

#include <cerrno>
#include <climits>

namespace SolvaneTest {
namespace {

using Solvane::LDAPConnection;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class BindWait : public ConnectedTest {
protected:
    BindWait() { body().m_bindMessageId = 12; }

    LDAPMessage* bindResponse(int code) { return messages.response(LDAP_RES_BIND, code); }
};

TEST_F(BindWait, IsTrueWhenTheServerAccepts)
{
    willReceive({bindResponse(LDAP_SUCCESS)});

    bool const done = connection.bindWait(5);

    EXPECT_TRUE(done);
    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_result session 12 0 5s 0us", "ldap_msgtype message",
                            "ldap_parse_result session message null 0", "ldap_msgfree message"));
}

TEST_F(BindWait, KeepsTheResultOnTheConnection)
{
    willReceive({bindResponse(LDAP_SUCCESS)});

    connection.bindWait(5);

    ASSERT_FALSE(body().m_bindResult.isNull());
    EXPECT_EQ(body().m_bindResult.resultType(), 1);
    EXPECT_EQ(body().m_bindResult.resultCode(), 0);
}

TEST_F(BindWait, IsTrueWhenTheTimeRunsOut)
{
    willReceive({});

    bool const done = connection.bindWait(5);

    EXPECT_TRUE(done);
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_result session 12 0 5s 0us"));
    EXPECT_TRUE(body().m_bindResult.isNull());
    EXPECT_EQ(connection.openldapErrorCode(), 0);
}

TEST_F(BindWait, OffersOpenLDAPAnEmptyMessageEachTime)
{
    std::vector<LDAPMessage*> offered;
    openldap.ldap_result = [&](LDAP*, int, int, timeval*, LDAPMessage** message) {
        offered.push_back(*message);
        *message = offered.size() == 1 ? messages.entry("cn=a") : bindResponse(LDAP_SUCCESS);
        return ldap_msgtype(*message);
    };

    connection.bindWait(5);

    EXPECT_THAT(offered, ElementsAre(nullptr, nullptr));
}

TEST_F(BindWait, GivesEveryMessageItAwaitsTheFullTime)
{
    std::vector<long> seconds;
    openldap.ldap_result = [&](LDAP*, int, int, timeval* timeout, LDAPMessage** message) {
        seconds.push_back(timeout->tv_sec);
        *message = seconds.size() < 3 ? messages.entry("cn=a") : bindResponse(LDAP_SUCCESS);
        return ldap_msgtype(*message);
    };

    connection.bindWait(5);

    EXPECT_THAT(seconds, ElementsAre(5, 5, 5));
}

TEST_F(BindWait, PassesOverMessagesOfOtherKindsAndFreesEachOnce)
{
    willReceive({messages.entry("cn=a"), bindResponse(LDAP_SUCCESS)});

    bool const done = connection.bindWait(5);

    EXPECT_TRUE(done);
    EXPECT_THAT(openldap.calls(), Contains("ldap_result session 12 0 5s 0us").Times(2));
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(2));
}

TEST_F(BindWait, IsTrueWhenTheTimeRunsOutAfterAnotherMessage)
{
    willReceive({messages.entry("cn=a")});

    bool const done = connection.bindWait(5);

    EXPECT_TRUE(done);
    EXPECT_EQ(body().m_bindResult.resultType(), 2);
}

TEST_F(BindWait, IsFalseWhenTheServerRefusesWithACodeOtherThanInvalidCredentials)
{
    willReceive({bindResponse(LDAP_UNWILLING_TO_PERFORM)});
    DebugLines const lines(0xffffffff);

    bool const done = connection.bindWait(5);

    EXPECT_FALSE(done);
    EXPECT_EQ(body().m_bindResult.resultCode(), 53);
    EXPECT_EQ(connection.openldapErrorCode(), 0);
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(1));
    EXPECT_THAT(lines.all(), IsEmpty());
}

TEST_F(BindWait, ThrowsWhenTheCredentialsAreInvalid)
{
    willReceive({bindResponse(LDAP_INVALID_CREDENTIALS)});

    auto const thrown = thrownBy([&] { connection.bindWait(5); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 297, 4, 3));
    EXPECT_EQ(thrown.stringParameter(),
              "Error: 'Invalid credentials' during bind to ldap://[127.0.0.1]:389/");
}

TEST_F(BindWait, NeitherRecordsNorTracesInvalidCredentialsAndFreesTheMessageOnce)
{
    willReceive({bindResponse(LDAP_INVALID_CREDENTIALS)});
    DebugLines const lines(0xffffffff);

    thrownBy([&] { connection.bindWait(5); });

    EXPECT_EQ(connection.openldapErrorCode(), 0);
    EXPECT_EQ(body().m_bindResult.resultCode(), 49);
    EXPECT_THAT(lines.all(), IsEmpty());
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(1));
}

TEST_F(BindWait, ReportsANegativeResultAsABindFailure)
{
    openldap.ldap_result = [](auto...) { return LDAP_SERVER_DOWN; };

    auto const thrown = thrownBy([&] { connection.bindWait(1); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 315, 4, 3));
    EXPECT_EQ(thrown.stringParameter(),
              "Error: 'Can't contact LDAP server' during bind to ldap://[127.0.0.1]:389/");
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_result session 12 0 1s 0us"));
}

TEST_F(BindWait, RecordsTheNegativeResult)
{
    openldap.ldap_result = [](auto...) { return LDAP_LOCAL_ERROR; };

    thrownBy([&] { connection.bindWait(1); });

    EXPECT_EQ(connection.openldapErrorCode(), -2);
}

TEST_F(BindWait, TracesANegativeResultWithErrnoWhenTheMaskAsksForErrors)
{
    openldap.ldap_result = [](auto...) {
        errno = ECONNRESET;
        return LDAP_SERVER_DOWN;
    };
    DebugLines const lines(0x80001);

    thrownBy([&] { connection.bindWait(1); });

    EXPECT_THAT(lines.all(),
                ElementsAre("Connection:319 bindWait 0: " + tid() + "ldaperror=-1, errno = 104"));
}

TEST_F(BindWait, RecordsANegativeResultInSilenceWhenABitOfTheMaskIsMissing)
{
    openldap.ldap_result = [](auto...) { return LDAP_SERVER_DOWN; };
    for (unsigned int const mask : masksWithout(0x80001)) {
        DebugLines const lines(mask);
        connection.openldapErrorCode(0);

        thrownBy([&] { connection.bindWait(1); });

        EXPECT_THAT(lines.all(), IsEmpty()) << std::hex << mask;
        EXPECT_EQ(connection.openldapErrorCode(), -1);
    }
}

TEST_F(BindWait, CollectsLaterAnswersInTheSameResult)
{
    willReceive({bindResponse(LDAP_UNWILLING_TO_PERFORM), bindResponse(LDAP_SUCCESS)});
    connection.bindWait(5);
    auto const* const first = body().m_bindResult.impl();

    bool const done = connection.bindWait(5);

    EXPECT_TRUE(done);
    EXPECT_EQ(body().m_bindResult.impl(), first);
    EXPECT_EQ(body().m_bindResult.resultCode(), 0);
}

TEST_F(BindWait, PassesOnWhatTheParserReportsAndFreesTheMessageOnce)
{
    willReceive({messages.response(LDAP_RES_BIND, LDAP_REFERRAL, "", "", {"ldap://b/"})});

    auto const thrown = thrownBy([&] { connection.bindWait(5); });

    EXPECT_THAT(thrown, IsFault("Result.cpp", 624, 4, 5));
    EXPECT_EQ(connection.openldapErrorCode(), 0);
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(1));
}

TEST_F(BindWait, LetsAForeignExceptionPassAndFreesWhatWasReceived)
{
    openldap.ldap_result = [&](LDAP*, int, int, timeval*, LDAPMessage** message) -> int {
        *message = bindResponse(LDAP_SUCCESS);
        openldap.name(*message, "message");
        throw Solvane::Exception("foreign", 9, "Elsewhere.cpp", 1);
    };

    EXPECT_THROW(connection.bindWait(5), Solvane::Exception);

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_result session 12 0 5s 0us", "ldap_msgfree message"));
}

TEST_F(BindWait, ThrowsForWantOfASessionBeforeAnyCall)
{
    LDAP* const session = body().m_context;
    body().m_context = nullptr;

    auto const thrown = thrownBy([&] { connection.bindWait(5); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 278, 4, 3));
    EXPECT_EQ(thrown.stringParameter(),
              "m_context=0, bind probably failed, unbind was called, then wait()");
    EXPECT_EQ(connection.openldapErrorCode(), 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
    body().m_context = session;
}

TEST_F(BindWait, LooksForTheSessionBeforeEachMessage)
{
    openldap.ldap_result = [&](LDAP*, int, int, timeval*, LDAPMessage** message) {
        *message = messages.entry("cn=a");
        return ldap_msgtype(*message);
    };
    openldap.ldap_msgfree = [&](LDAPMessage* message) {
        connection.unbind();
        return ldap_msgfree(message);
    };

    auto const thrown = thrownBy([&] { connection.bindWait(5); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 278, 4, 3));
}

struct WaitCase {
    unsigned int seconds;
    char const* call;
};

void PrintTo(WaitCase const& tested, std::ostream* out) { *out << tested.seconds; }

class TheTimeOfABindWait : public ConnectedTest, public testing::WithParamInterface<WaitCase> {};

TEST_P(TheTimeOfABindWait, ReachesOpenLDAPInWholeSecondsThatItCanCount)
{
    willReceive({});

    connection.bindWait(GetParam().seconds);

    EXPECT_THAT(openldap.calls(), ElementsAre(GetParam().call));
}

INSTANTIATE_TEST_SUITE_P(Of, TheTimeOfABindWait,
                         testing::Values(WaitCase{0, "ldap_result session 0 0 0s 0us"},
                                         WaitCase{1, "ldap_result session 0 0 1s 0us"},
                                         WaitCase{2147483, "ldap_result session 0 0 2147483s 0us"},
                                         WaitCase{2147484, "ldap_result session 0 0 2147483s 0us"},
                                         WaitCase{UINT_MAX,
                                                  "ldap_result session 0 0 2147483s 0us"}));

} // namespace
} // namespace SolvaneTest
