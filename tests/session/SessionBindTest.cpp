// Binds of sessions: as requests on an open session, and by SASL EXTERNAL over TLS, also with
// client certificates that a server does not accept.
#include "LdapMessages.h"
#include "ScriptedServer.h"
#include "ServerTls.h"
#include "Sessions.h"
#include "Slapd.h"

#include <solvane/session/BindResult.h>

#include <ldap.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

using namespace Solvane;
using namespace Solvane::Lookup;
using testing::AllOf;
using testing::AnyOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;
using Received = Session::Received;

constexpr char userDn[] = "uid=user,dc=corp,dc=test";

/// @param password  must outlive the bind
SessionOptions optionsOfUser(unsigned int port, std::string const& password)
{
    SessionOptions options = plainOptions(port);
    options.bindDn = userDn;
    options.password = &password;
    return options;
}

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

/// A bind request with SASL EXTERNAL and these credentials.
std::string externalBind(int id, std::string const& credentials)
{
    std::string const sasl = berElement(0x04, "EXTERNAL") + berElement(0x04, credentials);
    return ldapMessage(
        id, berElement(BindRequest, std::string("\x02\x01\x03\x04\0", 5) + berElement(0xa3, sasl)));
}

std::string whoAmIResponse(int id, std::string const& identity)
{
    return ldapMessage(id, berElement(0x78, std::string("\x0a\x01\0\x04\0\x04\0", 7) +
                                                berElement(0x8b, identity)));
}

/// With a scripted server that has TLS.
class ExternalBind : public testing::Test {
protected:
    ExternalBind()
    {
        CertificateWish wish;
        wish.isForClients = true;
        TlsIdentity const mine = m_authority.issue(wish);
        m_policy = policy(TlsVerify::full, m_authority.file());
        m_policy.certificateFile = mine.certificateFile;
        m_policy.keyFile = mine.keyFile;
    }
    SessionOptions options() const
    {
        SessionOptions options = secureOptions(m_server.port(), m_policy);
        options.mechanism = Mechanism::external;
        return options;
    }

    Authority m_authority;
    ServerTls m_tls{m_authority.issue()};
    TlsPolicy m_policy;
    void answerWith(std::string const& identity)
    {
        std::lock_guard const lock(m_mutex);
        m_identity = identity;
    }
    std::string identity()
    {
        std::lock_guard const lock(m_mutex);
        return m_identity;
    }

    std::atomic<int> m_code{0};
    std::mutex m_mutex;
    std::string m_identity = "dn:cn=somebody";
    ScriptedServer m_server{[this](Peer& peer) {
        if (!peer.startTls(m_tls)) {
            return;
        }
        for (std::string request = peer.receiveMessage(); !request.empty();
             request = peer.receiveMessage()) {
            int const id = messageIdOf(request);
            peer.send(operationOf(request) == BindRequest ? bindResponse(id, m_code)
                                                          : whoAmIResponse(id, identity()));
        }
    }};
};

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

TEST(RefusedBind, ThatRepeatsThePasswordIsNotQuoted)
{
    for (std::string const password : {"not-the-word", "between\ttabs\tand more"}) {
        ScriptedServer const server([&password](Peer& peer) {
            BindReply reply;
            reply.code = 49;
            reply.text = "not valid: " + password;
            peer.send(bindResponse(messageIdOf(peer.receiveMessage()), reply));
            peer.receiveUntilClosed();
        });
        Session session(optionsOfUser(server.port(), password));

        EXPECT_THAT(shown(session.reach(Step::identify, soon())),
                    AllOf(StartsWith("Refused 49 "), EndsWith("Invalid credentials (49)")));
    }
}

TEST(NoticeOfDisconnection, InPlaceOfABindResponseIsNotQuoted)
{
    std::string const password = "not-the-word";
    ScriptedServer const server([&password](Peer& peer) {
        peer.receiveMessage();
        peer.send(noticeOfDisconnection("too many binds with " + password));
        peer.receiveUntilClosed();
    });
    Session session(optionsOfUser(server.port(), password));

    EXPECT_THAT(shown(session.reach(Step::identify, soon())),
                AllOf(StartsWith("TryLater -1 "), HasSubstr("Server is unavailable (52)"),
                      Not(HasSubstr("too many"))));
}

