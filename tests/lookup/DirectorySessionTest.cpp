// One connection to a directory: its bind, its requests, and a server that starts again.
#include "DirectorySessions.h"
#include "Eventually.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>

using namespace Solvane;
using namespace Solvane::Lookup;
using std::chrono::milliseconds;
using testing::AllOf;
using testing::AnyOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace SolvaneTest {

// Bind

class SessionOnSlapd : public SuiteWithSlapd<SessionOnSlapd> {
public:
    static std::vector<std::string> options() { return {"--users", "20"}; }

protected:
    void SetUp() override
    {
        SuiteWithSlapd::SetUp();
        if (hasSlapd()) {
            session = std::make_unique<DirectorySession>(plainSession(slapd().port(), 1));
            ASSERT_EQ(shown(session->connect(soon())), "Found 0 ");
        }
    }
    void bind() { ASSERT_EQ(shown(session->bind(readerDn, readerPassword, soon())), "Found 0 "); }
    int send(std::string const& filter)
    {
        int id = 0;
        EXPECT_EQ(shown(session->send(searchFor(filter), id)), "Found 0 ");
        return id;
    }

    std::unique_ptr<DirectorySession> session;
};

TEST_F(SessionOnSlapd, BindsAndLearnsWhoItIs)
{
    bind();

    Verdict const verdict = session->confirmIdentity(soon());

    EXPECT_EQ(shown(verdict), "Found 0 ");
    EXPECT_EQ(session->identity(), Identity::Confirmed);
    EXPECT_EQ(session->authorizationId(), "dn:cn=reader,dc=corp,dc=test");
}

TEST_F(SessionOnSlapd, IsAnonymousWithoutABind)
{
    EXPECT_EQ(session->identity(), Identity::Anonymous);
}

TEST_F(SessionOnSlapd, RefusesAWrongPassword)
{
    Verdict const verdict = session->bind(readerDn, "wrong", soon());

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("Refused 49 ldap://127.0.0.1:"),
                                      HasSubstr("the bind is refused: Invalid credentials (49)")));
}

TEST_F(SessionOnSlapd, SendsNoPasswordThatServersTakeAsAnonymous)
{
    for (std::string const& password : {std::string(), std::string("\0secret", 7)}) {
        Verdict const verdict = session->bind(readerDn, password, soon());

        EXPECT_THAT(shown(verdict),
                    AllOf(StartsWith("Misconfigured -9 "), Not(HasSubstr("secret"))));
    }
    EXPECT_THAT(shown(session->bind("", "secret", soon())),
                AllOf(StartsWith("Misconfigured -9 "), Not(HasSubstr("secret"))));
}

TEST_F(SessionOnSlapd, KeepsNoCopyOfThePassword)
{
    bind();

    EXPECT_THAT(session->connection().impl()->m_bindPassword, IsEmpty());
}

TEST_F(SessionOnSlapd, WaitsForTheBindNoLongerThanTheNetworkTimeout)
{
    slapd().pause();
    Verdict const verdict = session->bind(readerDn, readerPassword, soon());
    slapd().resume();

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("TryLater -5 "), HasSubstr("did not answer the bind within 1 s")));
}

TEST_F(SessionOnSlapd, WaitsForItsIdentityNoLongerThanTheDeadline)
{
    bind();
    slapd().pause();
    Verdict const verdict = session->confirmIdentity(in(milliseconds(300)));
    slapd().resume();

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("TryLater -5 "), HasSubstr("did not answer")));
    EXPECT_EQ(session->identity(), Identity::Unconfirmed);
}

// Requests

TEST_F(SessionOnSlapd, ReceivesOneMessageAtATime)
{
    bind();
    int const id = send("(|(uid=user0000001)(uid=user0000002))");

    EXPECT_THAT(typesFor(*session, id), testing::ElementsAre(2, 2, 4));
}

TEST_F(SessionOnSlapd, TellsTheAnswersOfTwoSearchesApart)
{
    bind();
    int const first = send("(uid=user0000001)");
    int const second = send("(uid=user0000002)");
    std::map<int, int> messages;

    LDAPMessageBuffer message;
    for (int i = 0; i < 4; ++i) {
        ++messages[session->receive(message, milliseconds(10000))];
    }

    EXPECT_NE(first, second);
    EXPECT_THAT(messages, testing::ElementsAre(testing::Pair(first, 2), testing::Pair(second, 2)));
}

TEST_F(SessionOnSlapd, ReceivesNothingWhereNothingCame)
{
    bind();
    LDAPMessageBuffer message;

    int const id = session->receive(message, milliseconds(0));

    EXPECT_EQ(id, 0);
    EXPECT_EQ(message.get(), nullptr);
}

