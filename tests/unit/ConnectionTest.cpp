// Connections that are open: the exact calls that test, configure and end a session.
#include "CallTest.h"

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

TEST_F(EndingAConnection, WithItsLastHandleReleasesTheServerDescription)
{
    auto const server = newServer();

    {
        LDAPConnection const connection(server, false);
    }

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
