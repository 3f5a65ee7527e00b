// Awaiting the answer to an add: results of each answer, of silence and of failures.
#include "CallTest.h"

#include <new>

namespace SolvaneTest {
namespace {

using Solvane::LDAPAdd;
using Solvane::LDAPConnection;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

/// An add that was sent as message 3; no calls are recorded yet.
class AddWait : public ConnectedTest {
protected:
    AddWait() : dn("cn=a,dc=example"), add(connection, dn)
    {
        openldap.ldap_add_ext = [](auto, auto, auto, auto, auto, int* messageId) {
            *messageId = 3;
            return LDAP_SUCCESS;
        };
        add.send();
        openldap.forgetCalls();
    }

    LDAPMessage* addResponse(int code) { return messages.response(LDAP_RES_ADD, code); }
    void willThrow(std::function<void()> const& thrower)
    {
        openldap.ldap_result = [thrower](auto...) {
            thrower();
            return 0;
        };
    }

    std::string dn;
    LDAPAdd add;
};

using AnAwaitedAdd = AddWait;
using AFailingWaitForAnAdd = AddWait;

TEST_F(AnAwaitedAdd, IsOverWhenTheAnswerHasCome)
{
    willReceive({addResponse(LDAP_SUCCESS)});

    bool const hasRunOut = add.wait(5);

    EXPECT_FALSE(hasRunOut);
    EXPECT_EQ(add.result().resultType(), 6);
    EXPECT_EQ(add.result().resultCode(), 0);
    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_result session 3 0 5s 0us", "ldap_msgtype message",
                            "ldap_parse_result session message null 0", "ldap_msgfree message"));
}

TEST_F(AnAwaitedAdd, HasTheServersVerdictInItsResult)
{
    willReceive({messages.response(LDAP_RES_ADD, LDAP_NO_SUCH_OBJECT, "dc=example", "no parent")});

    bool const hasRunOut = add.wait(5);

    EXPECT_FALSE(hasRunOut);
    EXPECT_EQ(add.result().resultCode(), 32);
    EXPECT_EQ(add.result().matchedDN(), "dc=example");
    EXPECT_EQ(add.result().errorMessage(), "no parent");
    EXPECT_EQ(connection.openldapErrorCode(), 0);
}

TEST_F(AnAwaitedAdd, OfAnEntryThatExistsSaysSo)
{
    willReceive({addResponse(LDAP_ALREADY_EXISTS)});

    add.wait(5);

    EXPECT_EQ(add.result().resultCode(), 68);
    EXPECT_EQ(add.result().errorMessage(), "Already exists");
}

TEST_F(AnAwaitedAdd, IsStillOutstandingWhenTheTimeRunsOut)
{
    willReceive({});

    bool const hasRunOut = add.wait(5);

    EXPECT_TRUE(hasRunOut);
    EXPECT_TRUE(add.result().isNull());
    EXPECT_EQ(add.id(), 3);
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_result session 3 0 5s 0us"));
}

TEST_F(AnAwaitedAdd, MayBeAwaitedAgain)
{
    willReceive({});
    add.wait(0);
    willReceive({addResponse(LDAP_SUCCESS)});

    bool const hasRunOut = add.wait(5);

    EXPECT_FALSE(hasRunOut);
    EXPECT_EQ(add.result().resultType(), 6);
}

TEST_F(AnAwaitedAdd, IsNotDisturbedByACancel)
{
    willReceive({addResponse(LDAP_SUCCESS)});

    add.cancel();

    EXPECT_THAT(openldap.calls(), IsEmpty());
    EXPECT_EQ(add.id(), 3);
    EXPECT_TRUE(add.result().isNull());
    EXPECT_FALSE(add.wait(5));
    EXPECT_EQ(add.result().resultCode(), 0);
}

TEST_F(AnAwaitedAdd, ThatWasNeverSentIsAwaitedAsMessageZero)
{
    willReceive({});
    LDAPAdd unsent(connection, dn);

    unsent.wait(5);

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_result session 0 0 5s 0us"));
}

TEST_F(AnAwaitedAdd, PassesOverMessagesOfOtherKindsAndFreesEachOnce)
{
    willReceive({messages.entry("cn=a"), messages.response(LDAP_RES_SEARCH_RESULT, LDAP_SUCCESS),
                 addResponse(LDAP_SUCCESS)});

    bool const hasRunOut = add.wait(5);

    EXPECT_FALSE(hasRunOut);
    EXPECT_EQ(add.result().resultType(), 6);
    EXPECT_EQ(add.result().searchResultEntries().size(), 1U);
    EXPECT_THAT(openldap.calls(), Contains("ldap_result session 3 0 5s 0us").Times(3));
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(3));
}

