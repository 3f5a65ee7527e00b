// Connections: the exact calls that open, test, configure and end a session.
#include "CallTest.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <iostream>
#include <thread>

namespace SolvaneTest {
namespace {

using Solvane::LDAPConnection;
using Solvane::LDAPConnectionImpl;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

using OpeningAConnection = CallTest;
using FailingToOpenAConnection = CallTest;
using EndingAConnection = CallTest;
using TheTimeOfAConnection = CallTest;
using AConnection = ConnectedTest;
using TheLivenessTest = ConnectedTest;

void open(LDAPConnection::RefServer const& server)
{
    LDAPConnection const connection(server, false);
}

TEST_F(OpeningAConnection, MakesTheSessionAndSetsItsOptionsInOrder)
{
    LDAPConnection const connection(newServer(), false);

    EXPECT_THAT(openldap.calls(), ElementsAre("time", "ldap_initialize ldap://[127.0.0.1]:389/",
                                              "ldap_set_option session REFERRALS off",
                                              "ldap_set_option session PROTOCOL_VERSION 3",
                                              "ldap_set_option session NETWORK_TIMEOUT 7s 0us",
                                              "ldap_set_option session RESTART on",
                                              "ldap_set_option session CONNECT_CB pointer"));
}

TEST_F(OpeningAConnection, SetsTheTlsPolicyOfASecureServerOnTheDefaultsBeforeAndAfter)
{
    open(newServer(LDAPConnection::V3, true)); // the first one of a process sets TLS up besides
    openldap.forgetCalls();

    LDAPConnection const connection(newServer(LDAPConnection::V3, true), false);

    EXPECT_THAT(openldap.calls(), ElementsAre("time", "ldap_set_option null X_TLS_REQUIRE_CERT 3",
                                              "ldap_initialize ldaps://[127.0.0.1]:389/",
                                              "ldap_set_option session REFERRALS off",
                                              "ldap_set_option session PROTOCOL_VERSION 3",
                                              "ldap_set_option session NETWORK_TIMEOUT 7s 0us",
                                              "ldap_set_option session RESTART on",
                                              "ldap_pvt_tls_set_option null X_TLS_REQUIRE_CERT 3",
                                              "ldap_set_option session CONNECT_CB pointer"));
}

// In a process of their own: what is checked happens once in a process.
class OpeningTheFirstSecureConnection : public CallTest {
protected:
    OpeningTheFirstSecureConnection() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    /// Ends the process; with 0 when `calls` are recorded.
    [[noreturn]] void exitIfRecorded(std::vector<std::string> const& calls) const
    {
        if (openldap.calls() != calls) {
            for (std::string const& call : openldap.calls()) {
                std::cerr << call << '\n';
            }
            std::_Exit(1);
        }
        std::_Exit(0);
    }
};

TEST_F(OpeningTheFirstSecureConnection, SetsTlsUpBetweenThePolicyAndTheSession)
{
    auto const openFirst = [&] {
        openldap.ldap_initialize = [](auto...) { return LDAP_PARAM_ERROR; };
        thrownBy([] { open(newServer(LDAPConnection::V3, true)); });
        exitIfRecorded({"time", "ldap_set_option null X_TLS_REQUIRE_CERT 3", "ldap_pvt_tls_init 0",
                        "ldap_initialize ldaps://[127.0.0.1]:389/"});
    };

    EXPECT_EXIT(openFirst(), testing::ExitedWithCode(0), "");
}

TEST_F(OpeningTheFirstSecureConnection, IsTheOnlyOneToSetTlsUp)
{
    auto const openSecond = [&] {
        open(newServer(LDAPConnection::V3, true));
        openldap.forgetCalls();
        openldap.ldap_initialize = [](auto...) { return LDAP_PARAM_ERROR; };
        thrownBy([] { open(newServer(LDAPConnection::V3, true)); });
        exitIfRecorded({"time", "ldap_set_option null X_TLS_REQUIRE_CERT 3",
                        "ldap_initialize ldaps://[127.0.0.1]:389/"});
    };

    EXPECT_EXIT(openSecond(), testing::ExitedWithCode(0), "");
}

TEST_F(OpeningTheFirstSecureConnection, LeavesItToTheNextOneWhenTlsCannotBeSetUp)
{
    auto const openSecond = [&] {
        openldap.ldap_pvt_tls_init = [](int) { return -1; };
        open(newServer(LDAPConnection::V3, true));
        openldap.forgetCalls();
        openldap.ldap_initialize = [](auto...) { return LDAP_PARAM_ERROR; };
        thrownBy([] { open(newServer(LDAPConnection::V3, true)); });
        exitIfRecorded({"time", "ldap_set_option null X_TLS_REQUIRE_CERT 3", "ldap_pvt_tls_init 0",
                        "ldap_initialize ldaps://[127.0.0.1]:389/"});
    };

    EXPECT_EXIT(openSecond(), testing::ExitedWithCode(0), "");
}

TEST_F(OpeningAConnection, NeverTouchesTlsForAServerThatIsNotSecure)
{
    open(newServer());

    EXPECT_THAT(openldap.calls(), Not(Contains(testing::ContainsRegex("TLS|tls"))));
}

TEST_F(OpeningAConnection, IgnoresThatTheTlsPolicyIsRefusedBeforeTheSessionIsMade)
{
    openldap.ldap_set_option = [](LDAP* session, int option, void const* value) {
        return session == nullptr ? LDAP_OPT_ERROR : ldap_set_option(session, option, value);
    };

    EXPECT_NO_THROW(open(newServer(LDAPConnection::V3, true)));
}

TEST_F(OpeningAConnection, AsksForTheServersProtocolVersion)
{
    open(newServer(LDAPConnection::V2));

    EXPECT_THAT(openldap.calls(), Contains("ldap_set_option session PROTOCOL_VERSION 2"));
}

TEST_F(OpeningAConnection, PassesAnyOtherProtocolNumberOnAndReportsTheRefusal)
{
    auto const thrown = thrownBy([] { open(newServer(static_cast<LDAPConnection::Protocol>(4))); });

    EXPECT_THAT(openldap.calls(), Contains("ldap_set_option session PROTOCOL_VERSION 4"));
    EXPECT_THAT(thrown, IsFault("Connection.cpp", 519, 4, 2));
}

// OpenLDAP copies its process-wide options into a new session without a lock of its own.
TEST_F(OpeningAConnection, WritesAndCopiesTheDefaultsOneThreadAtATime)
{
    Room room;
    openldap.ldap_set_option = [&](LDAP* session, int option, void const* value) {
        if (session == nullptr) {
            room.visit();
        }
        return ldap_set_option(session, option, value);
    };
    openldap.ldap_initialize = [&](LDAP** session, char const* uri) {
        room.visit();
        return ldap_initialize(session, uri);
    };
    openldap.ldap_pvt_tls_set_option = [&](auto...) {
        room.visit();
        return LDAP_OPT_SUCCESS;
    };

    std::thread other([] { open(newServer(LDAPConnection::V3, true)); });
    open(newServer(LDAPConnection::V3, true));
    other.join();

    EXPECT_FALSE(room.wasShared());
}

struct NetworkTimeout {
    unsigned int seconds;
    char const* call;
};
class TheNetworkTimeout : public CallTest, public testing::WithParamInterface<NetworkTimeout> {};

TEST_P(TheNetworkTimeout, ReachesOpenLDAPInWholeSecondsThatItCanCount)
{
    open(newServer(LDAPConnection::V3, false, GetParam().seconds));

    EXPECT_THAT(openldap.calls(), Contains(GetParam().call));
}

INSTANTIATE_TEST_SUITE_P(
    Of, TheNetworkTimeout,
    testing::Values(NetworkTimeout{0, "ldap_set_option session NETWORK_TIMEOUT 0s 0us"},
                    NetworkTimeout{1, "ldap_set_option session NETWORK_TIMEOUT 1s 0us"},
                    NetworkTimeout{2147483, "ldap_set_option session NETWORK_TIMEOUT 2147483s 0us"},
                    NetworkTimeout{2147484, "ldap_set_option session NETWORK_TIMEOUT 2147483s 0us"},
                    NetworkTimeout{UINT_MAX,
                                   "ldap_set_option session NETWORK_TIMEOUT 2147483s 0us"}));

TEST_F(OpeningAConnection, StartsWithTheFieldsAtRest)
{
    auto const server = newServer();

    LDAPConnection const connection(server, true);

    LDAPConnectionImpl const& body = *connection.impl();
    EXPECT_EQ(body.m_server.get(), server.get());
    EXPECT_NE(body.m_context, nullptr);
    EXPECT_EQ(body.m_bindMode, 0);
    EXPECT_EQ(body.m_bindMessageId, 0);
    EXPECT_TRUE(body.m_bindResult.isNull());
    EXPECT_EQ(body.m_bindDn, "");
    EXPECT_EQ(body.m_bindPassword, "");
    EXPECT_TRUE(body.m_anonymous);
    EXPECT_EQ(body.m_openldapErrorCode, 0);
}

TEST_F(OpeningAConnection, LetsItExpireThreeHundredSecondsLater)
{
    openldap.time = [](time_t*) { return 1000; };

    LDAPConnection const connection(newServer(), false);

    EXPECT_EQ(connection.impl()->m_expiry, 1300);
}

TEST_F(OpeningAConnection, IsTracedWhenTheMaskAsksForConnections)
{
    DebugLines const lines(0x80008);

    open(newServer());

    EXPECT_THAT(lines.all(), ElementsAre("Connection:400 LDAPConnectionImpl 0: New LDAP Connection "
                                         "ldap://[127.0.0.1]:389/ - Network Timeout = 7"));
}

TEST_F(OpeningAConnection, IsTracedBeforeTheSessionIsMade)
{
    DebugLines const lines(0x80008);
    std::size_t linesBefore = 0;
    openldap.ldap_initialize = [&](LDAP** session, char const* uri) {
        linesBefore = lines.all().size();
        return ldap_initialize(session, uri);
    };

    open(newServer());

    EXPECT_EQ(linesBefore, 1U);
}

TEST_F(OpeningAConnection, IsSilentWhenABitOfTheMaskIsMissing)
{
    for (unsigned int const mask : masksWithout(0x80008)) {
        DebugLines const lines(mask);

        open(newServer());

        EXPECT_THAT(lines.all(), IsEmpty()) << std::hex << mask;
    }
}

// A bit that a line does not ask for neither switches it on nor off.
TEST_F(OpeningAConnection, IsTracedOnceUnderTheFullMask)
{
    DebugLines const lines(0xffffffff);

    open(newServer());

    EXPECT_EQ(lines.all().size(), 1U);
}

TEST_F(FailingToOpenAConnection, ReportsThatTheSessionCannotBeMade)
{
    openldap.ldap_initialize = [](auto...) { return LDAP_PARAM_ERROR; };

    auto const thrown = thrownBy([] { open(newServer()); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 403, 4, 1));
    EXPECT_EQ(thrown.stringParameter(), "Error: 'Bad parameter to an ldap routine' during "
                                        "initialize for ldap://[127.0.0.1]:389/");
}

TEST_F(FailingToOpenAConnection, GivesNothingBackBeforeTheSessionIsMade)
{
    openldap.ldap_initialize = [](auto...) { return LDAP_PARAM_ERROR; };

    thrownBy([] { open(newServer()); });

    EXPECT_THAT(openldap.calls(), ElementsAre("time", "ldap_initialize ldap://[127.0.0.1]:389/"));
}

TEST_F(FailingToOpenAConnection, TracesThatTheSessionCannotBeMadeWhenTheMaskAsksForErrors)
{
    openldap.ldap_initialize = [](auto...) { return LDAP_PARAM_ERROR; };
    DebugLines const lines(0x80001);

    thrownBy([] { open(newServer()); });

    EXPECT_THAT(lines.all(),
                ElementsAre("Connection:407 LDAPConnectionImpl 0: " + tid() +
                            "error=Error: 'Bad parameter to an ldap routine' during initialize for "
                            "ldap://[127.0.0.1]:389/"));
}

TEST_F(FailingToOpenAConnection, IsSilentAboutTheSessionWhenABitOfTheMaskIsMissing)
{
    openldap.ldap_initialize = [](auto...) { return LDAP_PARAM_ERROR; };
    for (unsigned int const mask : masksWithout(0x80001)) {
        DebugLines const lines(mask & ~0x8U); // without the line that announces the connection

        thrownBy([] { open(newServer()); });

        EXPECT_THAT(lines.all(), IsEmpty()) << std::hex << mask;
    }
}

TEST_F(FailingToOpenAConnection, ReportsThatTlsCannotBeSetUp)
{
    openldap.ldap_pvt_tls_set_option = [](auto...) { return LDAP_OPT_ERROR; };

    auto const thrown = thrownBy([] { open(newServer(LDAPConnection::V3, true)); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 433, 4, 1));
    EXPECT_EQ(thrown.stringParameter(),
              "Error: 'Can't contact LDAP server' during TLS setup ldaps://[127.0.0.1]:389/");
}

TEST_F(FailingToOpenAConnection, TracesThatTlsCannotBeSetUpWhenTheMaskAsksForErrors)
{
    openldap.ldap_pvt_tls_set_option = [](auto...) { return LDAP_OPT_ERROR; };
    DebugLines const lines(0x80001);

    thrownBy([] { open(newServer(LDAPConnection::V3, true)); });

    EXPECT_THAT(lines.all(), ElementsAre("Connection:437 LDAPConnectionImpl 0: " + tid() +
                                         "error=Error: 'Can't contact LDAP server' during TLS "
                                         "setup ldaps://[127.0.0.1]:389/"));
}

TEST_F(FailingToOpenAConnection, IsSilentAboutTlsWhenABitOfTheMaskIsMissing)
{
    openldap.ldap_pvt_tls_set_option = [](auto...) { return LDAP_OPT_ERROR; };
    for (unsigned int const mask : masksWithout(0x80001)) {
        DebugLines const lines(mask & ~0x8U); // without the line that announces the connection

        thrownBy([] { open(newServer(LDAPConnection::V3, true)); });

        EXPECT_THAT(lines.all(), IsEmpty()) << std::hex << mask;
    }
}

class EachOptionThatIsRefused : public CallTest, public testing::WithParamInterface<int> {};

TEST_P(EachOptionThatIsRefused, IsReportedAndTheSessionGivenBackOnce)
{
    int const refused = GetParam();
    openldap.ldap_set_option = [refused](LDAP* session, int option, void const* value) {
        return option == refused ? LDAP_OPT_ERROR : ldap_set_option(session, option, value);
    };

    auto const thrown = thrownBy([] { open(newServer()); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 519, 4, 2));
    EXPECT_EQ(thrown.stringParameter(), "Can't contact LDAP server");
    EXPECT_THAT(openldap.calls(), Contains("ldap_unbind_ext session null null").Times(1));
    EXPECT_EQ(openldap.calls().back(), "ldap_unbind_ext session null null");
}

INSTANTIATE_TEST_SUITE_P(Of, EachOptionThatIsRefused,
                         testing::Values(LDAP_OPT_REFERRALS, LDAP_OPT_PROTOCOL_VERSION,
                                         LDAP_OPT_NETWORK_TIMEOUT, LDAP_OPT_RESTART,
                                         LDAP_OPT_CONNECT_CB));

TEST_F(FailingToOpenAConnection, StopsAtTheFirstOptionThatIsRefused)
{
    openldap.ldap_set_option = [](LDAP* session, int option, void const* value) {
        return option == LDAP_OPT_PROTOCOL_VERSION ? LDAP_OPT_ERROR
                                                   : ldap_set_option(session, option, value);
    };

    thrownBy([] { open(newServer()); });

    EXPECT_THAT(openldap.calls(), ElementsAre("time", "ldap_initialize ldap://[127.0.0.1]:389/",
                                              "ldap_set_option session REFERRALS off",
                                              "ldap_set_option session PROTOCOL_VERSION 3",
                                              "ldap_unbind_ext session null null"));
}

TEST_F(FailingToOpenAConnection, GivesTheSessionBackOnceWhenTlsCannotBeSetUp)
{
    openldap.ldap_pvt_tls_set_option = [](auto...) { return LDAP_OPT_ERROR; };

    thrownBy([] { open(newServer(LDAPConnection::V3, true)); });

    EXPECT_THAT(openldap.calls(), Contains("ldap_unbind_ext session null null").Times(1));
    EXPECT_EQ(openldap.calls().back(), "ldap_unbind_ext session null null");
}

TEST_F(FailingToOpenAConnection, LetsTheServerDescriptionGo)
{
    auto const server = newServer();
    openldap.ldap_set_option = [](auto...) { return LDAP_OPT_ERROR; };

    thrownBy([&] { open(server); });

    EXPECT_EQ(server.use_count(), 1);
}

TEST_F(EndingAConnection, WithItsLastHandleGivesTheSessionBackOnce)
{
    {
        LDAPConnection const connection(newServer(), false);
        LDAPConnection const copy(
            connection); // NOLINT(performance-unnecessary-copy-initialization)
        openldap.forgetCalls();
    }

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_unbind_ext session null null"));
}

TEST_F(EndingAConnection, WithACopyStillThereKeepsTheSession)
{
    LDAPConnection kept;
    {
        LDAPConnection const connection(newServer(), false);
        kept = connection;
        openldap.forgetCalls();
    }

    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(EndingAConnection, WithItsLastHandleReleasesTheServerDescription)
{
    auto const server = newServer();

    open(server);

    EXPECT_EQ(server.use_count(), 1);
}

TEST_F(EndingAConnection, ByUnbindReturnsWhatOpenLDAPReturns)
{
    LDAPConnection connection(newServer(), false);
    openldap.forgetCalls();
    openldap.ldap_unbind_ext = [](LDAP* session, LDAPControl** server, LDAPControl** client) {
        ldap_unbind_ext(session, server, client);
        return LDAP_SERVER_DOWN;
    };

    int const rc = connection.unbind();

    EXPECT_EQ(rc, -1);
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_unbind_ext session null null"));
}

TEST_F(EndingAConnection, ByUnbindKeepsTheContextsValue)
{
    LDAPConnection connection(newServer(), false);
    void const* const before = connection.context();

    connection.unbind();

    EXPECT_EQ(connection.context(), before);
}

TEST_F(TheTimeOfAConnection, IsNotOverAtItsExpiry)
{
    openldap.time = [](time_t*) { return 1000; };
    LDAPConnection const connection(newServer(), false);

    EXPECT_FALSE(connection.impl()->hasExpired(1300));
}

TEST_F(TheTimeOfAConnection, IsOverOneSecondAfterItsExpiry)
{
    openldap.time = [](time_t*) { return 1000; };
    LDAPConnection const connection(newServer(), false);

    EXPECT_TRUE(connection.impl()->hasExpired(1301));
}

TEST_F(TheTimeOfAConnection, GrowsByThreeHundredSecondsWhenExtendedWithoutATime)
{
    openldap.time = [](time_t*) { return 1000; };
    LDAPConnection const connection(newServer(), false);

    connection.impl()->extendExpiryTime(0);

    EXPECT_EQ(connection.impl()->m_expiry, 1600);
}

TEST_F(TheTimeOfAConnection, EndsThreeHundredSecondsPastTheTimeItIsExtendedFromEvenIfThatIsEarlier)
{
    openldap.time = [](time_t*) { return 1000; };
    LDAPConnection const connection(newServer(), false);

    connection.impl()->extendExpiryTime(5);

    EXPECT_EQ(connection.impl()->m_expiry, 305);
}

TEST_F(TheTimeOfAConnection, ReadsTheClockOnlyWhenItIsMade)
{
    LDAPConnection const connection(newServer(), false);
    openldap.forgetCalls();

    connection.impl()->extendExpiryTime(0);
    connection.impl()->extendExpiryTime(5);
    connection.impl()->hasExpired(6);

    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AConnection, SetsAnOptionOfItsSession)
{
    int const deref = LDAP_DEREF_ALWAYS;

    int const rc = body().setOption(LDAP_OPT_DEREF, &deref);

    EXPECT_EQ(rc, 0);
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_set_option session DEREF 3"));
}

TEST_F(AConnection, ReportsAnOptionThatIsRefused)
{
    openldap.ldap_set_option = [](auto...) { return LDAP_PARAM_ERROR; };
    int const deref = LDAP_DEREF_ALWAYS;

    auto const thrown = thrownBy([&] { body().setOption(LDAP_OPT_DEREF, &deref); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 519, 4, 2));
    EXPECT_EQ(thrown.stringParameter(), "Bad parameter to an ldap routine");
    EXPECT_EQ(body().m_openldapErrorCode, 0);
}

TEST_F(AConnection, ReadsAnOptionOfItsSession)
{
    int version = 0;

    int const rc = body().getOption(LDAP_OPT_PROTOCOL_VERSION, &version);

    EXPECT_EQ(rc, 0);
    EXPECT_EQ(version, 3);
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_get_option session PROTOCOL_VERSION"));
}

TEST_F(AConnection, ReportsAnOptionThatCannotBeRead)
{
    openldap.ldap_get_option = [](auto...) { return LDAP_PARAM_ERROR; };
    int version = 0;

    auto const thrown = thrownBy([&] { body().getOption(LDAP_OPT_PROTOCOL_VERSION, &version); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 509, 4, 2));
    EXPECT_EQ(thrown.stringParameter(), "Bad parameter to an ldap routine");
    EXPECT_EQ(body().m_openldapErrorCode, 0);
}

TEST_F(AConnection, KeepsTheErrorCodeThatIsRecordedOnIt)
{
    LDAPConnection const copy(connection); // NOLINT(performance-unnecessary-copy-initialization)

    connection.openldapErrorCode(49);

    EXPECT_EQ(copy.openldapErrorCode(), 49);
}

TEST_F(AConnection, GivesItsContextServerAndMessageId)
{
    body().m_bindMessageId = 12;

    EXPECT_EQ(connection.context(), body().m_context);
    EXPECT_EQ(&connection.server(), &body().m_server);
    EXPECT_EQ(connection.id(), 12);
}

TEST_F(AConnection, IsMarkedAsUsedByOneAtATime)
{
    EXPECT_TRUE(connection.cacheMarkAsUsed());
    EXPECT_FALSE(connection.cacheMarkAsUsed());

    connection.cacheMarkAsAvailable();

    EXPECT_TRUE(connection.cacheMarkAsUsed());
}

/// A session whose socket is number 7.
auto const socketSeven = [](LDAP*, int, void* value) {
    *static_cast<int*>(value) = 7;
    return LDAP_OPT_SUCCESS;
};

/// A socket with this pending error.
auto pendingError(int error)
{
    return [error](int, int, int, void* value, socklen_t*) {
        *static_cast<int*>(value) = error;
        return 0;
    };
}

TEST_F(TheLivenessTest, AsksTheSessionForItsSocketAndTheSocketForItsError)
{
    openldap.ldap_get_option = socketSeven;
    openldap.getsockopt = pendingError(0);

    bool const valid = body().isValid();

    EXPECT_TRUE(valid);
    static_assert(SOL_SOCKET == 1 && SO_ERROR == 4, "the numbers of the record below");
    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_get_option session DESC", "getsockopt 7 1 4 4"));
}

TEST_F(TheLivenessTest, FailsWhenASessionHasNoDescriptor)
{
    openldap.ldap_get_option = [](auto...) {
        errno = EBADF;
        return LDAP_OPT_ERROR;
    };
    DebugLines const lines(0x80001);

    bool const valid = body().isValid();

    EXPECT_FALSE(valid);
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_get_option session DESC"));
    EXPECT_THAT(lines.all(), ElementsAre("Connection:462 isValid 0: " + tid() +
                                         "Unable to get socket descriptor: rc:-1, errno:9"));
}

TEST_F(TheLivenessTest, FailsOnASessionThatNeverConnected)
{
    DebugLines const lines(0x80001);

    bool const valid = body().isValid();

    EXPECT_FALSE(valid);
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_get_option session DESC"));
    EXPECT_THAT(lines.all(), ElementsAre("Connection:467 isValid 0: " + tid() +
                                         "Unable to get valid socket descriptor"));
}

TEST_F(TheLivenessTest, FailsOnABrokenPipe)
{
    openldap.ldap_get_option = socketSeven;
    openldap.getsockopt = pendingError(EPIPE);
    DebugLines const lines(0x80001);

    bool const valid = body().isValid();

    EXPECT_FALSE(valid);
    EXPECT_THAT(lines.all(),
                ElementsAre("Connection:477 isValid 0: " + tid() + "BROKEN PIPE detected"));
}

TEST_F(TheLivenessTest, TakesAnyOtherPendingErrorForHealthy)
{
    openldap.ldap_get_option = socketSeven;
    openldap.getsockopt = pendingError(ECONNRESET);
    DebugLines const lines(0x80001);

    EXPECT_TRUE(body().isValid());
    EXPECT_THAT(lines.all(), IsEmpty());
}

TEST_F(TheLivenessTest, TakesASocketThatCannotBeAskedForHealthy)
{
    openldap.ldap_get_option = socketSeven;
    openldap.getsockopt = [](int, int, int, void* value, socklen_t*) {
        *static_cast<int*>(value) = EPIPE;
        return -1;
    };
    DebugLines const lines(0x80001);

    EXPECT_TRUE(body().isValid());
    EXPECT_THAT(lines.all(), IsEmpty());
}

TEST_F(TheLivenessTest, FailsOnARecordedErrorEvenWithAHealthySocket)
{
    openldap.ldap_get_option = socketSeven;
    openldap.getsockopt = pendingError(0);
    connection.openldapErrorCode(49);
    DebugLines const lines(0x80001);

    EXPECT_FALSE(body().isValid());
    EXPECT_THAT(lines.all(), IsEmpty());
}

TEST_F(TheLivenessTest, FailsOnARecordedErrorWhenTheSocketCannotBeAsked)
{
    openldap.ldap_get_option = socketSeven;
    openldap.getsockopt = [](auto...) { return -1; };
    connection.openldapErrorCode(-1);

    EXPECT_FALSE(body().isValid());
}

TEST_F(TheLivenessTest, RecordsNoErrorItself)
{
    openldap.ldap_get_option = [](auto...) { return LDAP_OPT_ERROR; };

    body().isValid();

    EXPECT_EQ(connection.openldapErrorCode(), 0);
}

TEST_F(TheLivenessTest, IsSilentWhenABitOfTheMaskIsMissing)
{
    for (unsigned int const mask : masksWithout(0x80001)) {
        DebugLines const lines(mask);

        openldap.ldap_get_option = [](auto...) { return LDAP_OPT_ERROR; };
        body().isValid();
        openldap.ldap_get_option = nullptr;
        body().isValid();
        openldap.ldap_get_option = socketSeven;
        openldap.getsockopt = pendingError(EPIPE);
        body().isValid();

        EXPECT_THAT(lines.all(), IsEmpty()) << std::hex << mask;
    }
}

struct NullHandleCase {
    char const* operation;
    unsigned int line;
    void (*call)(LDAPConnection&);
};

void PrintTo(NullHandleCase const& tested, std::ostream* out) { *out << tested.operation; }

class ANullConnection : public CallTest, public testing::WithParamInterface<NullHandleCase> {};

TEST_P(ANullConnection, ThrowsFromEveryOperationWithItsLine)
{
    LDAPConnection null;

    auto const thrown = thrownBy([&] { GetParam().call(null); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", GetParam().line, 1, 0));
    EXPECT_EQ(thrown.stringParameter(), "");
    EXPECT_FALSE(thrown.hasCause());
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    In, ANullConnection,
    testing::Values(NullHandleCase{"context", 129, [](LDAPConnection& null) { null.context(); }},
                    NullHandleCase{"server", 140, [](LDAPConnection& null) { null.server(); }},
                    NullHandleCase{"cacheMarkAsUsed", 154,
                                   [](LDAPConnection& null) { null.cacheMarkAsUsed(); }},
                    NullHandleCase{"cacheMarkAsAvailable", 166,
                                   [](LDAPConnection& null) { null.cacheMarkAsAvailable(); }},
                    NullHandleCase{"recordError", 178,
                                   [](LDAPConnection& null) { null.openldapErrorCode(1); }},
                    NullHandleCase{"recordedError", 190,
                                   [](LDAPConnection& null) { null.openldapErrorCode(); }},
                    NullHandleCase{"bind", 201,
                                   [](LDAPConnection& null) {
                                       null.bind("", "", LDAPConnection::Synchronous);
                                   }},
                    NullHandleCase{"bindWait", 258, [](LDAPConnection& null) { null.bindWait(1); }},
                    NullHandleCase{"unbind", 341, [](LDAPConnection& null) { null.unbind(); }},
                    NullHandleCase{"id", 351, [](LDAPConnection& null) { null.id(); }}),
    [](auto const& tested) { return std::string(tested.param.operation); });

} // namespace
} // namespace SolvaneTest
