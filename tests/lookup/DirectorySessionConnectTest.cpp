// Connecting: peers that are not there or speak no TLS, and certificates of every kind.
#include "DirectorySessions.h"
#include "Process.h"
#include "ScriptedServer.h"
#include "Slapd.h"
#include "TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <memory>

using namespace Solvane;
using namespace Solvane::Lookup;
using std::chrono::milliseconds;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

namespace SolvaneTest {

using Peer = ScriptedServer::Peer;

// Connect

TEST(ConnectTo, APortWhereNobodyListensIsTriedLater)
{
    RefusingPort const port;
    DirectorySession session = plainSession(port.number());

    Verdict const verdict = session.connect(soon());

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("TryLater -1 ldap://127.0.0.1:"),
                                      HasSubstr("cannot be reached: nobody listens there")));
    EXPECT_TRUE(session.connection().isNull());
}

TEST(ConnectTo, ASecurePortWhereNobodyListensIsTriedLater)
{
    RefusingPort const port;
    DirectorySession session = secureSession(port.number(), policy(TlsVerify::none));

    Verdict const verdict = session.connect(soon());

    EXPECT_THAT(shown(verdict), StartsWith("TryLater -1 ldaps://127.0.0.1:"));
}

TEST(ConnectTo, AnyServerAfterTheDeadlineIsNotTried)
{
    ScriptedServer const server([](Peer& peer) { peer.ignore(); });
    DirectorySession session = plainSession(server.port());

    Verdict const verdict = session.connect(Clock::now());

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("TryLater -5 "), HasSubstr("no time was left")));
    EXPECT_EQ(server.connectionCount(), 0U);
}

TEST(ConnectTo, ASilentTlsPeerEndsWithTheDeadline)
{
    ScriptedServer const server([](Peer& peer) { peer.ignore(); });
    DirectorySession session = secureSession(server.port(), policy(TlsVerify::none));
    auto const start = Clock::now();

    Verdict const verdict = session.connect(in(milliseconds(700)));

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("TryLater -5 "), HasSubstr("no connection")));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5)); // the network timeout is ten
}

TEST(ConnectTo, APeerThatSpeaksNoTlsIsTriedLater)
{
    ScriptedServer const server([](Peer& peer) {
        peer.send("HTTP/1.1 400 Bad Request\r\n\r\n");
        peer.receiveUntilClosed();
    });
    DirectorySession session = secureSession(server.port(), policy(TlsVerify::none));

    Verdict const verdict = session.connect(soon());

    EXPECT_THAT(shown(verdict), StartsWith("TryLater -1 "));
}

TEST(ConnectTo, APeerThatSpeaksNoTlsIsNoMatterOfItsCertificate)
{
    ScriptedServer const server([](Peer& peer) {
        peer.send("HTTP/1.1 400 Bad Request\r\n\r\n");
        peer.receiveUntilClosed();
    });
    TemporaryDirectory const folder;
    run({SOLVANE_MKCERTS, folder.path()});
    DirectorySession session =
        secureSession(server.port(), policy(TlsVerify::full, folder.path() / "ca.pem"));

    Verdict const verdict = session.connect(soon());

    EXPECT_THAT(shown(verdict), StartsWith("TryLater -1 "));
}

TEST(UriOfASession, HoldsTheHostAsTheUserNamedIt)
{
    auto const server = serverAt(636, true);

    DirectorySession const named(server, "LDAP.Example.test", TlsPolicy());
    DirectorySession const numbered(server, "::1", TlsPolicy());

    EXPECT_EQ(named.uri(), "ldaps://LDAP.Example.test:636");
    EXPECT_EQ(numbered.uri(), "ldaps://[::1]:636");
}

TEST(SessionBeforeItsConnect, HasNothing)
{
    DirectorySession session(serverAt(636, true), "127.0.0.1", TlsPolicy());
    int id = 0;

    session.limits(1, 1);
    session.abandon(1);
    Verdict const sent = session.send(searchFor("(cn=x)"), id);
    Verdict const bound = session.bind(readerDn, readerPassword, soon());
    Verdict const confirmed = session.confirmIdentity(soon());

    EXPECT_FALSE(session.isFresh());
    EXPECT_EQ(session.descriptor(), -1);
    EXPECT_EQ(session.tlsVersion(), "");
    EXPECT_THAT(shown(sent), StartsWith("TryLater -1 "));
    EXPECT_THAT(shown(bound), StartsWith("TryLater -1 "));
    EXPECT_THAT(shown(confirmed), StartsWith("TryLater -1 "));
}

// Certificates

class GoodCertificate : public SuiteWithSlapd<GoodCertificate> {
public:
    static std::vector<std::string> options() { return {"--users", "5"}; }

protected:
    std::string folder() const { return slapd().caFile().parent_path(); }
};

TEST_F(GoodCertificate, IsAcceptedForItsAddress)
{
    auto session = secureSession(slapd().tlsPort(), policy(TlsVerify::full, slapd().caFile()));

    Verdict const verdict = session.connect(soon());

    EXPECT_EQ(shown(verdict), "Found 0 ");
    EXPECT_THAT(session.tlsVersion(), MatchesRegex("TLSv?1\\.[23]"));
    EXPECT_THAT(session.tlsCipher(), Not(IsEmpty()));
    ASSERT_TRUE(session.certificate());
    EXPECT_EQ(session.certificate()->subject(), "CN=localhost");
}

TEST_F(GoodCertificate, IsAcceptedForItsName)
{
    auto session =
        secureSession(slapd().tlsPort(), policy(TlsVerify::full, slapd().caFile()), "localhost");

    Verdict const verdict = session.connect(soon());

    EXPECT_EQ(shown(verdict), "Found 0 ");
}

