// Binds by GSSAPI with a real KDC and slapd: with and without TLS, and what Kerberos may refuse.
#include "Eventually.h"
#include "Kdc.h"
#include "LdapMessages.h"
#include "Process.h"
#include "ProcessMemory.h"
#include "ScriptedServer.h"
#include "Sessions.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ldap.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

using namespace Solvane;
using namespace Solvane::Lookup;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace SolvaneTest {

/// A realm, and a slapd that belongs to it. Each test begins with a ticket of the reader.
class SessionByGssapi : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        if (!Slapd::isInstalled() || !Kdc::isInstalled()) {
            return;
        }
        s_kdc = std::make_unique<Kdc>();
        s_slapd = std::make_unique<Slapd>(
            std::vector<std::string>{"--users", "20", "--kerberos", s_kdc->folder()});
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
        kdc().useTicket("reader");
    }
    static Kdc& kdc() { return *s_kdc; }
    static Slapd& slapd() { return *s_slapd; }

    static SessionOptions options(std::string const& host = "localhost")
    {
        return optionsFor(slapd().port(), host);
    }
    static SessionOptions optionsFor(unsigned int port, std::string const& host = "localhost")
    {
        SessionOptions options = plainOptions(port);
        options.host = host;
        options.addresses = {*Address::parse("127.0.0.1", port)};
        options.mechanism = Mechanism::gssapi;
        return options;
    }
    static SessionOptions secureOptions()
    {
        SessionOptions secure = options();
        secure.port = slapd().tlsPort();
        secure.addresses = {*Address::parse("127.0.0.1", secure.port)};
        secure.secure = true;
        secure.tls =
            std::make_shared<TlsContext>(policy(TlsVerify::full, slapd().caFile().string()));
        return secure;
    }
    static std::string bindWith(SessionOptions const& options)
    {
        Session session(options);
        return shown(session.reach(Step::bind, soon()));
    }
    static void expectSearchesOn(Session& session)
    {
        int id = 0;
        EXPECT_EQ(shown(session.send(peopleSearch(), "(uid=user000001*)", id)), "Found 0 ");
        EXPECT_EQ(typesFor(session, id).size(), 11U);
        EXPECT_TRUE(session.isFresh());
    }

private:
    static std::unique_ptr<Kdc> s_kdc;
    static std::unique_ptr<Slapd> s_slapd;
};

std::unique_ptr<Kdc> SessionByGssapi::s_kdc;
std::unique_ptr<Slapd> SessionByGssapi::s_slapd;

// Who it is

TEST_F(SessionByGssapi, IsThePrincipalOfTheTicket)
{
    Session session(options());

    EXPECT_EQ(shown(session.reach(Step::identify, soon())), "Found 0 ");

    EXPECT_EQ(session.identity(), Identity::Confirmed);
    EXPECT_EQ(session.authorizationId(), "dn:cn=reader,dc=corp,dc=test");
    expectSearchesOn(session);
}

TEST_F(SessionByGssapi, TakesTheTicketByAKeytab)
{
    kdc().useKeytab(kdc().file("reader.keytab"));
    Session session(options());

    EXPECT_EQ(shown(session.reach(Step::identify, soon())), "Found 0 ");

    EXPECT_EQ(session.authorizationId(), "dn:cn=reader,dc=corp,dc=test");
}

TEST_F(SessionByGssapi, ActsAsTheAuthorizationId)
{
    kdc().useTicket("admin"); // who may act for every user
    SessionOptions asReader = options();
    asReader.authorizationId = "dn:cn=reader,dc=corp,dc=test";
    Session session(asReader);

    EXPECT_EQ(shown(session.reach(Step::identify, soon())), "Found 0 ");

    EXPECT_EQ(session.authorizationId(), "dn:cn=reader,dc=corp,dc=test");
}

