// The guard of a session: which connections it lets through, and how large it lets their messages be.
#include "SocketGuardTest.h"

#include <cerrno>
#include <vector>

namespace SolvaneTest {
namespace {

using Solvane::LDAPConnection;
using Solvane::SocketGuard;
using testing::ElementsAre;
using testing::IsEmpty;

/// What is left for OpenLDAP's own layers to close.
int g_notedDescriptor = 0;

int takeNote(Sockbuf_IO_Desc* layer)
{
    RealCalls const unseen;
    ber_sockbuf_ctrl(layer->sbiod_sb, LBER_SB_OPT_GET_FD, &g_notedDescriptor);
    return 0;
}

TEST_F(AGuard, LetsASessionConnectThatWasNeverBound)
{
    EXPECT_EQ(connected.offerTo(guard.callback()), 0);
}

TEST_F(AGuard, LetsASessionConnectAgainThatWasNeverBound)
{
    connected.offerTo(guard.callback());
    Connected second;

    EXPECT_EQ(second.offerTo(guard.callback()), 0);
}

TEST_F(AGuard, LetsASessionConnectWithinABind)
{
    SocketGuard::BindScope const bind(guard);

    EXPECT_EQ(connected.offerTo(guard.callback()), 0);
}

TEST_F(AGuard, RefusesASecondConnectionOfASessionThatWasGivenToABind)
{
    {
        SocketGuard::BindScope const bind(guard);
        connected.offerTo(guard.callback());
    }
    Connected second;

    EXPECT_EQ(second.offerTo(guard.callback()), -1);
}

TEST_F(AGuard, RefusesAConnectionAfterABindThatNeverConnected)
{
    {
        SocketGuard::BindScope const bind(guard);
    }

    EXPECT_EQ(connected.offerTo(guard.callback()), -1);
}

TEST_F(AGuard, LetsANewBindConnectAgain)
{
    {
        SocketGuard::BindScope const bind(guard);
        connected.offerTo(guard.callback());
    }
    Connected second;
    SocketGuard::BindScope const again(guard);

    EXPECT_EQ(second.offerTo(guard.callback()), 0);
}

// OpenLDAP would close it as well, but keep its number and take the session for connected.
TEST_F(AGuard, LetsASessionConnectForTheLastTime)
{
    {
        SocketGuard::LastConnectScope const connecting(guard);
        EXPECT_EQ(connected.offerTo(guard.callback()), 0);
    }
    Connected second;
    Connected third;

    int const byItself = second.offerTo(guard.callback());
    SocketGuard::BindScope const binding(guard);
    int const withinABind = third.offerTo(guard.callback());

    EXPECT_EQ(byItself, -1);
    EXPECT_EQ(withinABind, -1);
}

TEST_F(AGuard, EndsAConnectionWhenTold)
{
    connected.offerTo(guard.callback());

    guard.end();

    EXPECT_FALSE(guard.isUsable());
    EXPECT_EQ(connected.write("goodbye"), -1);
    EXPECT_EQ(connected.peerReads(), "");
}

TEST_F(AGuard, ClosesAConnectionThatItRefusesAndTakesItsNumberAway)
{
    {
        SocketGuard::BindScope const bind(guard);
    }

    connected.offerTo(guard.callback());

    EXPECT_EQ(connected.peerReads(), "");
    EXPECT_EQ(connected.descriptor(), -1);
}

class EachStepThatFails : public AGuard, public testing::WithParamInterface<int> {};

TEST_P(EachStepThatFails, RefusesTheConnectionAndClosesIt)
{
    int step = 0;
    openldap.ber_sockbuf_add_io = [&](Sockbuf* socket, Sockbuf_IO* io, int level, void* argument) {
        return ++step == GetParam() ? -1 : ber_sockbuf_add_io(socket, io, level, argument);
    };

    EXPECT_EQ(connected.offerTo(guard.callback()), -1);
    EXPECT_EQ(connected.peerReads(), "");
    EXPECT_EQ(connected.descriptor(), -1);
}

INSTANTIATE_TEST_SUITE_P(Of, EachStepThatFails, testing::Values(1, 2, 3));

TEST_F(AGuard, RefusesAConnectionWhoseMessagesItCannotBound)
{
    openldap.ber_sockbuf_ctrl = [](Sockbuf* socket, int option, void* argument) {
        return option == LBER_SB_OPT_SET_MAX_INCOMING ? 0
                                                      : ber_sockbuf_ctrl(socket, option, argument);
    };

    EXPECT_EQ(connected.offerTo(guard.callback()), -1);
    EXPECT_EQ(connected.descriptor(), -1);
}

TEST_F(AGuard, TakesTheTlsOfTheLastConnectionAway)
{
    connected.offerTo(guard.callback());
    connected.startTls();
    connected.reconnect();

    guard.callback()->lc_add(nullptr, connected.socket(), nullptr, nullptr, guard.callback());

    EXPECT_FALSE(connected.hasTls());
}

TEST_F(AGuard, TakesItsOwnLayersOfTheLastConnectionAway)
{
    connected.offerTo(guard.callback());
    int const above = connected.layersAt(LBER_SBIOD_LEVEL_APPLICATION + 1);
    int const below = connected.layersAt(LBER_SBIOD_LEVEL_PROVIDER + 1);
    connected.reconnect();

    connected.offerTo(guard.callback());

    EXPECT_EQ(above, 1);
    EXPECT_EQ(below, 1);
    EXPECT_EQ(connected.layersAt(LBER_SBIOD_LEVEL_APPLICATION + 1), 1);
    EXPECT_EQ(connected.layersAt(LBER_SBIOD_LEVEL_PROVIDER + 1), 1);
}

// A caller's own callback has put them there, perhaps a moment ago: it is called first.
TEST_F(AGuard, LeavesTheLayersOfOthersWhereTheyAre)
{
    connected.offerTo(guard.callback());
    connected.startTls();
    connected.reconnect();

    guard.callback()->lc_add(nullptr, connected.socket(), nullptr, nullptr, guard.callback());

    EXPECT_TRUE(connected.has(Connected::layer()));
}

// OpenLDAP leaves a layer of its own for each, which would shut down and close what by then may be
// another file's number.
TEST_F(AGuard, ClosesTheDescriptorOnceHoweverOftenTheSessionConnected)
{
    connected.offerTo(guard.callback());
    connected.reconnect();
    connected.offerTo(guard.callback());
    Sockbuf_IO note = {nullptr, nullptr, nullptr, nullptr, nullptr, takeNote};
    ber_sockbuf_add_io(connected.socket(), &note, LBER_SBIOD_LEVEL_PROVIDER, nullptr);

    connected.end();

    EXPECT_EQ(g_notedDescriptor, -1);
    EXPECT_EQ(connected.peerReads(), "");
}

TEST_F(AGuard, GuardsAConnectionThatWasMadeAgain)
{
    connected.offerTo(guard.callback());
    connected.reconnect();
    connected.offerTo(guard.callback());
    connected.peerWrites("again");

    EXPECT_EQ(connected.readInHandshake(), 5);
    EXPECT_EQ(connected.read(), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(AGuard, TakesAConnectionThatEndsFromWhatIsPolled)
{
    openldap.ldap_mark_select_clear = [](auto...) {};
    openldap.name(connected.socket(), "socket");
    connected.offerTo(guard.callback());
    openldap.forgetCalls();

    guard.callback()->lc_del(nullptr, connected.socket(), guard.callback());

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_mark_select_clear null socket"));
}

TEST_F(AGuard, HasNothingToDoWhenTheSessionGoes)
{
    connected.offerTo(guard.callback());
    openldap.forgetCalls();

    guard.callback()->lc_del(nullptr, nullptr, guard.callback());

    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AGuard, BoundsTheSizeOfAMessage)
{
    connected.offerTo(guard.callback());

    EXPECT_EQ(connected.maximumMessageSize(), 1000U);
}

TEST_F(AGuard, BoundsTheSizeOfAMessageAsToldBeforeTheConnection)
{
    guard.maximumMessageBytes(50);

    connected.offerTo(guard.callback());

    EXPECT_EQ(connected.maximumMessageSize(), 50U);
}

TEST_F(AGuard, EndsAConnectionThatAnnouncesALargerMessage)
{
    connected.offerTo(guard.callback());
    connected.peerWrites("\x30\x82\x03\xe9"); // 1001 bytes follow
    BerElement* const element = ber_alloc_t(LBER_USE_DER);
    ber_len_t length = 0;

    ber_tag_t const tag = ber_get_next(connected.socket(), &length, element);

    EXPECT_EQ(tag, LBER_ERROR);
    EXPECT_EQ(errno, ERANGE);
    ber_free(element, 1);
}

TEST_F(AGuard, ReadsAMessageOfTheLargestSize)
{
    connected.offerTo(guard.callback());
    connected.peerWrites("\x30\x82\x03\xe8" + std::string(1000, 'x'));
    BerElement* const element = ber_alloc_t(LBER_USE_DER);
    ber_len_t length = 0;

    ber_tag_t const tag = ber_get_next(connected.socket(), &length, element);

    EXPECT_EQ(tag, 0x30U);
    EXPECT_EQ(length, 1000U);
    ber_free(element, 1);
}

/// Connections as the library guards them.
class AGuardedSession : public CallTest {
protected:
    AGuardedSession()
    {
        openldap.ldap_set_option = [this](LDAP* session, int option, void const* value) {
            if (option == LDAP_OPT_CONNECT_CB) {
                callback = static_cast<ldap_conncb*>(const_cast<void*>(value));
            }
            return ldap_set_option(session, option, value);
        };
        connection = LDAPConnection(newServer(), false);
    }

    /// What the session says when OpenLDAP connects.
    int answerToAConnection() const
    {
        Connected connected;
        return connected.offerTo(callback);
    }

    ldap_conncb* callback = nullptr;
    LDAPConnection connection;
};

TEST_F(AGuardedSession, BoundsAMessageAtSixtyFourMebibytes)
{
    Connected connected;

    connected.offerTo(callback);

    EXPECT_EQ(connected.maximumMessageSize(), 67108864U);
}

TEST_F(AGuardedSession, BoundsAMessageAsTold)
{
    Connected connected;
    connection.impl()->maximumMessageSize(5000);

    connected.offerTo(callback);

    EXPECT_EQ(connected.maximumMessageSize(), 5000U);
}

TEST_F(AGuardedSession, ConnectsWhileItWasNeverBound)
{
    EXPECT_EQ(answerToAConnection(), 0);
    EXPECT_EQ(answerToAConnection(), 0);
}

TEST_F(AGuardedSession, ConnectsWithinASynchronousBindAndNeverAgain)
{
    int duringBind = 1;
    openldap.ldap_sasl_bind_s = [&](auto...) {
        duringBind = answerToAConnection();
        return LDAP_SUCCESS;
    };

    connection.bind("cn=admin", "secret", LDAPConnection::Synchronous);

    EXPECT_EQ(duringBind, 0);
    EXPECT_EQ(answerToAConnection(), -1);
}

TEST_F(AGuardedSession, ConnectsWithinAnAsynchronousBindAndNeverAgain)
{
    int duringBind = 1;
    openldap.ldap_sasl_bind = [&](auto...) {
        duringBind = answerToAConnection();
        return LDAP_SUCCESS;
    };

    connection.bind("cn=admin", "secret", LDAPConnection::Asynchronous);

    EXPECT_EQ(duringBind, 0);
    EXPECT_EQ(answerToAConnection(), -1);
}

TEST_F(AGuardedSession, ConnectsNoMoreAfterABindThatFailed)
{
    openldap.ldap_sasl_bind_s = [](auto...) { return LDAP_SERVER_DOWN; };

    thrownBy([&] { connection.bind("cn=admin", "secret", LDAPConnection::Synchronous); });

    EXPECT_EQ(answerToAConnection(), -1);
}

TEST_F(AGuardedSession, ConnectsAgainWithinANewBind)
{
    std::vector<int> answers;
    openldap.ldap_sasl_bind_s = [&](auto...) {
        answers.push_back(answerToAConnection());
        return LDAP_SUCCESS;
    };

    connection.bind("cn=admin", "secret", LDAPConnection::Synchronous);
    connection.bind("cn=admin", "secret", LDAPConnection::Synchronous);

    EXPECT_THAT(answers, ElementsAre(0, 0));
}

} // namespace
} // namespace SolvaneTest
