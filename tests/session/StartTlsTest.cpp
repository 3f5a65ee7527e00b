// StartTLS: what is sent before TLS, and peers that refuse it, strip it or inject answers. TLS
// settings from ldap.conf and the environment.
#include "Eventually.h"
#include "LdapMessages.h"
#include "Process.h"
#include "ScriptedServer.h"
#include "ServerTls.h"
#include "Sessions.h"
#include "TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>

using namespace Solvane;
using namespace Solvane::Lookup;
using std::chrono::milliseconds;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;
using testing::StartsWith;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

/// Answers each request with success, except that a bind is answered with `bindCode`.
void answerAll(Peer& peer, int bindCode = 0)
{
    for (std::string request = peer.receiveMessage(); !request.empty();
         request = peer.receiveMessage()) {
        int const id = messageIdOf(request);
        peer.send(operationOf(request) == BindRequest ? bindResponse(id, bindCode)
                                                      : searchDone(id));
    }
}

/// Answers the first request with these bytes, and then receives until the end.
ScriptedServer::Script answering(std::function<std::string(int id)> const& answer)
{
    return [answer](Peer& peer) {
        peer.send(answer(messageIdOf(peer.receiveMessage())));
        peer.receiveUntilClosed();
    };
}

class StartTls : public testing::Test {
protected:
    SessionOptions optionsFor(ScriptedServer const& server) const
    {
        SessionOptions options =
            startTlsOptions(server.port(), policy(TlsVerify::full, m_authority.file()));
        options.bindDn = readerDn;
        options.password = &readerPassword;
        return options;
    }
    Verdict verdictOn(ScriptedServer const& server) const
    {
        return Session(optionsFor(server)).reach(Step::identify, soon());
    }

    Authority m_authority;
    ServerTls m_tls{m_authority.issue()};
};

/// The only request that may be sent without TLS, and the end.
auto const onlyAsked = ElementsAre(startTlsRequest(1), ldapMessage(2, std::string("\x42\0", 2)));

class TlsConfiguration : public testing::Test {
protected:
    /// The policy of a program with these variables.
    std::string policyWith(std::vector<std::string> const& variables) const
    {
        std::vector<std::string> command = {"env", "-u", "LDAPNOINIT",
                                            "HOME=" + m_folder.path().string(),
                                            "LDAPCONF=" + fileWith("ldap.conf", "")};
        command.insert(command.end(), variables.begin(), variables.end());
        command.emplace_back(SOLVANE_TLS_POLICY);
        return run(command).output;
    }
    std::string fileWith(std::string const& name, std::string const& text) const
    {
        std::string const path = m_folder.path() / name;
        std::ofstream(path) << text;
        return path;
    }

    TemporaryDirectory m_folder;
    Authority m_authority;
    TlsIdentity m_mine{m_authority.issue()};
    std::string m_revocations{m_authority.revocations({})};
};

} // namespace

TEST_F(StartTls, ProtectsTheBind)
{
    ScriptedServer const server([&](Peer& peer) {
        if (peer.grantStartTls(m_tls)) {
            answerAll(peer);
        }
    });
    Session session(optionsFor(server));

    Verdict const verdict = session.reach(Step::bind, soon());

    EXPECT_EQ(shown(verdict), "Found 0 ");
    EXPECT_EQ(session.uri(), "ldap://127.0.0.1:" + std::to_string(server.port()));
    EXPECT_EQ(session.tlsVersion(), "TLS1.3");
    EXPECT_FALSE(session.tlsCipher().empty());
    ASSERT_TRUE(session.certificate());
    EXPECT_EQ(session.certificate()->subject(), "CN=localhost");
    EXPECT_TRUE(session.isDone(Step::startTls));
    ASSERT_THAT(server.received(), SizeIs(2));
    EXPECT_EQ(server.received()[0], startTlsRequest(1));
    EXPECT_EQ(operationOf(server.received()[1]), BindRequest);
}

