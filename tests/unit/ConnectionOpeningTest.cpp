// Opening a connection: the exact calls in order, and the state after each failure.
#include "CallTest.h"

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

} // namespace
} // namespace SolvaneTest
