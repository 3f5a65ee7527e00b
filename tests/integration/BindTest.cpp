// Binds that a real directory grants and refuses.
#include "Directory.h"
#include "Faults.h"
#include "ScriptedServer.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Solvane;
using testing::ElementsAre;

namespace SolvaneTest {

class Bind : public SuiteWithSlapd<Bind> {
public:
    static std::vector<std::string> options() { return {"--users", "20", "--retcode"}; }

protected:
    LDAPConnection newConnection() { return LDAPConnection(plainServer(slapd().port()), false); }
    std::string invalidCredentials()
    {
        return "Error: 'Invalid credentials' during bind to ldap://[127.0.0.1]:" +
               std::to_string(slapd().port()) + '/';
    }
};

TEST_F(Bind, WithTheRightPasswordMakesTheConnectionValid)
{
    LDAPConnection connection = newConnection();

    connection.bind(readerDn, readerPassword, LDAPConnection::Synchronous);

    EXPECT_TRUE(connection.impl()->isValid());
}

TEST_F(Bind, IsCompletedByTheWait)
{
    LDAPConnection connection = newConnection();
    connection.bind(readerDn, readerPassword, LDAPConnection::Asynchronous);

    bool const isDone = connection.bindWait(10);

    EXPECT_TRUE(isDone);
    EXPECT_EQ(connection.impl()->m_bindResult.resultCode(), 0);
    EXPECT_EQ(connection.impl()->m_bindResult.resultType(), 1);
    EXPECT_TRUE(connection.impl()->isValid());
}

TEST_F(Bind, WithTheWrongPasswordFails)
{
    LDAPConnection connection = newConnection();

    EXPECT_THAT(thrownBy([&] { connection.bind(readerDn, "guess", LDAPConnection::Synchronous); }),
                IsFault("Connection.cpp", 241, 4, 3, invalidCredentials()));
    EXPECT_EQ(connection.openldapErrorCode(), 49);
    EXPECT_FALSE(connection.impl()->isValid());
}

TEST_F(Bind, WithTheWrongPasswordFailsInTheWait)
{
    LDAPConnection connection = newConnection();
    connection.bind(readerDn, "guess", LDAPConnection::Asynchronous);

    EXPECT_THAT(thrownBy([&] { connection.bindWait(10); }),
                IsFault("Connection.cpp", 297, 4, 3, invalidCredentials()));
    EXPECT_EQ(connection.openldapErrorCode(), 0);
}

TEST_F(Bind, RefusedByABusyServerFails)
{
    LDAPConnection connection = newConnection();

    EXPECT_THAT(thrownBy([&] {
                    connection.bind("cn=busy,ou=codes,dc=corp,dc=test", "any",
                                    LDAPConnection::Synchronous);
                }),
                IsFault("Connection.cpp", 241, 4, 3));
    EXPECT_EQ(connection.openldapErrorCode(), 51);
}

TEST_F(Bind, RefusedByABusyServerIsReportedByTheWaitWithItsCode)
{
    LDAPConnection connection = newConnection();
    connection.bind("cn=busy,ou=codes,dc=corp,dc=test", "any", LDAPConnection::Asynchronous);

    bool const isDone = connection.bindWait(10);

    EXPECT_FALSE(isDone);
    EXPECT_EQ(connection.impl()->m_bindResult.resultCode(), 51);
    EXPECT_EQ(connection.impl()->m_bindResult.errorMessage(), "come back later");
    EXPECT_EQ(connection.openldapErrorCode(), 0);
}

TEST_F(Bind, MayBeRepeatedAsAnotherIdentity)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));

    connection.bind("uid=user0000001,ou=people,dc=corp,dc=test", "pw-user0000001",
                    LDAPConnection::Asynchronous);
    bool const isDone = connection.bindWait(10);

    EXPECT_TRUE(isDone);
    EXPECT_EQ(connection.impl()->m_bindDn, "uid=user0000001,ou=people,dc=corp,dc=test");
}

