// Binds: the exact calls, what is stored when, what each answer, silence and failure leaves, and
// what is reported.
#include "CallTest.h"

#include <cerrno>

namespace SolvaneTest {
namespace {

using Solvane::LDAPConnection;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

using ASynchronousBind = ConnectedTest;
using AnAsynchronousBind = ConnectedTest;
using ABind = ConnectedTest;
using ABindThatFails = ConnectedTest;

/// The credentials of an administrator, sent in one of the two modes.
void bindAsAdmin(LDAPConnection& connection, LDAPConnection::BindMode mode)
{
    connection.bind("cn=admin", "secret", mode);
}

class ABindWithVersionTwo : public ConnectedTest {
protected:
    ABindWithVersionTwo() : ConnectedTest(LDAPConnection::V2) {}
};

auto const succeeding = [](auto...) { return LDAP_SUCCESS; };

auto failing(int rc, int error = 0)
{
    return [rc, error](auto...) {
        errno = error;
        return rc;
    };
}

TEST_F(ASynchronousBind, HandsDnAndPasswordToOpenLDAPOnce)
{
    openldap.ldap_sasl_bind_s = succeeding;

    bindAsAdmin(connection, LDAPConnection::Synchronous);

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ber_str2bv 'secret' 0 0 null",
                            "ldap_sasl_bind_s session 'cn=admin' null 'secret' null null null",
                            "ber_bvfree 'secret'"));
}

TEST_F(ASynchronousBind, LeavesTheMessageIdOfAnEarlierBind)
{
    openldap.ldap_sasl_bind_s = succeeding;
    body().m_bindMessageId = 7;

    bindAsAdmin(connection, LDAPConnection::Synchronous);

    EXPECT_EQ(connection.id(), 7);
}

TEST_F(AnAsynchronousBind, HandsDnAndPasswordToOpenLDAPOnce)
{
    openldap.ldap_sasl_bind = succeeding;

    bindAsAdmin(connection, LDAPConnection::Asynchronous);

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ber_str2bv 'secret' 0 0 null",
                            "ldap_sasl_bind session 'cn=admin' null 'secret' null null",
                            "ber_bvfree 'secret'"));
}

TEST_F(AnAsynchronousBind, IsWhatAnyModeButZeroGives)
{
    openldap.ldap_sasl_bind = succeeding;

    connection.bind("", "", static_cast<LDAPConnection::BindMode>(-2));

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_sasl_bind session '' null null null null", "ber_bvfree null"));
    EXPECT_EQ(body().m_bindMode, -2);
}

TEST_F(AnAsynchronousBind, StoresTheMessageIdThatOpenLDAPWritesAlsoWhenItFails)
{
    openldap.ldap_sasl_bind = [](auto, auto, auto, auto, auto, auto, int* id) {
        *id = 7;
        return LDAP_SUCCESS;
    };
    bindAsAdmin(connection, LDAPConnection::Asynchronous);
    EXPECT_EQ(connection.id(), 7);

    openldap.ldap_sasl_bind = [](auto, auto, auto, auto, auto, auto, int* id) {
        *id = -1;
        return LDAP_SERVER_DOWN;
    };
    thrownBy([&] { bindAsAdmin(connection, LDAPConnection::Asynchronous); });
    EXPECT_EQ(connection.id(), -1);
}

TEST_F(AnAsynchronousBind, StoresZeroWhenOpenLDAPWritesNoMessageId)
{
    openldap.ldap_sasl_bind = failing(LDAP_SERVER_DOWN);
    body().m_bindMessageId = 7;

    thrownBy([&] { bindAsAdmin(connection, LDAPConnection::Asynchronous); });

    EXPECT_EQ(connection.id(), 0);
}

TEST_F(ABind, StoresDnPasswordAndModeBeforeItSends)
{
    std::vector<std::string> seen;
    openldap.ldap_sasl_bind = [&](auto...) {
        seen = {body().m_bindDn, body().m_bindPassword, std::to_string(body().m_bindMode)};
        return LDAP_SUCCESS;
    };

    bindAsAdmin(connection, LDAPConnection::Asynchronous);

    EXPECT_THAT(seen, ElementsAre("cn=admin", "secret", "1"));
}

