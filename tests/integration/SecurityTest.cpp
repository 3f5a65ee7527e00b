// StartTLS and SASL binds, against slapd and against peers that cheat.
#include "Directory.h"
#include "Faults.h"
#include "Kdc.h"
#include "LdapMessages.h"
#include "ProcessMemory.h"
#include "ScriptedServer.h"
#include "ServerTls.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <memory>

#include <ldap.h>

#include <unistd.h>

using namespace Solvane;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

constexpr unsigned char extendedRequest = 0x77;

/// An extended response (RFC 4511 section 4.12).
std::string extendedResponse(int id, int code)
{
    return ldapMessage(id,
                       berElement(0x78, berElement(0x0a, std::string(1, static_cast<char>(code))) +
                                            berElement(0x04, "") + berElement(0x04, "")));
}

/// Receives a request for TLS, and answers it with what `answer` makes of its message id.
template <typename Answer> ScriptedServer::Script answeringStartTls(Answer answer)
{
    return [answer](Peer& peer) {
        std::string const request = peer.receiveMessage();
        if (!request.empty()) {
            peer.send(answer(messageIdOf(request)));
        }
        peer.receiveUntilClosed();
    };
}

} // namespace

class StartTls : public SuiteWithSlapd<StartTls> {
public:
    static std::vector<std::string> options() { return {"--users", "20", "--client-certs", "try"}; }
};

TEST_F(StartTls, CarriesABindAndALookup)
{
    LDAPConnection connection(plainServer(slapd().port()), false);

    connection.startTls();
    bindAsReader(connection);
    LDAPResult const result = answerTo(connection, lookupOf("uid=bigphoto,ou=big,dc=corp,dc=test"));

    EXPECT_EQ(ldap_tls_inplace(static_cast<LDAP*>(connection.context())), 1);
    EXPECT_THAT(valuesIn(result, "jpegPhoto"), ElementsAre(testing::SizeIs(1048576)));
}

TEST_F(StartTls, VerifiesTheServerWithTheSessionsOwnContext)
{
    auto const connectionTrusting = [](std::string const& caFile) {
        LDAPConnection connection(plainServer(slapd().port()), false);
        int const demand = LDAP_OPT_X_TLS_DEMAND;
        int const forClients = 0;
        connection.impl()->setOption(LDAP_OPT_X_TLS_CACERTFILE, caFile.c_str());
        connection.impl()->setOption(LDAP_OPT_X_TLS_REQUIRE_CERT, &demand);
        connection.impl()->setOption(LDAP_OPT_X_TLS_NEWCTX, &forClients);
        return connection;
    };
    Authority const stranger;
    LDAPConnection trusting = connectionTrusting(slapd().caFile());
    LDAPConnection doubting = connectionTrusting(stranger.file());

    trusting.startTls();
    auto const thrown = thrownBy([&] { doubting.startTls(); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 76, 4, 1));
    EXPECT_EQ(doubting.openldapErrorCode(), LDAP_CONNECT_ERROR);
    EXPECT_THAT(thrownBy([&] { bindAsReader(doubting); }), IsFault("Connection.cpp", 208, 4, 3));
}

TEST_F(StartTls, IsNotLostWhenTheServerClosesTheConnection)
{
    Slapd server({"--users", "0"});
    LDAPConnection connection(plainServer(server.port()), false);
    connection.startTls();
    bindAsReader(connection);
    server.kill();
    server.restart();
    LDAPSearch search(connection, lookupOf("dc=corp,dc=test"));
    thrownBy([&] {
        search.send();
        search.wait(10);
    });

    auto const thrown = thrownBy([&] { bindAsReader(connection); });

    EXPECT_THAT(thrown, IsFault("Connection.cpp", 241, 4, 1));
}

TEST(RefusedStartTls, LeavesNoPlainConnection)
{
    ScriptedServer const server(
        answeringStartTls([](int id) { return extendedResponse(id, LDAP_UNAVAILABLE); }));
    LDAPConnection connection(plainServer(server.port()), false);

    auto const thrown = thrownBy([&] { connection.startTls(); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 76, 4, 3));
    EXPECT_EQ(connection.openldapErrorCode(), LDAP_UNAVAILABLE);
    EXPECT_THAT(thrownBy([&] { bindAsReader(connection); }), IsFault("Connection.cpp", 208, 4, 3));
    ASSERT_EQ(server.received().size(), 1U);
    EXPECT_EQ(operationOf(server.received().front()), extendedRequest);
}

