// The schema of a real directory, and of peers that give none.
#include "Directory.h"
#include "Eventually.h"
#include "Faults.h"
#include "LdapMessages.h"
#include "ScriptedServer.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ldap.h>

using namespace Solvane;
using testing::HasSubstr;
using testing::IsEmpty;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

constexpr unsigned int patience = 10; // seconds

LDAPConnection bareTo(ScriptedServer const& server)
{
    return LDAPConnection(plainServer(server.port()), true);
}

} // namespace

class TheSchemaOfADirectory : public SuiteWithSlapd<TheSchemaOfADirectory> {
public:
    static std::vector<std::string> options() { return {"--users", "1"}; }
};

TEST_F(TheSchemaOfADirectory, HasItsAttributeTypes)
{
    LDAPConnection const connection = boundTo(plainServer(slapd().port()));

    LDAPSchema const schema = LDAPSchema::read(connection, patience);

    EXPECT_THAT(schema.malformed(), IsEmpty());
    ASSERT_NE(schema.find("mail"), nullptr);
    EXPECT_EQ(schema.find("mail"), schema.find("rfc822Mailbox"));
    EXPECT_EQ(schema.find("mail")->oid, "0.9.2342.19200300.100.1.3");
    ASSERT_NE(schema.find("cn"), nullptr);
    EXPECT_EQ(schema.find("cn")->syntax, "");
    EXPECT_EQ(schema.resolved(*schema.find("cn")).equality, "caseIgnoreMatch");
    EXPECT_TRUE(schema.isSameType("cn;lang-de", "2.5.4.3"));
    EXPECT_EQ(schema.find("noSuchThing"), nullptr);
    EXPECT_EQ(schema.find("entryUUID")->usage, LDAPSchema::UsageDirectory);
    EXPECT_GT(schema.attributeTypes().size(), 50U);
}

TEST(TheSchemaOfAPeer, IsAnErrorWithoutAPlaceForIt)
{
    ScriptedServer const server([](Peer& peer) {
        int const id = messageIdOf(peer.receiveMessage());
        peer.send(searchEntry(id, "", {}) + searchDone(id));
        peer.receiveUntilClosed();
    });
    LDAPConnection const connection = bareTo(server);

    auto const thrown = thrownBy([&] { LDAPSchema::read(connection, patience); });

    EXPECT_THAT(thrown, IsFault("Schema.cpp", 55, 4, 6));
    EXPECT_THAT(thrown.stringParameter(), HasSubstr("subschemaSubentry of ''"));
}

TEST(TheSchemaOfAPeer, IsAnErrorWithTheServersReason)
{
    ScriptedServer const server([](Peer& peer) {
        peer.send(searchDone(messageIdOf(peer.receiveMessage()), LDAP_INSUFFICIENT_ACCESS));
        peer.receiveUntilClosed();
    });
    LDAPConnection const connection = bareTo(server);

    auto const thrown = thrownBy([&] { LDAPSchema::read(connection, patience); });

    EXPECT_THAT(thrown, IsFault("Schema.cpp", 55, 4, 6));
    EXPECT_THAT(thrown.stringParameter(), HasSubstr("(50)"));
}

TEST(TheSchemaOfASilentPeer, IsAnErrorWhenTheTimeRunsOut)
{
    ScriptedServer const server([](Peer& peer) { peer.receiveUntilClosed(); });
    LDAPConnection const connection = bareTo(server);

    auto const thrown = thrownBy([&] { LDAPSchema::read(connection, 1); });

    EXPECT_THAT(thrown, IsFault("Schema.cpp", 55, 4, 6));
    EXPECT_THAT(thrown.stringParameter(), HasSubstr("Timed out"));
    ASSERT_TRUE(eventually([&] { return server.receivedCount() == 2; })); // the abandon
}

} // namespace SolvaneTest
