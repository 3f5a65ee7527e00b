// What all operations with one response have in common, with a delete in their place: sending, waiting,
// canceling, and controls.
#include "Allocations.h"
#include "CallTest.h"

#include <solvart/Mutex.h>

#include <cerrno>

namespace SolvaneTest {
namespace {

using namespace std::string_literals;
using Solvane::LDAPConnection;
using Solvane::LDAPDelete;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using Control = Solvane::LDAPOperation::Control;

class OperationTest : public ConnectedTest {
protected:
    OperationTest() : request(connection, "cn=a,dc=example") { willTake(3); }

    /// OpenLDAP takes deletes and gives them this id.
    void willTake(int id)
    {
        openldap.ldap_delete_ext = [id](auto, auto, auto, auto, int* messageId) {
            *messageId = id;
            return LDAP_SUCCESS;
        };
        openldap.ldap_abandon_ext = [](auto...) { return LDAP_SUCCESS; };
    }
    void willRefuse(int rc, int error = 0)
    {
        openldap.ldap_delete_ext = [=](auto...) {
            errno = error;
            return rc;
        };
    }
    LDAPMessage* response(int code = LDAP_SUCCESS)
    {
        return messages.response(LDAP_RES_DELETE, code);
    }

    LDAPDelete request;
};

using AnOperation = OperationTest;
using AnOperationThatIsRefused = OperationTest;

TEST_F(AnOperation, IsNotSentWhenItIsBuilt)
{
    EXPECT_FALSE(request.isNull());
    EXPECT_EQ(request.id(), 0);
    EXPECT_TRUE(request.result().isNull());
    EXPECT_THAT(request.controls(), IsEmpty());
    EXPECT_THAT(request.responseControls(), IsEmpty());
    EXPECT_EQ(request.connection().impl(), connection.impl());
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnOperation, IsSentInOneCallAndHasTheIdThatOpenLDAPGivesIt)
{
    request.send();

    EXPECT_EQ(request.id(), 3);
    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_delete_ext session 'cn=a,dc=example' null null"));
}

TEST_F(AnOperation, SendsItsControlsInOrderWithAllTheirBytes)
{
    request.controls() = {Control("1.1", true), Control("1.2", false, "a\0b"s)};
    request.controls().push_back(Control("1.3", true, ""));

    request.send();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_delete_ext session 'cn=a,dc=example' ['1.1' critical null '1.2' "
                            "'a\0b' '1.3' critical ''] null"s));
}

TEST_F(AnOperation, SharesItsBodyWithItsCopies)
{
    LDAPDelete const copy(request);
    LDAPDelete assigned;
    assigned = copy;
    assigned.controls().push_back(Control("1.1", false));

    assigned.send();

    EXPECT_EQ(request.id(), 3);
    EXPECT_EQ(request.controls().size(), 1U);
}

TEST_F(AnOperation, SentAgainAbandonsTheRequestInFlight)
{
    request.send();
    willTake(4);

    request.send();

    EXPECT_EQ(request.id(), 4);
    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_delete_ext session 'cn=a,dc=example' null null",
                            "ldap_abandon_ext session 3 null null",
                            "ldap_delete_ext session 'cn=a,dc=example' null null"));
}

TEST_F(AnOperation, SentAgainForgetsTheLastResponse)
{
    willReceive({messages.response(LDAP_RES_DELETE, LDAP_BUSY, "", "", {}, {{"1.5", "x"}})});
    request.send();
    request.wait(5);
    openldap.forgetCalls();

    request.send();

    EXPECT_TRUE(request.result().isNull());
    EXPECT_THAT(request.responseControls(), IsEmpty());
    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_delete_ext session 'cn=a,dc=example' null null"));
}

TEST_F(AnOperationThatIsRefused, IsReportedWithOpenLDAPsTextAndItsDn)
{
    willRefuse(LDAP_SERVER_DOWN);

    auto const thrown = thrownBy([&] { request.send(); });

    EXPECT_THAT(thrown,
                IsFault("Changes.cpp", 31, 4, 9, "Can't contact LDAP server : cn=a,dc=example"));
    EXPECT_FALSE(thrown.hasCause());
    EXPECT_EQ(request.id(), 0);
}

