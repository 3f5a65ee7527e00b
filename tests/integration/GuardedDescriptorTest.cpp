// Sessions over descriptors that were connected beforehand, as the lookup engine may make them: guarded
// without OpenLDAP's own connect, and read ahead.
#include "SocketGuard.h"

#include "Descriptor.h"
#include "Directory.h"
#include "Eventually.h"
#include "ForkedProcess.h"
#include "LdapMessages.h"
#include "ScriptedServer.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <openldap.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

using namespace Solvane;
using testing::Ge;

namespace SolvaneTest {

namespace {

int connectedTo(unsigned int port)
{
    int const descriptor = checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int const on = 1; // as OpenLDAP sets it
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    checked(connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), "connect");
    return descriptor;
}

/// A guarded session over a descriptor.
class Session {
public:
    explicit Session(unsigned int port, std::chrono::milliseconds timeout = std::chrono::seconds(5))
        : guard(timeout, 1 << 24, SocketGuard::Reads::ahead), m_descriptor(connectedTo(port))
    {
        std::string const uri = "ldap://127.0.0.1:" + std::to_string(port);
        EXPECT_EQ(ldap_init_fd(m_descriptor, LDAP_PROTO_TCP, uri.c_str(), &m_session), 0);
        int const version = LDAP_VERSION3;
        ldap_set_option(m_session, LDAP_OPT_PROTOCOL_VERSION, &version);
        ldap_set_option(m_session, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
        ldap_set_option(m_session, LDAP_OPT_CONNECT_CB, guard.callback());
        Sockbuf* socket = nullptr;
        ldap_get_option(m_session, LDAP_OPT_SOCKBUF, static_cast<void*>(&socket));
        EXPECT_TRUE(guard.install(socket));
    }
    Session(Session const&) = delete;
    Session& operator=(Session const&) = delete;
    ~Session() { ldap_unbind_ext(m_session, nullptr, nullptr); }

    int startTls()
    {
        int const policy = LDAP_OPT_X_TLS_ALLOW;
        int const forServer = 0;
        timeval const timeout = {5, 0};
        ldap_set_option(m_session, LDAP_OPT_NETWORK_TIMEOUT, &timeout);
        ldap_set_option(m_session, LDAP_OPT_X_TLS_REQUIRE_CERT, &policy);
        ldap_set_option(m_session, LDAP_OPT_X_TLS_NEWCTX, &forServer);
        return ldap_install_tls(m_session);
    }
    int bind()
    {
        std::string password = readerPassword;
        berval credentials = {password.size(), password.data()};
        int id = 0;
        int const rc = ldap_sasl_bind(m_session, readerDn, LDAP_SASL_SIMPLE, &credentials, nullptr,
                                      nullptr, &id);
        return rc == LDAP_SUCCESS ? typeOfNext() : rc;
    }
    int search(char const* base, int scope, char const* filter)
    {
        int id = 0;
        return ldap_search_ext(m_session, base, scope, filter, nullptr, 0, nullptr, nullptr,
                               nullptr, 0, &id);
    }
    /// The next message's, waited for as an event loop does: the socket is polled where the guard has
    /// nothing. 0: none came; -1: the connection broke.
    int typeOfNext(int patience = 5000)
    {
        for (;;) {
            timeval none = {0, 0};
            LDAPMessageBuffer message;
            int const type =
                ldap_result(m_session, LDAP_RES_ANY, LDAP_MSG_ONE, &none, message.address());
            pollfd waited = {m_descriptor, POLLIN, 0};
            if (type != 0 || (!guard.hasBuffered() && poll(&waited, 1, patience) == 0)) {
                return type;
            }
        }
    }
    /// How many messages end a search that was sent; entries, and the result.
    int answers()
    {
        int count = 0;
        int type = LDAP_RES_SEARCH_ENTRY;
        while (type == LDAP_RES_SEARCH_ENTRY || type == LDAP_RES_SEARCH_REFERENCE) {
            type = typeOfNext();
            count += type > 0 ? 1 : 0;
        }
        return type == LDAP_RES_SEARCH_RESULT ? count : -count;
    }
    int descriptor() const { return m_descriptor; }

    SocketGuard guard;

private:
    int m_descriptor;
    LDAP* m_session = nullptr;
};

} // namespace

class AGuardedDescriptor : public SuiteWithSlapd<AGuardedDescriptor>,
                           public testing::WithParamInterface<bool> {
public:
    static std::vector<std::string> options() { return {"--users", "200"}; }

protected:
    void SetUp() override
    {
        SuiteWithSlapd<AGuardedDescriptor>::SetUp();
        if (hasSlapd()) {
            session = std::make_unique<Session>(GetParam() ? slapd().tlsPort() : slapd().port());
            ASSERT_EQ(GetParam() ? session->startTls() : 0, LDAP_SUCCESS);
            ASSERT_EQ(session->bind(), LDAP_RES_BIND);
        }
    }

    std::unique_ptr<Session> session;
};

TEST_P(AGuardedDescriptor, CarriesManyEntriesToACallerThatPolls)
{
    session->search(people, LDAP_SCOPE_ONELEVEL, "(uid=user*)");

    EXPECT_THAT(session->answers(), 201);
}

TEST_P(AGuardedDescriptor, CarriesAnEntryThatNoBufferHolds)
{
    unsigned long long const before = session->guard.bytesReceived();
    auto const start = SocketGuard::Clock::now();

    session->search("uid=bigphoto,ou=big,dc=corp,dc=test", LDAP_SCOPE_BASE, "(objectClass=*)");

    EXPECT_EQ(session->answers(), 2);
    EXPECT_THAT(session->guard.bytesReceived() - before, Ge(1048576U));
    EXPECT_GT(session->guard.heardAt(), start);
}

TEST_P(AGuardedDescriptor, IsNeverConnectedAnew)
{
    slapd().kill();
    slapd().restart();

    for (int attempt = 0; attempt < 3; ++attempt) {
        bool const isSent =
            session->search(people, LDAP_SCOPE_BASE, "(objectClass=*)") == LDAP_SUCCESS;
        EXPECT_TRUE(!isSent || session->typeOfNext() == -1);
    }
    EXPECT_EQ(slapd().connectionCount(), 0);
}

TEST_P(AGuardedDescriptor, FailsAtOnceWhenItWasEnded)
{
    session->search(people, LDAP_SCOPE_BASE, "(objectClass=*)");

    session->guard.end();

    EXPECT_EQ(session->typeOfNext(), -1);
    EXPECT_NE(session->search(people, LDAP_SCOPE_BASE, "(objectClass=*)"), LDAP_SUCCESS);
    EXPECT_FALSE(session->guard.isUsable());
}

TEST_P(AGuardedDescriptor, IsTheParentsAlone)
{
    std::string const wrong = ForkedProcess([&]() -> std::string {
                                  bool const isRefused =
                                      session->search(people, LDAP_SCOPE_BASE, "(cn=x)") != 0;
                                  session.reset();
                                  return isRefused ? "" : "it searches";
                              }).complaint();

    EXPECT_EQ(wrong, "");
    session->search(people, LDAP_SCOPE_BASE, "(objectClass=*)");
    EXPECT_EQ(session->answers(), 2);
}

INSTANTIATE_TEST_SUITE_P(WithTls, AGuardedDescriptor, testing::Bool());

// The second wait spun: the bytes behind the message were there, and OpenLDAP read no more.
TEST(ADescriptorWithBytesThatNobodyReads, KeepsNoWaitFromItsEnd)
{
    ScriptedServer const server([](ScriptedServer::Peer& peer) {
        peer.grantBind();
        int const id = messageIdOf(peer.receiveMessage());
        peer.send(hugeMessageHeader() + searchEntry(id, "cn=x", {}) + searchDone(id));
        peer.receiveUntilClosed();
    });
    Session session(server.port());
    session.bind();
    session.search(people, LDAP_SCOPE_BASE, "(objectClass=*)");
    EXPECT_EQ(session.typeOfNext(), -1);
    session.search(people, LDAP_SCOPE_BASE, "(cn=");

    EXPECT_LE(session.typeOfNext(100), 0);

    EXPECT_FALSE(session.guard.hasBuffered());
}

TEST(ADescriptorOnWhichAWriteStalls, EndsWithTheGuardsTimeout)
{
    ScriptedServer const server(
        [](ScriptedServer::Peer& peer) {
            peer.grantBind();
            peer.ignore();
        },
        4096);
    Session session(server.port(), std::chrono::milliseconds(200));
    session.bind();
    int const bytes = 16384;
    setsockopt(session.descriptor(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
    std::string const filter = "(cn=" + std::string(3000000, 'x') + ")";

    EXPECT_EQ(session.search(people, LDAP_SCOPE_BASE, filter.c_str()), LDAP_SERVER_DOWN);

    EXPECT_FALSE(session.guard.isUsable());
}

} // namespace SolvaneTest
