// Connections with the object interface: binds that a server grants and refuses, and the pool,
// which reuses and drops connections.
#include "Directory.h"
#include "Faults.h"
#include "TestedServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

using namespace Solvane;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace SolvaneTest {

class BindToAServer : public ServerTest {
protected:
    static LDAPConnection newConnection() { return LDAPConnection(server().description(), false); }
    static std::string const& reader() { return server()["READER_DN"]; }
    static std::string const& password() { return server()["READER_PW"]; }
    /// Runs a bind to its end.
    static bool bind(LDAPConnection& connection, std::string const& name, std::string const& secret)
    {
        connection.bind(name, secret, LDAPConnection::Asynchronous);
        return connection.bindWait(10);
    }
};

TEST_F(BindToAServer, IsGrantedForTheRightPassword)
{
    LDAPConnection connection = newConnection();

    bool const isDone = bind(connection, reader(), password());

    EXPECT_TRUE(isDone);
    EXPECT_EQ(connection.impl()->m_bindResult.resultType(), 1);
    EXPECT_EQ(connection.impl()->m_bindResult.resultCode(), 0);
    EXPECT_TRUE(connection.impl()->isValid());
}

TEST_F(BindToAServer, IsRefusedForTheWrongPassword)
{
    LDAPConnection connection = newConnection();
    LDAPConnection waiting = newConnection();

    auto const thrown =
        thrownBy([&] { connection.bind(reader(), "guess", LDAPConnection::Synchronous); });
    auto const thrownByTheWait = thrownBy([&] { bind(waiting, reader(), "guess"); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 241, 4, 3));
    EXPECT_EQ(connection.openldapErrorCode(), 49);
    EXPECT_THAT(thrownByTheWait, IsFault("Connection.cpp", 297, 4, 3));
    EXPECT_EQ(waiting.impl()->m_bindResult.resultCode(), 49);
}

TEST_F(BindToAServer, DoesNotTellAnUnknownNameFromAWrongPassword)
{
    LDAPConnection connection = newConnection();

    auto const thrown = thrownBy([&] { bind(connection, "cn=nobody," + server()["PEOPLE"], "x"); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 297, 4, 3));
    EXPECT_EQ(connection.impl()->m_bindResult.resultCode(), 49);
}

TEST_F(BindToAServer, WithoutTlsEndsAsTheServerIsSet)
{
    LDAPConnection connection(server().plainDescription(), false);

    bool const isDone = bind(connection, reader(), password());

    LDAPResult const& result = connection.impl()->m_bindResult;
    measured("plain_bind", result.resultCode());
    measured("plain_bind_text", result.errorMessage());
    EXPECT_EQ(isDone, !server().needsTls());
    EXPECT_EQ(result.resultCode(), server().number("PLAIN_BIND"));
    EXPECT_EQ(result.errorMessage().empty(), !server().needsTls());
}

TEST_F(BindToAServer, IsGrantedOverStartTls)
{
    LDAPConnection connection(server().plainDescription(), false);

    connection.startTls();
    bool const isDone = bind(connection, reader(), password());

    EXPECT_TRUE(isDone);
    EXPECT_THAT(namesIn(answerTo(connection,
                                 searchFor(server()["PEOPLE"], "(mail=user0000001@corp.test)"))),
                SizeIs(1));
}

TEST_F(BindToAServer, TakesAPersonsPassword)
{
    LDAPConnection connection = newConnection();

    EXPECT_TRUE(bind(connection, server().personDn(1), "pw-user0000001"));
}

TEST_F(BindToAServer, TakesAUtf8Name)
{
    LDAPConnection connection = newConnection();

    EXPECT_TRUE(bind(connection, "cn=Jürgen Größe," + server()["ESCAPES"], "pw-escape5"));
}

TEST_F(BindToAServer, TakesANameWithCharactersThatAreEscaped)
{
    LDAPConnection connection = newConnection();

    EXPECT_TRUE(bind(connection, R"(cn=comma\2c plus\2b quote\22 semi\3b,)" + server()["ESCAPES"],
                     "pw-escape2"));
}

TEST_F(BindToAServer, TakesTheOtherNamesThatTheServerKnows)
{
    if (!server().has("OTHER_BIND_NAMES")) {
        GTEST_SKIP() << "this server knows the DN only";
    }
    std::istringstream names(server()["OTHER_BIND_NAMES"]);

    for (std::string name; names >> name;) {
        LDAPConnection connection = newConnection();
        EXPECT_TRUE(bind(connection, name, password())) << name;
    }

    measured("other_bind_names", names.str());
}

TEST_F(BindToAServer, MayBeRepeatedAsAnotherIdentity)
{
    LDAPConnection connection = server().bound();

    bool const isDone = bind(connection, server().personDn(1), "pw-user0000001");

    EXPECT_TRUE(isDone);
    EXPECT_EQ(connection.impl()->m_bindDn, server().personDn(1));
}

TEST_F(BindToAServer, InProtocolVersionTwoCarriesASearch)
{
    LDAPConnection connection(server().description(LDAPConnection::V2), false);

    bool const isDone = bind(connection, reader(), password());
    int const code = connection.impl()->m_bindResult.resultCode();

    measured("version_2", code);
    ASSERT_EQ(code, server().number("VERSION_2"));
    ASSERT_EQ(isDone, code == 0);
    if (isDone) {
        auto const search = searchFor(server()["PEOPLE"], "(mail=user0000001@corp.test)");
        EXPECT_THAT(namesIn(answerTo(connection, search)), SizeIs(1));
    }
}

TEST_F(BindToAServer, LeftOutShowsWhatAnonymousUsersMaySee)
{
    LDAPConnection connection = anonymousTo(server().description());

    LDAPResult const result =
        answerTo(connection, searchFor(server()["PEOPLE"], "(mail=user0000001@corp.test)"));

    measured("anonymous_search", result.resultCode());
    measured("anonymous_search_text", result.errorMessage());
    EXPECT_EQ(result.resultCode(), server().number("ANONYMOUS_SEARCH"));
    EXPECT_EQ(namesIn(result).size(), result.resultCode() == 0 ? 1U : 0U);
}

TEST_F(BindToAServer, ShowsWhatOthersMayNotSee)
{
    if (!server().has("PRIVATE")) {
        GTEST_SKIP() << "everything needs a bind";
    }
    auto const search = searchFor(server()["PRIVATE"], "(cn=secret)");
    LDAPConnection reading = server().bound();
    LDAPConnection anonymous = anonymousTo(server().description());

    EXPECT_THAT(namesIn(answerTo(reading, search)), SizeIs(1));
    EXPECT_THAT(namesIn(answerTo(anonymous, search)), IsEmpty());
}

// The pool of the object interface: connections that it reuses, and that it drops.

class PoolOnAServer : public ServerTest {
protected:
    LDAPConnection asReader()
    {
        return pool.getConnection(description, server()["READER_DN"], server()["READER_PW"]);
    }
    static std::vector<std::string> found(LDAPConnection& connection)
    {
        return namesIn(answerTo(connection, lookupOf(server().personDn(1))));
    }
    std::list<LDAPConnection::RefServer> pooled() const
    {
        std::list<LDAPConnection::RefServer> servers;
        pool.connections(servers);
        return servers;
    }

    LDAPConnection::RefServer description = server().description();
    LDAPConnectionCache pool;
};

TEST_F(PoolOnAServer, LendsTheSameBoundConnectionAgain)
{
    LDAPConnection first = asReader();
    first.cacheMarkAsAvailable();

    LDAPConnection second = asReader();

    EXPECT_EQ(second.impl(), first.impl());
    EXPECT_EQ(pool.cacheHits().value(), 1);
    EXPECT_THAT(found(second), ElementsAre(server().personDn(1)));
}

TEST_F(PoolOnAServer, KeepsIdentitiesApart)
{
    LDAPConnection reader = asReader();
    reader.cacheMarkAsAvailable();

    LDAPConnection person = pool.getConnection(description, server().personDn(1), "pw-user0000001");

    EXPECT_NE(person.impl(), reader.impl());
    EXPECT_EQ(pool.cacheHits().value(), 0);
    EXPECT_THAT(pooled(), SizeIs(2));
}

TEST_F(PoolOnAServer, ThrowsWhenThePasswordIsWrong)
{
    auto const thrown =
        thrownBy([&] { pool.getConnection(description, server()["READER_DN"], "guess"); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 602, 4, 0));
    EXPECT_EQ(causeType(thrown), 3);
    EXPECT_THAT(pooled(), IsEmpty());
}

TEST_F(PoolOnAServer, GivesANullConnectionWhereTheBindNeedsTls)
{
    if (!server().needsTls()) {
        GTEST_SKIP() << "this server takes passwords without TLS";
    }

    LDAPConnection const refused = pool.getConnection(server().plainDescription(),
                                                      server()["READER_DN"], server()["READER_PW"]);

    EXPECT_TRUE(refused.isNull());
    EXPECT_THAT(pooled(), IsEmpty());
}

TEST_F(PoolOnAServer, DropsAConnectionThatBrokeAndOpensANewOne)
{
    LDAPConnection broken = asReader();
    server().kill();
    auto const thrown = thrownBy([&] { found(broken); });
    server().restart();
    broken.cacheMarkAsAvailable();

    LDAPConnection next = asReader();

    EXPECT_THAT(thrown,
                testing::AnyOf(IsFault("Search.cpp", 270, 4, 4), IsFault("Search.cpp", 332, 4, 4)));
    EXPECT_NE(next.impl(), broken.impl());
    EXPECT_THAT(found(next), ElementsAre(server().personDn(1)));
    EXPECT_THAT(pooled(), SizeIs(1));
}

TEST_F(PoolOnAServer, ThrowsWhenTheServerIsDown)
{
    server().kill();

    auto const thrown = thrownBy([&] { asReader(); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 602, 4, 0));
    EXPECT_EQ(causeType(thrown), 1);
    EXPECT_THAT(pooled(), IsEmpty());
}

} // namespace SolvaneTest
