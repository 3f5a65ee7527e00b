// Searches: the exact arguments, what is stored when, and how messages, silence and failures end a
// wait.
#include "CallTest.h"

#include <solvart/Mutex.h>

#include <cerrno>
#include <thread>

namespace SolvaneTest {
namespace {

using Solvane::LDAPAttributeType;
using Solvane::LDAPConnection;
using Solvane::LDAPRequest;
using Solvane::LDAPSearch;
using Solvane::LDAPSearchImpl;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

/// The call for the record below.
std::string const theCall =
    "ldap_search_ext session 'dc=example' 2 '(cn=a)' null 0 null null null -1";

class Sending : public ConnectedTest {
protected:
    Sending() : parameter("dc=example") { parameter.filter = "(cn=a)"; }

    /// OpenLDAP takes the search and gives it this id.
    void willTakeTheSearch(int id)
    {
        openldap.ldap_search_ext = [id](auto, auto, auto, auto, auto, auto, auto, auto, auto, auto,
                                        int* messageId) {
            *messageId = id;
            return LDAP_SUCCESS;
        };
    }
    /// OpenLDAP refuses the search and writes no id.
    void willRefuse(int rc, int error = 0)
    {
        openldap.ldap_search_ext = [rc, error](auto...) {
            errno = error;
            return rc;
        };
    }