TEST_F(AnOperationThatIsRefused, IsTracedWithErrnoWhenTheMaskAsksForErrorsAndAlwaysRecorded)
{
    willRefuse(LDAP_SERVER_DOWN, EPIPE);

    expectTraced(0x80001, {"Operation:82 send 0: " + tid() + "ldaperror=-1, errno = 32"}, [&] {
        connection.openldapErrorCode(0);
        thrownBy([&] { request.send(); });
        EXPECT_EQ(connection.openldapErrorCode(), -1);
    });
}

TEST_F(AnOperationThatIsRefused, IsNotInFlightAndCanBeSentAgain)
{
    willRefuse(LDAP_SERVER_DOWN);
    thrownBy([&] { request.send(); });

    EXPECT_THAT(thrownBy([&] { request.wait(1); }), IsFault("Operation.cpp", 92, 2, 0));
    willTake(4);
    request.send();

    EXPECT_EQ(request.id(), 4);
}

TEST_F(AnOperationThatIsRefused, HasNoIdEvenIfItWasSentBefore)
{
    willReceive({response()});
    request.send();
    request.wait(5);
    willRefuse(LDAP_SERVER_DOWN);

    thrownBy([&] { request.send(); });

    EXPECT_EQ(request.id(), 0);
    EXPECT_TRUE(request.result().isNull());
}

TEST_F(AnOperationThatIsRefused, ForWantOfAConnectionSaysSo)
{
    LDAPDelete orphan(LDAPConnection(), "cn=a");

    EXPECT_THAT(thrownBy([&] { orphan.send(); }),
                IsFault("Operation.cpp", 61, 1, 0, "The LDAP connection is null"));
    EXPECT_THAT(thrownBy([&] { orphan.wait(1); }), IsFault("Operation.cpp", 92, 2, 0));
    orphan.cancel();
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnOperationThatIsRefused, WasOnAConnectionThatHadBeenUnbound)
{
    connection.unbind();
    openldap.forgetCalls();

    EXPECT_THAT(thrownBy([&] { request.send(); }),
                IsFault("Changes.cpp", 31, 4, 9, "Can't contact LDAP server : cn=a,dc=example"));
    EXPECT_EQ(connection.openldapErrorCode(), -1);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

// OpenLDAP would end the process.
TEST_F(AnOperationThatIsRefused, HandsNoNullSessionToOpenLDAP)
{
    LDAP* const session = body().m_context;
    body().m_context = nullptr;

    EXPECT_THAT(thrownBy([&] { request.send(); }), IsFault("Changes.cpp", 31, 4, 9));
    EXPECT_THAT(openldap.calls(), IsEmpty());
    body().m_context = session;
}

// OpenLDAP would end the DN at its first zero byte, and delete another entry.
TEST_F(AnOperationThatIsRefused, HasAZeroByteInItsDn)
{
    LDAPDelete cut(connection, "cn=a\0,dc=example"s);

    EXPECT_THAT(thrownBy([&] { cut.send(); }),
                IsFault("Operation.cpp", 70, 2, 0, "A zero byte follows 'cn=a'"));
    EXPECT_EQ(connection.openldapErrorCode(), 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnOperationThatIsRefused, HasAZeroByteInTheObjectIdentifierOfAControl)
{
    request.controls().push_back(Control("1.2\0.3"s, false));

    EXPECT_THAT(thrownBy([&] { request.send(); }),
                IsFault("Operation.cpp", 70, 2, 0, "A zero byte follows '1.2'"));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnOperationThatIsRefused, ByAForeignExceptionLetsItPassUnchanged)
{
    openldap.ldap_delete_ext = throwForeign<>;

    try {
        request.send();
        FAIL() << "nothing was thrown";
    } catch (Solvane::Exception const& thrown) {
        EXPECT_EQ(thrown.name(), "foreign");
    }
}

// Waiting

/// An operation that was sent as message 3; no calls are recorded yet.
class OperationInFlight : public OperationTest {
protected:
    OperationInFlight()
    {
        request.send();
        openldap.forgetCalls();
    }
};

using AnAwaitedOperation = OperationInFlight;
using AFailingWaitForAnOperation = OperationInFlight;
using ACanceledOperation = OperationInFlight;

TEST_F(AnAwaitedOperation, IsCompleteWhenTheResponseHasArrived)
{
    willReceive({response()});

    bool const hasRunOut = request.wait(5);

    EXPECT_FALSE(hasRunOut);
    EXPECT_EQ(request.result().resultType(), 7);
    EXPECT_EQ(request.result().resultCode(), 0);
    EXPECT_THAT(request.responseControls(), IsEmpty());
    EXPECT_EQ(request.id(), 3);
    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_result session 3 0 5s 0us",
                            "ldap_parse_result session message unknown 0", "ldap_msgfree message"));
}