TEST_F(SessionByGssapi, MayNotActAsAnotherUser)
{
    SessionOptions asAdmin = options();
    asAdmin.authorizationId = "dn:cn=admin,dc=corp,dc=test";

    EXPECT_THAT(bindWith(asAdmin), AllOf(StartsWith("Refused "), HasSubstr("bind is refused")));
}

TEST_F(SessionByGssapi, UsesTls)
{
    ToleratedLeak const leak;
    Session session(secureOptions());

    EXPECT_EQ(shown(session.reach(Step::identify, soon())), "Found 0 ");

    EXPECT_EQ(session.authorizationId(), "dn:cn=reader,dc=corp,dc=test");
    expectSearchesOn(session);
}

/// A slapd that compares the channel binding: the hash of its certificate.
TEST_F(SessionByGssapi, IsBoundToTheCertificateOfTls)
{
    ToleratedLeak const leak;
    std::ofstream(kdc().file("binding.conf")) << "sasl-cbinding tls-endpoint\n";
    Slapd const binding({"--users", "1", "--kerberos", kdc().folder(), "--global-conf",
                         kdc().file("binding.conf")});
    SessionOptions same = secureOptions();
    same.addresses = {*Address::parse("127.0.0.1", binding.tlsPort())};
    same.tls = std::make_shared<TlsContext>(policy(TlsVerify::full, binding.caFile().string()));

    Session session(same);
    EXPECT_EQ(shown(session.reach(Step::identify, soon())), "Found 0 ");
}

TEST_F(SessionByGssapi, NeedsLdapVersionThree)
{
    SessionOptions versionTwo = options();
    versionTwo.version = 2;

    EXPECT_THAT(bindWith(versionTwo),
                AllOf(StartsWith("Misconfigured -9 "), HasSubstr("a SASL bind needs LDAPv3")));
}

// What Kerberos may refuse

TEST_F(SessionByGssapi, NeedsATicket)
{
    Kdc::useCache(kdc().file("none"));

    EXPECT_THAT(bindWith(options()),
                AllOf(StartsWith("Misconfigured -9 "),
                      HasSubstr("no Kerberos ticket for ldap/localhost: No Kerberos credentials "
                                "available (default cache: FILE:"),
                      Not(HasSubstr("\n"))));
}

TEST_F(SessionByGssapi, NeedsAKeytabThatExists)
{
    kdc().useKeytab(kdc().file("none"));

    EXPECT_THAT(bindWith(options()), AllOf(StartsWith("Misconfigured -9 "),
                                           HasSubstr("No Kerberos credentials available")));
}

TEST_F(SessionByGssapi, NeedsATicketThatHasNotExpired)
{
    kdc().useTicket("reader", {"-l", "1s"});
    ASSERT_TRUE(eventually([] { return run({"klist", "-s"}).exitStatus != 0; }));

    EXPECT_THAT(bindWith(options()), AllOf(StartsWith("Misconfigured -9 "), HasSubstr("expired")));
}

TEST_F(SessionByGssapi, RefusesAClockThatIsOff)
{
    constexpr int anHour = 3600;
    kdc().setClock(anHour);

    EXPECT_THAT(bindWith(options()),
                AllOf(StartsWith("Misconfigured -9 "), HasSubstr("Clock skew too great")));
}

TEST_F(SessionByGssapi, NeedsAPrincipalThatExists)
{
    kdc().administer({"addprinc", "-randkey", "gone"});
    kdc().administer({"ktadd", "-k", kdc().file("gone.keytab"), "gone"});
    kdc().administer({"delprinc", "-force", "gone"});
    kdc().useKeytab(kdc().file("gone.keytab"));

    EXPECT_THAT(bindWith(options()),
                AllOf(StartsWith("Misconfigured -9 "),
                      HasSubstr("Client 'gone@CORP.TEST' not found in Kerberos database")));
}