TEST(StartTlsOfASilentPeer, EndsWithTheNetworkTimeout)
{
    ScriptedServer const server([](Peer& peer) { peer.receiveUntilClosed(); });
    LDAPConnection connection(plainServer(server.port(), 1), false);

    auto const thrown = thrownBy([&] { connection.startTls(); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 76, 4, 1));
    EXPECT_EQ(connection.openldapErrorCode(), LDAP_TIMEOUT);
}

TEST(StartTlsOfAPeerSilentInTheHandshake, EndsWithTheNetworkTimeout)
{
    ScriptedServer const server(
        answeringStartTls([](int id) { return extendedResponse(id, LDAP_SUCCESS); }));
    LDAPConnection connection(plainServer(server.port(), 1), false);

    auto const thrown = thrownBy([&] { connection.startTls(); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 76, 4, 1));
}

// What an attacker puts behind the response in plain text must not count as said by the server.
TEST(StartTlsWithAnAnswerInjectedBeforeTheHandshake, Fails)
{
    ScriptedServer const server(answeringStartTls(
        [](int id) { return extendedResponse(id, LDAP_SUCCESS) + bindResponse(id + 1); }));
    LDAPConnection connection(plainServer(server.port(), 2), false);

    auto const thrown = thrownBy([&] { connection.startTls(); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 76, 4, 1));
}

TEST(StartTlsWithAnAnswerInjectedBeforeItsOwn, DropsIt)
{
    Authority authority;
    ServerTls const tls(authority.issue());
    ScriptedServer const server([&](Peer& peer) {
        int const id = messageIdOf(peer.receiveMessage());
        peer.send(bindResponse(id + 1) + extendedResponse(id, LDAP_SUCCESS));
        peer.startTls(tls);
        int const bind = messageIdOf(peer.receiveMessage());
        peer.send(bindResponse(bind, LDAP_INVALID_CREDENTIALS));
        peer.receiveUntilClosed();
    });
    LDAPConnection connection(plainServer(server.port()), false);
    connection.startTls();

    auto const thrown = thrownBy([&] { bindAsReader(connection); });

    EXPECT_EQ(connection.openldapErrorCode(), LDAP_INVALID_CREDENTIALS);
}

TEST(ASaslExternalBind, CarriesTheAuthorizationId)
{
    ScriptedServer const server([](Peer& peer) {
        peer.grantBind();
        peer.receiveUntilClosed();
    });
    LDAPConnection connection(plainServer(server.port()), false);

    connection.bindSasl(LDAPConnection::External, "dn:cn=reader,dc=corp,dc=test");

    ASSERT_EQ(server.received().size(), 1U);
    EXPECT_THAT(server.received().front(),
                HasSubstr(berElement(0xa3, berElement(0x04, "EXTERNAL") +
                                               berElement(0x04, "dn:cn=reader,dc=corp,dc=test"))));
}

TEST_F(StartTls, GivesTheIdentityOfTheClientCertificate)
{
    ToleratedLeak const
        leak; // OpenLDAP 2.5 on GnuTLS loses its copy of the certificate and the key
    std::filesystem::path const folder = slapd().caFile().parent_path();
    LDAPConnection connection(plainServer(slapd().port()), false);
    int const allow = LDAP_OPT_X_TLS_ALLOW;
    int const forClients = 0;
    connection.impl()->setOption(LDAP_OPT_X_TLS_CERTFILE, (folder / "client.pem").c_str());
    connection.impl()->setOption(LDAP_OPT_X_TLS_KEYFILE, (folder / "client.key").c_str());
    connection.impl()->setOption(LDAP_OPT_X_TLS_REQUIRE_CERT, &allow);
    connection.impl()->setOption(LDAP_OPT_X_TLS_NEWCTX, &forClients);

    connection.startTls();
    connection.bindSasl(LDAPConnection::External);

    EXPECT_THAT(namesIn(answerTo(connection, lookupOf("cn=secret,ou=private,dc=corp,dc=test"))),
                ElementsAre("cn=secret,ou=private,dc=corp,dc=test"));
}

TEST_F(StartTls, GivesNoIdentityWithoutAClientCertificate)
{
    LDAPConnection connection(plainServer(slapd().port()), false);
    connection.startTls();

    auto const thrown = thrownBy([&] { connection.bindSasl(LDAPConnection::External); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 136, 4, 3));
    EXPECT_GT(connection.openldapErrorCode(), 0);
    EXPECT_THAT(namesIn(answerTo(connection, lookupOf("cn=secret,ou=private,dc=corp,dc=test"))),
                IsEmpty());
}