TEST_F(AnAwaitedAdd, KeepsWhatHasComeWhenTheTimeRunsOutAfterwards)
{
    willReceive({messages.entry("cn=a")});

    bool const hasRunOut = add.wait(5);

    EXPECT_TRUE(hasRunOut);
    EXPECT_EQ(add.result().resultType(), 2);
}

TEST_F(AnAwaitedAdd, OffersOpenLDAPAnEmptyMessageAndTheFullTimeForEach)
{
    std::vector<LDAPMessage*> offered;
    std::vector<long> seconds;
    openldap.ldap_result = [&](LDAP*, int, int, timeval* timeout, LDAPMessage** message) {
        offered.push_back(*message);
        seconds.push_back(timeout->tv_sec);
        *message = offered.size() == 1 ? messages.entry("cn=a") : addResponse(LDAP_SUCCESS);
        return ldap_msgtype(*message);
    };

    add.wait(5);

    EXPECT_THAT(offered, ElementsAre(nullptr, nullptr));
    EXPECT_THAT(seconds, ElementsAre(5, 5));
}

TEST_F(AnAwaitedAdd, CollectsLaterAnswersInTheSameResult)
{
    willReceive({addResponse(LDAP_BUSY), addResponse(LDAP_SUCCESS)});
    add.wait(5);
    auto const* const first = add.result().impl();

    add.wait(5);

    EXPECT_EQ(add.result().impl(), first);
    EXPECT_EQ(add.result().resultCode(), 0);
}

TEST_F(AnAwaitedAdd, ReachesOpenLDAPInWholeSecondsThatItCanCount)
{
    willReceive({});
    for (auto const& [seconds, sent] : secondsOfAWait) {
        EXPECT_TRUE(add.wait(seconds));

        EXPECT_EQ(openldap.calls().back(), "ldap_result session 3 0 " + sent);
    }
    EXPECT_EQ(openldap.calls().size(), secondsOfAWait.size());
}

TEST_F(AFailingWaitForAnAdd, HasOpenLDAPsFailureAsItsCause)
{
    openldap.ldap_result = [](auto...) { return LDAP_SERVER_DOWN; };

    auto const thrown = thrownBy([&] { add.wait(5); });

    EXPECT_THAT(thrown, IsFault("Add.cpp", 137, 4, 3, ""));
    EXPECT_EQ(causeType(thrown), 3);
    EXPECT_THAT(causeOf(thrown), IsFault("Add.cpp", 124, 4, 3, "Can't contact LDAP server"));
    EXPECT_FALSE(causeOf(thrown).hasCause());
}

TEST_F(AFailingWaitForAnAdd, GivesTheTextOfWhatTheCallReturned)
{
    openldap.ldap_result = [](auto...) { return LDAP_LOCAL_ERROR; };
    connection.openldapErrorCode(-11);

    auto const thrown = thrownBy([&] { add.wait(5); });

    EXPECT_EQ(causeOf(thrown).stringParameter(), "Local error");
    EXPECT_EQ(connection.openldapErrorCode(), -11);
}

TEST_F(AFailingWaitForAnAdd, IsNeitherRecordedNorTraced)
{
    openldap.ldap_result = [](auto...) { return LDAP_SERVER_DOWN; };
    DebugLines const lines(0xffffffff);

    thrownBy([&] { add.wait(5); });

    EXPECT_EQ(connection.openldapErrorCode(), 0);
    EXPECT_THAT(lines.all(), IsEmpty());
}

TEST_F(AFailingWaitForAnAdd, KeepsWhatWasParsedBefore)
{
    int calls = 0;
    openldap.ldap_result = [&](LDAP*, int, int, timeval*, LDAPMessage** message) {
        if (++calls == 2) {
            return LDAP_SERVER_DOWN;
        }
        *message = messages.entry("cn=a");
        return ldap_msgtype(*message);
    };

    thrownBy([&] { add.wait(5); });

    EXPECT_EQ(add.result().searchResultEntries().size(), 1U);
}

TEST_F(AFailingWaitForAnAdd, ForWantOfASessionSaysSo)
{
    LDAP* const session = body().m_context;
    body().m_context = nullptr;

    auto const thrown = thrownBy([&] { add.wait(5); });

    EXPECT_THAT(thrown, IsFault("Add.cpp", 137, 4, 3));
    EXPECT_THAT(causeOf(thrown), IsFault("Add.cpp", 106, 4, 3, "m_context is null"));
    EXPECT_THAT(openldap.calls(), IsEmpty());
    body().m_context = session;
}