// The KDC may lock the account: the engine's guard against that knows code 49.
TEST_F(SessionByGssapi, RefusesAnOldKeytabLikeAWrongPassword)
{
    kdc().administer({"addprinc", "-randkey", "+requires_preauth", "old"});
    kdc().administer({"ktadd", "-k", kdc().file("old.keytab"), "old"});
    kdc().administer({"cpw", "-randkey", "old"});
    kdc().useKeytab(kdc().file("old.keytab"));

    EXPECT_THAT(bindWith(options()),
                AllOf(StartsWith("Refused 49 "), HasSubstr("Preauthentication failed")));
}

TEST_F(SessionByGssapi, NeedsAPrincipalForTheServer)
{
    EXPECT_THAT(bindWith(options("unknown.corp.test")),
                AllOf(StartsWith("Misconfigured -6 "),
                      HasSubstr("Server ldap/unknown.corp.test@CORP.TEST not found in Kerberos "
                                "database")));
}

TEST_F(SessionByGssapi, NeedsAServerOfAKnownRealm)
{
    EXPECT_THAT(bindWith(options("host.elsewhere.test")), StartsWith("Misconfigured -6 "));
}

TEST_F(SessionByGssapi, IsRefusedByAServerWithAnotherKey)
{
    EXPECT_THAT(bindWith(options("other.corp.test")),
                AllOf(StartsWith("Refused 49 "), HasSubstr("gss_accept_sec_context")));
}

TEST_F(SessionByGssapi, CanBeTriedLaterWhenTheKdcIsUnreachable)
{
    RefusingPort const refusing;
    std::string text = kdc().configuration();
    std::string const before = "kdc = 127.0.0.1:";
    auto const position = text.find(before) + before.size();
    text.replace(position, text.find('\n', position) - position, std::to_string(refusing.number()));
    kdc().useConfiguration(text);

    EXPECT_THAT(bindWith(options()),
                AllOf(StartsWith("TryLater -6 "), HasSubstr("Cannot contact any KDC")));
}

// A server that cannot prove its identity

class ServerWithoutAKey : public SessionByGssapi {
protected:
    std::string bindToServer(ScriptedServer::Script const& script)
    {
        ScriptedServer const server(script);
        return bindWith(optionsFor(server.port()));
    }
};

TEST_F(ServerWithoutAKey, IsRefusedIfItAcceptsAtOnce)
{
    EXPECT_THAT(bindToServer([](ScriptedServer::Peer& peer) { peer.grantBind(); }),
                AllOf(StartsWith("Refused -6 "),
                      HasSubstr("accepted the bind before it proved its identity")));
}

TEST_F(ServerWithoutAKey, IsRefusedIfItInventsTokens)
{
    auto const answerTo = [](std::string const& request) {
        constexpr unsigned char serverCredentials = 0x87;
        std::string const result("\x0a\x01\x0e\x04\x00\x04\x00", 7); // code 14
        return ldapMessage(messageIdOf(request),
                           berElement(0x61, result + berElement(serverCredentials, "`\x05junk")));
    };

    EXPECT_THAT(bindToServer([&](ScriptedServer::Peer& peer) {
                    peer.send(answerTo(peer.receiveMessage()));
                    peer.receiveUntilClosed();
                }),
                AllOf(StartsWith("Refused -6 "), HasSubstr("did not prove its identity")));
}

TEST_F(ServerWithoutAKey, IsHeardIfItRefuses)
{
    EXPECT_THAT(bindToServer([](ScriptedServer::Peer& peer) {
                    peer.send(bindResponse(messageIdOf(peer.receiveMessage()), LDAP_BUSY));
                    peer.receiveUntilClosed();
                }),
                AllOf(StartsWith("TryLater 51 "), HasSubstr("the bind is refused")));
}

// The security layer of a connection without TLS

/// A session with slapd through a man in the middle.
class RelayedSession : public SessionByGssapi {
protected:
    /// The number of what the server sends last before the layer.
    static constexpr int lastOfTheBind = 3;