TEST_F(StartTls, BeginsTheHandshakeAfterTheResponseOnly)
{
    std::atomic<std::size_t> unread{1};
    ScriptedServer server([&](Peer& peer) {
        int const id = messageIdOf(peer.receiveMessage());
        peer.awaitCue();
        unread = peer.unreadBytes();
        peer.send(startTlsResponse(id));
        if (peer.startTls(m_tls)) {
            answerAll(peer);
        }
    });
    Session session(optionsFor(server));
    session.begin(Step::bind, soon());
    while (server.receivedCount() == 0) {
        session.advance();
    }
    session.advance();

    server.giveCue();

    EXPECT_EQ(shown(session.reach(Step::bind, soon())), "Found 0 ");
    EXPECT_EQ(unread, 0U);
}

TEST_F(StartTls, ThatIsRefusedEndsTheSession)
{
    for (int const code : {1, 2, 8, 34, 49, 52, 53, 80, 123}) {
        ScriptedServer const server(
            answering([code](int id) { return startTlsResponse(id, code, "not here"); }));

        Verdict const verdict = verdictOn(server);

        EXPECT_EQ(verdict.outcome, Lookup::Outcome::Refused) << code;
        EXPECT_EQ(verdict.code, code);
        EXPECT_THAT(verdict.text, AllOf(StartsWith("ldap://127.0.0.1:"),
                                        HasSubstr("the server refuses StartTLS: "),
                                        HasSubstr("(" + std::to_string(code) + "): not here")));
        EXPECT_TRUE(eventually([&] { return server.receivedCount() == 2; }));
        EXPECT_THAT(server.received(), onlyAsked) << code;
    }
}

TEST_F(StartTls, ThatABusyServerRefusesIsTriedLater)
{
    ScriptedServer const server(answering([](int id) { return startTlsResponse(id, 51); }));

    EXPECT_THAT(shown(verdictOn(server)), StartsWith("TryLater 51 "));
}

// CVE-2011-0411 and its kind: what an attacker appends to the response must not be read later as the
// answer of the server.
TEST_F(StartTls, WithAnAnswerInjectedBehindTheResponseIsRefused)
{
    for (std::string const& injected :
         {bindResponse(2), std::string("0"), noticeOfDisconnection(), bindResponse(1)}) {
        ScriptedServer const server(
            answering([&injected](int id) { return startTlsResponse(id) + injected; }));

        EXPECT_THAT(shown(verdictOn(server)),
                    AllOf(StartsWith("Refused -11 "), HasSubstr("unencrypted data follows")));
        EXPECT_TRUE(eventually([&] { return server.receivedCount() == 2; }));
        EXPECT_THAT(server.received(), onlyAsked);
    }
}

TEST_F(StartTls, WithAnAnswerInjectedBeforeTheResponseTakesTheServersAnswer)
{
    ScriptedServer const server([&](Peer& peer) {
        int const id = messageIdOf(peer.receiveMessage());
        peer.send(bindResponse(id + 1) + startTlsResponse(id));
        if (peer.startTls(m_tls)) {
            answerAll(peer, 49);
        }
    });

    EXPECT_THAT(shown(verdictOn(server)), StartsWith("Refused 49 "));
}

TEST_F(StartTls, ThatAnAttackerGrantsInPlainTextIsTriedLater)
{
    ScriptedServer const server([](Peer& peer) {
        peer.send(startTlsResponse(messageIdOf(peer.receiveMessage())));
        std::string const hello = peer.receiveRest();
        EXPECT_THAT(hello, StartsWith("\x16\x03"));
    });
    SessionOptions options = optionsFor(server);
    options.networkTimeout = milliseconds(300);
    Session session(options);

    Verdict const verdict = session.reach(Step::identify, soon());

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("TryLater -5 "), HasSubstr("TLS handshake was not finished")));
    EXPECT_EQ(session.step(), Step::handshake);
    EXPECT_THAT(server.received(), ElementsAre(startTlsRequest(1)));
}

