// Searches whose entries come one after the other: the exact calls, pages, and every way to fail.
#include "Allocations.h"
#include "CallTest.h"

#include "LdapMessages.h"

#include <algorithm>
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

/// How the request for a page of two entries reads, with the length and the bytes of its cookie.
std::string sentPage(std::string const& value)
{
    return "ldap_search_ext session 'dc=example' 2 null null 0 ['1.2.840.113556.1.4.319' critical "
           "'" +
           value + "'] null null -1";
}
std::string const firstPage = sentPage("\x30\x05\x02\x01\x02\x04\x00"s);
std::string const secondPage = sentPage("\x30\x07\x02\x01\x02\x04\x02\0c"s);

class SearchStreamTest : public ConnectedTest {
protected:
    SearchStreamTest() : stream(connection, LDAPSearchStream::Parameter("dc=example"))
    {
        openldap.ldap_search_ext = [this](auto, auto, auto, auto, auto, auto, auto, auto, auto,
                                          auto, int* messageId) {
            *messageId = nextId++;
            return LDAP_SUCCESS;
        };
        openldap.ldap_abandon_ext = [](auto...) { return LDAP_SUCCESS; };
    }

    /// The calls so far, without the option that each send reads and liblber's elements.
    std::vector<std::string> calls() const
    {
        std::vector<std::string> all = openldap.calls();
        all.erase(std::remove_if(all.begin(), all.end(),
                                 [](std::string const& call) {
                                     return call == "ldap_get_option session DEREF" ||
                                            call == "ber_free unknown 0" ||
                                            call == "ber_free unknown 1";
                                 }),
                  all.end());
        return all;
    }
    LDAPMessage* done(int code = LDAP_SUCCESS)
    {
        return messages.response(LDAP_RES_SEARCH_RESULT, code);
    }
    /// The end of a page, with this control value.
    LDAPMessage* pageEnd(std::string const& value, int code = LDAP_SUCCESS)
    {
        return messages.response(LDAP_RES_SEARCH_RESULT, code, "", "", {},
                                 {{LDAP_CONTROL_PAGEDRESULTS, value}});
    }
    LDAPMessage* pageEndBeforeAnother() { return pageEnd("\x30\x07\x02\x01\x00\x04\x02\0c"s); }
    LDAPMessage* lastPageEnd() { return pageEnd("\x30\x05\x02\x01\x00\x04\x00"s); }
    /// What a stream reports when it is over without a result.
    void expectOver()
    {
        EXPECT_TRUE(stream.result().isNull());
        EXPECT_THAT(stream.responseControls(), IsEmpty());
        EXPECT_EQ(stream.entry().entryName(), "");
        EXPECT_THAT(stream.references(), IsEmpty());
        EXPECT_THAT(thrownBy([&] { stream.next(5); }), IsFault("Operation.cpp", 92, 2, 0));
        EXPECT_THAT(thrownBy([&] { stream.wait(5); }), IsFault("Operation.cpp", 92, 2, 0));
    }

    int nextId = 3;
    LDAPSearchStream stream;
};

/// Sent as message 3; no calls are recorded yet.
class SentStream : public SearchStreamTest {
protected:
    SentStream()
    {
        stream.send();
        openldap.forgetCalls();
    }
};

/// With pages of two entries.
class PagedStream : public SearchStreamTest {
protected:
    PagedStream() { stream.parameter().pageSize = 2; }
};

using AStream = SearchStreamTest;
using AStreamThatIsRefused = SearchStreamTest;
using TheNextItem = SentStream;
using AFailingStream = SentStream;
using ACanceledStream = SentStream;
using PagesOfAStream = PagedStream;

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
TEST_F(AStreamThatIsRefused, HasAZeroByteInATextOrAScopeOutOfRange)
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

    EXPECT_THAT(calls(),
                ElementsAre("ldap_result session 3 0 5s 0us",
                            "ldap_parse_result session message unknown 0",
                            "ldap_controls_free ['1.5' 'x']", "ldap_msgtype message",
                            "ldap_parse_result session message null 0", "ldap_memfree 'too many'",
                            "ldap_memfree 'dc=example'", "ldap_msgfree message"));
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