TEST_F(AFailingWaitForAnAdd, OnAnUnboundConnectionSaysTheSame)
{
    connection.unbind();
    openldap.forgetCalls();

    auto const thrown = thrownBy([&] { add.wait(5); });

    EXPECT_THAT(thrown, IsFault("Add.cpp", 137, 4, 3));
    EXPECT_THAT(causeOf(thrown), IsFault("Add.cpp", 106, 4, 3, "m_context is null"));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AFailingWaitForAnAdd, LooksForTheSessionBeforeEachMessage)
{
    openldap.ldap_result = [&](LDAP*, int, int, timeval*, LDAPMessage** message) {
        *message = messages.entry("cn=a");
        return ldap_msgtype(*message);
    };
    openldap.ldap_msgfree = [&](LDAPMessage* message) {
        connection.unbind();
        return ldap_msgfree(message);
    };

    auto const thrown = thrownBy([&] { add.wait(5); });

    EXPECT_THAT(causeOf(thrown), IsFault("Add.cpp", 106, 4, 3));
}

TEST_F(AFailingWaitForAnAdd, WithoutAConnectionHasTheNullHandleAsItsCause)
{
    LDAPConnection none;
    LDAPAdd orphan(none, dn);

    auto const thrown = thrownBy([&] { orphan.wait(5); });

    EXPECT_THAT(thrown, IsFault("Add.cpp", 137, 4, 3));
    EXPECT_THAT(causeOf(thrown), IsFault("Connection.cpp", 129, 1, 0));
}

TEST_F(AFailingWaitForAnAdd, HasAReferralAsItsCauseAndInItsResult)
{
    willReceive({messages.response(LDAP_RES_ADD, LDAP_REFERRAL, "", "", {"ldap://b/"})});

    auto const thrown = thrownBy([&] { add.wait(5); });

    EXPECT_THAT(thrown, IsFault("Add.cpp", 137, 4, 3));
    EXPECT_EQ(causeType(thrown), 5);
    EXPECT_THAT(causeOf(thrown), IsFault("Result.cpp", 624, 4, 5,
                                         "Can't handle referrals. Got referral to ldap://b/ "));
    EXPECT_EQ(add.result().resultCode(), 10);
    EXPECT_THAT(add.result().referrals(), ElementsAre("ldap://b/"));
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(1));
}

TEST_F(AFailingWaitForAnAdd, HasAnUnknownMessageAsItsCauseAndFreesItOnce)
{
    willReceive({messages.operation(LDAP_RES_INTERMEDIATE, "")});

    auto const thrown = thrownBy([&] { add.wait(5); });

    EXPECT_THAT(thrown, IsFault("Add.cpp", 137, 4, 3));
    EXPECT_EQ(causeType(thrown), 6);
    EXPECT_THAT(causeOf(thrown), IsFault("Result.cpp", 541, 2, 6));
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(1));
}

TEST_F(AFailingWaitForAnAdd, HasAnUnreadableAnswerAsItsCause)
{
    willReceive({addResponse(LDAP_SUCCESS)});
    openldap.ldap_parse_result = [](auto...) { return LDAP_DECODING_ERROR; };

    auto const thrown = thrownBy([&] { add.wait(5); });

    EXPECT_THAT(thrown, IsFault("Add.cpp", 137, 4, 3));
    EXPECT_THAT(causeOf(thrown), IsFault("Result.cpp", 577, 1, 6, "Decoding error"));
}

/// An exception of the runtime's family with something of its own.
class Foreign : public Solvane::Exception {
public:
    explicit Foreign(int own) : Exception("foreign", 9, "Elsewhere.cpp", 1), own(own) {}
    int own;
};

TEST_F(AFailingWaitForAnAdd, KeepsItsCauseAsItWasThrown)
{
    willThrow([] { throw Foreign(77); });

    auto const thrown = thrownBy([&] { add.wait(5); });

    EXPECT_THAT(thrown, IsFault("Add.cpp", 137, 4, 3));
    auto const* const cause = dynamic_cast<Foreign const*>(&thrown.cause());
    ASSERT_NE(cause, nullptr);
    EXPECT_EQ(cause->own, 77);
}

TEST_F(AFailingWaitForAnAdd, PassesForeignExceptionsUnchanged)
{
    willThrow([] { throw std::bad_alloc(); });

    EXPECT_THROW(add.wait(5), std::bad_alloc);
}

TEST_F(AFailingWaitForAnAdd, FreesAMessageThatCameWithAnException)
{
    openldap.ldap_result = [&](LDAP*, int, int, timeval*, LDAPMessage** message) -> int {
        *message = addResponse(LDAP_SUCCESS);
        openldap.name(*message, "message");
        throw Foreign(1);
    };

    thrownBy([&] { add.wait(5); });

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_result session 3 0 5s 0us", "ldap_msgfree message"));
}

} // namespace
} // namespace SolvaneTest
