// Searches whose entries come one after the other: the exact calls, and every way to fail.
#include "SearchStreamTest.h"
#include "Allocations.h"

#include "LdapMessages.h"

#include <new>

namespace SolvaneTest {
namespace {

using namespace std::string_literals;
using Solvane::LDAPConnection;
using Solvane::LDAPSearch;
using Solvane::LDAPSearchResultEntry;
using Solvane::LDAPSearchStream;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using Control = Solvane::LDAPOperation::Control;

constexpr char sentPlainly[] =
    "ldap_search_ext session 'dc=example' 2 null null 0 null null null -1";

/// Sent as message 3; no calls are recorded yet.
class SentStream : public SearchStreamTest {
protected:
    SentStream()
    {
        stream.send();
        openldap.forgetCalls();
    }
};

using AStream = SearchStreamTest;
using AStreamThatIsRefused = SearchStreamTest;
using TheNextItem = SentStream;
using AFailingStream = SentStream;
using ACanceledStream = SentStream;
using ADestroyedStream = SearchStreamTest;

TEST_F(AStream, IsNotSentWhenItIsBuilt)
{
    EXPECT_FALSE(stream.isNull());
    EXPECT_EQ(stream.parameter().baseDN, "dc=example");
    EXPECT_EQ(stream.parameter().timeLimit, 0);
    EXPECT_EQ(stream.parameter().sizeLimit, 0);
    EXPECT_EQ(stream.parameter().pageSize, 0);
    EXPECT_EQ(LDAPSearchStream::Parameter().baseDN, "");
    EXPECT_EQ(stream.entry().entryName(), "");
    EXPECT_THAT(openldap.calls(), IsEmpty());
    EXPECT_THAT(thrownBy([&] { stream.next(1); }),
                IsFault("Operation.cpp", 92, 2, 0, "The request is not in flight"));
}

TEST_F(AStream, AsksForNothingThatItIsNotGiven)
{
    stream.send();

    EXPECT_EQ(stream.id(), 3);
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_get_option session DEREF", sentPlainly));
}

TEST_F(AStream, SendsAllOfItsParametersAndControls)
{
    LDAPSearchStream::Parameter& parameter = stream.parameter();
    parameter.baseDN = "dc=other";
    parameter.filter = "(cn=a)";
    parameter.attributes = {"cn"s, ""s, "mail;lang-fr"s};
    parameter.scope = LDAPSearch::ScopeOneLevel;
    parameter.sizeLimit = 7;
    parameter.timeLimit = 9;
    parameter.attrsOnly = true;
    stream.controls().push_back(Control("1.2", true, "a\0b"s));

    stream.send();

    EXPECT_THAT(calls(), ElementsAre("ldap_search_ext session 'dc=other' 1 '(cn=a)' ['cn' "
                                     "'mail;lang-fr'] 1 ['1.2' critical 'a\0b'] null 9s 0us 7"s));
}

TEST_F(AStream, GivesTheSessionItsAliasModeBack)
{
    stream.parameter().deref = LDAPSearch::DerefAlways;

    stream.send();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_get_option session DEREF", "ldap_set_option session DEREF 3",
                            sentPlainly, "ldap_set_option session DEREF 0"));
}

TEST_F(AStream, FollowsNoAliasesAfterASearchThatSetTheMode)
{
    int const always = LDAP_DEREF_ALWAYS;
    body().setOption(LDAP_OPT_DEREF, &always);
    openldap.forgetCalls();

    stream.send();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_get_option session DEREF", "ldap_set_option session DEREF 0",
                            sentPlainly, "ldap_set_option session DEREF 3"));
}

TEST_F(AStream, SharesItsBodyWithItsCopies)
{
    LDAPSearchStream const copy(stream);
    LDAPSearchStream assigned;
    assigned = copy;

    assigned.send();

    EXPECT_EQ(stream.id(), 3);
}