TEST_F(ABind, ReplacesWhatAnEarlierBindStored)
{
    openldap.ldap_sasl_bind = succeeding;
    openldap.ldap_sasl_bind_s = succeeding;
    connection.bind("cn=first", "one", LDAPConnection::Asynchronous);

    connection.bind("cn=second", "two", LDAPConnection::Synchronous);

    EXPECT_EQ(body().m_bindDn, "cn=second");
    EXPECT_EQ(body().m_bindPassword, "two");
    EXPECT_EQ(body().m_bindMode, 0);
}

TEST_F(ABind, SendsAnEmptyDnAsEmptyText)
{
    openldap.ldap_sasl_bind_s = succeeding;

    connection.bind("", "secret", LDAPConnection::Synchronous);

    EXPECT_EQ(openldap.calls().at(1), "ldap_sasl_bind_s session '' null 'secret' null null null");
}

TEST_F(ABind, SendsAnEmptyPasswordAsAValueOfLengthZero)
{
    berval sent = {99, nullptr};
    openldap.ldap_sasl_bind_s = [&](auto, auto, auto, berval* credentials, auto, auto, auto) {
        sent = *credentials;
        return LDAP_SUCCESS;
    };

    connection.bind("cn=admin", "", LDAPConnection::Synchronous);

    EXPECT_EQ(sent.bv_len, 0U);
    EXPECT_EQ(sent.bv_val, nullptr);
}

TEST_F(ABind, SendsAPasswordUpToItsFirstZeroByte)
{
    openldap.ldap_sasl_bind_s = succeeding;

    connection.bind("cn=admin", std::string("se\0cret", 7), LDAPConnection::Synchronous);

    EXPECT_EQ(openldap.calls().at(1),
              "ldap_sasl_bind_s session 'cn=admin' null 'se' null null null");
}

TEST_F(ABind, ConvertsTheDnToUtf8ForVersionThree)
{
    openldap.ldap_sasl_bind_s = succeeding;

    connection.bind("cn=J\xFCrgen", "", LDAPConnection::Synchronous);

    EXPECT_EQ(openldap.calls().at(0),
              "ldap_sasl_bind_s session 'cn=J\xC3\xBCrgen' null null null null null");
    EXPECT_EQ(body().m_bindDn, "cn=J\xFCrgen");
}

TEST_F(ABindWithVersionTwo, SendsTheDnByteForByte)
{
    openldap.ldap_sasl_bind_s = succeeding;

    connection.bind("cn=J\xFCrgen", "", LDAPConnection::Synchronous);

    EXPECT_EQ(openldap.calls().at(0),
              "ldap_sasl_bind_s session 'cn=J\xFCrgen' null null null null null");
}

TEST_F(ABindWithVersionTwo, SendsAnEmptyDnAsEmptyText)
{
    openldap.ldap_sasl_bind_s = succeeding;

    connection.bind("", "", LDAPConnection::Synchronous);

    EXPECT_EQ(openldap.calls().at(0), "ldap_sasl_bind_s session '' null null null null null");
}

TEST_F(ABind, ThatSucceedsLeavesTheRecordedErrorAndIsSilent)
{
    openldap.ldap_sasl_bind_s = succeeding;
    connection.openldapErrorCode(49);
    DebugLines const lines(0xffffffff);

    bindAsAdmin(connection, LDAPConnection::Synchronous);

    EXPECT_EQ(connection.openldapErrorCode(), 49);
    EXPECT_THAT(lines.all(), IsEmpty());
}

struct BindFailure {
    int rc;
    int type;
    char const* text;
};

void PrintTo(BindFailure const& tested, std::ostream* out) { *out << tested.rc; }

class EachBindFailure : public ConnectedTest, public testing::WithParamInterface<BindFailure> {};