TEST_F(StartTls, ThatIsNotAnsweredEndsWithTheTimeout)
{
    ScriptedServer const server([](Peer& peer) { peer.receiveUntilClosed(); });
    SessionOptions options = optionsFor(server);
    options.networkTimeout = milliseconds(300);
    Session session(options);

    Verdict const verdict = session.reach(Step::identify, soon());

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("TryLater -5 ldap://127.0.0.1:"),
                      HasSubstr("did not answer the StartTLS request within 0.300 s")));
    EXPECT_EQ(session.step(), Step::startTls);
}

TEST_F(StartTls, ThatIsAnsweredInvalidlyIsTriedLater)
{
    std::string const referral = berElement(0xa3, berElement(0x04, "ldap://elsewhere/"));
    auto const contradiction = [&](int id) {
        return ldapMessage(id,
                           berElement(0x78, std::string("\x0a\x01\0\x04\0\x04\0", 7) + referral));
    };
    for (std::function<std::string(int)> const& answer :
         std::vector<std::function<std::string(int)>>{
             [](int id) { return bindResponse(id); }, [](int id) { return searchDone(id); },
             [](int id) { return ldapMessage(id, berElement(0x78, "\x0a\x01")); },
             [](int) { return std::string("HTTP/1.1 400 Bad Request\r\n\r\n"); }, contradiction}) {
        ScriptedServer const server(answering(answer));

        EXPECT_THAT(shown(verdictOn(server)), StartsWith("TryLater -4 "));
        EXPECT_EQ(server.received().front(), startTlsRequest(1));
    }
}

TEST_F(StartTls, ThatEndsTheConnectionIsTriedLater)
{
    ScriptedServer const closing([](Peer& peer) { peer.receiveMessage(); });
    ScriptedServer const leaving(answering([](int) { return noticeOfDisconnection(); }));

    EXPECT_THAT(shown(verdictOn(closing)),
                AllOf(StartsWith("TryLater -1 "), HasSubstr("during the StartTLS request")));
    EXPECT_THAT(shown(verdictOn(leaving)),
                AllOf(StartsWith("TryLater -1 "), HasSubstr("is closing the connection")));
}

TEST_F(StartTls, VerifiesTheCertificateBeforeTheBind)
{
    ScriptedServer const server([&](Peer& peer) {
        if (peer.grantStartTls(m_tls)) {
            peer.receiveUntilClosed();
        }
    });
    SessionOptions options = optionsFor(server);
    options.host = "ldap.example.test";
    Session session(options);

    Verdict const verdict = session.reach(Step::identify, soon());

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("Refused -11 ldap://ldap.example.test:"),
                                      HasSubstr("does not match 'ldap.example.test'")));
    EXPECT_EQ(session.step(), Step::handshake);
    EXPECT_EQ(server.received().front(), startTlsRequest(1));
    for (std::string const& message : server.received()) {
        EXPECT_NE(operationOf(message), BindRequest);
    }
}

TEST_F(StartTls, ResumesTlsSessions)
{
    std::atomic<int> resumed{0};
    ScriptedServer const server([&](Peer& peer) {
        if (peer.grantStartTls(m_tls)) {
            resumed += peer.isTlsResumed() ? 1 : 0;
            answerAll(peer);
        }
    });
    SessionOptions const options = optionsFor(server);
    Session first(options);
    Session second(options);

    EXPECT_EQ(shown(first.reach(Step::bind, soon())), "Found 0 ");
    EXPECT_EQ(shown(second.reach(Step::bind, soon())), "Found 0 ");

    EXPECT_FALSE(first.isTlsResumed());
    EXPECT_TRUE(second.isTlsResumed());
    EXPECT_EQ(resumed, 1);
}

TEST_F(StartTls, WithUnusableFilesIsMisconfigured)
{
    ScriptedServer const server([&](Peer& peer) { peer.grantStartTls(m_tls); });
    SessionOptions options = optionsFor(server);
    options.tls = std::make_shared<TlsContext>(policy(TlsVerify::full, "/nonexistent/ca.pem"));
    SessionOptions none = options;
    none.tls.reset();

    EXPECT_THAT(shown(Session(options).reach(Step::identify, soon())),
                AllOf(StartsWith("Misconfigured -9 "), HasSubstr("'/nonexistent/ca.pem'")));
    EXPECT_THAT(shown(Session(none).reach(Step::identify, soon())),
                AllOf(StartsWith("Misconfigured -9 "), HasSubstr("TLS is not configured")));
}