TEST_F(AStream, SentAgainAbandonsTheSearchAndForgetsWhatItTook)
{
    willReceive({messages.entry("cn=a")});
    stream.send();
    stream.next(5);
    openldap.forgetCalls();

    stream.send();

    EXPECT_EQ(stream.id(), 4);
    EXPECT_EQ(stream.entry().entryName(), "");
    EXPECT_THAT(calls(), ElementsAre("ldap_abandon_ext session 3 null null", sentPlainly));
}

TEST_F(AStreamThatIsRefused, IsReportedWithItsBaseAndRecorded)
{
    openldap.ldap_search_ext = [](auto...) { return LDAP_FILTER_ERROR; };

    EXPECT_THAT(thrownBy([&] { stream.send(); }),
                IsFault("SearchStream.cpp", 84, 4, 4, "Bad search filter : dc=example"));
    EXPECT_EQ(connection.openldapErrorCode(), LDAP_FILTER_ERROR);
    expectOver();
}

// OpenLDAP recurses for each level of a filter, and encodes blanks as nothing and two filters as two.
TEST_F(AStreamThatIsRefused, HasAFilterThatIsNestedTooDeepOrIsNone)
{
    std::string deep;
    for (int level = 0; level != 30000; ++level) {
        deep += "(!";
    }
    for (std::string const& filter : {deep, " "s, "(cn=a)(cn=b)"s, "(cn=a"s}) {
        stream.parameter().filter = filter;
        connection.openldapErrorCode(0);

        EXPECT_THAT(thrownBy([&] { stream.send(); }),
                    IsFault("SearchStream.cpp", 84, 4, 4, "Bad search filter : dc=example"));
        EXPECT_EQ(connection.openldapErrorCode(), LDAP_FILTER_ERROR);
    }
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(AStreamThatIsRefused, HasANegativeLimit)
{
    for (int LDAPSearchStream::Parameter::*limit :
         {&LDAPSearchStream::Parameter::pageSize,
          static_cast<int LDAPSearchStream::Parameter::*>(&LDAPSearchStream::Parameter::sizeLimit),
          static_cast<int LDAPSearchStream::Parameter::*>(
              &LDAPSearchStream::Parameter::timeLimit)}) {
        stream.parameter() = LDAPSearchStream::Parameter("dc=example");
        stream.parameter().*limit = -1;

        EXPECT_THAT(thrownBy([&] { stream.send(); }),
                    IsFault("SearchStream.cpp", 64, 2, 0, "A limit is negative"));
    }
    EXPECT_THAT(openldap.calls(), IsEmpty());
    EXPECT_EQ(connection.openldapErrorCode(), 0);
}

// OpenLDAP would search with what precedes the zero byte.
TEST_F(AStreamThatIsRefused, HasAZeroByteInATextANullDescriptionOrAScopeOutOfRange)
{
    auto const refusalOf = [this](auto change) {
        stream.parameter() = LDAPSearchStream::Parameter("dc=example");
        change(stream.parameter());
        return thrownBy([&] { stream.send(); });
    };

    EXPECT_THAT(refusalOf([](auto& parameter) { parameter.baseDN = "dc=a\0,dc=b"s; }),
                IsFault("Operation.cpp", 70, 2, 0, "A zero byte follows 'dc=a'"));
    EXPECT_THAT(refusalOf([](auto& parameter) { parameter.filter = "(cn=a\0)"s; }),
                IsFault("Operation.cpp", 70, 2, 0));
    EXPECT_THAT(refusalOf([](auto& parameter) { parameter.attributes = {"c\0n"s}; }),
                IsFault("Operation.cpp", 70, 2, 0));
    EXPECT_THAT(
        refusalOf([](auto& parameter) { parameter.attributes = {Solvane::LDAPAttributeType()}; }),
        IsNullHandle("Attribute.cpp", 41));
    EXPECT_THAT(
        refusalOf([](auto& parameter) { parameter.scope = static_cast<LDAPSearch::Scope>(3); }),
        IsFault("Attribute.cpp", 531, 2, 0));
    EXPECT_THAT(
        refusalOf([](auto& parameter) { parameter.deref = static_cast<LDAPSearch::Deref>(4); }),
        IsFault("Attribute.cpp", 579, 2, 0));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AStreamThatIsRefused, HasNoConnectionOrOneThatWasUnbound)
{
    LDAPSearchStream orphan(LDAPConnection(), LDAPSearchStream::Parameter("dc=example"));
    connection.unbind();
    openldap.forgetCalls();

    EXPECT_THAT(thrownBy([&] { orphan.send(); }), IsFault("Operation.cpp", 61, 1, 0));
    EXPECT_THAT(thrownBy([&] { stream.send(); }), IsFault("SearchStream.cpp", 84, 4, 4));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

// Items

TEST_F(TheNextItem, IsAnEntryOfOneMessageWhichIsFreedAtOnce)
{
    willReceive({messages.entry("cn=a", {{"cn", {"a", "b\0c"s}}, {"userCertificate;binary", {""}}}),
                 messages.entry("cn=b")});

    EXPECT_EQ(stream.next(5), LDAPSearchStream::ItemEntry);

    EXPECT_THAT(calls(), ElementsAre("ldap_result session 3 0 5s 0us", "ldap_msgfree message"));
    LDAPSearchResultEntry const first = stream.entry();
    EXPECT_EQ(first.entryName(), "cn=a");
    ASSERT_EQ(first.attributes().attributes().size(), 2U);
    EXPECT_THAT(first.attributes().attributes().front().value(), ElementsAre("a", "b\0c"s));
    EXPECT_TRUE(first.attributes().attributes().back().type().isBinary());
    EXPECT_EQ(first.attributes().attributes().back().binaryValue().size(), 1U);
    EXPECT_TRUE(stream.result().isNull());
    EXPECT_EQ(stream.next(5), LDAPSearchStream::ItemEntry);
    EXPECT_EQ(stream.entry().entryName(), "cn=b");
    EXPECT_TRUE(stream.entry().attributes().empty());
    EXPECT_EQ(first.attributes().attributes().size(), 2U); // a copy remains
}

TEST_F(TheNextItem, IsAReferenceWithItsUrisWhichIsNotFollowed)
{
    willReceive({messages.entry("cn=a"), messages.reference({"ldap://a/", "ldap://b/"})});
    stream.next(5);
    openldap.forgetCalls();

    EXPECT_EQ(stream.next(5), LDAPSearchStream::ItemReference);

    EXPECT_THAT(stream.references(), ElementsAre("ldap://a/", "ldap://b/"));
    EXPECT_EQ(stream.entry().entryName(), "");
    EXPECT_THAT(calls(), ElementsAre("ldap_result session 3 0 5s 0us", "ldap_msgfree message"));
}

TEST_F(TheNextItem, IsTheEndAsOftenAsItIsAskedFor)
{
    willReceive({messages.reference({"ldap://a/"}),
                 messages.response(LDAP_RES_SEARCH_RESULT, LDAP_SIZELIMIT_EXCEEDED, "dc=example",
                                   "too many", {}, {{"1.5", "x"}})});
    stream.next(5);
    openldap.forgetCalls();

    EXPECT_EQ(stream.next(5), LDAPSearchStream::ItemEnd);

    EXPECT_THAT(calls(), ElementsAre("ldap_result session 3 0 5s 0us",
                                     "ldap_parse_result session message unknown 0",
                                     "ldap_memfree 'too many'", "ldap_memfree 'dc=example'",
                                     "ldap_controls_free ['1.5' 'x']", "ldap_msgfree message"));
    openldap.forgetCalls();
    EXPECT_EQ(stream.next(5), LDAPSearchStream::ItemEnd);
    EXPECT_FALSE(stream.wait(5));
    EXPECT_THAT(openldap.calls(), IsEmpty());
    EXPECT_EQ(stream.result().resultType(), 4);
    EXPECT_EQ(stream.result().resultCode(), 4);
    EXPECT_EQ(stream.result().errorMessage(), "too many");
    EXPECT_EQ(stream.responseControls().size(), 1U);
    EXPECT_THAT(stream.references(), IsEmpty());
    EXPECT_EQ(connection.openldapErrorCode(), 0);
}

TEST_F(TheNextItem, DoesNotArriveInTimeButLater)
{
    willReceive({});

    EXPECT_EQ(stream.next(5), LDAPSearchStream::ItemTimeout);

    EXPECT_THAT(calls(), ElementsAre("ldap_result session 3 0 5s 0us"));
    EXPECT_TRUE(stream.result().isNull());
    willReceive({messages.entry("cn=a"), done()});
    EXPECT_EQ(stream.next(5), LDAPSearchStream::ItemEntry);
    EXPECT_EQ(stream.next(5), LDAPSearchStream::ItemEnd);
}

TEST_F(TheNextItem, IsAwaitedForAsLongAsOpenLDAPCanCount)
{
    willReceive({});

    for (auto const& [seconds, sent] : secondsOfAWait) {
        EXPECT_EQ(stream.next(seconds), LDAPSearchStream::ItemTimeout);

        EXPECT_EQ(openldap.calls().back(), "ldap_result session 3 0 " + sent);
    }
}

TEST_F(TheNextItem, ComesAfterIntermediateResponsesWithinTheSameTimeout)
{
    willReceive({messages.operation(LDAP_RES_INTERMEDIATE, ""), messages.entry("cn=a")});

    EXPECT_EQ(stream.next(1), LDAPSearchStream::ItemEntry);

    EXPECT_THAT(calls(),
                ElementsAre("ldap_result session 3 0 1s 0us", "ldap_msgfree message",
                            StartsWith("ldap_result session 3 0 0s "), "ldap_msgfree message"));
}

TEST_F(TheNextItem, IsDroppedByAWaitUpToTheEnd)
{
    willReceive({messages.entry("cn=a"), messages.reference({"ldap://a/"})});

    EXPECT_TRUE(stream.wait(5));

    EXPECT_EQ(stream.entry().entryName(), "");
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(2));
    willReceive({messages.entry("cn=b"), done()});
    EXPECT_FALSE(stream.wait(5));
    EXPECT_EQ(stream.result().resultCode(), 0);
    EXPECT_EQ(stream.entry().entryName(), "");
}

TEST_F(TheNextItem, IsAwaitedNoLongerThanTheTimeoutEvenIfIntermediateResponsesArriveWithoutEnd)
{
    willReceiveEndlessly([this] { return messages.operation(LDAP_RES_INTERMEDIATE, ""); });

    EXPECT_EQ(stream.next(0), LDAPSearchStream::ItemTimeout);
    EXPECT_EQ(stream.next(1), LDAPSearchStream::ItemTimeout);

    willReceive({messages.entry("cn=a")});
    EXPECT_EQ(stream.next(5), LDAPSearchStream::ItemEntry);
}

TEST_F(TheNextItem, IsDroppedNoLongerThanTheTimeoutEvenIfEntriesArriveWithoutEnd)
{
    willReceiveEndlessly([this] { return messages.entry("cn=a"); });

    EXPECT_TRUE(stream.wait(0));
    EXPECT_TRUE(stream.wait(1));

    EXPECT_EQ(stream.entry().entryName(), "");
    willReceive({messages.entry("cn=b"), done()});
    EXPECT_FALSE(stream.wait(5));
}

// A caller who polls a socket must get all that TLS has decrypted.
TEST_F(TheNextItem, IsDroppedByAPollWithAllThatHaveArrived)
{
    willReceive({messages.entry("cn=a"), messages.entry("cn=b"), done()});

    EXPECT_FALSE(stream.wait(0));
}

// Failures

TEST_F(AFailingStream, IsOverWhenTheConnectionBreaks)
{
    willReceive({messages.entry("cn=a")});
    stream.next(5);
    willFail(LDAP_SERVER_DOWN);
    openldap.forgetCalls();

    EXPECT_THAT(thrownBy([&] { stream.next(5); }),
                IsFault("SearchStream.cpp", 91, 4, 4, "Can't contact LDAP server : dc=example"));

    EXPECT_EQ(connection.openldapErrorCode(), LDAP_SERVER_DOWN);
    expectOver();
    stream.cancel();
    EXPECT_THAT(calls(), ElementsAre("ldap_result session 3 0 5s 0us",
                                     "ldap_get_option session RESULT_CODE"));
}

// OpenLDAP would store its entries in the session.
TEST_F(AFailingStream, IsAbandonedWhenOpenLDAPCannotReadAMessageOnAConnectionThatLives)
{
    willFail(LDAP_DECODING_ERROR);

    EXPECT_THAT(thrownBy([&] { stream.next(5); }), IsFault("SearchStream.cpp", 91, 4, 4));

    EXPECT_EQ(connection.openldapErrorCode(), LDAP_SERVER_DOWN);
    EXPECT_EQ(calls().back(), "ldap_abandon_ext session 3 null null");
    expectOver();
}

TEST_F(AFailingStream, WasOnAConnectionThatHadBeenUnbound)
{
    connection.unbind();
    openldap.forgetCalls();

    EXPECT_THAT(thrownBy([&] { stream.next(5); }), IsFault("SearchStream.cpp", 91, 4, 4));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AFailingStream, CanBeSentAgain)
{
    willFail(LDAP_SERVER_DOWN);
    thrownBy([&] { stream.next(5); });
    willReceive({messages.entry("cn=a")});

    stream.send();

    EXPECT_EQ(stream.id(), 4);
    EXPECT_EQ(stream.next(5), LDAPSearchStream::ItemEntry);
    EXPECT_THAT(calls(), Not(Contains(StartsWith("ldap_abandon_ext"))));
}

TEST_F(AFailingStream, IsAbandonedWhenAnEntryIsCutAnywhere)
{
    std::string const content =
        berElement(LBER_OCTETSTRING, "cn=a") +
        berElement(
            LBER_SEQUENCE,
            berElement(LBER_SEQUENCE, berElement(LBER_OCTETSTRING, "cn") +
                                          berElement(LBER_SET, berElement(LBER_OCTETSTRING, "a"))));
    for (std::size_t length = 0; length != content.size(); ++length) {
        willReceive({messages.operation(LDAP_RES_SEARCH_ENTRY, content.substr(0, length))});
        connection.openldapErrorCode(0);
        stream.send();
        openldap.forgetCalls();

        EXPECT_THAT(thrownBy([&] { stream.next(5); }),
                    IsFault("SearchStream.cpp", 102, 4, 6, "Malformed search entry"))
            << length;

        EXPECT_THAT(calls(),
                    ElementsAre(StartsWith("ldap_result session"),
                                StartsWith("ldap_abandon_ext session"), "ldap_msgfree message"));
        EXPECT_EQ(connection.openldapErrorCode(), LDAP_DECODING_ERROR);
        expectOver();
    }
}

TEST_F(AFailingStream, IsAbandonedWhenTheContentOfAMessageHasAnotherTag)
{
    willReceive({messages.operation(LDAP_RES_SEARCH_ENTRY, berElement(LBER_OCTETSTRING, "cn=a"))});
    openldap.ldap_result = [next = openldap.ldap_result](auto session, int id, int all,
                                                         auto timeout, LDAPMessage** message) {
        next(session, id, all, timeout, message);
        return static_cast<int>(LDAP_RES_SEARCH_REFERENCE); // another type than the bytes have
    };
    openldap.forgetCalls();

    EXPECT_THAT(thrownBy([&] { stream.next(5); }),
                IsFault("SearchStream.cpp", 111, 4, 6, "Malformed search reference"));
    EXPECT_THAT(calls(), Contains("ldap_abandon_ext session 3 null null"));
    EXPECT_EQ(connection.openldapErrorCode(), LDAP_DECODING_ERROR);
    expectOver();
}

TEST_F(AFailingStream, IsAbandonedWhenAReferenceIsDamagedOrEmpty)
{
    for (LDAPMessage* const message :
         {messages.damagedReference(), messages.reference({}),
          messages.operation(LDAP_RES_SEARCH_REFERENCE,
                             berElement(LBER_OCTETSTRING, "ldap://a/") + "\x02\x01\x01"s)}) {
        willReceive({message});
        stream.send();

        EXPECT_THAT(thrownBy([&] { stream.next(5); }), IsFault("SearchStream.cpp", 111, 4, 6));
        EXPECT_EQ(connection.openldapErrorCode(), LDAP_DECODING_ERROR);
        expectOver();
    }
}

TEST_F(AFailingStream, ReceivesAFinalResponseThatCannotBeDecodedOrIsAnothers)
{
    willReceive({messages.operation(LDAP_RES_SEARCH_RESULT, "\x04\x01x")});
    EXPECT_THAT(thrownBy([&] { stream.next(5); }),
                IsFault("Operation.cpp", 112, 1, 6, "Decoding error : dc=example"));
    EXPECT_EQ(connection.openldapErrorCode(), LDAP_DECODING_ERROR);
    expectOver();

    connection.openldapErrorCode(0);
    stream.send();
    willReceive({messages.response(LDAP_RES_DELETE, LDAP_SUCCESS)});
    EXPECT_THAT(thrownBy([&] { stream.next(5); }), IsFault("Operation.cpp", 103, 4, 6));
    EXPECT_EQ(connection.openldapErrorCode(), LDAP_DECODING_ERROR);
    expectOver();
}

// OpenLDAP returns 0 for it, as if none had arrived, and no longer knows the request.
TEST_F(AFailingStream, ReceivesAMessageOfType0)
{
    willReceive({messages.operation(0, "\x0a\x01\0\x04\0\x04\0"s)});
    openldap.forgetCalls();

    EXPECT_THAT(thrownBy([&] { stream.next(5); }), IsFault("Operation.cpp", 103, 4, 6));

    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(1));
    EXPECT_EQ(connection.openldapErrorCode(), LDAP_DECODING_ERROR);
    expectOver();
}

