// The pages of a stream: the exact calls, and how they end.
#include "SearchStreamTest.h"

namespace SolvaneTest {
namespace {

using namespace std::string_literals;
using Solvane::LDAPSearchStream;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using Control = Solvane::LDAPOperation::Control;

/// How the request for a page of two entries reads, with the length and the bytes of its cookie.
std::string sentPage(std::string const& value)
{
    return "ldap_search_ext session 'dc=example' 2 null null 0 ['1.2.840.113556.1.4.319' critical "
           "'" +
           value + "'] null null -1";
}
std::string const firstPage = sentPage("\x30\x05\x02\x01\x02\x04\x00"s);
std::string const secondPage = sentPage("\x30\x07\x02\x01\x02\x04\x02\0c"s);

/// With pages of two entries.
class PagedStream : public SearchStreamTest {
protected:
    PagedStream() { stream.parameter().pageSize = 2; }

    /// The end of a page, with this control value.
    LDAPMessage* pageEnd(std::string const& value, int code = LDAP_SUCCESS)
    {
        return messages.response(LDAP_RES_SEARCH_RESULT, code, "", "", {},
                                 {{LDAP_CONTROL_PAGEDRESULTS, value}});
    }
    LDAPMessage* pageEndBeforeAnother() { return pageEnd("\x30\x07\x02\x01\x00\x04\x02\0c"s); }
    LDAPMessage* lastPageEnd() { return pageEnd("\x30\x05\x02\x01\x00\x04\x00"s); }
};

using PagesOfAStream = PagedStream;

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

// RFC 2696 section 3: the server should ignore the control.
TEST_F(PagesOfAStream, MayLackTheControlIfOneMayHaveAsManyEntriesAsTheSizeLimit)
{
    for (int const limit : {1, 2}) {
        willReceive({messages.entry("cn=a"), done()});
        stream.parameter().sizeLimit = limit;
        stream.send();
        ASSERT_EQ(stream.next(5), LDAPSearchStream::ItemEntry);

        EXPECT_EQ(stream.next(5), LDAPSearchStream::ItemEnd) << limit;
        EXPECT_EQ(stream.result().resultCode(), 0);
        EXPECT_EQ(connection.openldapErrorCode(), 0);
    }
}

TEST_F(PagesOfAStream, MayLackTheControlBecauseOfTheSizeLimitOfOpenLDAPsConfiguration)
{
    willReceive({messages.entry("cn=a"), done()});
    int const limit = 2;
    body().setOption(LDAP_OPT_SIZELIMIT, &limit);
    stream.send();
    ASSERT_EQ(stream.next(5), LDAPSearchStream::ItemEntry);

    EXPECT_EQ(stream.next(5), LDAPSearchStream::ItemEnd);
    EXPECT_EQ(stream.result().resultCode(), 0);
}

TEST_F(PagesOfAStream, EndWithAFaultIfAResponseLacksTheControlBelowTheSizeLimit)
{
    willReceive({messages.entry("cn=a"), done()});
    stream.parameter().sizeLimit = 3;
    stream.send();
    ASSERT_EQ(stream.next(5), LDAPSearchStream::ItemEntry);

    EXPECT_THAT(thrownBy([&] { stream.next(5); }), IsFault("SearchStream.cpp", 120, 4, 6));
    expectOver();
}

// A server that has answered with one page does not answer without pages.
TEST_F(PagesOfAStream, EndWithAFaultIfALaterResponseLacksTheControl)
{
    willReceive({messages.entry("cn=a"), pageEndBeforeAnother(), messages.entry("cn=b"), done()});
    stream.parameter().sizeLimit = 2;
    stream.send();
    ASSERT_EQ(stream.next(5), LDAPSearchStream::ItemEntry);
    ASSERT_EQ(stream.next(5), LDAPSearchStream::ItemEntry);

    EXPECT_THAT(thrownBy([&] { stream.next(5); }), IsFault("SearchStream.cpp", 120, 4, 6));
    expectOver();
}

TEST_F(PagesOfAStream, AreAwaitedNoLongerThanTheTimeoutEvenIfTheyAreEmptyWithoutEnd)
{
    willReceiveEndlessly([this] { return pageEndBeforeAnother(); });
    stream.send();

    EXPECT_EQ(stream.next(1), LDAPSearchStream::ItemTimeout);

    willReceive({messages.entry("cn=a"), lastPageEnd()});
    EXPECT_EQ(stream.next(5), LDAPSearchStream::ItemEntry);
    EXPECT_EQ(stream.next(5), LDAPSearchStream::ItemEnd);
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

} // namespace
} // namespace SolvaneTest
