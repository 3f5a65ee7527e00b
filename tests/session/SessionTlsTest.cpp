// TLS: kinds and fields of certificates, matching of hosts, reasons for distrust, versions, client
// certificates, and interrupted handshakes.
#include "Eventually.h"
#include "LdapMessages.h"
#include "Process.h"
#include "ScriptedServer.h"
#include "ServerTls.h"
#include "Sessions.h"
#include "TemporaryDirectory.h"

#include <solvane/ldap.h>
#include <solvane/session/Certificate.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ldap.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>

using namespace Solvane;
using namespace Solvane::Lookup;
using std::chrono::milliseconds;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

/// Completes the handshake and answers each request with success.
void serve(Peer& peer, ServerTls const& tls)
{
    if (!peer.startTls(tls)) {
        return;
    }
    for (std::string request = peer.receiveMessage(); !request.empty();
         request = peer.receiveMessage()) {
        peer.send(operationOf(request) == BindRequest ? bindResponse(messageIdOf(request))
                                                      : searchDone(messageIdOf(request)));
    }
}

/// A server with TLS that answers everything.
class TlsServer {
public:
    explicit TlsServer(TlsIdentity const& identity, std::string const& priority = "NORMAL",
                       std::string const& clientAuthorities = std::string())
        : m_tls(identity, priority, clientAuthorities)
    {
    }

    unsigned int port() const { return m_server.port(); }
    ScriptedServer& server() { return m_server; }

private:
    ServerTls m_tls;
    ScriptedServer m_server{[this](Peer& peer) { serve(peer, m_tls); }};
};

/// An authority, and the verdicts of sessions on certificates.
class CertificateOfAServer : public testing::Test {
protected:
    Verdict verdictOn(TlsIdentity const& identity, TlsVerify verify = TlsVerify::full,
                      std::string const& host = "localhost")
    {
        return verdictOn(identity, policy(verify, m_authority.file()), host);
    }
    Verdict verdictOn(TlsIdentity const& identity, TlsPolicy const& policy,
                      std::string const& host = "localhost")
    {
        TlsServer const server(identity);
        m_session = std::make_unique<Session>(secureOptions(server.port(), policy, host));
        return m_session->reach(Step::handshake, soon());
    }

    Authority m_authority;
    CertificateWish m_wish;
    std::unique_ptr<Session> m_session;
};

} // namespace

// Certificates

TEST_F(CertificateOfAServer, IsAcceptedForItsNameAndItsAddress)
{
    TlsIdentity const good = m_authority.issue();

    EXPECT_EQ(shown(verdictOn(good)), "Found 0 ");
    EXPECT_EQ(m_session->tlsVersion(), "TLS1.3");
    EXPECT_THAT(m_session->tlsCipher(), Not(IsEmpty()));
    ASSERT_TRUE(m_session->certificate());
    EXPECT_EQ(m_session->certificate()->subject(), "CN=localhost");
    EXPECT_EQ(shown(verdictOn(good, TlsVerify::full, "127.0.0.1")), "Found 0 ");
    EXPECT_EQ(shown(verdictOn(good, TlsVerify::full, "LocalHost.")), "Found 0 ");
}

TEST_F(CertificateOfAServer, IsAcceptedThroughAnAuthorityInBetween)
{
    CertificateWish between;
    between.commonName = "Between";
    between.isAuthority = true;

    EXPECT_EQ(shown(verdictOn(m_authority.issueThrough(between, m_wish))), "Found 0 ");
}

TEST_F(CertificateOfAServer, IsRefusedForAnotherName)
{
    TlsIdentity const good = m_authority.issue();

    Verdict const verdict = verdictOn(good, TlsVerify::full, "ldap.example.test");
    bool const wasShown = m_session->certificate().has_value();

    EXPECT_THAT(
        shown(verdict),
        AllOf(StartsWith("Refused -11 ldaps://ldap.example.test:"),
              HasSubstr("does not match 'ldap.example.test', it is for localhost, 127.0.0.1")));
    EXPECT_TRUE(wasShown);
    EXPECT_EQ(m_session->step(), Step::handshake);
    EXPECT_EQ(shown(verdictOn(good, TlsVerify::chain, "ldap.example.test")), "Found 0 ");
}

