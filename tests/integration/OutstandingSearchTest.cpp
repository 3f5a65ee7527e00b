// Searches that are sent and not yet answered, awaited in any order or by a caller that polls the
// socket.
#include "Directory.h"
#include "LdapMessages.h"
#include "ScriptedServer.h"
#include "Slapd.h"

#include <ldap.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <poll.h>

#include <memory>
#include <vector>

using namespace Solvane;
using testing::ElementsAre;

namespace SolvaneTest {

namespace {

constexpr char first[] = "uid=user0000001,ou=people,dc=corp,dc=test";
constexpr char second[] = "uid=user0000002,ou=people,dc=corp,dc=test";

/// The answer to two searches, of which the first id is `first`.
using Answers = std::string (*)(int first, int second);

std::string answerOf(int id) { return searchEntry(id, "cn=x", {}) + searchDone(id); }

std::string inOrder(int first, int second) { return answerOf(first) + answerOf(second); }

std::string reversed(int first, int second) { return answerOf(second) + answerOf(first); }

/// More than any buffer holds, of the second search, before the first one's answer.
std::string behindManyEntries(int first, int second)
{
    std::string entries;
    for (int i = 0; i < 2000; ++i) {
        entries += searchEntry(second, "cn=x", {{"cn", {std::string(50, 'x')}}});
    }
    return entries + searchDone(second) + answerOf(first);
}

/// What is asked for.
LDAPSearch::Parameter const query = searchFor("dc=corp,dc=test", "(cn=x)");

/// False if nothing arrives although the search has not ended.
bool finish(LDAPSearch& search)
{
    constexpr int patience = 10000; // milliseconds
    int descriptor = -1;
    search.connection().impl()->getOption(LDAP_OPT_DESC, &descriptor);
    while (search.wait(0)) {
        pollfd waited{descriptor, POLLIN, 0};
        if (poll(&waited, 1, patience) == 0) {
            return false;
        }
    }
    return true;
}

} // namespace

class OutstandingSearch : public SuiteWithSlapd<OutstandingSearch> {
public:
    static std::vector<std::string> options() { return {"--users", "20"}; }

protected:
    void SetUp() override
    {
        SuiteWithSlapd<OutstandingSearch>::SetUp();
        if (hasSlapd()) {
            connection = boundTo(plainServer(slapd().port()));
        }
    }

    LDAPConnection connection;
};

TEST_F(OutstandingSearch, GetsItsOwnAnswersInWhateverOrderTheyAreAwaited)
{
    LDAPSearch searchForFirst(connection, lookupOf(first));
    LDAPSearch searchForSecond(connection, lookupOf(second));
    searchForFirst.send();
    searchForSecond.send();

    searchForSecond.wait(10);
    searchForFirst.wait(10);

    EXPECT_NE(searchForFirst.id(), searchForSecond.id());
    EXPECT_THAT(namesIn(searchForFirst.result()), ElementsAre(first));
    EXPECT_THAT(namesIn(searchForSecond.result()), ElementsAre(second));
}

TEST_F(OutstandingSearch, MayBePolledAndAwaitedAgain)
{
    LDAPSearch search(connection, lookupOf(first));
    slapd().pause();
    search.send();

    bool const isUnanswered = search.wait(0);
    slapd().resume();
    bool const isStillUnanswered = search.wait(10);

    EXPECT_TRUE(isUnanswered);
    EXPECT_FALSE(isStillUnanswered);
    EXPECT_THAT(namesIn(search.result()), ElementsAre(first));
}

TEST_F(OutstandingSearch, GoesOnWhenItIsCancelled)
{
    LDAPSearch search(connection, lookupOf(first));
    search.send();
    int const id = search.id();

    search.cancel();
    search.wait(10);

    EXPECT_EQ(search.id(), id);
    EXPECT_THAT(namesIn(search.result()), ElementsAre(first));
}

TEST_F(OutstandingSearch, MayBeDestroyedUnanswered)
{
    LDAPSearch(connection, lookupOf(first)).send();

    LDAPResult const result = answerTo(connection, lookupOf(second));

    EXPECT_THAT(namesIn(result), ElementsAre(second));
}

TEST_F(OutstandingSearch, CollectsTheAnswersOfEachTimeItIsSent)
{
    LDAPSearch::RefParameter const parameter(lookupOf(first));
    LDAPSearch search(connection, parameter);
    answerTo(search);
    parameter->baseDN = second;

    LDAPResult const result = answerTo(search);

    EXPECT_THAT(namesIn(result), ElementsAre(first, second));
}

// Searches whose answers come in one piece, awaited by a caller that polls the socket in between.

class TwoSearchesInFlight : public testing::TestWithParam<Answers> {};

TEST_P(TwoSearchesInFlight, EndForACallerThatPollsTheSocket)
{
    ScriptedServer const server([](ScriptedServer::Peer& peer) {
        peer.grantBind();
        int const first = messageIdOf(peer.receiveMessage());
        int const second = messageIdOf(peer.receiveMessage());
        peer.send(GetParam()(first, second));
        peer.receiveUntilClosed();
    });
    LDAPConnection connection = boundTo(plainServer(server.port()));
    LDAPSearch first(connection, query);
    LDAPSearch second(connection, query);

    first.send();
    second.send();

    EXPECT_TRUE(finish(first));
    EXPECT_TRUE(finish(second));
    EXPECT_EQ(first.result().searchResultEntries().size(), 1U);
    EXPECT_GE(second.result().searchResultEntries().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(WithAnswers, TwoSearchesInFlight,
                         testing::Values(inOrder, reversed, behindManyEntries));

/// Three messages that arrive in one piece, for a caller that uses the session itself.
TEST(ACallerThatPollsTheSocket, GetsAMessageForEachReadiness)
{
    ScriptedServer const server([](ScriptedServer::Peer& peer) {
        peer.grantBind();
        int const id = messageIdOf(peer.receiveMessage());
        peer.send(searchEntry(id, "cn=x", {}) + answerOf(id));
        peer.receiveUntilClosed();
    });
    LDAPConnection connection = boundTo(plainServer(server.port()));
    LDAPSearch search(connection, query);
    search.send();
    auto* const session = static_cast<LDAP*>(connection.context());
    int descriptor = -1;
    ldap_get_option(session, LDAP_OPT_DESC, &descriptor);

    std::vector<int> received;
    pollfd waited{descriptor, POLLIN, 0};
    while (received.size() < 3 && poll(&waited, 1, 5000) == 1) {
        timeval none = {0, 0};
        LDAPMessageBuffer message;
        received.push_back(
            ldap_result(session, LDAP_RES_ANY, LDAP_MSG_ONE, &none, message.address()));
    }

    EXPECT_THAT(received, testing::ElementsAre(LDAP_RES_SEARCH_ENTRY, LDAP_RES_SEARCH_ENTRY,
                                               LDAP_RES_SEARCH_RESULT));
}

} // namespace SolvaneTest