TEST(NoticeOfDisconnection, AfterTheBindIsQuoted)
{
    ScriptedServer const server([](Peer& peer) {
        peer.send(bindResponse(messageIdOf(peer.receiveMessage()), 0));
        peer.receiveMessage();
        peer.send(noticeOfDisconnection("idle for too long"));
        peer.receiveUntilClosed();
    });

    Session session(boundOptions(server.port()));

    EXPECT_THAT(shown(session.reach(Step::identify, soon())),
                HasSubstr("Server is unavailable (52): idle for too long"));
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

// SASL EXTERNAL over TLS, and client certificates that a server does not accept.

TEST_F(ExternalBind, SendsTheMechanismAndNoName)
{
    Session session(options());

    EXPECT_EQ(shown(session.reach(Step::identify, soon())), "Found 0 ");

    EXPECT_EQ(session.identity(), Identity::Confirmed);
    EXPECT_EQ(session.authorizationId(), "dn:cn=somebody");
    ASSERT_THAT(m_server.received(), SizeIs(2));
    EXPECT_EQ(m_server.received().front(), externalBind(1, ""));
}

TEST_F(ExternalBind, SendsTheAuthorizationId)
{
    SessionOptions wanted = options();
    wanted.authorizationId = "u:postmaster";

    EXPECT_EQ(shown(Session(wanted).reach(Step::bind, soon())), "Found 0 ");

    EXPECT_EQ(m_server.received().front(), externalBind(1, "u:postmaster"));
}

TEST_F(ExternalBind, SendsNoAuthorizationIdThatIsCutShort)
{
    SessionOptions cut = options();
    cut.authorizationId = std::string("u:a\0b", 5);

    EXPECT_THAT(shown(Session(cut).reach(Step::bind, soon())),
                AllOf(StartsWith("Misconfigured -9 "), HasSubstr("NUL")));
    // What a closed connection sent last may be lost; the next one's requests come behind it.
    EXPECT_EQ(shown(Session(options()).reach(Step::bind, soon())), "Found 0 ");
    for (auto const& message : m_server.received()) {
        EXPECT_THAT(message, Not(HasSubstr("u:a")));
    }
}

TEST_F(ExternalBind, IsRefusedWithTheServersCode)
{
    for (int const code : {7, 48, 49, 50}) {
        m_code = code;
        EXPECT_THAT(shown(Session(options()).reach(Step::identify, soon())),
                    AllOf(StartsWith("Refused " + std::to_string(code) + ' '),
                          HasSubstr("the bind is refused: ")));
    }
}

TEST_F(ExternalBind, HasNoSecondStep)
{
    m_code = LDAP_SASL_BIND_IN_PROGRESS;

    EXPECT_THAT(shown(Session(options()).reach(Step::bind, soon())),
                AllOf(StartsWith("Refused 14 "), HasSubstr("another step of SASL EXTERNAL")));
}

TEST_F(ExternalBind, IsNotTakenForAnAnonymousOne)
{
    for (char const* const nobody : {"", "dn:"}) {
        answerWith(nobody);
        EXPECT_THAT(shown(Session(options()).reach(Step::identify, soon())),
                    AllOf(StartsWith("Refused 48 "), HasSubstr("anonymous identity"),
                          HasSubstr("those for the SASL identity")));
    }
}

TEST_F(ExternalBind, NeedsAClientCertificate)
{
    m_policy.certificateFile.clear();
    m_policy.keyFile.clear();
    SessionOptions const bare = options();
    SessionOptions plain = plainOptions(m_server.port());
    plain.mechanism = Mechanism::external;

    EXPECT_THAT(shown(Session(bare).reach(Step::identify, soon())),
                AllOf(StartsWith("Misconfigured -9 ldaps://127.0.0.1:"),
                      HasSubstr("SASL EXTERNAL needs a client certificate")));
    EXPECT_THAT(shown(Session(plain).reach(Step::identify, soon())),
                AllOf(StartsWith("Misconfigured -9 ldap://127.0.0.1:"),
                      HasSubstr("SASL EXTERNAL needs TLS with a client certificate")));
    EXPECT_EQ(m_server.connectionCount(), 0U);
}

TEST_F(ExternalBind, NeedsVersion3)
{
    SessionOptions old = options();
    old.version = 2;

    EXPECT_THAT(shown(Session(old).reach(Step::identify, soon())),
                AllOf(StartsWith("Misconfigured -9 "), HasSubstr("needs LDAPv3")));
    EXPECT_EQ(m_server.connectionCount(), 0U);
}

// Certificates that are not accepted

enum class Shown { none, expired, foreign };

class ClientCertificate : public testing::TestWithParam<char const*> {
protected:
    std::string verdictWith(Shown kind)
    {
        CertificateWish wish;
        wish.isForClients = true;
        if (kind == Shown::expired) {
            wish.notBefore = 1577836800; // 2020
            wish.notAfter = 1609459200;
        }
        TlsPolicy shownPolicy = policy(TlsVerify::full, m_authority.file());
        if (kind != Shown::none) {
            m_mine = (kind == Shown::foreign ? m_foreign : m_authority).issue(wish);
            shownPolicy.certificateFile = m_mine.certificateFile;
            shownPolicy.keyFile = m_mine.keyFile;
        }
        SessionOptions options = secureOptions(m_server.port(), shownPolicy);
        options.bindDn = readerDn;
        options.password = &readerPassword;
        return shown(Session(options).reach(Step::identify, soon()));
    }

    Authority m_authority;
    Authority m_foreign{"Another authority"};
    TlsIdentity m_mine;
    ServerTls m_tls{m_authority.issue(), GetParam(), m_authority.file()};
    ScriptedServer m_server{[this](Peer& peer) {
        if (peer.startTls(m_tls)) {
            peer.receiveUntilClosed();
        }
    }};
};

TEST_P(ClientCertificate, ThatIsMissingIsNamed)
{
    EXPECT_THAT(verdictWith(Shown::none),
                AllOf(StartsWith("Refused -11 "), Not(HasSubstr("broke")),
                      HasSubstr("it requested a client certificate, but none is configured")));
    EXPECT_THAT(m_server.received(), IsEmpty());
}

TEST_P(ClientCertificate, ThatExpiredIsNamed)
{
    std::string const verdict = verdictWith(Shown::expired);

    EXPECT_THAT(verdict, AllOf(StartsWith("Refused -11 "), Not(HasSubstr("broke")),
                               HasSubstr("the server refuses TLS: Certificate "),
                               HasSubstr(m_mine.certificateFile)));
}

// It is sent although the server does not list its authority: the alert is not that none was sent.
TEST_P(ClientCertificate, OfAnotherAuthorityIsNamed)
{
    std::string const verdict = verdictWith(Shown::foreign);

    EXPECT_THAT(verdict, AllOf(StartsWith("Refused -11 "), Not(HasSubstr("broke")),
                               HasSubstr("the server refuses TLS: "), Not(HasSubstr("(116)")),
                               Not(HasSubstr("(40)")), HasSubstr(m_mine.certificateFile)));
}

INSTANTIATE_TEST_SUITE_P(InEachVersion, ClientCertificate,
                         testing::Values("NORMAL:-VERS-ALL:+VERS-TLS1.2",
                                         "NORMAL:-VERS-ALL:+VERS-TLS1.3"));

// On slapd

class ExternalBindOnSlapd : public SuiteWithSlapd<ExternalBindOnSlapd>,
                            public testing::WithParamInterface<bool> {
public:
    static std::vector<std::string> options() { return {"--users", "3", "--client-certs", "try"}; }

protected:
    /// By StartTLS or by ldaps.
    static SessionOptions sessionOptions(char const* certificate = "client")
    {
        TlsPolicy tls = policy(TlsVerify::full, slapd().caFile());
        std::string const name = certificate;
        tls.certificateFile = slapd().tlsFile(name + ".pem");
        tls.keyFile = slapd().tlsFile(name + ".key");
        SessionOptions options = GetParam() ? startTlsOptions(slapd().port(), tls)
                                            : secureOptions(slapd().tlsPort(), tls);
        options.mechanism = Mechanism::external;
        return options;
    }
};

TEST_P(ExternalBindOnSlapd, IsTheSubjectOfTheCertificate)
{
    Session session(sessionOptions());

    EXPECT_EQ(shown(session.reach(Step::identify, soon())), "Found 0 ");

    EXPECT_EQ(session.identity(), Identity::Confirmed);
    EXPECT_EQ(session.authorizationId(), std::string("dn:") + readerDn);
}

TEST_P(ExternalBindOnSlapd, MayNotBecomeAnotherUser)
{
    SessionOptions own = sessionOptions();
    own.authorizationId = std::string("dn:") + readerDn;
    SessionOptions other = sessionOptions();
    other.authorizationId = "dn:cn=admin,dc=corp,dc=test";

    EXPECT_EQ(shown(Session(own).reach(Step::identify, soon())), "Found 0 ");
    EXPECT_THAT(shown(Session(other).reach(Step::identify, soon())),
                AllOf(StartsWith("Refused "), HasSubstr("the bind is refused: ")));
}

// slapd asks for a certificate, but takes none from this client: there is no identity.
TEST_P(ExternalBindOnSlapd, IsRefusedWithACertificateThatExpired)
{
    std::string const verdict =
        shown(Session(sessionOptions("client-expired")).reach(Step::identify, soon()));

    // A slapd with GnuTLS hangs up, one with OpenSSL says why.
    EXPECT_THAT(verdict, AllOf(AnyOf(StartsWith("TryLater -1 "),
                                     AllOf(StartsWith("Refused -11 "), HasSubstr("expired"))),
                               HasSubstr("it may not accept the client certificate '")));
}

INSTANTIATE_TEST_SUITE_P(WithStartTlsOrLdaps, ExternalBindOnSlapd, testing::Bool());

} // namespace SolvaneTest