TEST_F(CertificateOfAServer, IsRefusedWithoutItsAuthority)
{
    Authority const other("Somebody else");

    Verdict const verdict = verdictOn(m_authority.issue(), policy(TlsVerify::chain, other.file()));

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("Refused -11 "),
                                      HasSubstr("not accepted: signed by an unknown authority: "
                                                "CN=Test authority")));
}

TEST_F(CertificateOfAServer, IsRefusedIfItSignedItself)
{
    EXPECT_THAT(shown(verdictOn(m_authority.selfSigned(m_wish))),
                AllOf(StartsWith("Refused -11 "), HasSubstr("not accepted: self-signed")));
}

TEST_F(CertificateOfAServer, IsRefusedOutOfItsTime)
{
    m_wish.notBefore = 1577836800;
    m_wish.notAfter = 1609459200;
    EXPECT_THAT(shown(verdictOn(m_authority.issue(m_wish))),
                AllOf(StartsWith("Refused -11 "), HasSubstr("expired on 2021-01-01")));

    m_wish.notBefore = 4102444800;
    m_wish.notAfter = 4133980800;
    EXPECT_THAT(shown(verdictOn(m_authority.issue(m_wish))),
                AllOf(StartsWith("Refused -11 "), HasSubstr("not valid before 2100-01-01")));
}

TEST_F(CertificateOfAServer, IsRefusedIfTheAuthorityInBetweenExpired)
{
    CertificateWish between;
    between.commonName = "Between";
    between.isAuthority = true;
    between.notBefore = 1577836800;
    between.notAfter = 1609459200;

    EXPECT_THAT(shown(verdictOn(m_authority.issueThrough(between, m_wish))),
                AllOf(StartsWith("Refused -11 "), HasSubstr("expired on 2021-01-01 (CN=Between)")));
}

TEST_F(CertificateOfAServer, IsRefusedIfItIsForClients)
{
    m_wish.isForClients = true;

    EXPECT_THAT(shown(verdictOn(m_authority.issue(m_wish))),
                AllOf(StartsWith("Refused -11 "), HasSubstr("not valid for servers")));
}

TEST_F(CertificateOfAServer, IsRefusedIfItsKeyIsShort)
{
    m_wish.rsaBits = 1024;

    EXPECT_THAT(shown(verdictOn(m_authority.issue(m_wish))),
                AllOf(StartsWith("Refused -11 "), HasSubstr("too weak")));
    m_wish.rsaBits = 2048;
    EXPECT_EQ(shown(verdictOn(m_authority.issue(m_wish))), "Found 0 ");
}

TEST_F(CertificateOfAServer, IsRefusedIfItIsSignedWithSha1)
{
    m_wish.isSignedWithSha1 = true;

    EXPECT_THAT(shown(verdictOn(m_authority.issue(m_wish))),
                AllOf(StartsWith("Refused -11 "), HasSubstr("too weak")));
}

TEST_F(CertificateOfAServer, IsNotLookedAtWithoutVerification)
{
    m_wish.rsaBits = 1024;
    m_wish.isForClients = true;

    EXPECT_EQ(shown(verdictOn(m_authority.selfSigned(m_wish), TlsVerify::none, "elsewhere")),
              "Found 0 ");
}

TEST_F(CertificateOfAServer, IsRefusedOnceItIsRevoked)
{
    TlsIdentity const revoked = m_authority.issue();
    TlsIdentity const good = m_authority.issue();
    TlsPolicy policy = SolvaneTest::policy(TlsVerify::full, m_authority.file());
    policy.crlFile = m_authority.revocations({revoked});

    EXPECT_THAT(shown(verdictOn(revoked, policy)),
                AllOf(StartsWith("Refused -11 "), HasSubstr("not accepted: revoked")));
    EXPECT_EQ(shown(verdictOn(good, policy)), "Found 0 ");
}

TEST_F(CertificateOfAServer, IsRefusedIfItWasRevokedOnAListThatIsOld)
{
    TlsIdentity const revoked = m_authority.issue();
    TlsPolicy policy = SolvaneTest::policy(TlsVerify::full, m_authority.file());
    policy.crlFile = m_authority.revocations({revoked}, -3600);

    EXPECT_THAT(shown(verdictOn(revoked, policy)), StartsWith("Refused -11 "));
    EXPECT_EQ(shown(verdictOn(m_authority.issue(), policy)), "Found 0 ");
}