TEST_F(StartTls, IsNotTriedWhereItIsImpossible)
{
    ScriptedServer const server([](Peer& peer) { peer.receiveUntilClosed(); });
    SessionOptions old = optionsFor(server);
    old.version = 2;
    SessionOptions twice = optionsFor(server);
    twice.secure = true;

    EXPECT_THAT(shown(Session(old).reach(Step::identify, soon())),
                AllOf(StartsWith("Misconfigured -9 "), HasSubstr("StartTLS needs LDAPv3")));
    EXPECT_THAT(shown(Session(twice).reach(Step::connect, soon())),
                AllOf(StartsWith("Misconfigured -9 "), HasSubstr("TLS from the first byte")));
    EXPECT_EQ(server.connectionCount(), 0U);
}

// TLS settings from ldap.conf and the environment, in a process of their own.

TEST_F(TlsConfiguration, IsTakenFromTheEnvironment)
{
    EXPECT_EQ(
        policyWith({"LDAPTLS_CACERT=" + m_authority.file(), "LDAPTLS_CRLFILE=" + m_revocations,
                    "LDAPTLS_CIPHER_SUITE=SECURE192", "LDAPTLS_PROTOCOL_MIN=3.4",
                    "LDAPTLS_CERT=" + m_mine.certificateFile, "LDAPTLS_KEY=" + m_mine.keyFile}),
        "authorities " + m_authority.file() + "\nfolder \nrevocations " + ofGnuTls(m_revocations) +
            "\nciphers " + ofGnuTls("SECURE192") + "\nversion 4\ncertificate " +
            m_mine.certificateFile + "\nkey " + m_mine.keyFile + "\nverdict \n");
}

TEST_F(TlsConfiguration, IsTakenFromTheHostsFile)
{
    std::string const folder = std::filesystem::path(m_authority.file()).parent_path();
    std::string const file =
        fileWith("host.conf", "TLS_CACERT " + m_authority.file() + "\nTLS_CACERTDIR " + folder +
                                  "\nTLS_CRLFILE " + m_revocations +
                                  "\nTLS_CIPHER_SUITE NORMAL\nTLS_PROTOCOL_MIN 3.2\n");

    EXPECT_EQ(policyWith({"LDAPCONF=" + file}),
              "authorities " + m_authority.file() + "\nfolder " + folder + "\nrevocations " +
                  ofGnuTls(m_revocations) + "\nciphers " + ofGnuTls("NORMAL") +
                  "\nversion 2\ncertificate \nkey \nverdict \n");
}

// They are a user's own: OpenLDAP ignores them in the host's file.
TEST_F(TlsConfiguration, TakesTheClientCertificateFromTheUsersFileOnly)
{
    std::string const lines =
        "TLS_CERT " + m_mine.certificateFile + "\nTLS_KEY " + m_mine.keyFile + '\n';

    EXPECT_THAT(policyWith({"LDAPCONF=" + fileWith("host.conf", lines)}),
                HasSubstr("\ncertificate \nkey \n"));
    fileWith(".ldaprc", lines);
    EXPECT_THAT(policyWith({}), AllOf(HasSubstr("\ncertificate " + m_mine.certificateFile + '\n'),
                                      HasSubstr("\nkey " + m_mine.keyFile + '\n')));
}

TEST_F(TlsConfiguration, OfAFileThatIsMissingIsNamed)
{
    EXPECT_THAT(policyWith({"LDAPTLS_CACERT=/nonexistent/ca.pem"}),
                HasSubstr("\nverdict the CA file '/nonexistent/ca.pem' cannot be read: "));
}

} // namespace SolvaneTest
