// Connections: the exact calls that open, test, configure and end a session, the state after each
// failure, and that the pointer of an ended session is never handed to OpenLDAP again.
#include "CallTest.h"
#include "Process.h"

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <thread>

namespace SolvaneTest {
namespace {

using Solvane::LDAPConnection;
using Solvane::LDAPConnectionImpl;
using Solvane::LDAPSearch;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

using OpeningAConnection = CallTest;
using FailingToOpenAConnection = CallTest;

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

TEST_F(OpeningAConnection, SetsTheNetworkTimeoutInWholeSecondsThatOpenLDAPCanCount)
{
    for (auto const& [seconds, sent] : secondsOfAWait) {
        openldap.forgetCalls();

        open(newServer(LDAPConnection::V3, false, seconds));

        EXPECT_THAT(openldap.calls(), Contains("ldap_set_option session NETWORK_TIMEOUT " + sent));
    }
}

TEST_F(OpeningAConnection, StartsWithTheFieldsAtRest)
{
    auto const server = newServer();

    LDAPConnection const connection(server, true);

    LDAPConnectionImpl const& body = *connection.impl();
    EXPECT_EQ(body.m_server.get(), server.get());
    EXPECT_NE(connection.context(), nullptr);
    EXPECT_EQ(body.m_bindMode, LDAPConnection::Synchronous);
    EXPECT_EQ(connection.id(), 0);
    EXPECT_TRUE(body.m_bindResult.isNull());
    EXPECT_EQ(body.m_bindDn, "");
    EXPECT_EQ(body.m_bindPassword, "");
    EXPECT_TRUE(body.m_anonymous);
    EXPECT_EQ(connection.openldapErrorCode(), 0);
}

TEST_F(OpeningAConnection, LetsItExpireThreeHundredSecondsLater)
{
    openldap.time = [](time_t*) { return 1000; };

    LDAPConnection const connection(newServer(), false);

    EXPECT_EQ(connection.impl()->m_expiry, 1300);
}

TEST_F(OpeningAConnection, IsTracedWhenTheMaskAsksForConnections)
{
    expectTraced(0x80008,
                 {"Connection:400 LDAPConnectionImpl 0: New LDAP Connection "
                  "ldap://[127.0.0.1]:389/ - Network Timeout = 7"},
                 [] { open(newServer()); });
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

// A bit that a line does not ask for neither switches it on nor off.
TEST_F(OpeningAConnection, IsTracedOnceUnderTheFullMask)
{
    DebugLines const lines(0xffffffff);

    open(newServer());

    EXPECT_EQ(lines.all().size(), 1U);
}

constexpr unsigned int theNewConnection = 0x8; ///< the bit of the line that announces it

TEST_F(FailingToOpenAConnection, ReportsThatTheSessionCannotBeMadeAndGivesNothingBack)
{
    openldap.ldap_initialize = [](auto...) { return LDAP_PARAM_ERROR; };
    std::string const text = "Error: 'Bad parameter to an ldap routine' during "
                             "initialize for ldap://[127.0.0.1]:389/";

    EXPECT_THAT(thrownBy([] { open(newServer()); }), IsFault("Connection.cpp", 403, 4, 1, text));
    EXPECT_THAT(openldap.calls(), ElementsAre("time", "ldap_initialize ldap://[127.0.0.1]:389/"));
    expectTraced(
        0x80001, {"Connection:407 LDAPConnectionImpl 0: " + tid() + "error=" + text},
        [] { thrownBy([] { open(newServer()); }); }, theNewConnection);
}

// OpenLDAP would abort the process for a null session.
TEST_F(FailingToOpenAConnection, ReportsTheFirstOptionIfThereIsNoSessionInSpiteOfASuccess)
{
    openldap.ldap_initialize = [](LDAP** session, char const*) {
        *session = nullptr;
        return LDAP_SUCCESS;
    };

    EXPECT_THAT(thrownBy([] { open(newServer()); }),
                IsFault("Connection.cpp", 519, 4, 2, "Can't contact LDAP server"));
    EXPECT_THAT(openldap.calls(), ElementsAre("time", "ldap_initialize ldap://[127.0.0.1]:389/"));
}

TEST_F(FailingToOpenAConnection, ReportsThatTlsCannotBeSetUpAndGivesTheSessionBackOnce)
{
    openldap.ldap_pvt_tls_set_option = [](auto...) { return LDAP_OPT_ERROR; };
    std::string const text =
        "Error: 'Can't contact LDAP server' during TLS setup ldaps://[127.0.0.1]:389/";

    EXPECT_THAT(thrownBy([] { open(newServer(LDAPConnection::V3, true)); }),
                IsFault("Connection.cpp", 433, 4, 1, text));
    EXPECT_THAT(openldap.calls(), Contains("ldap_unbind_ext session null null").Times(1));
    EXPECT_EQ(openldap.calls().back(), "ldap_unbind_ext session null null");
    expectTraced(
        0x80001, {"Connection:437 LDAPConnectionImpl 0: " + tid() + "error=" + text},
        [] { thrownBy([] { open(newServer(LDAPConnection::V3, true)); }); }, theNewConnection);
}

class EachOptionThatIsRefused : public CallTest, public testing::WithParamInterface<int> {};

TEST_P(EachOptionThatIsRefused, IsReportedAndTheSessionFreedOnce)
{
    int const refused = GetParam();
    openldap.ldap_set_option = [refused](LDAP* session, int option, void const* value) {
        return option == refused ? LDAP_OPT_ERROR : ldap_set_option(session, option, value);
    };

    EXPECT_THAT(thrownBy([] { open(newServer()); }),
                IsFault("Connection.cpp", 519, 4, 2, "Can't contact LDAP server"));
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

TEST_F(FailingToOpenAConnection, LetsTheServerDescriptionGo)
{
    auto const server = newServer();
    openldap.ldap_set_option = [](auto...) { return LDAP_OPT_ERROR; };

    thrownBy([&] { open(server); });

    EXPECT_EQ(server.use_count(), 1);
}

// Connections that are open: the exact calls that test, configure and end a session.

using EndingAConnection = CallTest;
using TheTimeOfAConnection = CallTest;
using AConnection = ConnectedTest;
using TheLivenessTest = ConnectedTest;

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

TEST_F(EndingAConnection, ByUnbindReturnsWhatOpenLDAPReturnsAndKeepsTheContextsValue)
{
    LDAPConnection connection(newServer(), false);
    void const* const before = connection.context();
    openldap.forgetCalls();
    openldap.ldap_unbind_ext = [](LDAP* session, LDAPControl** server, LDAPControl** client) {
        ldap_unbind_ext(session, server, client);
        return LDAP_SERVER_DOWN;
    };

    int const rc = connection.unbind();

    EXPECT_EQ(rc, -1);
    EXPECT_EQ(connection.context(), before);
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_unbind_ext session null null"));
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

    EXPECT_THAT(thrownBy([&] { body().setOption(LDAP_OPT_DEREF, &deref); }),
                IsFault("Connection.cpp", 519, 4, 2, "Bad parameter to an ldap routine"));
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

    EXPECT_THAT(thrownBy([&] { body().getOption(LDAP_OPT_PROTOCOL_VERSION, &version); }),
                IsFault("Connection.cpp", 509, 4, 2, "Bad parameter to an ldap routine"));
    EXPECT_EQ(body().m_openldapErrorCode, 0);
}

TEST_F(AConnection, GivesItsContextServerAndMessageId)
{
    body().m_bindMessageId = 12;

    EXPECT_EQ(connection.context(), body().m_context);
    EXPECT_EQ(&connection.server(), &body().m_server);
    EXPECT_EQ(connection.id(), 12);
}

/// A session without a descriptor.
int noDescriptor(LDAP*, int, void*)
{
    errno = EBADF;
    return LDAP_OPT_ERROR;
}

/// A session whose socket is number 7.
int socketSeven(LDAP*, int, void* value)
{
    *static_cast<int*>(value) = 7;
    return LDAP_OPT_SUCCESS;
}

/// What a socket is asked for its pending error, and its answer.
Replacement<decltype(::getsockopt)> pendingError(int error, int rc = 0)
{
    return [error, rc](int, int, int, void* value, socklen_t*) {
        *static_cast<int*>(value) = error;
        return rc;
    };
}

struct Liveness {
    char const* shows;
    Replacement<decltype(::ldap_get_option)> ldap_get_option;
    Replacement<decltype(::getsockopt)> getsockopt;
    int recorded; ///< the error on the connection
    bool isValid;
    std::vector<std::string> lines;
};

TEST_F(TheLivenessTest, AsksTheSessionForItsSocketAndTheSocketForItsError)
{
    static_assert(SOL_SOCKET == 1 && SO_ERROR == 4, "the numbers of the record below");
    std::string const prefix = "isValid 0: " + tid();
    // clang-format off
    Liveness const cases[] = {
        {"healthy",                              socketSeven,  pendingError(0),          0,  true,  {}},
        {"a session that has no descriptor",     noDescriptor, nullptr,                  0,  false,
            {"Connection:462 " + prefix + "Unable to get socket descriptor: rc:-1, errno:9"}},
        {"a session that never connected",       nullptr,      nullptr,                  0,  false,
            {"Connection:467 " + prefix + "Unable to get valid socket descriptor"}},
        {"a broken pipe",                        socketSeven,  pendingError(EPIPE),      0,  false,
            {"Connection:477 " + prefix + "BROKEN PIPE detected"}},
        {"healthy with another pending error",   socketSeven,  pendingError(ECONNRESET), 0,  true,  {}},
        {"healthy where it cannot be asked",     socketSeven,  pendingError(EPIPE, -1),  0,  true,  {}},
        {"a recorded error on a healthy socket", socketSeven,  pendingError(0),          49, false, {}},
        {"a recorded error where the socket cannot be asked", socketSeven, pendingError(0, -1), -1, false, {}},
    };
    // clang-format on
    for (Liveness const& row : cases) {
        SCOPED_TRACE(row.shows);
        openldap.ldap_get_option = row.ldap_get_option;
        openldap.getsockopt = row.getsockopt;
        connection.openldapErrorCode(row.recorded);

        expectTraced(0x80001, row.lines, [&] {
            openldap.forgetCalls();

            EXPECT_EQ(body().isValid(), row.isValid);

            EXPECT_EQ(openldap.calls().front(), "ldap_get_option session DESC");
            EXPECT_EQ(openldap.calls().back(),
                      row.getsockopt ? "getsockopt 7 1 4 4" : "ldap_get_option session DESC");
            EXPECT_LE(openldap.calls().size(), 2U);
            EXPECT_EQ(connection.openldapErrorCode(), row.recorded);
        });
    }
}

TEST_F(TheLivenessTest, FailsInAChildOfTheProcessThatMadeTheSession)
{
    openldap.ldap_get_option = socketSeven;
    openldap.getsockopt = pendingError(0);

    std::string const wrong = ForkedProcess([&]() -> std::string {
                                  return body().isValid() ? "it is valid" : "";
                              }).complaint();

    EXPECT_EQ(wrong, "");
    EXPECT_TRUE(body().isValid());
}

// A connection whose session was ended: its pointer is never handed to OpenLDAP again.

class AnUnboundConnection : public ConnectedTest {
protected:
    AnUnboundConnection()
    {
        connection.unbind();
        openldap.forgetCalls();
    }
};

TEST_F(AnUnboundConnection, KeepsItsContextForTheEye)
{
    EXPECT_NE(connection.context(), nullptr);
    EXPECT_EQ(body().session(), nullptr);
}

TEST_F(AnUnboundConnection, UnbindsOnceMoreWithoutACallAlsoThroughACopy)
{
    LDAPConnection copy(connection);

    EXPECT_EQ(connection.unbind(), 0);
    EXPECT_EQ(copy.unbind(), 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, IsDestroyedWithoutACall)
{
    connection = LDAPConnection();

    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, RefusesABindInEitherMode)
{
    for (auto const mode : {LDAPConnection::Synchronous, LDAPConnection::Asynchronous}) {
        EXPECT_THAT(thrownBy([&] { connection.bind("cn=admin", "secret", mode); }),
                    IsFault("Connection.cpp", 208, 4, 3, ""));
        EXPECT_EQ(body().m_bindDn, "");
        EXPECT_EQ(connection.openldapErrorCode(), 0);
    }
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, RefusesToWaitForABind)
{
    EXPECT_THAT(thrownBy([&] { connection.bindWait(5); }),
                IsFault("Connection.cpp", 278, 4, 3,
                        "m_context=0, bind probably failed, unbind was called, then wait()"));
    EXPECT_EQ(connection.openldapErrorCode(), 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, IsNotValid)
{
    EXPECT_FALSE(body().isValid());
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, FailsToSetAndReadAnOptionAsOnADeadServer)
{
    int const deref = LDAP_DEREF_ALWAYS;
    int version = 0;

    EXPECT_THAT(thrownBy([&] { body().setOption(LDAP_OPT_DEREF, &deref); }),
                IsFault("Connection.cpp", 519, 4, 2, "Can't contact LDAP server"));
    EXPECT_THAT(thrownBy([&] { body().getOption(LDAP_OPT_PROTOCOL_VERSION, &version); }),
                IsFault("Connection.cpp", 509, 4, 2, "Can't contact LDAP server"));
    EXPECT_EQ(version, 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, FailsToSendASearchAsOnADeadServer)
{
    LDAPSearch::Parameter parameter("dc=example");
    parameter.filter = "(cn=a)";
    parameter.deref = LDAPSearch::DerefAlways;
    LDAPSearch search(connection, parameter);

    EXPECT_THAT(thrownBy([&] { search.send(); }),
                IsFault("Search.cpp", 270, 4, 4, "Can't contact LDAP server : (cn=a)"));
    EXPECT_EQ(search.id(), 0);
    EXPECT_EQ(connection.openldapErrorCode(), -1);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, FailsToAwaitASearchAsOnADeadServer)
{
    LDAPSearch search(connection, LDAPSearch::Parameter("dc=example"));

    EXPECT_THAT(thrownBy([&] { search.wait(5); }),
                IsFault("Search.cpp", 332, 4, 4, "Can't contact LDAP server"));
    EXPECT_EQ(connection.openldapErrorCode(), -1);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, TracesItsFailuresAsOnADeadServer)
{
    LDAPSearch search(connection, LDAPSearch::Parameter("dc=example"));
    DebugLines const lines(0x80001);

    body().isValid();
    thrownBy([&] { search.send(); });
    thrownBy([&] { search.wait(5); });

    using testing::StartsWith;
    EXPECT_THAT(lines.all(),
                ElementsAre(StartsWith("Connection:462 isValid 0: " + tid() +
                                       "Unable to get socket descriptor: rc:-1, errno:"),
                            StartsWith("Search:276 send 0: " + tid() + "ldaperror=-1, errno = "),
                            StartsWith("Search:335 wait 0: " + tid() + "ldaperror=-1, errno = ")));
}

} // namespace
} // namespace SolvaneTest