TEST_F(CertificateOfAServer, IsAcceptedByAnAuthorityInAFolder)
{
    TlsPolicy policy;
    policy.caFolder = std::filesystem::path(m_authority.file()).parent_path();

    EXPECT_EQ(shown(verdictOn(m_authority.issue(), policy)), "Found 0 ");
}

// Files and settings

TEST(TlsContextFor, MissingAuthoritiesIsMisconfigured)
{
    TlsContext const context(policy(TlsVerify::full, "/nonexistent/ca.pem"));

    EXPECT_THAT(shown(context.verdict()),
                AllOf(StartsWith("Misconfigured -9 "), HasSubstr("'/nonexistent/ca.pem'"),
                      HasSubstr("No such file or directory")));
}

TEST(TlsContextFor, MissingAuthoritiesThatAreNotNeededIsGood)
{
    EXPECT_TRUE(TlsContext(policy(TlsVerify::none, "/nonexistent/ca.pem")).verdict().isGood());
}

TEST(TlsContextFor, UnusableFilesIsMisconfigured)
{
    TemporaryDirectory const folder;
    Authority authority;
    TlsIdentity const mine = authority.issue();
    TlsIdentity const other = authority.issue();
    std::string const empty = folder.path() / "empty.pem";
    std::ofstream(empty) << "nothing of use\n";
    std::string const emptyFolder = folder.path() / "folder";
    std::filesystem::create_directory(emptyFolder);
    auto const refusal = [&](auto const& change) {
        TlsPolicy policy = SolvaneTest::policy(TlsVerify::full, authority.file());
        change(policy);
        return shown(TlsContext(policy).verdict());
    };

    EXPECT_THAT(refusal([&](TlsPolicy& tls) { tls.caFile = empty; }),
                AllOf(StartsWith("Misconfigured -9 the CA file '"),
                      HasSubstr("empty.pem' contains no certificates")));
    EXPECT_THAT(refusal([&](TlsPolicy& tls) { tls.caFolder = emptyFolder; }),
                AllOf(StartsWith("Misconfigured -9 the CA folder '"),
                      HasSubstr("folder' contains no certificates")));
    EXPECT_THAT(refusal([&](TlsPolicy& tls) { tls.caFolder = "/nonexistent"; }),
                HasSubstr("'/nonexistent' cannot be read: No such file"));
    EXPECT_THAT(refusal([&](TlsPolicy& tls) { tls.crlFile = empty; }),
                AllOf(StartsWith("Misconfigured -9 the CRL file '"),
                      HasSubstr("contains no usable revocation lists")));
    EXPECT_THAT(refusal([&](TlsPolicy& tls) { tls.cipherSuite = "HIGH:!aNULL"; }),
                AllOf(StartsWith("Misconfigured -9 the cipher suite 'HIGH:!aNULL' is not"),
                      HasSubstr("GnuTLS")));
    EXPECT_THAT(refusal([&](TlsPolicy& tls) { tls.certificateFile = mine.certificateFile; }),
                StartsWith("Misconfigured -9 the client certificate has no key"));
    EXPECT_THAT(refusal([&](TlsPolicy& tls) { tls.keyFile = mine.keyFile; }),
                StartsWith("Misconfigured -9 the client certificate is missing"));
    EXPECT_THAT(refusal([&](TlsPolicy& tls) {
                    tls.certificateFile = mine.certificateFile;
                    tls.keyFile = "/nonexistent/key";
                }),
                StartsWith("Misconfigured -9 the key file '/nonexistent/key' cannot be read"));
    EXPECT_THAT(refusal([&](TlsPolicy& tls) {
                    tls.certificateFile = mine.certificateFile;
                    tls.keyFile = other.keyFile;
                }),
                AllOf(StartsWith("Misconfigured -9 the client certificate '"),
                      HasSubstr("cannot be used")));
    EXPECT_EQ(refusal([](TlsPolicy&) {}), "Found 0 ");
}