TEST_F(GoodCertificate, IsRefusedForAnotherName)
{
    auto session = secureSession(slapd().tlsPort(), policy(TlsVerify::full, slapd().caFile()),
                                 "ldap.example.test");

    Verdict const verdict = session.connect(soon());

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("Refused -11 ldaps://ldap.example.test:"),
                      HasSubstr("not for 'ldap.example.test', but for localhost, ")));
    EXPECT_TRUE(session.connection().isNull());
    EXPECT_TRUE(session.certificate());
}

TEST_F(GoodCertificate, IsAcceptedForAnotherNameWhereTheChainIsAll)
{
    auto session = secureSession(slapd().tlsPort(), policy(TlsVerify::chain, slapd().caFile()),
                                 "ldap.example.test");

    Verdict const verdict = session.connect(soon());

    EXPECT_EQ(shown(verdict), "Found 0 ");
}

TEST_F(GoodCertificate, IsRefusedWithoutItsAuthority)
{
    auto session =
        secureSession(slapd().tlsPort(), policy(TlsVerify::chain, folder() + "/bad.pem"));

    Verdict const verdict = session.connect(soon());

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("Refused -11 ldaps://127.0.0.1:"),
                                      HasSubstr("signed by an unknown authority: "
                                                "CN=Throwaway test authority")));
    EXPECT_TRUE(session.connection().isNull());
    EXPECT_TRUE(session.certificate());
}

TEST_F(GoodCertificate, IsJudgedBySessionsOfOneProcessEachForItself)
{
    auto const verdictOf = [](TlsPolicy const& tls) {
        return secureSession(slapd().tlsPort(), tls).connect(soon()).outcome;
    };
    auto const right = policy(TlsVerify::full, slapd().caFile());
    auto const wrong = policy(TlsVerify::full, folder() + "/bad.pem");
    auto const none = policy(TlsVerify::none);

    std::vector<Lookup::Outcome> const outcomes = {verdictOf(right), verdictOf(wrong),
                                                   verdictOf(none),  verdictOf(right),
                                                   verdictOf(none),  verdictOf(wrong)};

    EXPECT_THAT(outcomes, testing::ElementsAre(Lookup::Outcome::Found, Lookup::Outcome::Refused,
                                               Lookup::Outcome::Found, Lookup::Outcome::Found,
                                               Lookup::Outcome::Found, Lookup::Outcome::Refused));
}

TEST_F(GoodCertificate, IsNotAskedForWhereTheAuthoritiesAreMissing)
{
    auto session = secureSession(slapd().tlsPort(), policy(TlsVerify::full, "/nonexistent/ca.pem"));

    Verdict const verdict = session.connect(soon());

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("Misconfigured -9 "), HasSubstr("'/nonexistent/ca.pem'"),
                      HasSubstr("No such file or directory")));
}

TEST_F(GoodCertificate, IsNoMatterWhereTheAuthoritiesAreNone)
{
    TemporaryDirectory const own;
    std::string const file = own.path() / "none.pem";
    std::ofstream(file) << "no certificates here\n";
    auto session = secureSession(slapd().tlsPort(), policy(TlsVerify::chain, file));

    Verdict const verdict = session.connect(soon());

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("Misconfigured -9 "),
                                      HasSubstr("none.pem' contains no usable certificate")));
}

TEST_F(GoodCertificate, CarriesABindAndAnAnswer)
{
    auto session = secureSession(slapd().tlsPort(), policy(TlsVerify::full, slapd().caFile()));
    session.connect(soon());
    Verdict const bound = session.bind(readerDn, readerPassword, soon());
    Verdict const confirmed = session.confirmIdentity(soon());
    int id = 0;

    Verdict const sent = session.send(searchFor("(uid=user0000001)"), id);

    EXPECT_EQ(shown(bound), "Found 0 ");
    EXPECT_EQ(shown(confirmed), "Found 0 ");
    EXPECT_EQ(shown(sent), "Found 0 ");
    EXPECT_THAT(typesFor(session, id), testing::ElementsAre(2, 4));
    EXPECT_TRUE(session.isFresh());
}

/// A server that shows another certificate than the right one.
class WrongCertificate : public testing::Test {
protected:
    void start(std::string const& certificate)
    {
        if (Slapd::isInstalled()) {
            slapd = std::make_unique<Slapd>(
                std::vector<std::string>{"--users", "0", "--cert", certificate});
        } else {
            Slapd::reportMissing();
        }
    }

    std::unique_ptr<Slapd> slapd;
};

TEST_F(WrongCertificate, ThatExpiredIsRefused)
{
    start("expired");
    if (!slapd) {
        return;
    }
    auto session = secureSession(slapd->tlsPort(), policy(TlsVerify::chain, slapd->caFile()));
    auto accepting = secureSession(slapd->tlsPort(), policy(TlsVerify::none));

    Verdict const verdict = session.connect(soon());
    Verdict const accepted = accepting.connect(soon());

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("Refused -11 "),
                                      HasSubstr("not accepted: expired on 2021-01-01")));
    EXPECT_EQ(shown(accepted), "Found 0 ");
}

TEST_F(WrongCertificate, OfAStrangerIsRefused)
{
    start("bad");
    if (!slapd) {
        return;
    }
    auto session = secureSession(slapd->tlsPort(), policy(TlsVerify::chain, slapd->caFile()));

    Verdict const verdict = session.connect(soon());

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("Refused -11 "), HasSubstr("not accepted: self-signed")));
    ASSERT_TRUE(session.certificate());
    EXPECT_EQ(session.certificate()->subject(), "CN=wrong.example.test");
}

} // namespace SolvaneTest