TEST_F(AnAwaitedOperation, HasTheServersVerdictInItsResult)
{
    willReceive(
        {messages.response(LDAP_RES_DELETE, LDAP_NO_SUCH_OBJECT, "dc=example", "not there")});

    bool const hasRunOut = request.wait(5);

    EXPECT_FALSE(hasRunOut);
    EXPECT_EQ(request.result().resultCode(), 32);
    EXPECT_EQ(request.result().matchedDN(), "dc=example");
    EXPECT_EQ(request.result().errorMessage(), "not there");
    EXPECT_EQ(connection.openldapErrorCode(), 0);
}

TEST_F(AnAwaitedOperation, KeepsTheControlsOfTheResponseAndFreesOpenLDAPsOnce)
{
    willReceive({messages.operation(LDAP_RES_DELETE, "\x0a\x01\x00\x04\x00\x04\x00"s,
                                    "\xa0\x1b"
                                    "\x30\x05\x04\x03"
                                    "1.1"
                                    "\x30\x08\x04\x03"
                                    "1.2\x01\x01\xff"
                                    "\x30\x08\x04\x03"
                                    "1.3\x04\x01\x00"s)});

    request.wait(5);

    ASSERT_EQ(request.responseControls().size(), 3U);
    auto control = request.responseControls().begin();
    EXPECT_EQ(control->oid(), "1.1");
    EXPECT_FALSE(control->isCritical());
    EXPECT_FALSE(control->hasValue());
    ++control;
    EXPECT_EQ(control->oid(), "1.2");
    EXPECT_FALSE(control->isCritical()); // has no meaning in a response
    ++control;
    EXPECT_EQ(control->oid(), "1.3");
    EXPECT_TRUE(control->hasValue());
    EXPECT_EQ(control->value(), "\0"s);
    EXPECT_THAT(openldap.calls(),
                Contains(testing::StartsWith("ldap_controls_free ['1.1' null")).Times(1));
}

TEST_F(AnAwaitedOperation, IsStillInFlightWhenTheTimeRunsOut)
{
    willReceive({});

    bool const hasRunOut = request.wait(5);

    EXPECT_TRUE(hasRunOut);
    EXPECT_TRUE(request.result().isNull());
    EXPECT_EQ(request.id(), 3);
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_result session 3 0 5s 0us"));
    willReceive({response()});
    EXPECT_FALSE(request.wait(5));
    EXPECT_EQ(request.result().resultType(), 7);
}

TEST_F(AnAwaitedOperation, IsAwaitedForAsLongAsOpenLDAPCanCount)
{
    willReceive({});

    for (auto const& [seconds, sent] : secondsOfAWait) {
        EXPECT_TRUE(request.wait(seconds));

        EXPECT_EQ(openldap.calls().back(), "ldap_result session 3 0 " + sent);
    }
}

// OpenLDAP would wait for messages of a request that it no longer knows.
TEST_F(AnAwaitedOperation, IsNotAwaitedAgainWhenItIsComplete)
{
    willReceive({response(LDAP_BUSY)});
    request.wait(5);
    openldap.forgetCalls();

    bool const hasRunOut = request.wait(5);

    EXPECT_FALSE(hasRunOut);
    EXPECT_EQ(request.result().resultCode(), 51);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnAwaitedOperation, DropsIntermediateResponses)
{
    willReceive({messages.operation(LDAP_RES_INTERMEDIATE, ""), response()});

    bool const hasRunOut = request.wait(5);

    EXPECT_FALSE(hasRunOut);
    EXPECT_EQ(request.result().resultType(), 7);
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(2));
}

TEST_F(AnAwaitedOperation, IsAwaitedNoLongerThanTheTimeoutEvenIfIntermediateResponsesArrive)
{
    willReceiveEndlessly([this] { return messages.operation(LDAP_RES_INTERMEDIATE, ""); });

    EXPECT_TRUE(request.wait(0));
    EXPECT_TRUE(request.wait(1));

    EXPECT_EQ(request.id(), 3);
    willReceive({response()});
    EXPECT_FALSE(request.wait(5));
}

