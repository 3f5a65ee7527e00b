// Connections that are open: the exact calls that test, configure and end a session.
#include "CallTest.h"
#include "Process.h"

#include <cerrno>

namespace SolvaneTest {
namespace {

using Solvane::LDAPConnection;
using testing::ElementsAre;
using testing::IsEmpty;

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

} // namespace
} // namespace SolvaneTest
