// What a lookup makes of failures, and that none of them changes the pool.
#include "OtherThread.h"
#include "PoolTest.h"

#include <new>

namespace SolvaneTest {
namespace {

using Solvane::LDAPConnection;
using testing::ElementsAreArray;

/// A pool with one idle bound connection and one idle unbound one, to other servers than the one
/// that lookups fail at.
class AFailingLookup : public PoolTest {
protected:
    AFailingLookup()
    {
        givenBack(cache.getConnection(serverAt(390), "cn=a", "secret"));
        givenBack(cache.getConnection(serverAt(390)));
        openldap.forgetCalls();
    }
    void expectEndOfABoundSession()
    {
        EXPECT_THAT(openldap.calls(),
                    ElementsAreArray(joined({{"time"},
                                             opening,
                                             sendingBind,
                                             awaitingBind,
                                             {"ldap_unbind_ext session null null"}})));
    }
    void TearDown() override
    {
        EXPECT_EQ(state(), "hits 0, size 2, pooled 2") << "a failure has changed the pool";
    }
};

/// The same, for lookups that fail while they look at a pooled connection.
class AFailingCheck : public PoolTest {
protected:
    OtherThread other;
};

using ARefusedBind = AFailingLookup;

TEST_F(ARefusedBind, GivesANullConnectionAndEndsTheSession)
{
    willAnswerBindsWith(LDAP_UNWILLING_TO_PERFORM);

    LDAPConnection const connection = bound();

    EXPECT_TRUE(connection.isNull());
    expectEndOfABoundSession();
}

TEST_F(ARefusedBind, ForWantOfAccessIsOneToo)
{
    willAnswerBindsWith(LDAP_INSUFFICIENT_ACCESS);

    EXPECT_TRUE(bound().isNull());
}

TEST_F(ARefusedBind, OfInvalidCredentialsIsReportedWithTheBindsOwnFailureAndEndsTheSession)
{
    willAnswerBindsWith(LDAP_INVALID_CREDENTIALS);

    auto const thrown = thrownBy([&] { bound(); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 602, 4, 0, ""));
    EXPECT_EQ(causeType(thrown), 3);
    EXPECT_THAT(causeOf(thrown),
                IsFault("Connection.cpp", 297, 4, 3,
                        "Error: 'Invalid credentials' during bind to ldap://[127.0.0.1]:389/"));
    expectEndOfABoundSession();
}

TEST_F(ARefusedBind, WithAReferralIsReportedWithTheReferral)
{
    openldap.ldap_result = [this](LDAP*, int, int, timeval*, LDAPMessage** message) {
        *message = messages.response(LDAP_RES_BIND, LDAP_REFERRAL, "", "", {"ldap://b/"});
        return ldap_msgtype(*message);
    };

    auto const thrown = thrownBy([&] { bound(); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 602, 4, 0));
    EXPECT_THAT(causeOf(thrown), IsFault("Result.cpp", 624, 4, 5));
}

TEST_F(AFailingLookup, WhoseBindFailsHasTheBindsFailureAsItsCause)
{
    auto const failureOfALookup = [&] {
        auto const thrown = thrownBy([&] { bound(); });
        EXPECT_THAT(thrown, IsFault("Connection.cpp", 602, 4, 0));
        return causeOf(thrown);
    };
    auto const answer = openldap.ldap_result;
    openldap.ldap_result = [](auto...) { return LDAP_SERVER_DOWN; };
    EXPECT_THAT(failureOfALookup(), IsFault("Connection.cpp", 315, 4, 3)) << "not awaited";
    openldap.ldap_result = answer;

    openldap.ldap_sasl_bind = [](auto...) { return LDAP_ENCODING_ERROR; };
    EXPECT_THAT(failureOfALookup(), IsFault("Connection.cpp", 241, 4, 3)) << "not sent";

    openldap.ldap_sasl_bind = [](auto...) { return LDAP_SERVER_DOWN; };
    EXPECT_THAT(
        failureOfALookup(),
        IsFault("Connection.cpp", 241, 4, 1,
                "Error: 'Can't contact LDAP server' during bind to ldap://[127.0.0.1]:389/"))
        << "a dead server";
}

TEST_F(AFailingLookup, ThatGetsNoSessionHasTheConnectionsFailureAsItsCause)
{
    auto const expectCause = [&](auto const& cause) {
        auto const withBind = thrownBy([&] { bound(); });
        auto const withoutBind = thrownBy([&] { unbound(); });

        EXPECT_THAT(withBind, IsFault("Connection.cpp", 602, 4, 0));
        EXPECT_THAT(causeOf(withBind), cause);
        EXPECT_THAT(withoutBind, IsFault("Connection.cpp", 650, 4, 0, ""));
        EXPECT_THAT(causeOf(withoutBind), cause);
    };
    openldap.ldap_set_option = [](auto...) { return LDAP_OPT_ERROR; };
    expectCause(IsFault("Connection.cpp", 519, 4, 2));

    openldap.ldap_initialize = [](auto...) { return LDAP_PARAM_ERROR; };
    expectCause(IsFault("Connection.cpp", 403, 4, 1));
}

TEST_F(AFailingLookup, KeepsAForeignExceptionAsItsCause)
{
    openldap.ldap_initialize = throwForeign<>;

    auto const withBind = thrownBy([&] { bound(); });
    auto const withoutBind = thrownBy([&] { unbound(); });

    EXPECT_THAT(withBind, IsFault("Connection.cpp", 602, 4, 0));
    EXPECT_EQ(withBind.cause().name(), "foreign");
    EXPECT_EQ(causeType(withBind), -1);
    EXPECT_THAT(withoutBind, IsFault("Connection.cpp", 650, 4, 0));
    EXPECT_EQ(withoutBind.cause().name(), "foreign");
}

TEST_F(AFailingLookup, PassesForeignExceptionsUnchanged)
{
    openldap.ldap_initialize = [](auto...) -> int { throw std::bad_alloc(); };

    EXPECT_THROW(bound(), std::bad_alloc);
    EXPECT_THROW(unbound(), std::bad_alloc);
}

TEST_F(AFailingLookup, WhoseBindRunsOutOfMemoryEndsTheSession)
{
    openldap.ldap_sasl_bind = [](auto...) -> int { throw std::bad_alloc(); };

    EXPECT_THROW(bound(), std::bad_alloc);

    EXPECT_THAT(openldap.calls(),
                ElementsAreArray(joined(
                    {{"time"}, opening, sendingBind, {"ldap_unbind_ext session null null"}})));
}

TEST_F(AFailingCheck, IsReportedAndUnlocksThePool)
{
    givenBack(bound());
    givenBack(unbound());
    openldap.ldap_get_option = throwForeign<>;

    auto const withBind = thrownBy([&] { bound(); });
    auto const withoutBind = thrownBy([&] { unbound(); });

    EXPECT_THAT(withBind, IsFault("Connection.cpp", 602, 4, 0));
    EXPECT_EQ(withBind.cause().name(), "foreign");
    EXPECT_THAT(withoutBind, IsFault("Connection.cpp", 650, 4, 0));
    EXPECT_EQ(withoutBind.cause().name(), "foreign");
    EXPECT_EQ(state(), "hits 0, size 2, pooled 2");
    EXPECT_TRUE(other.finishes([&] { cache.clear(); }));
}

TEST_F(AFailingCheck, ThatRunsOutOfMemoryPassesUnchangedAndUnlocksThePool)
{
    givenBack(bound());
    givenBack(unbound());
    openldap.ldap_get_option = [](auto...) -> int { throw std::bad_alloc(); };

    EXPECT_THROW(bound(), std::bad_alloc);
    EXPECT_THROW(unbound(), std::bad_alloc);

    EXPECT_EQ(state(), "hits 0, size 2, pooled 2");
    EXPECT_TRUE(other.finishes([&] { cache.clear(); }));
}

} // namespace
} // namespace SolvaneTest
