// Awaiting a search: how messages, silence and failures end or go on.
#include "CallTest.h"

#include <cerrno>

namespace SolvaneTest {
namespace {

using Solvane::LDAPConnection;
using Solvane::LDAPSearch;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class Waiting : public ConnectedTest {
protected:
    Waiting() : search(connection, LDAPSearch::Parameter("dc=example"))
    {
        openldap.ldap_search_ext = [](auto, auto, auto, auto, auto, auto, auto, auto, auto, auto,
                                      int* id) {
            *id = 21;
            return LDAP_SUCCESS;
        };
        search.send();
        openldap.forgetCalls();
    }

    LDAPMessage* searchResult(int code = LDAP_SUCCESS)
    {
        return messages.response(LDAP_RES_SEARCH_RESULT, code);
    }
    std::vector<std::string> entryNames()
    {
        std::vector<std::string> names;
        for (auto const& entry : search.result().searchResultEntries()) {
            names.push_back(entry.entryName());
        }
        return names;
    }

    LDAPSearch search;
};

using ASearchWait = Waiting;
using ASearchWaitThatFails = Waiting;

TEST_F(ASearchWait, EndsWithTheSearchResult)
{
    willReceive({searchResult()});

    bool const ranOut = search.wait(5);

    EXPECT_FALSE(ranOut);
    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_result session 21 0 5s 0us", "ldap_msgtype message",
                            "ldap_parse_result session message null 0", "ldap_msgfree message"));
}

TEST_F(ASearchWait, CollectsThreeEntriesAndTheSearchResultInFourMessages)
{
    willReceive(
        {messages.entry("cn=a"), messages.entry("cn=b"), messages.entry("cn=c"), searchResult()});

    bool const ranOut = search.wait(5);

    EXPECT_FALSE(ranOut);
    EXPECT_THAT(entryNames(), ElementsAre("cn=a", "cn=b", "cn=c"));
    EXPECT_EQ(search.result().resultType(), 4);
    EXPECT_THAT(openldap.calls(), Contains("ldap_result session 21 0 5s 0us").Times(4));
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(4));
}

TEST_F(ASearchWait, FreesEachMessageBeforeItAsksForTheNext)
{
    willReceive({messages.reference({"ldap://a/"}), searchResult()});

    search.wait(5);

    EXPECT_THAT(
        openldap.calls(),
        ElementsAre("ldap_result session 21 0 5s 0us", "ldap_msgtype message",
                    "ldap_count_messages session message", "ldap_first_message session message",
                    "ldap_msgtype message", "ldap_first_message session message",
                    "ldap_parse_reference session message null 0", "ldap_value_free ['ldap://a/']",
                    "ldap_next_message session message", "ldap_msgfree message",
                    "ldap_result session 21 0 5s 0us", "ldap_msgtype message",
                    "ldap_parse_result session message null 0", "ldap_msgfree message"));
}

TEST_F(ASearchWait, OffersOpenLDAPAnEmptyMessageAndTheFullTimeForEach)
{
    std::vector<long> seconds;
    openldap.ldap_result = [&](LDAP*, int, int, timeval* timeout, LDAPMessage** message) {
        EXPECT_EQ(*message, nullptr);
        seconds.push_back(timeout->tv_sec);
        *message = seconds.size() < 3 ? messages.entry("cn=a") : searchResult();
        return ldap_msgtype(*message);
    };

    search.wait(5);

    EXPECT_THAT(seconds, ElementsAre(5, 5, 5));
}

TEST_F(ASearchWait, ThatRanOutKeepsWhatItGotAndCanBeCalledAgain)
{
    willReceive({messages.entry("cn=a")});
    EXPECT_TRUE(search.wait(5));
    EXPECT_EQ(search.id(), 21);
    willReceive({messages.entry("cn=b"), searchResult()});

    bool const ranOut = search.wait(5);

    EXPECT_FALSE(ranOut);
    EXPECT_THAT(entryNames(), ElementsAre("cn=a", "cn=b"));
    EXPECT_EQ(connection.openldapErrorCode(), 0);
}

TEST_F(ASearchWait, OfASearchSentTwiceAddsToTheSameResult)
{
    willReceive({messages.entry("cn=a"), searchResult()});
    search.wait(5);
    auto const* const first = search.result().impl();
    search.send();
    willReceive({messages.entry("cn=b"), searchResult()});

    search.wait(5);

    EXPECT_EQ(search.result().impl(), first);
    EXPECT_THAT(entryNames(), ElementsAre("cn=a", "cn=b"));
}

TEST_F(ASearchWait, GoesOnAfterAFinalResponseOfAnotherKind)
{
    willReceive({messages.response(LDAP_RES_BIND, LDAP_SUCCESS), searchResult()});

    bool const ranOut = search.wait(5);

    EXPECT_FALSE(ranOut);
    EXPECT_THAT(openldap.calls(), Contains("ldap_result session 21 0 5s 0us").Times(2));
}

TEST_F(ASearchWait, EndsWithASearchResultOfAnyCodeAndRecordsNoError)
{
    willReceive({messages.entry("cn=a"), searchResult(LDAP_SIZELIMIT_EXCEEDED)});
    DebugLines const lines(0xffffffff);

    bool const ranOut = search.wait(5);

    EXPECT_FALSE(ranOut);
    EXPECT_EQ(search.result().resultCode(), 4);
    EXPECT_THAT(entryNames(), ElementsAre("cn=a"));
    EXPECT_EQ(connection.openldapErrorCode(), 0);
    EXPECT_THAT(lines.all(), IsEmpty());
}