    LDAPSearch::Parameter parameter;
};

using ASearch = Sending;
using ASearchThatIsRefused = Sending;
using ASharedSearch = Sending;

TEST_F(ASearch, HandsItsRecordToOpenLDAPInOneCall)
{
    struct {
        char const* shows;
        std::function<void(LDAPSearch::Parameter&)> set;
        std::string call;
    } const cases[] = {
        {"no attributes ask for all", [](auto&) {}, theCall},
        {"its attributes in their order",
         [](auto& record) {
             record.attributes = {LDAPAttributeType("cn"), LDAPAttributeType("mail;binary")};
         },
         "ldap_search_ext session 'dc=example' 2 '(cn=a)' ['cn' 'mail;binary'] 0 null null null "
         "-1"},
        {"only empty attribute types make an empty array",
         [](auto& record) { record.attributes = {LDAPAttributeType("")}; },
         "ldap_search_ext session 'dc=example' 2 '(cn=a)' [] 0 null null null -1"},
        {"the default record has neither filter nor attributes",
         [](auto& record) { record = LDAPSearch::Parameter(); },
         "ldap_search_ext session '' 2 null null 0 null null null -1"},
        {"it keeps its own limits to itself",
         [](auto& record) { record.sizeLimit = record.timeLimit = 5; }, theCall},
        {"types only, when told so",
         [](auto& record) {
             record.attrsOnly = true;
             record.scope = LDAPSearch::ScopeBase;
         },
         "ldap_search_ext session 'dc=example' 0 '(cn=a)' null 1 null null null -1"},
    };
    willTakeTheSearch(3);
    for (auto const& row : cases) {
        LDAPSearch::Parameter record = parameter;
        row.set(record);
        LDAPSearch search(connection, record);
        openldap.forgetCalls();

        search.send();

        EXPECT_THAT(openldap.calls(), ElementsAre(row.call)) << row.shows;
    }
}

TEST_F(ASearch, IsNotSentWhenItIsBuilt)
{
    LDAPSearch const search(connection, parameter);

    EXPECT_EQ(search.id(), 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(ASearch, WithAnEmptySharedRecordSendsTheDefaults)
{
    willTakeTheSearch(3);
    LDAPSearch search(connection, LDAPSearch::RefParameter());

    search.send();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_search_ext session '' 2 null null 0 null null null -1"));
}

TEST_F(ASearch, ThatDereferencesAliasesSetsTheSessionFirst)
{
    willTakeTheSearch(3);
    parameter.deref = LDAPSearch::DerefFinding;
    LDAPSearch search(connection, parameter);

    search.send();

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_set_option session DEREF 2", theCall));
}

TEST_F(ASearch, ThatNeverDereferencesLeavesTheSessionAsItIs)
{
    willTakeTheSearch(3);
    parameter.deref = LDAPSearch::DerefAlways;
    LDAPSearch first(connection, parameter);
    first.send();
    openldap.forgetCalls();
    parameter.deref = LDAPSearch::DerefNever;
    LDAPSearch second(connection, parameter);

    second.send();

    EXPECT_THAT(openldap.calls(), ElementsAre(theCall));
}

TEST_F(ASearch, IsSentEvenIfTheAliasModeIsRefused)
{
    willTakeTheSearch(3);
    openldap.ldap_set_option = [](auto...) { return LDAP_OPT_ERROR; };
    parameter.deref = LDAPSearch::DerefAlways;
    LDAPSearch search(connection, parameter);

    search.send();

    EXPECT_EQ(search.id(), 3);
}

TEST_F(ASearch, StoresItsMessageIdAndLeavesTheRecordedErrorInSilence)
{
    willTakeTheSearch(3);
    connection.openldapErrorCode(49);
    LDAPSearch search(connection, parameter);
    DebugLines const lines(0xffffffff);

    search.send();

    EXPECT_EQ(search.id(), 3);
    EXPECT_EQ(connection.openldapErrorCode(), 49);
    EXPECT_TRUE(search.result().isNull());
    EXPECT_THAT(lines.all(), IsEmpty());
}

TEST_F(ASearch, SentAgainOverwritesTheMessageId)
{
    willTakeTheSearch(3);
    LDAPSearch search(connection, parameter);
    search.send();
    willTakeTheSearch(4);

    search.send();

    EXPECT_EQ(search.id(), 4);
}

TEST_F(ASearch, SeesChangesOfASharedRecord)
{
    willTakeTheSearch(3);
    LDAPSearch::RefParameter const shared(parameter);
    LDAPSearch search(connection, shared);
    shared->baseDN = "dc=changed";

    search.send();

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_search_ext session 'dc=changed' 2 '(cn=a)' "
                                              "null 0 null null null -1"));
}

TEST_F(ASearch, SeesNoChangesOfARecordThatItCopied)
{
    willTakeTheSearch(3);
    LDAPSearch search(connection, parameter);
    parameter.baseDN = "dc=changed";

    search.send();

    EXPECT_THAT(openldap.calls(), ElementsAre(theCall));
}

TEST_F(ASearch, RefusesToSendOnANullConnection)
{
    LDAPConnection null;
    LDAPSearch search(null, parameter);

    EXPECT_THAT(thrownBy([&] { search.send(); }),
                IsFault("Search.cpp", 249, 1, 0, "The LDAP connection is null"));
    EXPECT_EQ(search.id(), 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(ASearch, RefusesANumberOutOfRangeBeforeAnyCall)
{
    parameter.scope = static_cast<LDAPSearch::Scope>(3);
    LDAPSearch withScope(connection, parameter);
    parameter.scope = LDAPSearch::ScopeSubtree;
    parameter.deref = static_cast<LDAPSearch::Deref>(4);
    LDAPSearch withDeref(connection, parameter);

    EXPECT_THAT(thrownBy([&] { withScope.send(); }), IsFault("Attribute.cpp", 531, 2, 0, ""));
    EXPECT_THAT(thrownBy([&] { withDeref.send(); }), IsFault("Attribute.cpp", 579, 2, 0, ""));
    EXPECT_EQ(withScope.id(), 0);
    EXPECT_EQ(connection.openldapErrorCode(), 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(ASearchThatIsRefused, IsReportedWithOpenLDAPsTextAndTheFilterAndRecorded)
{
    willRefuse(LDAP_FILTER_ERROR);
    parameter.filter = "(cn=";
    LDAPSearch search(connection, parameter);

    auto const thrown = thrownBy([&] { search.send(); });

    EXPECT_THAT(thrown, IsFault("Search.cpp", 270, 4, 4, "Bad search filter : (cn="));
    EXPECT_FALSE(thrown.hasCause());
    EXPECT_EQ(connection.openldapErrorCode(), -7);
}

TEST_F(ASearchThatIsRefused, WithoutAFilterEndsItsTextAtTheColon)
{
    willRefuse(LDAP_SERVER_DOWN);
    parameter.filter = "";
    LDAPSearch search(connection, parameter);

    EXPECT_THAT(thrownBy([&] { search.send(); }),
                IsFault("Search.cpp", 270, 4, 4, "Can't contact LDAP server : "));
}

TEST_F(ASearchThatIsRefused, StoresZeroWhenOpenLDAPWritesNoMessageId)
{
    willTakeTheSearch(3);
    LDAPSearch search(connection, parameter);
    search.send();
    willRefuse(LDAP_FILTER_ERROR);

    thrownBy([&] { search.send(); });

    EXPECT_EQ(search.id(), 0);
}

TEST_F(ASearchThatIsRefused, StoresTheMessageIdThatOpenLDAPWrote)
{
    openldap.ldap_search_ext = [](auto, auto, auto, auto, auto, auto, auto, auto, auto, auto,
                                  int* messageId) {
        *messageId = -1;
        return LDAP_SERVER_DOWN;
    };
    LDAPSearch search(connection, parameter);

    thrownBy([&] { search.send(); });

    EXPECT_EQ(search.id(), -1);
}

TEST_F(ASearchThatIsRefused, IsTracedWithErrnoWhenTheMaskAsksForErrorsAndAlwaysRecorded)
{
    willRefuse(LDAP_SERVER_DOWN, EPIPE);
    LDAPSearch search(connection, parameter);

    expectTraced(0x80001, {"Search:276 send 0: " + tid() + "ldaperror=-1, errno = 32"}, [&] {
        connection.openldapErrorCode(0);
        thrownBy([&] { search.send(); });
        EXPECT_EQ(connection.openldapErrorCode(), -1);
    });
}

TEST_F(ASearchThatIsRefused, ByAForeignExceptionHasItAsTheCause)
{
    openldap.ldap_search_ext = throwForeign<>;
    LDAPSearch search(connection, parameter);

    auto const thrown = thrownBy([&] { search.send(); });

    EXPECT_THAT(thrown, IsFault("Search.cpp", 289, 4, 4, ""));
    ASSERT_TRUE(thrown.hasCause());
    EXPECT_EQ(thrown.cause().name(), "foreign");
    EXPECT_EQ(connection.openldapErrorCode(), 0);
}

TEST_F(ASearchThatIsRefused, ByAnLDAPExceptionLetsItPassUnchanged)
{
    openldap.ldap_search_ext = [](auto...) -> int {
        throw Solvane::LDAPException("LDAPException", 4, "Elsewhere.cpp", 5, 3);
    };
    LDAPSearch search(connection, parameter);

    auto const thrown = thrownBy([&] { search.send(); });

    EXPECT_THAT(thrown, IsFault("Elsewhere.cpp", 5, 4, 3));
    EXPECT_FALSE(thrown.hasCause());
}

/// A search body that shows its mutex and gives it back, as no other user is left.
class OpenSearch : public LDAPSearchImpl {
public:
    ~OpenSearch() override { delete m_mutex; }
    Solvane::Mutex* mutex() const { return m_mutex; }
};

TEST_F(ASharedSearch, LetsGoOfTheMutexWhenASendFails)
{
    OpenSearch search;
    search.connection(connection);
    search.shared();
    willRefuse(LDAP_SERVER_DOWN);
    thrownBy([&] { search.send(); });
    willTakeTheSearch(3);

    search.send();

    EXPECT_EQ(search.id(), 3);
}

TEST_F(ASharedSearch, SendsAndWaitsOneThreadAtATime)
{
    OpenSearch search;
    search.connection(connection);
    search.shared();
    Room room;
    openldap.ldap_search_ext = [&](auto...) {
        room.visit();
        return LDAP_SUCCESS;
    };
    openldap.ldap_result = [&](auto...) {
        room.visit();
        return 0;
    };

    std::thread other([&] { search.wait(1); });
    search.send();
    other.join();

    EXPECT_FALSE(room.wasShared());
}

// Awaiting a search: how messages, silence and failures end or go on.

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