    static std::size_t packetLength(std::string const& bytes)
    {
        std::size_t length = 0;
        for (std::size_t i = 0; i < 4; ++i) {
            length = length * 256 + static_cast<unsigned char>(bytes.at(i));
        }
        return length + 4;
    }
    /// What becomes of the session after the bind.
    std::string verdictOfASearch(Relay::Change change)
    {
        Relay const relay(slapd().port(), std::move(change));
        Session session(optionsFor(relay.port()));
        EXPECT_EQ(shown(session.reach(Step::bind, soon())), "Found 0 ");
        int id = 0;
        session.send(peopleSearch(), "(uid=user0000001)", id);
        while (next(session)->received == Session::Received::message) {
        }
        return shown(session.verdict());
    }
};

TEST_F(RelayedSession, ShowsNobodyWhatIsSaid)
{
    std::string seen;
    {
        Relay const relay(slapd().port(), [&](std::string const& bytes, int) {
            seen += bytes;
            return bytes;
        });
        Session session(optionsFor(relay.port()));

        EXPECT_EQ(shown(session.reach(Step::bind, soon())), "Found 0 ");
        expectSearchesOn(session);
    }

    EXPECT_THAT(seen, Not(HasSubstr("user000001")));
}

TEST_F(RelayedSession, TakesNoMessageWithoutTheLayer)
{
    std::string const verdict = verdictOfASearch([](std::string bytes, int number) {
        return number == lastOfTheBind ? bytes + searchDone(4) : bytes;
    });

    EXPECT_THAT(verdict, AllOf(StartsWith("TryLater -4 "), HasSubstr("not protected as agreed")));
}

TEST_F(RelayedSession, TakesNoForgedLength)
{
    std::string const verdict = verdictOfASearch([](std::string bytes, int number) {
        return number == lastOfTheBind ? bytes + "\x7f\xff\xff\xff" : bytes;
    });

    EXPECT_THAT(verdict,
                AllOf(StartsWith("TryLater -4 "), HasSubstr("a packet of 2147483647 bytes")));
}

TEST_F(RelayedSession, TakesNoChangedPacket)
{
    std::string const verdict = verdictOfASearch([](std::string bytes, int number) {
        if (number > lastOfTheBind) {
            bytes.back() = static_cast<char>(bytes.back() ^ 1);
        }
        return bytes;
    });

    EXPECT_THAT(verdict, AllOf(StartsWith("TryLater -4 "), HasSubstr("not protected as agreed")));
}

TEST_F(RelayedSession, TakesNoPacketTwice)
{
    std::string const verdict = verdictOfASearch([](std::string const& bytes, int number) {
        return number == lastOfTheBind + 1 ? bytes + bytes : bytes;
    });

    EXPECT_THAT(verdict,
                AllOf(StartsWith("TryLater -4 "), HasSubstr("missing, or was sent twice")));
}

// An entry that is cut out must not make a person look unknown.
TEST_F(RelayedSession, MissesAPacketThatIsCutOut)
{
    std::string const verdict = verdictOfASearch([](std::string bytes, int number) {
        if (number == lastOfTheBind + 1) {
            bytes.erase(0, packetLength(bytes));
        }
        return bytes;
    });

    EXPECT_THAT(verdict,
                AllOf(StartsWith("TryLater -4 "), HasSubstr("missing, or was sent twice")));
}

TEST_F(RelayedSession, ReadsPacketsThatArriveByteByByte)
{
    Relay const relay(
        slapd().port(), [](std::string const& bytes, int) { return bytes; }, true);
    Session session(optionsFor(relay.port()));
    ASSERT_EQ(shown(session.reach(Step::bind, soon())), "Found 0 ");
    Lookup::SearchRequest request = peopleSearch();
    request.attributes = {LDAP_NO_ATTRS};
    int id = 0;

    session.send(request, "(uid=user0000001)", id);

    EXPECT_EQ(typesFor(session, id),
              (std::vector<int>{LDAP_RES_SEARCH_ENTRY, LDAP_RES_SEARCH_RESULT}));
}