// OpenLDAP would wait for notices of disconnection.
TEST_F(AnOperation, IsNotAwaitedBeforeItIsSent)
{
    EXPECT_THAT(thrownBy([&] { request.wait(5); }),
                IsFault("Operation.cpp", 92, 2, 0, "The request is not in flight"));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AFailingWaitForAnOperation, IsReportedWithOpenLDAPsTextAndItsDn)
{
    openldap.ldap_result = [](auto...) { return LDAP_SERVER_DOWN; };

    auto const thrown = thrownBy([&] { request.wait(5); });

    EXPECT_THAT(thrown,
                IsFault("Changes.cpp", 38, 4, 9, "Can't contact LDAP server : cn=a,dc=example"));
    EXPECT_TRUE(request.result().isNull());
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_result session 3 0 5s 0us"));
}

// OpenLDAP may no longer know the request: it would wait for the whole timeout.
TEST_F(AFailingWaitForAnOperation, LeavesNothingInFlight)
{
    willFail(LDAP_UNAVAILABLE); // as after a notice of disconnection
    thrownBy([&] { request.wait(5); });
    openldap.forgetCalls();

    EXPECT_EQ(request.id(), 0);
    EXPECT_THAT(thrownBy([&] { request.wait(5); }), IsFault("Operation.cpp", 92, 2, 0));
    request.cancel();
    EXPECT_THAT(openldap.calls(), IsEmpty());
    willTake(4);
    request.send();
    EXPECT_EQ(request.id(), 4);
    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_delete_ext session 'cn=a,dc=example' null null"));
}

TEST_F(AFailingWaitForAnOperation, IsTracedWithErrnoWhenTheMaskAsksForErrorsAndAlwaysRecorded)
{
    openldap.ldap_result = [](auto...) {
        errno = ECONNRESET;
        return LDAP_SERVER_DOWN;
    };

    expectTraced(0x80001, {"Operation:98 wait 0: " + tid() + "ldaperror=-1, errno = 104"}, [&] {
        LDAPDelete sent(connection, "cn=a");
        sent.send();
        connection.openldapErrorCode(0);
        thrownBy([&] { sent.wait(5); });
        EXPECT_EQ(connection.openldapErrorCode(), -1);
    });
}

TEST_F(AFailingWaitForAnOperation, WasOnAConnectionThatHadBeenUnbound)
{
    connection.unbind();
    openldap.forgetCalls();

    EXPECT_THAT(thrownBy([&] { request.wait(5); }), IsFault("Changes.cpp", 38, 4, 9));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AFailingWaitForAnOperation, HasAReferralInItsResultWithItsControls)
{
    willReceive(
        {messages.response(LDAP_RES_DELETE, LDAP_REFERRAL, "", "", {"ldap://b/"}, {{"1.5", "x"}})});

    auto const thrown = thrownBy([&] { request.wait(5); });

    EXPECT_THAT(thrown, IsFault("Result.cpp", 624, 4, 5,
                                "Can't handle referrals. Got referral to ldap://b/ "));
    EXPECT_EQ(request.result().resultCode(), 10);
    EXPECT_THAT(request.result().referrals(), ElementsAre("ldap://b/"));
    EXPECT_EQ(request.responseControls().size(), 1U);
    EXPECT_FALSE(request.wait(5));
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(1));
}

TEST_F(AFailingWaitForAnOperation, ReceivesTheResponseOfAnotherOperation)
{
    willReceive({messages.response(LDAP_RES_ADD, LDAP_SUCCESS)});

    auto const thrown = thrownBy([&] { request.wait(5); });

    EXPECT_THAT(thrown, IsFault("Operation.cpp", 103, 4, 6, "Decoding error : cn=a,dc=example"));
    EXPECT_TRUE(request.result().isNull());
    EXPECT_EQ(connection.openldapErrorCode(), LDAP_DECODING_ERROR);
    EXPECT_THAT(thrownBy([&] { request.wait(5); }), IsFault("Operation.cpp", 92, 2, 0));
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(1));
}

// OpenLDAP returns 0 for it, as if none had arrived, and no longer knows the request.
TEST_F(AFailingWaitForAnOperation, ReceivesAMessageOfType0)
{
    willReceive({messages.operation(0, "\x0a\x01\0\x04\0\x04\0"s)});

    auto const thrown = thrownBy([&] { request.wait(5); });

    EXPECT_THAT(thrown, IsFault("Operation.cpp", 103, 4, 6, "Decoding error : cn=a,dc=example"));
    EXPECT_EQ(connection.openldapErrorCode(), LDAP_DECODING_ERROR);
    EXPECT_EQ(request.id(), 0);
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(1));
}