TEST(TlsContextFor, NothingSetTakesOpenLdapsConfiguration)
{
    Authority const authority;
    std::string const file = authority.file();
    std::string const suite = "SECURE192";
    int const version = LDAP_OPT_X_TLS_PROTOCOL_TLS1_3;
    int const none = 0;
    ldap_set_option(nullptr, LDAP_OPT_X_TLS_CACERTFILE, file.c_str());
    ldap_set_option(nullptr, LDAP_OPT_X_TLS_CIPHER_SUITE, suite.c_str());
    ldap_set_option(nullptr, LDAP_OPT_X_TLS_PROTOCOL_MIN, &version);

    TlsContext const taken{TlsPolicy()};
    TlsPolicy own;
    own.caFile = "/own/ca.pem";
    own.minimumVersion = TlsVersion::tls12;
    TlsContext const kept(own);

    ldap_set_option(nullptr, LDAP_OPT_X_TLS_CACERTFILE, nullptr);
    ldap_set_option(nullptr, LDAP_OPT_X_TLS_CIPHER_SUITE, nullptr);
    ldap_set_option(nullptr, LDAP_OPT_X_TLS_PROTOCOL_MIN, &none);
    EXPECT_EQ(taken.policy().caFile, file);
    EXPECT_EQ(taken.policy().cipherSuite, ofGnuTls(suite));
    EXPECT_EQ(taken.policy().minimumVersion, TlsVersion::tls13);
    EXPECT_TRUE(taken.verdict().isGood()) << taken.verdict().text;
    EXPECT_EQ(kept.policy().caFile, "/own/ca.pem");
    EXPECT_EQ(kept.policy().minimumVersion, TlsVersion::tls12);
}

// A file of one's own is trusted instead of the host's authorities, not besides them.
TEST(TlsContextFor, OwnAuthoritiesLeavesOpenLdapsAside)
{
    Authority const own;
    Authority const hosts;
    std::string const folder = std::filesystem::path(hosts.file()).parent_path();
    std::string const file = hosts.file();
    TlsPolicy ownFile;
    ownFile.caFile = own.file();
    TlsPolicy ownFolder;
    ownFolder.caFolder = std::filesystem::path(own.file()).parent_path();
    ldap_set_option(nullptr, LDAP_OPT_X_TLS_CACERTFILE, file.c_str());
    ldap_set_option(nullptr, LDAP_OPT_X_TLS_CACERTDIR, folder.c_str());

    TlsContext const byFile(ownFile);
    TlsContext const byFolder(ownFolder);

    ldap_set_option(nullptr, LDAP_OPT_X_TLS_CACERTFILE, nullptr);
    ldap_set_option(nullptr, LDAP_OPT_X_TLS_CACERTDIR, nullptr);
    EXPECT_EQ(byFile.policy().caFolder, "");
    EXPECT_EQ(byFolder.policy().caFile, "");
    EXPECT_EQ(byFolder.policy().caFolder, ownFolder.caFolder);
}

TEST(SessionWithUnusableFiles, IsMisconfiguredAndSendsNothing)
{
    ScriptedServer server([](Peer& peer) { peer.receiveUntilClosed(); });
    Session session(secureOptions(server.port(), policy(TlsVerify::full, "/nonexistent/ca.pem")));

    Verdict const verdict = session.reach(Step::identify, soon());

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("Misconfigured -9 ldaps://"), HasSubstr("'/nonexistent/ca.pem'")));
    EXPECT_EQ(session.step(), Step::handshake);
    EXPECT_THAT(server.received(), IsEmpty());
}

// Versions and client certificates

TEST(TlsServerWith, AnObsoleteVersionIsRefused)
{
    Authority authority;
    TlsServer const server(authority.issue(), "NORMAL:-VERS-ALL:+VERS-TLS1.1:%COMPAT:+SHA1");
    TlsPolicy lax = policy(TlsVerify::full, authority.file());
    lax.minimumVersion = TlsVersion::tls11;
    lax.cipherSuite = "NORMAL:+VERS-TLS1.1:+SHA1:+SIGN-ALL";

    Session strict(secureOptions(server.port(), policy(TlsVerify::full, authority.file())));
    Session other(secureOptions(server.port(), lax));
    Verdict const refused = strict.reach(Step::handshake, soon());
    Verdict const taken = other.reach(Step::handshake, soon());

    EXPECT_THAT(shown(refused), AllOf(StartsWith("Refused -11 "), HasSubstr("TLS")));
    EXPECT_EQ(shown(taken), "Found 0 ");
    EXPECT_EQ(other.tlsVersion(), "TLS1.1");
}