TEST_F(AFailingStream, HasAReferralInItsResult)
{
    willReceive({messages.response(LDAP_RES_SEARCH_RESULT, LDAP_REFERRAL, "", "", {"ldap://b/"})});

    EXPECT_THAT(thrownBy([&] { stream.next(5); }), IsFault("Result.cpp", 624, 4, 5));

    EXPECT_EQ(stream.result().resultCode(), 10);
    EXPECT_THAT(stream.result().referrals(), ElementsAre("ldap://b/"));
    EXPECT_EQ(stream.next(5), LDAPSearchStream::ItemEnd);
    EXPECT_EQ(connection.openldapErrorCode(), 0);
}

// What was received but not handed out must not be missed without notice.
TEST_F(AFailingStream, LetsAForeignExceptionPassAndIsOver)
{
    willReceive({done()});
    openldap.ldap_parse_result = [](auto...) -> int { throw std::bad_alloc(); };

    EXPECT_THROW(stream.next(5), std::bad_alloc);
    expectOver();

    stream.send();
    openldap.ldap_result = [](auto...) -> int { throw std::bad_alloc(); };

    EXPECT_THROW(stream.next(5), std::bad_alloc);
    expectOver();
}

// Canceling

TEST_F(ACanceledStream, IsAbandonedAndOver)
{
    willReceive({messages.entry("cn=a")});
    stream.next(5);
    openldap.forgetCalls();

    stream.cancel();

    EXPECT_EQ(stream.id(), 0);
    EXPECT_THAT(calls(), ElementsAre("ldap_abandon_ext session 3 null null"));
    EXPECT_EQ(stream.entry().entryName(), "cn=a");
    EXPECT_THAT(thrownBy([&] { stream.next(5); }), IsFault("Operation.cpp", 92, 2, 0));
    EXPECT_EQ(connection.openldapErrorCode(), 0);
}