// RFC 4511 section 4.1.10: only code 10 has URIs.
TEST_F(AFailingWaitForAnOperation, HasNoResultIfThereIsAReferralWithCode0)
{
    willReceive({messages.response(LDAP_RES_DELETE, LDAP_SUCCESS, "", "", {"ldap://b/"})});

    auto const thrown = thrownBy([&] { request.wait(5); });

    EXPECT_THAT(thrown, IsFault("Result.cpp", 624, 4, 5));
    EXPECT_TRUE(request.result().isNull());
    EXPECT_EQ(connection.openldapErrorCode(), LDAP_DECODING_ERROR);
    EXPECT_THAT(thrownBy([&] { request.wait(5); }), IsFault("Operation.cpp", 92, 2, 0));
}

TEST_F(AFailingWaitForAnOperation, ReceivesAResponseThatCannotBeDecoded)
{
    willReceive({messages.operation(LDAP_RES_DELETE, "\x04\x01x")});

    auto const thrown = thrownBy([&] { request.wait(5); });

    EXPECT_THAT(thrown, IsFault("Operation.cpp", 112, 1, 6, "Decoding error : cn=a,dc=example"));
    EXPECT_EQ(connection.openldapErrorCode(), LDAP_DECODING_ERROR);
    EXPECT_TRUE(request.result().isNull());
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(1));
    EXPECT_THAT(thrownBy([&] { request.wait(5); }), IsFault("Operation.cpp", 92, 2, 0));
}

TEST_F(AFailingWaitForAnOperation, ReceivesControlsThatCannotBeDecoded)
{
    willReceive({messages.operation(LDAP_RES_DELETE, "\x0a\x01\x00\x04\x00\x04\x00"s,
                                    "\xa0\x02\x04\x00"s)});

    auto const thrown = thrownBy([&] { request.wait(5); });

    EXPECT_THAT(thrown, IsFault("Operation.cpp", 112, 1, 6, "Decoding error : cn=a,dc=example"));
    EXPECT_EQ(connection.openldapErrorCode(), LDAP_DECODING_ERROR);
    EXPECT_TRUE(request.result().isNull());
    EXPECT_THAT(request.responseControls(), IsEmpty());
    EXPECT_THAT(thrownBy([&] { request.wait(5); }), IsFault("Operation.cpp", 92, 2, 0));
}

TEST_F(AFailingWaitForAnOperation, LeavesNothingThatPassesForASuccess)
{
    willReceive({messages.response(LDAP_RES_DELETE, LDAP_SUCCESS, "", "", {}, {{"1.5", "x"}})});
    openldap.ldap_parse_result = [](LDAP* session, LDAPMessage* message, int* code, char** matched,
                                    char** text, char*** referrals, LDAPControl*** controls, auto) {
        ldap_parse_result(session, message, code, matched, text, referrals, controls, 0);
        return LDAP_NO_MEMORY;
    };

    auto const thrown = thrownBy([&] { request.wait(5); });

    EXPECT_THAT(thrown, IsFault("Operation.cpp", 112, 1, 6, "Out of memory : cn=a,dc=example"));
    EXPECT_EQ(connection.openldapErrorCode(), LDAP_DECODING_ERROR);
    EXPECT_TRUE(request.result().isNull());
    EXPECT_THAT(request.responseControls(), IsEmpty());
    EXPECT_THAT(openldap.calls(), Contains("ldap_controls_free ['1.5' 'x']"));
    EXPECT_THAT(thrownBy([&] { request.wait(5); }), IsFault("Operation.cpp", 92, 2, 0));
}

// Canceling

TEST_F(ACanceledOperation, IsAbandonedAndNoLongerInFlight)
{
    request.cancel();

    EXPECT_EQ(request.id(), 0);
    EXPECT_TRUE(request.result().isNull());
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_abandon_ext session 3 null null"));
    EXPECT_THAT(thrownBy([&] { request.wait(5); }), IsFault("Operation.cpp", 92, 2, 0));
}

TEST_F(ACanceledOperation, IsAbandonedOnce)
{
    request.cancel();
    request.cancel();

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_abandon_ext session 3 null null"));
}

