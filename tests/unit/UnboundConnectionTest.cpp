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

TEST_F(AnUnboundConnection, UnbindsOnceMoreWithoutACallAlsoThroughACopy)
{
    LDAPConnection copy(connection);

    EXPECT_EQ(connection.unbind(), 0);
    EXPECT_EQ(copy.unbind(), 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, IsDestroyedWithoutACall)
{
    connection = LDAPConnection();

    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, RefusesABindInEitherMode)
{
    for (auto const mode : {LDAPConnection::Synchronous, LDAPConnection::Asynchronous}) {
        EXPECT_THAT(thrownBy([&] { connection.bind("cn=admin", "secret", mode); }),
                    IsFault("Connection.cpp", 208, 4, 3, ""));
        EXPECT_EQ(body().m_bindDn, "");
        EXPECT_EQ(connection.openldapErrorCode(), 0);
    }
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, RefusesToWaitForABind)
{
    EXPECT_THAT(thrownBy([&] { connection.bindWait(5); }),
                IsFault("Connection.cpp", 278, 4, 3,
                        "m_context=0, bind probably failed, unbind was called, then wait()"));
    EXPECT_EQ(connection.openldapErrorCode(), 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, IsNotValid)
{
    EXPECT_FALSE(body().isValid());
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, FailsToSetAndReadAnOptionAsOnADeadServer)
{
    int const deref = LDAP_DEREF_ALWAYS;
    int version = 0;

    EXPECT_THAT(thrownBy([&] { body().setOption(LDAP_OPT_DEREF, &deref); }),
                IsFault("Connection.cpp", 519, 4, 2, "Can't contact LDAP server"));
    EXPECT_THAT(thrownBy([&] { body().getOption(LDAP_OPT_PROTOCOL_VERSION, &version); }),
                IsFault("Connection.cpp", 509, 4, 2, "Can't contact LDAP server"));
    EXPECT_EQ(version, 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, FailsToSendASearchAsOnADeadServer)
{
    LDAPSearch::Parameter parameter("dc=example");
    parameter.filter = "(cn=a)";
    parameter.deref = LDAPSearch::DerefAlways;
    LDAPSearch search(connection, parameter);

    EXPECT_THAT(thrownBy([&] { search.send(); }),
                IsFault("Search.cpp", 270, 4, 4, "Can't contact LDAP server : (cn=a)"));
    EXPECT_EQ(search.id(), 0);
    EXPECT_EQ(connection.openldapErrorCode(), -1);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnUnboundConnection, FailsToAwaitASearchAsOnADeadServer)
{
    LDAPSearch search(connection, LDAPSearch::Parameter("dc=example"));

    EXPECT_THAT(thrownBy([&] { search.wait(5); }),
                IsFault("Search.cpp", 332, 4, 4, "Can't contact LDAP server"));
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