TEST_F(Bind, TakesAUtf8Name)
{
    LDAPConnection connection = newConnection();

    EXPECT_NO_THROW(connection.bind("cn=Jürgen Größe,ou=escapes,dc=corp,dc=test", "pw-escape5",
                                    LDAPConnection::Synchronous));
}

TEST_F(Bind, WorksInProtocolVersionTwo)
{
    LDAPConnection connection = boundTo(version2Server(slapd().port()));

    LDAPResult const result =
        answerTo(connection, searchFor(people, "(mail=user0000001@corp.test)"));

    EXPECT_THAT(namesIn(result), ElementsAre("uid=user0000001,ou=people,dc=corp,dc=test"));
}

TEST_F(Bind, MayHaveItsWaitRepeatedAfterATimeout)
{
    LDAPConnection connection = newConnection();
    connection.bind(readerDn, readerPassword, LDAPConnection::Synchronous); // connects
    slapd().pause();
    connection.bind(readerDn, readerPassword, LDAPConnection::Asynchronous);

    bool const withoutAnswer = connection.bindWait(0);
    bool const hadResult = !connection.impl()->m_bindResult.isNull();
    slapd().resume();
    bool const withAnswer = connection.bindWait(10);

    EXPECT_TRUE(withoutAnswer);
    EXPECT_FALSE(hadResult);
    EXPECT_TRUE(withAnswer);
    EXPECT_EQ(connection.impl()->m_bindResult.resultType(), 1);
}

TEST(BindToAnUnreachableServer, SaysThatTheServerIsUnreachable)
{
    RefusingPort const port;
    LDAPConnection connection(plainServer(port.number()), false);

    EXPECT_THAT(thrownBy([&] { bindAsReader(connection); }), IsFault("Connection.cpp", 241, 4, 1));
    EXPECT_EQ(connection.openldapErrorCode(), -1);
}

TEST(BindToAnUnreachableServer, SaysSoBeforeTheWait)
{
    RefusingPort const port;
    LDAPConnection connection(plainServer(port.number()), false);

    EXPECT_THAT(
        thrownBy([&] { connection.bind(readerDn, readerPassword, LDAPConnection::Asynchronous); }),
        IsFault("Connection.cpp", 241, 4, 1));
}

TEST(BindToAnUnreachableServer, SaysSoOverTlsToo)
{
    RefusingPort const port;
    LDAPConnection connection(secureServer(port.number()), false);

    EXPECT_THAT(thrownBy([&] { bindAsReader(connection); }), IsFault("Connection.cpp", 241, 4, 1));
}

class BindToAStrictServer : public SuiteWithSlapd<BindToAStrictServer> {
public:
    static std::vector<std::string> options() { return {"--users", "0", "--no-v2", "--no-anon"}; }
};

TEST_F(BindToAStrictServer, FailsInProtocolVersionTwo)
{
    LDAPConnection connection(version2Server(slapd().port()), false);

    EXPECT_THAT(thrownBy([&] { bindAsReader(connection); }), IsFault("Connection.cpp", 241, 4, 3));
    EXPECT_EQ(connection.openldapErrorCode(), 2);
}

TEST_F(BindToAStrictServer, IsRefusedInTheWaitInProtocolVersionTwo)
{
    LDAPConnection connection(version2Server(slapd().port()), false);
    connection.bind(readerDn, readerPassword, LDAPConnection::Asynchronous);

    bool const isDone = connection.bindWait(10);

    EXPECT_FALSE(isDone);
    EXPECT_EQ(connection.impl()->m_bindResult.resultCode(), 2);
    EXPECT_EQ(connection.impl()->m_bindResult.errorMessage(),
              "historical protocol version requested, use LDAPv3 instead");
}

TEST_F(BindToAStrictServer, IsRefusedWithoutAName)
{
    LDAPConnection connection(plainServer(slapd().port()), true);
    connection.bind("", "", LDAPConnection::Asynchronous);

    bool const isDone = connection.bindWait(10);

    EXPECT_FALSE(isDone);
    EXPECT_EQ(connection.impl()->m_bindResult.resultCode(), 48);
}

} // namespace SolvaneTest
