// Binds as requests on an open session.
#include "LdapMessages.h"
#include "ScriptedServer.h"
#include "Sessions.h"

#include <solvane/session/BindResult.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Solvane;
using namespace Solvane::Lookup;
using testing::HasSubstr;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;
using Received = Session::Received;

constexpr char userDn[] = "uid=user,dc=corp,dc=test";

/// Answers each bind with the number of its attempt as result code, from 0.
ScriptedServer::Script counting()
{
    return [](Peer& peer) {
        int attempts = 0;
        for (std::string request = peer.receiveMessage(); !request.empty();
             request = peer.receiveMessage()) {
            if (operationOf(request) == BindRequest) {
                peer.send(bindResponse(messageIdOf(request), attempts++));
            }
        }
    };
}

/// The code of a bind's response.
int codeOf(Session& session, int id)
{
    Session::Message message;
    BindResult result;
    EXPECT_EQ(next(session, message), Received::message);
    EXPECT_EQ(message.id, id);
    EXPECT_TRUE(readBindResult(session, message, result));
    return result.code;
}

} // namespace

TEST(UnconnectedSession, CannotBindAUser)
{
    Session session(plainOptions(1));
    int id = 0;

    EXPECT_THAT(shown(session.authenticate(userDn, "password", id)), HasSubstr("not connected"));
}

TEST(OpenSession, BindsOneUserAfterAnother)
{
    ScriptedServer const server(counting());
    Session session(plainOptions(server.port()));
    ASSERT_TRUE(session.reach(Lookup::Step::bind, soon()).isGood());

    for (int attempt = 0; attempt < 3; ++attempt) {
        int id = 0;
        ASSERT_TRUE(session.authenticate(userDn, "password", id).isGood());
        session.flush();
        EXPECT_EQ(codeOf(session, id), attempt);
    }
    EXPECT_TRUE(session.isFresh());
}

TEST(OpenSession, SendsNoBindThatWouldBeAnonymous)
{
    ScriptedServer const server(counting());
    Session session(plainOptions(server.port()));
    ASSERT_TRUE(session.reach(Lookup::Step::bind, soon()).isGood());
    int id = 0;

    EXPECT_EQ(session.authenticate("", "password", id).code, -9);
    EXPECT_EQ(session.authenticate(userDn, "", id).code, -9);
    EXPECT_EQ(session.authenticate(userDn, std::string("\0password", 9), id).code, -9);
    EXPECT_EQ(session.authenticate(std::string("uid=\0user", 9), "password", id).code, -9);
    session.flush();
    EXPECT_TRUE(session.isFresh());
    EXPECT_EQ(server.receivedCount(), 0U);
}

TEST(OpenSession, SendsNoBindWhileAnotherRequestIsPending)
{
    ScriptedServer const server(counting());
    Session session(plainOptions(server.port()));
    ASSERT_TRUE(session.reach(Lookup::Step::bind, soon()).isGood());
    int id = 0;
    ASSERT_TRUE(session.send(peopleSearch(), "(cn=x)", id).isGood());

    EXPECT_THAT(shown(session.authenticate(userDn, "password", id)), HasSubstr("pending"));
}

TEST(BindResponseToRead, IsNoMessageOfAnotherType)
{
    ScriptedServer const server([](Peer& peer) {
        std::string const request = peer.receiveMessage();
        peer.send(searchDone(messageIdOf(request)));
        peer.receiveUntilClosed();
    });
    Session session(plainOptions(server.port()));
    ASSERT_TRUE(session.reach(Lookup::Step::bind, soon()).isGood());
    int id = 0;
    ASSERT_TRUE(session.authenticate(userDn, "password", id).isGood());
    session.flush();
    Session::Message message;
    BindResult result;

    EXPECT_FALSE(readBindResult(session, message, result)); // none yet
    ASSERT_EQ(next(session, message), Received::message);
    EXPECT_FALSE(readBindResult(session, message, result));
}

} // namespace SolvaneTest