TEST_F(ACanceledOperation, CanBeSentAgain)
{
    request.cancel();
    willTake(4);

    request.send();

    EXPECT_EQ(request.id(), 4);
}

TEST_F(ACanceledOperation, KeepsItsResultWhenItWasComplete)
{
    willReceive({response()});
    request.wait(5);
    openldap.forgetCalls();

    request.cancel();

    EXPECT_EQ(request.id(), 3);
    EXPECT_FALSE(request.result().isNull());
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(ACanceledOperation, SendsNothingOnAConnectionThatWasUnbound)
{
    connection.unbind();
    openldap.forgetCalls();

    request.cancel();

    EXPECT_EQ(request.id(), 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(ACanceledOperation, RecordsAndTracesAnAbandonThatCannotBeSent)
{
    openldap.ldap_abandon_ext = [](auto...) {
        errno = EPIPE;
        return LDAP_SERVER_DOWN;
    };

    expectTraced(0x80001, {"Operation:121 cancel 0: " + tid() + "ldaperror=-1, errno = 32"}, [&] {
        LDAPDelete sent(connection, "cn=a");
        sent.send();
        connection.openldapErrorCode(0);
        sent.cancel();
        EXPECT_EQ(connection.openldapErrorCode(), -1);
        EXPECT_EQ(sent.id(), 0);
    });
}

TEST_F(AnOperation, IsCanceledBeforeItIsSentWithoutACall)
{
    request.cancel();

    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST(ANullOperation, ThrowsFromEachOfItsOwnOperationsWithItsLine)
{
    LDAPDelete null;
    LDAPDelete const& reader = null;

    EXPECT_THAT(thrownBy([&] { null.controls(); }), IsNullHandle("Operation.cpp", 34));
    EXPECT_THAT(thrownBy([&] { reader.responseControls(); }), IsNullHandle("Operation.cpp", 43));
    EXPECT_THAT(thrownBy([&] { null.send(); }), IsNullHandle("Search.cpp", 63));
    EXPECT_THAT(thrownBy([&] { null.wait(1); }), IsNullHandle("Search.cpp", 72));
    EXPECT_THAT(thrownBy([&] { reader.result(); }), IsNullHandle("Search.cpp", 81));
    EXPECT_THAT(thrownBy([&] { null.cancel(); }), IsNullHandle("Search.cpp", 90));
    LDAPDelete const copy(null);
    EXPECT_TRUE(copy.isNull());
}

TEST(AControl, HasOidCriticalityAndBytes)
{
    Control const bare("1.2", true);
    Control const empty("1.2", false, "");
    Control copy(bare);
    copy = Control("1.3", false, "a\0b"s);

    EXPECT_EQ(bare.oid(), "1.2");
    EXPECT_TRUE(bare.isCritical());
    EXPECT_FALSE(bare.hasValue());
    EXPECT_EQ(bare.value(), "");
    EXPECT_TRUE(empty.hasValue());
    EXPECT_FALSE(empty.isCritical());
    EXPECT_EQ(copy.oid(), "1.3");
    EXPECT_EQ(copy.value(), "a\0b"s);
}

// Threads

/// A delete that shows its body.
class OpenDelete : public LDAPDelete {
public:
    using LDAPDelete::LDAPDelete;
    Solvane::LDAPRequestImpl& body() { return *m_impl.body(); }
};

/// With the mutex of `shared()`, which is never freed.
class ASharedOperation : public OperationTest {
protected:
    ASharedOperation() : shared(connection, "cn=a")
    {
        leakingOnPurpose([this] { shared.body().shared(); });
    }

    /// What OpenLDAP's call is replaced by: it takes note of whether another thread may cancel.
    auto note(int rc)
    {
        return [this, rc](auto...) {
            wasHeldUp = other.isHeldUp([this] { shared.cancel(); });
            return rc;
        };
    }

    bool wasHeldUp = false;
    OpenDelete shared;
    OtherThread other;
};

TEST_F(ASharedOperation, HoldsItsMutexWhileItIsSent)
{
    openldap.ldap_delete_ext = note(LDAP_SUCCESS);

    shared.send();

    EXPECT_TRUE(wasHeldUp);
}

TEST_F(ASharedOperation, HoldsItsMutexWhileItIsAwaited)
{
    shared.send();
    openldap.ldap_result = note(0);

    shared.wait(1);

    EXPECT_TRUE(wasHeldUp);
}

} // namespace
} // namespace SolvaneTest
