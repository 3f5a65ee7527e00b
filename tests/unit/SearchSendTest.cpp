// Sending a search: the exact arguments, what is stored when, and what is reported.
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
using testing::ElementsAre;
using testing::IsEmpty;

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
    willTakeTheSearch(3);
    parameter.attributes = {LDAPAttributeType("cn"), LDAPAttributeType("mail;binary")};
    LDAPSearch search(connection, parameter);

    search.send();

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_search_ext session 'dc=example' 2 '(cn=a)' "
                                              "['cn' 'mail;binary'] 0 null null null -1"));
}

TEST_F(ASearch, IsNotSentWhenItIsBuilt)
{
    LDAPSearch const search(connection, parameter);

    EXPECT_EQ(search.id(), 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(ASearch, WithTheDefaultRecordSendsNeitherFilterNorAttributes)
{
    willTakeTheSearch(3);
    LDAPSearch search(connection, LDAPSearch::Parameter());

    search.send();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_search_ext session '' 2 null null 0 null null null -1"));
}

TEST_F(ASearch, WithAnEmptySharedRecordSendsTheDefaults)
{
    willTakeTheSearch(3);
    LDAPSearch search(connection, LDAPSearch::RefParameter());

    search.send();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_search_ext session '' 2 null null 0 null null null -1"));
}

TEST_F(ASearch, KeepsItsOwnLimitsToItself)
{
    willTakeTheSearch(3);
    parameter.sizeLimit = 5;
    parameter.timeLimit = 6;
    LDAPSearch search(connection, parameter);

    search.send();

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_search_ext session 'dc=example' 2 '(cn=a)' "
                                              "null 0 null null null -1"));
}

TEST_F(ASearch, AsksForTypesOnlyWhenToldSo)
{
    willTakeTheSearch(3);
    parameter.attrsOnly = true;
    parameter.scope = LDAPSearch::ScopeBase;
    LDAPSearch search(connection, parameter);

    search.send();

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_search_ext session 'dc=example' 0 '(cn=a)' "
                                              "null 1 null null null -1"));
}

TEST_F(ASearch, SkipsAnEmptyAttributeTypeAndFillsTheArrayWithNulls)
{
    parameter.attributes = {LDAPAttributeType("cn"), LDAPAttributeType(""),
                            LDAPAttributeType("mail")};
    LDAPSearch search(connection, parameter);
    std::vector<std::string> sent;
    openldap.ldap_search_ext = [&](auto, auto, auto, auto, char** attributes, auto, auto, auto,
                                   auto, auto, auto) {
        for (int i = 0; i < 4; ++i) {
            sent.emplace_back(attributes[i] == nullptr ? "null" : attributes[i]);
        }
        return LDAP_SUCCESS;
    };

    search.send();

    EXPECT_THAT(sent, ElementsAre("cn", "mail", "null", "null"));
}

TEST_F(ASearch, WithOnlyEmptyAttributeTypesSendsAnEmptyArray)
{
    willTakeTheSearch(3);
    parameter.attributes = {LDAPAttributeType("")};
    LDAPSearch search(connection, parameter);

    search.send();

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_search_ext session 'dc=example' 2 '(cn=a)' [] "
                                              "0 null null null -1"));
}

TEST_F(ASearch, ThatDereferencesAliasesSetsTheSessionFirst)
{
    willTakeTheSearch(3);
    parameter.deref = LDAPSearch::DerefFinding;
    LDAPSearch search(connection, parameter);

    search.send();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_set_option session DEREF 2",
                            "ldap_search_ext session 'dc=example' 2 '(cn=a)' null 0 null null "
                            "null -1"));
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

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_search_ext session 'dc=example' 2 '(cn=a)' "
                                              "null 0 null null null -1"));
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

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_search_ext session 'dc=example' 2 '(cn=a)' "
                                              "null 0 null null null -1"));
}