/// A realm, and a slapd that belongs to it. Each test begins with a ticket of the reader.
class BindByGssapi : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        if (!Slapd::isInstalled() || !Kdc::isInstalled()) {
            return;
        }
        s_kdc = std::make_unique<Kdc>();
        std::string const service = "ldap/" + hostName();
        s_kdc->administer({"addprinc", "-randkey", service});
        s_kdc->administer({"ktadd", "-k", s_kdc->file("service.keytab"), service});
        s_slapd = std::make_unique<Slapd>(options());
    }
    static void TearDownTestSuite()
    {
        s_slapd.reset();
        s_kdc.reset();
    }
    void SetUp() override
    {
        if (!s_slapd) {
            Kdc::reportMissing();
            return;
        }
        s_kdc->useTicket("reader");
        connection = LDAPConnection(plainServer(s_slapd->port()), false);
    }

    static Kdc& kdc() { return *s_kdc; }
    static Slapd& slapd() { return *s_slapd; }
    static std::vector<std::string> options()
    {
        return {"--users", "1", "--kerberos", s_kdc->folder(), "--sasl-host", hostName()};
    }
    /// OpenLDAP asks for a ticket of this host when it is connected to a loopback address.
    static std::string hostName()
    {
        std::array<char, 256> name{};
        gethostname(name.data(), name.size() - 1);
        return name.data();
    }

    void expectToSeeWhatReadersSee()
    {
        EXPECT_THAT(namesIn(answerTo(connection, lookupOf("cn=secret,ou=private,dc=corp,dc=test"))),
                    ElementsAre("cn=secret,ou=private,dc=corp,dc=test"));
    }
    std::string securityLayer() const
    {
        ber_len_t strength = 0; // there is no option without a layer
        bool const has = ldap_get_option(static_cast<LDAP*>(connection.context()),
                                         LDAP_OPT_X_SASL_SSF, &strength) == LDAP_OPT_SUCCESS;
        return has && strength != 0 ? "some" : "none";
    }

    LDAPConnection connection;

private:
    static std::unique_ptr<Kdc> s_kdc;
    static std::unique_ptr<Slapd> s_slapd;
};

std::unique_ptr<Kdc> BindByGssapi::s_kdc;
std::unique_ptr<Slapd> BindByGssapi::s_slapd;

TEST_F(BindByGssapi, CarriesLookupsUnderASecurityLayer)
{
    connection.bindSasl(LDAPConnection::Gssapi);

    EXPECT_EQ(securityLayer(), "some");
    expectToSeeWhatReadersSee();
    LDAPResult const result = answerTo(connection, lookupOf("uid=bigphoto,ou=big,dc=corp,dc=test"));
    EXPECT_THAT(valuesIn(result, "jpegPhoto"), ElementsAre(testing::SizeIs(1048576)));
}

TEST_F(BindByGssapi, WorksUnderTls)
{
    ToleratedLeak const leak;
    connection.impl()->setOption(LDAP_OPT_X_SASL_SECPROPS, "maxssf=0");

    connection.startTls();
    connection.bindSasl(LDAPConnection::Gssapi);

    EXPECT_EQ(securityLayer(), "none");
    expectToSeeWhatReadersSee();
}

TEST_F(BindByGssapi, ActsAsTheAuthorizationId)
{
    kdc().useTicket("admin"); // who may act for every user

    connection.bindSasl(LDAPConnection::Gssapi, "dn:cn=reader,dc=corp,dc=test");

    expectToSeeWhatReadersSee();
}

TEST_F(BindByGssapi, FailsWithoutATicket)
{
    kdc().useCache(kdc().file("no-such-cache"));

    auto const thrown = thrownBy([&] { connection.bindSasl(LDAPConnection::Gssapi); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 136, 4, 3));
    EXPECT_THAT(thrown.stringParameter(), HasSubstr("SASL(-1): generic failure: GSSAPI Error:"));
}

// The layer holds bytes back, which must not look like an answer for ever.
TEST_F(BindByGssapi, NoticesTheEndOfItsConnection)
{
    Slapd server(options());
    connection = LDAPConnection(plainServer(server.port()), false);
    connection.bindSasl(LDAPConnection::Gssapi);
    expectToSeeWhatReadersSee();
    server.kill();
    LDAPSearch search(connection, lookupOf("dc=corp,dc=test"));

    auto const thrown = thrownBy([&] {
        search.send();
        search.wait(10);
    });

    EXPECT_EQ(thrown.getType(), 4);
    EXPECT_THAT(thrownBy([&] { bindAsReader(connection); }), IsFault("Connection.cpp", 241, 4, 1));
}

} // namespace SolvaneTest