TEST_F(RelayedSession, IsStaleWithPartOfAPacket)
{
    Relay const relay(slapd().port(), [](std::string bytes, int number) {
        return number == lastOfTheBind ? bytes + std::string("\0\0", 2) : bytes;
    });
    Session session(optionsFor(relay.port()));
    ASSERT_EQ(shown(session.reach(Step::bind, soon())), "Found 0 ");

    EXPECT_TRUE(eventually([&] { return !session.isFresh(); }));
}

TEST_F(SessionByGssapi, SendsAndReceivesMoreThanAPacketHolds)
{
    Session session(options());
    ASSERT_EQ(shown(session.reach(Step::bind, soon())), "Found 0 ");
    Lookup::SearchRequest request;
    request.base = "ou=big,dc=corp,dc=test";
    int id = 0;

    // About 300 kB, and an answer of more than 1 MiB.
    EXPECT_EQ(
        shown(session.send(request, "(|(uid=bigphoto)(uid=" + std::string(300000, 'x') + "))", id)),
        "Found 0 ");
    EXPECT_EQ(typesFor(session, id),
              (std::vector<int>{LDAP_RES_SEARCH_ENTRY, LDAP_RES_SEARCH_RESULT}));
}

// The plugin

/// Cyrus SASL looks for its plugins once, so the test runs itself where there are none.
TEST(GssapiPlugin, IsNamedWhenItIsMissing)
{
    if (std::getenv("SASL_PATH") == nullptr) {
        auto const outcome =
            run({"env", "SASL_PATH=/nonexistent", std::filesystem::read_symlink("/proc/self/exe"),
                 "--gtest_filter=GssapiPlugin.*"});
        EXPECT_EQ(outcome.exitStatus, 0) << outcome.output;
        return;
    }
    ScriptedServer const server([](ScriptedServer::Peer& peer) { peer.ignore(); });
    SessionOptions options = plainOptions(server.port());
    options.mechanism = Mechanism::gssapi;
    Session session(options);

    EXPECT_THAT(shown(session.reach(Step::bind, soon())),
                AllOf(StartsWith("Misconfigured -9 "), HasSubstr("libsasl2-modules-gssapi-mit")));
}

// Forks

/// Each child binds anew while other threads bind too. The locks of the libraries must be free there.
TEST_F(SessionByGssapi, OpensInChildrenForkedWhileOthersOpen)
{
    if (!allocatorForks) {
        GTEST_SKIP() << "the sanitizer's allocator does not fork";
    }
    std::atomic<bool> isOver{false};
    std::vector<std::thread> others;
    for (int i = 0; i < 3; ++i) {
        others.emplace_back([&] {
            while (!isOver) {
                EXPECT_EQ(bindWith(options()), "Found 0 ");
            }
        });
    }
    std::string complaint;
    for (int i = 0; i < rounds && complaint.empty(); ++i) {
        ForkedProcess child([&] {
            std::string const verdict = bindWith(options());
            return verdict == "Found 0 " ? std::string() : verdict;
        });
        complaint = child.complaint();
    }
    isOver = true;
    for (std::thread& other : others) {
        other.join();
    }

    EXPECT_EQ(complaint, "");
}

TEST_F(SessionByGssapi, IsBrokenInAChildAndIntactInTheParent)
{
    Session session(options());
    ASSERT_EQ(shown(session.reach(Step::bind, soon())), "Found 0 ");

    ForkedProcess child([&] {
        int id = 0;
        Verdict const sent = session.send(peopleSearch(), "(cn=x)", id);
        session.flush();
        return sent.text.find("another process") == std::string::npos ? sent.text : std::string();
    });

    EXPECT_EQ(child.complaint(), "");
    expectSearchesOn(session);
}

} // namespace SolvaneTest