TEST(TlsServerWith, ALowerVersionThanTheMinimumIsRefused)
{
    Authority authority;
    TlsServer const server(authority.issue(), "NORMAL:-VERS-ALL:+VERS-TLS1.2");
    TlsPolicy strict = policy(TlsVerify::full, authority.file());
    strict.minimumVersion = TlsVersion::tls13;

    Session refused(secureOptions(server.port(), strict));
    Session taken(secureOptions(server.port(), policy(TlsVerify::full, authority.file())));

    EXPECT_THAT(shown(refused.reach(Step::handshake, soon())), StartsWith("Refused -11 "));
    EXPECT_EQ(shown(taken.reach(Step::bind, soon())), "Found 0 ");
    EXPECT_EQ(taken.tlsVersion(), "TLS1.2");
}

class ServerThatDemandsACertificate : public testing::TestWithParam<char const*> {
protected:
    Verdict verdictWith(TlsPolicy const& policy)
    {
        SessionOptions options = secureOptions(m_server.port(), policy);
        options.bindDn = readerDn;
        options.password = &readerPassword;
        Session session(options);
        // In TLS 1.3 the server refuses after its client has finished.
        return session.reach(Step::bind, soon());
    }

    Authority m_authority;
    Authority m_clientAuthority{"Clients"};
    TlsServer m_server{m_authority.issue(), GetParam(), m_clientAuthority.file()};
    TlsPolicy m_policy = policy(TlsVerify::full, m_authority.file());
};

TEST_P(ServerThatDemandsACertificate, RefusesAClientWithoutOne)
{
    EXPECT_THAT(shown(verdictWith(m_policy)),
                AllOf(StartsWith("Refused -11 "), HasSubstr("the server refuses TLS: ")));
}

TEST_P(ServerThatDemandsACertificate, TakesOneOfItsAuthority)
{
    CertificateWish wish;
    wish.isForClients = true;
    TlsIdentity const mine = m_clientAuthority.issue(wish);
    m_policy.certificateFile = mine.certificateFile;
    m_policy.keyFile = mine.keyFile;

    EXPECT_EQ(shown(verdictWith(m_policy)), "Found 0 ");
}

INSTANTIATE_TEST_SUITE_P(InEachVersion, ServerThatDemandsACertificate,
                         testing::Values("NORMAL:-VERS-ALL:+VERS-TLS1.2",
                                         "NORMAL:-VERS-ALL:+VERS-TLS1.3"));

// Fields of certificates, matching of hosts, and reasons for distrust.

/// The certificates of testbed/mkcerts, made once.
class CertificateOf : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_folder = std::make_unique<TemporaryDirectory>();
        ProgramOutcome const made = run({SOLVANE_MKCERTS, s_folder->path()});
        ASSERT_EQ(made.exitStatus, 0) << made.output;
    }
    static void TearDownTestSuite() { s_folder.reset(); }

    static std::string file(std::string const& name) { return s_folder->path() / (name + ".pem"); }

    static Certificate read(std::string const& name)
    {
        ProgramOutcome const made = run({"openssl", "x509", "-in", file(name), "-outform", "DER",
                                         "-out", s_folder->path() / "read.der"});
        EXPECT_EQ(made.exitStatus, 0) << made.output;
        std::ifstream stream(s_folder->path() / "read.der", std::ios::binary);
        return Certificate(std::string(std::istreambuf_iterator<char>(stream), {}));
    }

    static std::unique_ptr<TemporaryDirectory> s_folder;
};

std::unique_ptr<TemporaryDirectory> CertificateOf::s_folder;

TEST_F(CertificateOf, AServerTellsItsNames)
{
    Certificate const certificate = read("good");

    EXPECT_EQ(certificate.subject(), "CN=localhost");
    EXPECT_EQ(certificate.issuer(), "CN=Throwaway test authority");
    EXPECT_THAT(certificate.names(), Contains("localhost"));
    EXPECT_THAT(certificate.names(), Contains("127.0.0.1"));
    EXPECT_THAT(certificate.names(), Contains("::1"));
}

TEST_F(CertificateOf, AServerTellsItsTime)
{
    Certificate const certificate = read("expired");

    EXPECT_EQ(certificate.notBefore(), 1577836800);
    EXPECT_EQ(certificate.notAfter(), 1609459200);
}