TEST_F(ASearchWait, IsNotTouchedByCancel)
{
    willReceive({messages.entry("cn=a")});
    search.wait(5);
    openldap.forgetCalls();

    search.cancel();

    EXPECT_THAT(openldap.calls(), IsEmpty());
    EXPECT_EQ(search.id(), 21);
    EXPECT_THAT(entryNames(), ElementsAre("cn=a"));
}

TEST_F(ASearchWaitThatFails, ReportsOpenLDAPsTextAndRecordsTheCode)
{
    openldap.ldap_result = [](auto...) { return LDAP_LOCAL_ERROR; };

    EXPECT_THAT(thrownBy([&] { search.wait(5); }), IsFault("Search.cpp", 332, 4, 4, "Local error"));
    EXPECT_EQ(connection.openldapErrorCode(), -2);
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_result session 21 0 5s 0us"));
}

TEST_F(ASearchWaitThatFails, IsTracedWithErrnoWhenTheMaskAsksForErrorsAndAlwaysRecorded)
{
    openldap.ldap_result = [](auto...) {
        errno = ECONNRESET;
        return LDAP_SERVER_DOWN;
    };

    expectTraced(0x80001, {"Search:335 wait 0: " + tid() + "ldaperror=-1, errno = 104"}, [&] {
        connection.openldapErrorCode(0);
        thrownBy([&] { search.wait(5); });
        EXPECT_EQ(connection.openldapErrorCode(), -1);
    });
}

TEST_F(ASearchWaitThatFails, KeepsWhatCameBefore)
{
    bool isFirst = true;
    openldap.ldap_result = [&](LDAP*, int, int, timeval*, LDAPMessage** message) {
        if (!isFirst) {
            return LDAP_SERVER_DOWN;
        }
        isFirst = false;
        *message = messages.entry("cn=a");
        return ldap_msgtype(*message);
    };

    thrownBy([&] { search.wait(5); });

    EXPECT_THAT(entryNames(), ElementsAre("cn=a"));
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(1));
}

TEST_F(ASearchWaitThatFails, OnAReferralPassesTheParsersReportAndKeepsWhatCameBefore)
{
    willReceive({messages.entry("cn=a"),
                 messages.response(LDAP_RES_SEARCH_RESULT, LDAP_REFERRAL, "", "", {"ldap://b/"})});

    EXPECT_THAT(thrownBy([&] { search.wait(5); }), IsFault("Result.cpp", 624, 4, 5));
    EXPECT_THAT(entryNames(), ElementsAre("cn=a"));
    EXPECT_THAT(search.result().referrals(), ElementsAre("ldap://b/"));
    EXPECT_EQ(connection.openldapErrorCode(), 0);
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(2));
}

TEST_F(ASearchWaitThatFails, OnAMessageOfUnknownKindPassesTheParsersReport)
{
    willReceive({messages.operation(LDAP_RES_INTERMEDIATE, "")});

    EXPECT_THAT(thrownBy([&] { search.wait(5); }), IsFault("Result.cpp", 541, 2, 6));
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(1));
}

TEST_F(ASearchWaitThatFails, WithAForeignExceptionHasItAsTheCauseAndFreesTheMessageOnce)
{
    openldap.ldap_result = [&](LDAP*, int, int, timeval*, LDAPMessage** message) -> int {
        *message = searchResult();
        openldap.name(*message, "message");
        throw Solvane::Exception("foreign", 9, "Elsewhere.cpp", 1);
    };

    auto const thrown = thrownBy([&] { search.wait(5); });

    EXPECT_THAT(thrown, IsFault("Search.cpp", 349, 4, 4, ""));
    ASSERT_TRUE(thrown.hasCause());
    EXPECT_EQ(thrown.cause().name(), "foreign");
    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_result session 21 0 5s 0us", "ldap_msgfree message"));
}

TEST_F(ASearchWaitThatFails, InTheParserIsWrappedThereAndNotAgain)
{
    willReceive({searchResult()});
    openldap.ldap_parse_result = throwForeign<>;

    auto const thrown = thrownBy([&] { search.wait(5); });

    EXPECT_THAT(thrown, IsFault("Result.cpp", 633, 4, 6));
    EXPECT_EQ(thrown.cause().name(), "foreign");
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(1));
}

TEST_F(ASearchWaitThatFails, OnANullConnectionReportsTheNullHandle)
{
    LDAPConnection null;
    LDAPSearch unconnected(null, LDAPSearch::Parameter());

    EXPECT_THAT(thrownBy([&] { unconnected.wait(5); }), IsFault("Connection.cpp", 129, 1, 0));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(ASearchWait, ReachesOpenLDAPInWholeSecondsThatItCanCount)
{
    willReceive({});
    for (auto const& [seconds, sent] : secondsOfAWait) {
        EXPECT_TRUE(search.wait(seconds));

        EXPECT_EQ(openldap.calls().back(), "ldap_result session 21 0 " + sent);
        EXPECT_TRUE(search.result().isNull());
    }
    EXPECT_EQ(openldap.calls().size(), secondsOfAWait.size());
}

} // namespace
} // namespace SolvaneTest
