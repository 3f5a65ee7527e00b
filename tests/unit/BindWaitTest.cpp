// Completing an asynchronous bind: results of each answer, of silence and of failures.
#include "CallTest.h"

#include <cerrno>

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

TEST_F(BindWait, OffersOpenLDAPAnEmptyMessageAndTheFullTimeForEach)
{
    std::vector<long> seconds;
    openldap.ldap_result = [&](LDAP*, int, int, timeval* timeout, LDAPMessage** message) {
        EXPECT_EQ(*message, nullptr);
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

TEST_F(BindWait, ThrowsWhenTheCredentialsAreInvalidAndNeitherRecordsNorTracesIt)
{
    willReceive({bindResponse(LDAP_INVALID_CREDENTIALS)});
    DebugLines const lines(0xffffffff);

    EXPECT_THAT(thrownBy([&] { connection.bindWait(5); }),
                IsFault("Connection.cpp", 297, 4, 3,
                        "Error: 'Invalid credentials' during bind to ldap://[127.0.0.1]:389/"));
    EXPECT_EQ(connection.openldapErrorCode(), 0);
    EXPECT_EQ(body().m_bindResult.resultCode(), 49);
    EXPECT_THAT(lines.all(), IsEmpty());
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(1));
}

TEST_F(BindWait, ReportsANegativeResultAsABindFailureAndRecordsIt)
{
    openldap.ldap_result = [](auto...) { return LDAP_LOCAL_ERROR; };

    EXPECT_THAT(thrownBy([&] { connection.bindWait(1); }),
                IsFault("Connection.cpp", 315, 4, 3,
                        "Error: 'Local error' during bind to ldap://[127.0.0.1]:389/"));
    EXPECT_EQ(connection.openldapErrorCode(), -2);
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_result session 12 0 1s 0us"));
}

TEST_F(BindWait, TracesANegativeResultWithErrnoWhenTheMaskAsksForErrorsAndAlwaysRecordsIt)
{
    openldap.ldap_result = [](auto...) {
        errno = ECONNRESET;
        return LDAP_SERVER_DOWN;
    };

    expectTraced(0x80001, {"Connection:319 bindWait 0: " + tid() + "ldaperror=-1, errno = 104"},
                 [&] {
                     connection.openldapErrorCode(0);
                     thrownBy([&] { connection.bindWait(1); });
                     EXPECT_EQ(connection.openldapErrorCode(), -1);
                 });
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

    EXPECT_THAT(thrownBy([&] { connection.bindWait(5); }), IsFault("Result.cpp", 624, 4, 5));
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

    EXPECT_THAT(thrownBy([&] { connection.bindWait(5); }),
                IsFault("Connection.cpp", 278, 4, 3,
                        "m_context=0, bind probably failed, unbind was called, then wait()"));
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

    EXPECT_THAT(thrownBy([&] { connection.bindWait(5); }), IsFault("Connection.cpp", 278, 4, 3));
}

TEST_F(BindWait, ReachesOpenLDAPInWholeSecondsThatItCanCount)
{
    willReceive({});
    for (auto const& [seconds, sent] : secondsOfAWait) {
        EXPECT_TRUE(connection.bindWait(seconds));

        EXPECT_EQ(openldap.calls().back(), "ldap_result session 12 0 " + sent);
    }
    EXPECT_EQ(openldap.calls().size(), secondsOfAWait.size());
}

} // namespace
} // namespace SolvaneTest