TEST_F(CertificateOf, InvalidBytesIsRefused)
{
    EXPECT_THROW(Certificate("no certificate"), LDAPException);
    EXPECT_THROW(Certificate{std::string()}, LDAPException);
}

TEST_F(CertificateOf, AServerIsForEachOfItsNames)
{
    Certificate const certificate = read("good");

    for (char const* const host :
         {"localhost", "LocalHost", "localhost.", "127.0.0.1", "::1", "0:0:0:0:0:0:0:1"}) {
        EXPECT_TRUE(certificate.isFor(host)) << host;
    }
    for (char const* const host : {"", "local", "localhost.example.test", "127.0.0.2", "::2",
                                   "::ffff:127.0.0.1", "localhost..", "*"}) {
        EXPECT_FALSE(certificate.isFor(host)) << host;
    }
    EXPECT_FALSE(certificate.isFor(std::string("localhost\0.example.test", 23)));
}

TEST_F(CertificateOf, AllHostsOfADomainIsForOneLabelOnly)
{
    Certificate const certificate = read("wildcard");

    for (char const* const host : {"a.example.test", "LDAP.Example.Test"}) {
        EXPECT_TRUE(certificate.isFor(host)) << host;
    }
    // "sub*" is a wildcard within a label, which RFC 6125 leaves to the implementation.
    for (char const* const host :
         {"example.test", "a.b.example.test", ".example.test", "sub.b.example.test", "wildcard"}) {
        EXPECT_FALSE(certificate.isFor(host)) << host;
    }
}

TEST_F(CertificateOf, AnAddressIsNotForItsCommonName)
{
    Certificate const certificate = read("address");

    EXPECT_TRUE(certificate.isFor("127.0.0.1"));
    EXPECT_FALSE(certificate.isFor("localhost"));
}

TEST_F(CertificateOf, AHostWithoutAlternativeNamesIsForItsCommonName)
{
    Certificate const certificate = read("common");

    EXPECT_THAT(certificate.names(), IsEmpty());
    EXPECT_TRUE(certificate.isFor("localhost"));
    EXPECT_FALSE(certificate.isFor("127.0.0.1"));
}

TEST_F(CertificateOf, AServerIsTrustedWithItsAuthority)
{
    EXPECT_EQ(read("good").distrust(file("ca")), "");
}

TEST_F(CertificateOf, AServerIsDistrustedForEachReason)
{
    std::map<std::string, std::string> const expected = {
        {"expired", "expired on 2021-01-01"},
        {"future", "not valid before 2999-01-01"},
        {"bad", "self-signed"},
    };
    for (auto const& [name, reason] : expected) {
        EXPECT_EQ(read(name).distrust(file("ca")), reason);
    }
}

TEST_F(CertificateOf, AServerIsDistrustedWithoutItsAuthority)
{
    EXPECT_EQ(read("good").distrust(file("bad")),
              "signed by an unknown authority: CN=Throwaway test authority");
}

TEST_F(CertificateOf, AuthoritiesHasAFileThatCanBeUsed)
{
    std::string const empty = s_folder->path() / "empty.pem";
    std::ofstream(empty).close();

    EXPECT_EQ(faultOfAuthorities(file("ca")), "");
    EXPECT_THAT(faultOfAuthorities("/nonexistent"), StartsWith("cannot be read: No such file"));
    EXPECT_THAT(faultOfAuthorities(empty), StartsWith("contains no usable certificates"));
    EXPECT_THAT(faultOfAuthorities(s_folder->path()), HasSubstr("contains no usable certificates"));
    EXPECT_THAT(read("good").distrust(empty), StartsWith("contains no usable certificates"));
}

TEST(AuthoritiesOf, APolicyAreItsOwnFile)
{
    TlsPolicy tls;
    tls.caFile = "/some/ca.pem";

    EXPECT_EQ(tls.authorities(), "/some/ca.pem");
}

TEST(AuthoritiesOf, APolicyWithAFolderAloneAreThatFolder)
{
    TlsPolicy tls;
    tls.caFolder = "/some/folder";

    EXPECT_EQ(tls.authorities(), "/some/folder");
    tls.caFile = "/some/ca.pem";
    EXPECT_EQ(tls.authorities(), "/some/ca.pem");
}

} // namespace SolvaneTest
