// A connection whose session was ended: its pointer is never handed to OpenLDAP again.
#include "CallTest.h"

namespace SolvaneTest {
namespace {

using Solvane::LDAPConnection;
using Solvane::LDAPSearch;
using testing::ElementsAre;
using testing::IsEmpty;

class AnUnboundConnection : public ConnectedTest {
protected:
    AnUnboundConnection()
    {
        connection.unbind();
        openldap.forgetCalls();
    }
};

TEST_F(AnUnboundConnection, KeepsItsContextForTheEye)
{
    EXPECT_NE(connection.context(), nullptr);
    EXPECT_EQ(body().session(), nullptr);
}

TEST_F(AnUnboundConnection, UnbindsOnceMoreWithoutACall)
{
    int const rc = connection.unbind();

    EXPECT_EQ(rc, 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, IsDestroyedWithoutACall)
{
    connection = LDAPConnection();

    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, IsUnboundForItsCopiesToo)
{
    LDAPConnection copy(connection);

    int const rc = copy.unbind();

    EXPECT_EQ(rc, 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, RefusesASynchronousBind)
{
    auto const thrown =
        thrownBy([&] { connection.bind("cn=admin", "secret", LDAPConnection::Synchronous); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 208, 4, 3));
    EXPECT_EQ(thrown.stringParameter(), "");
    EXPECT_EQ(body().m_bindDn, "");
    EXPECT_EQ(connection.openldapErrorCode(), 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, RefusesAnAsynchronousBind)
{
    auto const thrown =
        thrownBy([&] { connection.bind("cn=admin", "secret", LDAPConnection::Asynchronous); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 208, 4, 3));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, RefusesToWaitForABind)
{
    auto const thrown = thrownBy([&] { connection.bindWait(5); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 278, 4, 3));
    EXPECT_EQ(thrown.stringParameter(),
              "m_context=0, bind probably failed, unbind was called, then wait()");
    EXPECT_EQ(connection.openldapErrorCode(), 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, IsNotValid)
{
    EXPECT_FALSE(body().isValid());
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, FailsToSetAnOptionAsOnADeadServer)
{
    int const deref = LDAP_DEREF_ALWAYS;

    auto const thrown = thrownBy([&] { body().setOption(LDAP_OPT_DEREF, &deref); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 519, 4, 2));
    EXPECT_EQ(thrown.stringParameter(), "Can't contact LDAP server");
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, FailsToReadAnOptionAsOnADeadServer)
{
    int version = 0;

    auto const thrown = thrownBy([&] { body().getOption(LDAP_OPT_PROTOCOL_VERSION, &version); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 509, 4, 2));
    EXPECT_EQ(thrown.stringParameter(), "Can't contact LDAP server");
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, FailsToSendASearchAsOnADeadServer)
{
    LDAPSearch::Parameter parameter("dc=example");
    parameter.filter = "(cn=a)";
    parameter.deref = LDAPSearch::DerefAlways;
    LDAPSearch search(connection, parameter);

    auto const thrown = thrownBy([&] { search.send(); });

    EXPECT_THAT(thrown, IsFault("Search.cpp", 270, 4, 4));
    EXPECT_EQ(thrown.stringParameter(), "Can't contact LDAP server : (cn=a)");
    EXPECT_EQ(search.id(), 0);
    EXPECT_EQ(connection.openldapErrorCode(), -1);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, FailsToAwaitASearchAsOnADeadServer)
{
    LDAPSearch search(connection, LDAPSearch::Parameter("dc=example"));

    auto const thrown = thrownBy([&] { search.wait(5); });

    EXPECT_THAT(thrown, IsFault("Search.cpp", 332, 4, 4));
    EXPECT_EQ(thrown.stringParameter(), "Can't contact LDAP server");
    EXPECT_EQ(connection.openldapErrorCode(), -1);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, TracesItsFailuresAsOnADeadServer)
{
    LDAPSearch search(connection, LDAPSearch::Parameter("dc=example"));
    DebugLines const lines(0x80001);

    body().isValid();
    thrownBy([&] { search.send(); });
    thrownBy([&] { search.wait(5); });

    using testing::StartsWith;
    EXPECT_THAT(lines.all(),
                ElementsAre(StartsWith("Connection:462 isValid 0: " + tid() +
                                       "Unable to get socket descriptor: rc:-1, errno:"),
                            StartsWith("Search:276 send 0: " + tid() + "ldaperror=-1, errno = "),
                            StartsWith("Search:335 wait 0: " + tid() + "ldaperror=-1, errno = ")));
}

} // namespace
} // namespace SolvaneTest