TEST_P(EachBindFailure, IsReportedAndRecordedInBothModes)
{
    openldap.ldap_sasl_bind_s = failing(GetParam().rc);
    openldap.ldap_sasl_bind = failing(GetParam().rc);
    for (auto const mode : {LDAPConnection::Synchronous, LDAPConnection::Asynchronous}) {
        connection.openldapErrorCode(0);

        EXPECT_THAT(thrownBy([&] { bindAsAdmin(connection, mode); }),
                    IsFault("Connection.cpp", 241, 4, GetParam().type, GetParam().text));
        EXPECT_EQ(connection.openldapErrorCode(), GetParam().rc);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Of, EachBindFailure,
    testing::Values(
        BindFailure{LDAP_SERVER_DOWN, 1,
                    "Error: 'Can't contact LDAP server' during bind to ldap://[127.0.0.1]:389/"},
        BindFailure{LDAP_INVALID_CREDENTIALS, 3,
                    "Error: 'Invalid credentials' during bind to ldap://[127.0.0.1]:389/"},
        BindFailure{LDAP_TIMEOUT, 3, "Error: 'Timed out' during bind to ldap://[127.0.0.1]:389/"},
        BindFailure{LDAP_UNAVAILABLE, 3,
                    "Error: 'Server is unavailable' during bind to ldap://[127.0.0.1]:389/"}));

TEST_F(ABindThatFails, StoresItsCredentialsAllTheSame)
{
    openldap.ldap_sasl_bind_s = failing(LDAP_SERVER_DOWN);

    thrownBy([&] { bindAsAdmin(connection, LDAPConnection::Synchronous); });

    EXPECT_EQ(body().m_bindDn, "cn=admin");
    EXPECT_EQ(body().m_bindPassword, "secret");
}

TEST_F(ABindThatFails, LeavesTheConnectionInvalidWithAHealthySocket)
{
    openldap.ldap_sasl_bind_s = failing(LDAP_INVALID_CREDENTIALS);
    openldap.ldap_get_option = [](LDAP*, int, void* value) {
        *static_cast<int*>(value) = 7;
        return LDAP_OPT_SUCCESS;
    };
    openldap.getsockopt = [](int, int, int, void* value, socklen_t*) {
        *static_cast<int*>(value) = 0;
        return 0;
    };

    thrownBy([&] { connection.bind("cn=admin", "wrong", LDAPConnection::Synchronous); });

    EXPECT_FALSE(body().isValid());
}

TEST_F(ABindThatFails, IsTracedWithErrnoWhenTheMaskAsksForConnectionsAndAlwaysRecorded)
{
    openldap.ldap_sasl_bind = failing(LDAP_SERVER_DOWN, ECONNREFUSED);

    expectTraced(0x80008,
                 {"Connection:248 bind 0: Error 'Can't contact LDAP server' Server "
                  "ldap://[127.0.0.1]:389/ errno=111"},
                 [&] {
                     connection.openldapErrorCode(0);
                     thrownBy([&] { bindAsAdmin(connection, LDAPConnection::Asynchronous); });
                     EXPECT_EQ(connection.openldapErrorCode(), -1);
                 });
}

TEST_F(ABindThatFails, WithAForeignExceptionGivesTheCredentialsBack)
{
    openldap.ldap_sasl_bind_s = throwForeign<>;

    EXPECT_THROW(bindAsAdmin(connection, LDAPConnection::Synchronous), Solvane::Exception);

    EXPECT_EQ(openldap.calls().back(), "ber_bvfree 'secret'");
    EXPECT_EQ(connection.openldapErrorCode(), 0);
}

TEST_F(ABindThatFails, ForWantOfASessionStoresAndCallsNothing)
{
    LDAP* const session = body().m_context;
    body().m_context = nullptr;

    EXPECT_THAT(thrownBy([&] { bindAsAdmin(connection, LDAPConnection::Synchronous); }),
                IsFault("Connection.cpp", 208, 4, 3, ""));
    EXPECT_EQ(body().m_bindDn, "");
    EXPECT_EQ(connection.openldapErrorCode(), 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
    body().m_context = session;
}

// Completing an asynchronous bind: results of each answer, of silence and of failures.

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
