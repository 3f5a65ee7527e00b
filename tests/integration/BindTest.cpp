// Binds that a real directory grants and refuses, over TLS too, and the end of a session, as the
// program and the server see it. The library encrypts and takes any certificate.
#include "Directory.h"
#include "Eventually.h"
#include "Faults.h"
#include "Process.h"
#include "ScriptedServer.h"
#include "Slapd.h"

#include <ldap.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

using namespace Solvane;
using testing::Each;
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

// Connections over TLS. The library encrypts and takes any certificate.

class SecureConnection : public SuiteWithSlapd<SecureConnection> {
public:
    static std::vector<std::string> options() { return {"--users", "20"}; }
};

TEST_F(SecureConnection, CarriesALookup)
{
    LDAPConnection connection = boundTo(secureServer(slapd().tlsPort()));

    LDAPResult const result =
        answerTo(connection, searchFor(people, "(mail=user0000001@corp.test)"));

    EXPECT_THAT(namesIn(result), ElementsAre("uid=user0000001,ou=people,dc=corp,dc=test"));
}

TEST_F(SecureConnection, CarriesAnAsynchronousBind)
{
    LDAPConnection connection(secureServer(slapd().tlsPort()), false);
    connection.bind(readerDn, readerPassword, LDAPConnection::Asynchronous);

    bool const isDone = connection.bindWait(10);

    EXPECT_TRUE(isDone);
    EXPECT_EQ(connection.impl()->m_bindResult.resultCode(), 0);
}

TEST_F(SecureConnection, CarriesAValueOfOneMegabyte)
{
    LDAPConnection connection = boundTo(secureServer(slapd().tlsPort()));

    LDAPResult const result = answerTo(connection, lookupOf("uid=bigphoto,ou=big,dc=corp,dc=test"));

    EXPECT_THAT(valuesIn(result, "jpegPhoto"), ElementsAre(testing::SizeIs(1048576)));
}

TEST_F(SecureConnection, MayBeginWithoutTls)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    auto* const session = static_cast<LDAP*>(connection.context());
    int const policy = LDAP_OPT_X_TLS_ALLOW;
    int const forServer = 0;
    ldap_set_option(session, LDAP_OPT_X_TLS_REQUIRE_CERT, &policy);
    ldap_set_option(session, LDAP_OPT_X_TLS_NEWCTX, &forServer);

    int const rc = ldap_start_tls_s(session, nullptr, nullptr);
    LDAPResult const result = answerTo(connection, lookupOf("uid=bigphoto,ou=big,dc=corp,dc=test"));

    EXPECT_EQ(rc, LDAP_SUCCESS);
    EXPECT_EQ(ldap_tls_inplace(session), 1);
    EXPECT_THAT(valuesIn(result, "jpegPhoto"), ElementsAre(testing::SizeIs(1048576)));
}

TEST_F(SecureConnection, IsMadeInSeveralThreadsAtOnce)
{
    auto const lookup = [] {
        LDAPConnection connection = boundTo(secureServer(slapd().tlsPort()));
        return namesIn(answerTo(connection, searchFor(people, "(uid=user0000001)"))).size();
    };

    std::vector<std::future<std::size_t>> threads;
    for (int i = 0; i < 8; ++i) {
        threads.push_back(std::async(std::launch::async, lookup));
    }
    std::vector<std::size_t> found;
    for (auto& thread : threads) {
        found.push_back(thread.get());
    }

    EXPECT_THAT(found, Each(1U));
}

/// The policy is the process's, and OpenLDAP copies it early: the first connection is the one that
/// could miss it.
class FirstSecureConnection : public testing::TestWithParam<char const*> {};

TEST_P(FirstSecureConnection, OfAProcessTakesAnyCertificate)
{
    if (!Slapd::isInstalled()) {
        Slapd::reportMissing();
        return;
    }
    Slapd const slapd({"--users", "0", "--cert", GetParam()});

    ProgramOutcome const outcome =
        run({SOLVANE_FIRST_SECURE_BIND, std::to_string(slapd.tlsPort())});

    EXPECT_EQ(outcome.exitStatus, 0) << outcome.output;
}

INSTANTIATE_TEST_SUITE_P(Certificate, FirstSecureConnection,
                         testing::Values("good", "bad", "expired"),
                         [](auto const& certificate) { return std::string(certificate.param); });

// The end of a session, as the program and the server see it.

namespace {

constexpr char person[] = "uid=user0000001,ou=people,dc=corp,dc=test";

} // namespace

class Unbind : public SuiteWithSlapd<Unbind> {
public:
    static std::vector<std::string> options() { return {"--users", "20"}; }

protected:
    void SetUp() override
    {
        SuiteWithSlapd<Unbind>::SetUp();
        if (hasSlapd()) {
            connection = boundTo(plainServer(slapd().port()));
        }
    }

    static bool serverHas(long connections)
    {
        return eventually([&] { return slapd().connectionCount() == connections; });
    }

    LDAPConnection connection;
};

TEST_F(Unbind, ClosesTheConnectionOnTheServer)
{
    bool const wasThere = serverHas(1);

    int const rc = connection.unbind();

    EXPECT_TRUE(wasThere);
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(serverHas(0));
}

TEST_F(Unbind, IsDoneByTheLastHandle)
{
    bool const wasThere = serverHas(1);

    connection = LDAPConnection();

    EXPECT_TRUE(wasThere);
    EXPECT_TRUE(serverHas(0));
}

TEST_F(Unbind, IsNotDoneByAnyOtherHandle)
{
    {
        LDAPConnection const copy(connection);
    }

    LDAPResult const result = answerTo(connection, lookupOf(person));

    EXPECT_EQ(result.resultCode(), 0);
    EXPECT_TRUE(serverHas(1));
}

TEST_F(Unbind, IsNotDoneWhileASearchHoldsTheConnection)
{
    LDAPSearch search(connection, lookupOf(person));
    connection = LDAPConnection();

    LDAPResult const result = answerTo(search);

    EXPECT_EQ(result.resultCode(), 0);
    EXPECT_TRUE(serverHas(1));
}

TEST_F(Unbind, LetsNoSearchBeAwaited)
{
    LDAPSearch search(connection, lookupOf(person));
    search.send();
    connection.unbind();

    EXPECT_THAT(thrownBy([&] { search.wait(1); }),
                IsFault("Search.cpp", 332, 4, 4, "Can't contact LDAP server"));
    EXPECT_EQ(connection.openldapErrorCode(), -1);
}

TEST_F(Unbind, LeavesAResultReadable)
{
    LDAPResult const result = answerTo(connection, lookupOf(person));

    connection.unbind();

    EXPECT_THAT(namesIn(result), testing::ElementsAre(person));
}

} // namespace SolvaneTest