// Destruction

TEST_F(ADestroyedStream, IsAbandonedByItsLastHandle)
{
    {
        LDAPSearchStream const shared(connection, LDAPSearchStream::Parameter("dc=example"));
        LDAPSearchStream last(shared);
        last.send();
    }

    EXPECT_THAT(calls(), ElementsAre(sentPlainly, "ldap_abandon_ext session 3 null null"));
    EXPECT_EQ(connection.openldapErrorCode(), 0);
}

TEST_F(ADestroyedStream, IsNotAbandonedIfItIsNotInFlight)
{
    willReceive({done()});
    {
        LDAPSearchStream const unsent(connection, LDAPSearchStream::Parameter("dc=example"));
        LDAPSearchStream complete(connection, unsent.parameter());
        complete.send();
        complete.wait(5);
        openldap.forgetCalls();
    }

    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(ADestroyedStream, SendsNothingOnAConnectionThatWasUnbound)
{
    {
        LDAPSearchStream unbound(connection, LDAPSearchStream::Parameter("dc=example"));
        unbound.send();
        connection.unbind();
        openldap.forgetCalls();
    }

    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(ADestroyedStream, ThrowsNothingWhateverTheAbandonThrows)
{
    openldap.ldap_abandon_ext = throwForeign<>;
    {
        LDAPSearchStream sent(connection, LDAPSearchStream::Parameter("dc=example"));
        sent.send();
        openldap.forgetCalls();
    }

    EXPECT_THAT(calls(), ElementsAre("ldap_abandon_ext session 3 null null"));
}

TEST(ANullStream, ThrowsFromEachOfItsOwnOperationsWithItsLine)
{
    LDAPSearchStream null;

    EXPECT_THAT(thrownBy([&] { null.parameter(); }), IsNullHandle("SearchStream.cpp", 28));
    EXPECT_THAT(thrownBy([&] { null.next(1); }), IsNullHandle("SearchStream.cpp", 37));
    EXPECT_THAT(thrownBy([&] { null.entry(); }), IsNullHandle("SearchStream.cpp", 46));
    EXPECT_THAT(thrownBy([&] { null.references(); }), IsNullHandle("SearchStream.cpp", 55));
    LDAPSearchStream const copy(null);
    EXPECT_TRUE(copy.isNull());
}

/// A stream that shows its body.
class OpenStream : public LDAPSearchStream {
public:
    using LDAPSearchStream::LDAPSearchStream;
    Solvane::LDAPRequestImpl& body() { return *m_impl.body(); }
};

/// With the mutex of `shared()`, which is never freed.
class ASharedStream : public SearchStreamTest {
protected:
    ASharedStream() : shared(connection, LDAPSearchStream::Parameter("dc=example"))
    {
        leakingOnPurpose([this] { shared.body().shared(); });
    }

    /// What OpenLDAP's call is replaced by: it takes note of whether another thread may cancel.
    auto note()
    {
        return [this](auto...) {
            wasHeldUp = other.isHeldUp([this] { shared.cancel(); });
            return 0;
        };
    }

    bool wasHeldUp = false;
    OpenStream shared;
    OtherThread other;
};

TEST_F(ASharedStream, HoldsItsMutexWhileItIsSent)
{
    openldap.ldap_search_ext = note();

    shared.send();

    EXPECT_TRUE(wasHeldUp);
}

TEST_F(ASharedStream, HoldsItsMutexWhileItTakesTheNextItem)
{
    shared.send();
    openldap.ldap_result = note();

    shared.next(1);

    EXPECT_TRUE(wasHeldUp);
}

TEST_F(ASharedStream, HoldsItsMutexWhileItIsAwaited)
{
    shared.send();
    openldap.ldap_result = note();

    shared.wait(1);

    EXPECT_TRUE(wasHeldUp);
}

} // namespace
} // namespace SolvaneTest