TEST_F(ASearch, KeepsItsConnectionWhateverTheHandleIsGiven)
{
    LDAPConnection other(newServer(), false);
    LDAPSearch search(connection, parameter);

    search.connection(other);

    EXPECT_EQ(search.connection().impl(), connection.impl());
}

TEST_F(ASearch, RefusesToSendOnANullConnection)
{
    LDAPConnection null;
    LDAPSearch search(null, parameter);

    auto const thrown = thrownBy([&] { search.send(); });

    EXPECT_THAT(thrown, IsFault("Search.cpp", 249, 1, 0));
    EXPECT_EQ(thrown.stringParameter(), "The LDAP connection is null");
    EXPECT_EQ(search.id(), 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(ASearch, RefusesAScopeOutOfRange)
{
    parameter.scope = static_cast<LDAPSearch::Scope>(3);
    LDAPSearch search(connection, parameter);

    auto const thrown = thrownBy([&] { search.send(); });

    EXPECT_THAT(thrown, IsFault("Attribute.cpp", 531, 2, 0));
    EXPECT_EQ(thrown.stringParameter(), "");
    EXPECT_EQ(search.id(), 0);
    EXPECT_EQ(connection.openldapErrorCode(), 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(ASearch, RefusesAnAliasModeOutOfRange)
{
    parameter.deref = static_cast<LDAPSearch::Deref>(4);
    LDAPSearch search(connection, parameter);

    auto const thrown = thrownBy([&] { search.send(); });

    EXPECT_THAT(thrown, IsFault("Attribute.cpp", 579, 2, 0));
    EXPECT_EQ(thrown.stringParameter(), "");
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(ASearch, RefusesANegativeScopeAndANegativeAliasMode)
{
    parameter.scope = static_cast<LDAPSearch::Scope>(-1);
    LDAPSearch negativeScope(connection, parameter);
    parameter.scope = LDAPSearch::ScopeSubtree;
    parameter.deref = static_cast<LDAPSearch::Deref>(-1);
    LDAPSearch negativeDeref(connection, parameter);

    EXPECT_THAT(thrownBy([&] { negativeScope.send(); }), IsFault("Attribute.cpp", 531, 2, 0));
    EXPECT_THAT(thrownBy([&] { negativeDeref.send(); }), IsFault("Attribute.cpp", 579, 2, 0));
}

TEST_F(ASearchThatIsRefused, IsReportedWithOpenLDAPsTextAndTheFilter)
{
    willRefuse(LDAP_FILTER_ERROR);
    parameter.filter = "(cn=";
    LDAPSearch search(connection, parameter);

    auto const thrown = thrownBy([&] { search.send(); });

    EXPECT_THAT(thrown, IsFault("Search.cpp", 270, 4, 4));
    EXPECT_EQ(thrown.stringParameter(), "Bad search filter : (cn=");
    EXPECT_FALSE(thrown.hasCause());
}

TEST_F(ASearchThatIsRefused, WithoutAFilterEndsItsTextAtTheColon)
{
    willRefuse(LDAP_SERVER_DOWN);
    parameter.filter = "";
    LDAPSearch search(connection, parameter);

    auto const thrown = thrownBy([&] { search.send(); });

    EXPECT_EQ(thrown.stringParameter(), "Can't contact LDAP server : ");
}

TEST_F(ASearchThatIsRefused, RecordsTheCodeOnTheConnection)
{
    willRefuse(LDAP_FILTER_ERROR);
    LDAPSearch search(connection, parameter);

    thrownBy([&] { search.send(); });

    EXPECT_EQ(connection.openldapErrorCode(), -7);
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

TEST_F(ASearchThatIsRefused, IsTracedWithErrnoWhenTheMaskAsksForErrors)
{
    willRefuse(LDAP_SERVER_DOWN, EPIPE);
    LDAPSearch search(connection, parameter);
    DebugLines const lines(0x80001);

    thrownBy([&] { search.send(); });

    EXPECT_THAT(lines.all(),
                ElementsAre("Search:276 send 0: " + tid() + "ldaperror=-1, errno = 32"));
}

TEST_F(ASearchThatIsRefused, IsRecordedInSilenceWhenABitOfTheMaskIsMissing)
{
    willRefuse(LDAP_SERVER_DOWN);
    LDAPSearch search(connection, parameter);
    for (unsigned int const mask : masksWithout(0x80001)) {
        DebugLines const lines(mask);
        connection.openldapErrorCode(0);

        thrownBy([&] { search.send(); });

        EXPECT_THAT(lines.all(), IsEmpty()) << std::hex << mask;
        EXPECT_EQ(connection.openldapErrorCode(), -1);
    }
}

TEST_F(ASearchThatIsRefused, ByAForeignExceptionHasItAsTheCause)
{
    openldap.ldap_search_ext = [](auto...) -> int {
        throw Solvane::Exception("foreign", 9, "Elsewhere.cpp", 1);
    };
    LDAPSearch search(connection, parameter);

    auto const thrown = thrownBy([&] { search.send(); });

    EXPECT_THAT(thrown, IsFault("Search.cpp", 289, 4, 4));
    EXPECT_EQ(thrown.stringParameter(), "");
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

struct NullRequestCase {
    char const* operation;
    unsigned int line;
    void (*call)(LDAPRequest&);
};

void PrintTo(NullRequestCase const& tested, std::ostream* out) { *out << tested.operation; }

class ANullRequest : public testing::TestWithParam<NullRequestCase> {};

TEST_P(ANullRequest, ThrowsFromEveryForwarderWithItsLine)
{
    LDAPRequest null;

    auto const thrown = thrownBy([&] { GetParam().call(null); });

    EXPECT_THAT(thrown, IsFault("Search.cpp", GetParam().line, 1, 0));
    EXPECT_EQ(thrown.stringParameter(), "");
    EXPECT_TRUE(null.isNull());
}

void setConnection(LDAPRequest& null)
{
    LDAPConnection connection;
    null.connection(connection);
}

INSTANTIATE_TEST_SUITE_P(
    In, ANullRequest,
    testing::Values(NullRequestCase{"setConnection", 36, setConnection},
                    NullRequestCase{"id", 44, [](LDAPRequest& null) { null.id(); }},
                    NullRequestCase{"connection", 54, [](LDAPRequest& null) { null.connection(); }},
                    NullRequestCase{"send", 63, [](LDAPRequest& null) { null.send(); }},
                    NullRequestCase{"wait", 72, [](LDAPRequest& null) { null.wait(1); }},
                    NullRequestCase{"result", 81, [](LDAPRequest& null) { null.result(); }},
                    NullRequestCase{"cancel", 90, [](LDAPRequest& null) { null.cancel(); }}),
    [](auto const& tested) { return std::string(tested.param.operation); });

TEST(ANullSearch, ThrowsWhenAskedForItsParameters)
{
    LDAPSearch const null;

    auto const thrown = thrownBy([&] { null.parameter(); });

    EXPECT_THAT(thrown, IsFault("Search.cpp", 206, 1, 0));
}

/// A search body that shows its mutex and gives it back, as no other user is left.
class OpenSearch : public LDAPSearchImpl {
public:
    ~OpenSearch() override { delete m_mutex; }
    Solvane::Mutex* mutex() const { return m_mutex; }
};

TEST_F(ASharedSearch, HasOneMutexHoweverOftenItIsShared)
{
    OpenSearch search;
    EXPECT_EQ(search.mutex(), nullptr);
    search.shared();
    Solvane::Mutex const* const first = search.mutex();

    search.shared();

    EXPECT_NE(first, nullptr);
    EXPECT_EQ(search.mutex(), first);
}

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

} // namespace
} // namespace SolvaneTest