TEST_F(SessionOnSlapd, IsUsableAfterAFilterThatIsNone)
{
    bind();
    int id = 0;

    Verdict const refused = session->send(searchFor("(uid="), id);

    EXPECT_THAT(shown(refused), AllOf(StartsWith("Misconfigured -7 "), HasSubstr("(uid=")));
    EXPECT_TRUE(session->connection().impl()->isValid());
    EXPECT_THAT(typesFor(*session, send("(uid=user0000001)")), testing::ElementsAre(2, 4));
}

TEST_F(SessionOnSlapd, SendsNoFilterThatFindsOthers)
{
    bind();
    int id = 0;

    for (std::string const& filter :
         {std::string(), std::string(" "), std::string("uid=user0000001\0x", 17)}) {
        Verdict const verdict = session->send(searchFor(filter), id);

        EXPECT_THAT(shown(verdict), StartsWith("Misconfigured -7 "));
    }
}

TEST_F(SessionOnSlapd, AsksForNoMoreEntriesThanItsLimit)
{
    bind();
    session->limits(2, 0);
    int const id = send("(objectClass=person)");
    LDAPMessageBuffer message;
    LDAPResult result(session->connection());

    while (result.resultType() != 4) {
        ASSERT_EQ(session->receive(message, milliseconds(10000)), id);
        result.impl()->parseMessage(message);
    }

    EXPECT_EQ(result.resultCode(), 4);
    EXPECT_EQ(result.searchResultEntries().size(), 2U);
}

TEST_F(SessionOnSlapd, DropsTheAnswersOfAnAbandonedSearch)
{
    bind();
    int const abandoned = send("(objectClass=person)");
    session->abandon(abandoned);
    int const id = send("(uid=user0000001)");

    EXPECT_THAT(typesFor(*session, id), testing::ElementsAre(2, 4));
}

TEST_F(SessionOnSlapd, IsStaleAfterTheServerStartedAgain)
{
    bind();
    bool const wasFresh = session->isFresh();

    slapd().kill();
    slapd().restart();

    EXPECT_TRUE(wasFresh);
    EXPECT_TRUE(eventually([&] { return !session->isFresh(); }));
}

TEST_F(SessionOnSlapd, BreaksWhereTheServerStartedAgainAndNeverConnectsAnew)
{
    bind();
    int const id = send("(uid=user0000001)");
    LDAPMessageBuffer message;
    ASSERT_EQ(session->receive(message, milliseconds(10000)), id);
    ASSERT_EQ(session->receive(message, milliseconds(10000)), id);
    slapd().kill();
    slapd().restart();
    int next = 0;

    Verdict const first = session->send(searchFor("(uid=user0000001)"), next);
    int const received = session->receive(message, milliseconds(10000));
    Verdict const second = session->send(searchFor("(uid=user0000001)"), next);
    int const receivedAgain = session->receive(message, milliseconds(10000));

    EXPECT_THAT(shown(first), AnyOf("Found 0 ", StartsWith("TryLater -1 ")));
    EXPECT_EQ(received, -1);
    EXPECT_THAT(shown(second), StartsWith("TryLater -1 "));
    EXPECT_EQ(receivedAgain, -1);
}

TEST_F(SessionOnSlapd, NeverConnectsAnewWhereItIsAnonymous)
{
    slapd().kill();
    slapd().restart();
    LDAPMessageBuffer message;
    int id = 0;
    session->send(searchFor("(uid=user0000001)"), id);

    int const received = session->receive(message, milliseconds(10000));
    Verdict const second = session->send(searchFor("(uid=user0000001)"), id);

    EXPECT_EQ(received, -1);
    EXPECT_THAT(shown(second), StartsWith("TryLater -1 "));
}

TEST(SessionInVersion2, LeavesItsIdentityUnconfirmed)
{
    if (!Slapd::isInstalled()) {
        Slapd::reportMissing();
        return;
    }
    Slapd const slapd({"--users", "0"});
    DirectorySession session(serverAt(slapd.port(), false, 5, LDAPConnection::V2), "127.0.0.1",
                             TlsPolicy());
    session.connect(soon());
    session.bind(readerDn, readerPassword, soon());

    Verdict const verdict = session.confirmIdentity(soon());

    EXPECT_EQ(shown(verdict), "Found 0 ");
    EXPECT_EQ(session.identity(), Identity::Unconfirmed);
}

} // namespace SolvaneTest