// Failures

TEST_F(AFailingStream, IsOverWhenTheConnectionBreaks)
{
    willReceive({messages.entry("cn=a")});
    stream.next(5);
    openldap.ldap_result = [](auto...) { return LDAP_SERVER_DOWN; };
    openldap.forgetCalls();

    EXPECT_THAT(thrownBy([&] { stream.next(5); }),
                IsFault("SearchStream.cpp", 91, 4, 4, "Can't contact LDAP server : dc=example"));

    EXPECT_EQ(connection.openldapErrorCode(), LDAP_SERVER_DOWN);
    expectOver();
    stream.cancel();
    EXPECT_THAT(calls(), ElementsAre("ldap_result session 3 0 5s 0us"));
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
    openldap.ldap_result = [](auto...) { return LDAP_SERVER_DOWN; };
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

TEST_F(AFailingStream, IsAbandonedWhenTheMessageIsLongerThanItsBytes)
{
    willReceive({messages.operation(LDAP_RES_SEARCH_ENTRY, berElement(LBER_OCTETSTRING, "cn=a"))});
    openldap.ldap_result = [next = openldap.ldap_result](auto session, int id, int all,
                                                         auto timeout, LDAPMessage** message) {
        next(session, id, all, timeout, message);
        return static_cast<int>(LDAP_RES_SEARCH_REFERENCE); // another type than the bytes have
    };

    EXPECT_THAT(thrownBy([&] { stream.next(5); }),
                IsFault("SearchStream.cpp", 111, 4, 6, "Malformed search reference"));
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

// Pages

TEST_F(PagesOfAStream, FollowEachOtherWithTheCookieOfTheServer)
{
    willReceive({messages.entry("cn=a"), messages.entry("cn=b"), pageEndBeforeAnother(),
                 messages.entry("cn=c"), lastPageEnd()});

    stream.send();
    for (char const* const name : {"cn=a", "cn=b", "cn=c"}) {
        ASSERT_EQ(stream.next(5), LDAPSearchStream::ItemEntry);
        EXPECT_EQ(stream.entry().entryName(), name);
        EXPECT_TRUE(stream.result().isNull());
    }
    EXPECT_EQ(stream.next(5), LDAPSearchStream::ItemEnd);

    EXPECT_EQ(stream.id(), 4);
    EXPECT_EQ(stream.result().resultCode(), 0);
    EXPECT_EQ(stream.responseControls().size(), 1U);
    std::vector<std::string> sent = calls();
    sent.erase(std::remove_if(sent.begin(), sent.end(),
                              [](std::string const& call) {
                                  return call.compare(0, 15, "ldap_search_ext") != 0;
                              }),
               sent.end());
    EXPECT_THAT(sent, ElementsAre(firstPage, secondPage));
}

TEST_F(PagesOfAStream, AreOfTheSearchThatWasSentWhateverIsChangedSince)
{
    willReceive({pageEndBeforeAnother()});
    stream.controls().push_back(Control("1.2", false));
    stream.send();
    stream.controls().clear();
    stream.parameter().baseDN = "dc=other";
    stream.parameter().pageSize = 1;
    openldap.forgetCalls();

    EXPECT_EQ(stream.next(5), LDAPSearchStream::ItemTimeout);

    EXPECT_THAT(calls(), Contains("ldap_search_ext session 'dc=example' 2 null null 0 ['1.2' null "
                                  "'1.2.840.113556.1.4.319' critical "
                                  "'\x30\x07\x02\x01\x02\x04\x02\0c'] null null -1"s));
    EXPECT_THAT(stream.responseControls(), IsEmpty());
    EXPECT_THAT(calls().back(), StartsWith("ldap_result session 4 0 4s 9"));
}

TEST_F(PagesOfAStream, MayBeEmpty)
{
    willReceive({pageEndBeforeAnother(), pageEndBeforeAnother(), messages.entry("cn=a")});
    stream.send();

    EXPECT_EQ(stream.next(5), LDAPSearchStream::ItemEntry);
    EXPECT_EQ(stream.id(), 5);
}

TEST_F(PagesOfAStream, EndWithAnErrorOfTheServerEvenIfThereIsACookie)
{
    willReceive({pageEnd("\x30\x07\x02\x01\x00\x04\x02\0c"s, LDAP_BUSY)});
    stream.send();

    EXPECT_EQ(stream.next(5), LDAPSearchStream::ItemEnd);
    EXPECT_EQ(stream.result().resultCode(), 51);
}

TEST_F(PagesOfAStream, EndWithCode12IfTheServerDoesNotSupportThem)
{
    willReceive({done(LDAP_UNAVAILABLE_CRITICAL_EXTENSION)});
    stream.send();

    EXPECT_EQ(stream.next(5), LDAPSearchStream::ItemEnd);
    EXPECT_EQ(stream.result().resultCode(), 12);
}

// There may be more of them.
TEST_F(PagesOfAStream, EndWithAFaultIfAResponseLacksTheControl)
{
    willReceive({messages.entry("cn=a"), pageEndBeforeAnother(), messages.entry("cn=b"), done()});
    stream.send();
    ASSERT_EQ(stream.next(5), LDAPSearchStream::ItemEntry);
    ASSERT_EQ(stream.next(5), LDAPSearchStream::ItemEntry);

    EXPECT_THAT(thrownBy([&] { stream.next(5); }), IsFault("SearchStream.cpp", 120, 4, 6));
    EXPECT_EQ(connection.openldapErrorCode(), LDAP_DECODING_ERROR);
    expectOver();
}

TEST_F(PagesOfAStream, AreNotThoseOfACallerWhoSendsTheControlHimself)
{
    willReceive({pageEndBeforeAnother()});
    stream.parameter().pageSize = 0;
    stream.send();

    EXPECT_EQ(stream.next(5), LDAPSearchStream::ItemEnd);
    EXPECT_EQ(stream.responseControls().size(), 1U);
}

// Half of the entries must not pass for all.
TEST_F(PagesOfAStream, EndWithAFaultIfTheControlIsMalformed)
{
    willReceive({pageEnd("\x30\x07\x02\x01\x00\x04\x03\0c"s)});
    stream.send();

    EXPECT_THAT(thrownBy([&] { stream.next(5); }), IsFault("Controls.cpp", 84, 1, 6));
    EXPECT_EQ(connection.openldapErrorCode(), LDAP_DECODING_ERROR);
    expectOver();
}

TEST_F(PagesOfAStream, EndWithAFaultIfTheNextOneCannotBeRequested)
{
    willReceive({pageEndBeforeAnother()});
    stream.send();
    openldap.ldap_search_ext = [](auto...) { return LDAP_SERVER_DOWN; };

    EXPECT_THAT(thrownBy([&] { stream.next(5); }), IsFault("SearchStream.cpp", 84, 4, 4));
    EXPECT_EQ(connection.openldapErrorCode(), LDAP_SERVER_DOWN);
    expectOver();
}

TEST_F(PagesOfAStream, AreCanceledByAnAbandonOfTheOneInFlight)
{
    willReceive({pageEndBeforeAnother(), messages.entry("cn=a")});
    stream.send();
    stream.next(5);

    stream.cancel();

    EXPECT_EQ(openldap.calls().back(), "ldap_abandon_ext session 4 null null");
    EXPECT_THAT(thrownBy([&] { stream.next(5); }), IsFault("Operation.cpp", 92, 2, 0));
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
