// One session with a directory, over TCP and UNIX sockets: bind, requests, and a restarted server.
#include "Descriptor.h"
#include "Eventually.h"
#include "Sessions.h"
#include "Slapd.h"
#include "TemporaryDirectory.h"

#include <solvane/session/EntryReader.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ldap.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <list>
#include <map>
#include <memory>

using namespace Solvane;
using namespace Solvane::Lookup;
using std::chrono::milliseconds;
using testing::AllOf;
using testing::AnyOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace SolvaneTest {

/// A session with a directory of twenty people, bound as the reader and open.
class SessionOnSlapd : public SuiteWithSlapd<SessionOnSlapd> {
public:
    static std::vector<std::string> options() { return {"--users", "20"}; }

protected:
    void SetUp() override
    {
        SuiteWithSlapd::SetUp();
        if (hasSlapd()) {
            SessionOptions options = boundOptions(slapd().port());
            options.networkTimeout = std::chrono::seconds(1);
            session = std::make_unique<Session>(options);
        }
    }
    void open(Step last = Step::bind)
    {
        ASSERT_EQ(shown(session->reach(last, soon())), "Found 0 ");
    }
    int send(std::string const& filter)
    {
        int id = 0;
        EXPECT_EQ(shown(session->send(request, filter, id)), "Found 0 ");
        return id;
    }
    std::unique_ptr<Session> sessionAs(std::string const& dn, std::string const* password) const
    {
        SessionOptions options = plainOptions(slapd().port());
        options.bindDn = dn;
        options.password = password;
        return std::make_unique<Session>(options);
    }

    std::unique_ptr<Session> session;
    SearchRequest request = peopleSearch();
};

// Opening

TEST_F(SessionOnSlapd, BindsAndLearnsWhoItIs)
{
    open(Step::identify);

    EXPECT_EQ(session->identity(), Identity::Confirmed);
    EXPECT_EQ(session->authorizationId(), "dn:cn=reader,dc=corp,dc=test");
    EXPECT_EQ(session->peer(), "127.0.0.1 port " + std::to_string(slapd().port()));
    EXPECT_EQ(session->step(), Step::identify);
}

TEST_F(SessionOnSlapd, IsOpenedInTwoParts)
{
    open(Step::connect);
    bool const wasBound = session->isDone(Step::bind);

    open(Step::identify);

    EXPECT_FALSE(wasBound);
    EXPECT_EQ(session->identity(), Identity::Confirmed);
}

TEST_F(SessionOnSlapd, GoesOnToTheFurthestStepThatItWasAskedFor)
{
    session = sessionAs(readerDn, &readerPassword);

    session->begin(Step::identify, soon());
    Verdict const verdict = session->reach(Step::connect, soon());

    EXPECT_EQ(shown(verdict), "Found 0 ");
    EXPECT_TRUE(session->isDone(Step::identify));
}

TEST_F(SessionOnSlapd, IsAnonymousWithoutABind)
{
    session = sessionAs("", nullptr);

    open(Step::identify);

    EXPECT_EQ(session->identity(), Identity::Anonymous);
    EXPECT_EQ(session->authorizationId(), "");
    EXPECT_TRUE(session->isDone(Step::bind));
}

TEST_F(SessionOnSlapd, RefusesAWrongPassword)
{
    std::string const wrong = "wrong";
    session = sessionAs(readerDn, &wrong);

    Verdict const verdict = session->reach(Step::identify, soon());

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("Refused 49 ldap://127.0.0.1:"),
                                      HasSubstr("the bind is refused: Invalid credentials (49)")));
    EXPECT_EQ(session->step(), Step::bind);
    EXPECT_FALSE(session->isDone(Step::bind));
    EXPECT_FALSE(session->isFresh());
}

TEST_F(SessionOnSlapd, SendsNoPasswordThatServersTakeAsAnonymous)
{
    std::string const empty;
    std::string const cut("\0secret", 7);
    for (std::string const* password : {&empty, &cut, static_cast<std::string const*>(nullptr)}) {
        session = sessionAs(readerDn, password);

        Verdict const verdict = session->reach(Step::bind, soon());

        EXPECT_THAT(shown(verdict),
                    AllOf(StartsWith("Misconfigured -9 "), Not(HasSubstr("secret"))));
    }
}

TEST_F(SessionOnSlapd, SendsNoDnThatIsCutShort)
{
    session = sessionAs(std::string("cn=reader\0,dc=test", 18), &readerPassword);

    Verdict const verdict = session->reach(Step::bind, soon());

    EXPECT_THAT(shown(verdict), StartsWith("Misconfigured -9 "));
}

TEST_F(SessionOnSlapd, WaitsForTheBindNoLongerThanTheNetworkTimeout)
{
    open(Step::connect);
    slapd().pause();
    Verdict const verdict = session->reach(Step::bind, soon());
    slapd().resume();

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("TryLater -5 "), HasSubstr("did not answer the bind within 1 s")));
}

TEST_F(SessionOnSlapd, WaitsForItsIdentityNoLongerThanTheDeadline)
{
    open(Step::bind);
    slapd().pause();
    Verdict const verdict = session->reach(Step::identify, in(milliseconds(300)));
    slapd().resume();

    EXPECT_THAT(shown(verdict), AllOf(StartsWith("TryLater -5 "), HasSubstr("did not answer")));
    EXPECT_EQ(session->identity(), Identity::Unconfirmed);
}

// Requests

TEST_F(SessionOnSlapd, ReceivesOneMessageAtATime)
{
    open();
    int const id = send("(|(uid=user0000001)(uid=user0000002))");

    EXPECT_THAT(typesFor(*session, id),
                ElementsAre(LDAP_RES_SEARCH_ENTRY, LDAP_RES_SEARCH_ENTRY, LDAP_RES_SEARCH_RESULT));
}

TEST_F(SessionOnSlapd, TellsTheAnswersOfTwoSearchesApart)
{
    open();
    int const first = send("(uid=user0000001)");
    int const second = send("(uid=user0000002)");
    std::map<int, int> messages;

    for (int i = 0; i < 4; ++i) {
        ++messages[next(*session)->id];
    }

    EXPECT_NE(first, second);
    EXPECT_THAT(messages, ElementsAre(testing::Pair(first, 2), testing::Pair(second, 2)));
}

TEST_F(SessionOnSlapd, ReceivesNothingIfNothingCame)
{
    open();
    LDAPMessageBuffer message;
    int id = 0;

    auto const received = session->receive(message, id);

    EXPECT_EQ(received, Session::Received::nothing);
    EXPECT_EQ(message.get(), nullptr);
}

TEST_F(SessionOnSlapd, ReadsAnEntry)
{
    open();
    request.attributes = {"mail", "uid"};
    send("(uid=user0000001)");
    std::list<LDAPSearchResultEntry> entries;

    bool const isRead = readEntry(session->handle(), next(*session)->message.get(), entries);

    ASSERT_TRUE(isRead);
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries.front().entryName(), "uid=user0000001,ou=people,dc=corp,dc=test");
    EXPECT_EQ(entries.front().attributes().attributes().size(), 2U);
}

TEST_F(SessionOnSlapd, IsUsableAfterAnInvalidFilter)
{
    open();
    int id = 0;

    Verdict const refused = session->send(request, "(uid=", id);

    EXPECT_THAT(shown(refused), AllOf(StartsWith("Misconfigured -7 "), HasSubstr("(uid=")));
    EXPECT_TRUE(session->isFresh());
    EXPECT_THAT(typesFor(*session, send("(uid=user0000001)")),
                ElementsAre(LDAP_RES_SEARCH_ENTRY, LDAP_RES_SEARCH_RESULT));
}

TEST_F(SessionOnSlapd, SendsNoFilterThatFindsOthers)
{
    open();
    int id = 0;

    for (std::string const& filter :
         {std::string(), std::string(" "), std::string("uid=user0000001\0x", 17)}) {
        Verdict const verdict = session->send(request, filter, id);

        EXPECT_THAT(shown(verdict), StartsWith("Misconfigured -7 "));
    }
    request.base = std::string("ou=people\0,dc=test", 18);
    EXPECT_THAT(shown(session->send(request, "(uid=a)", id)), StartsWith("Misconfigured -7 "));
}

TEST_F(SessionOnSlapd, AsksForNoMoreEntriesThanItsLimit)
{
    open();
    request.entryLimit = 2;
    int const id = send("(objectClass=person)");
    int entries = 0;

    auto message = next(*session);
    for (; ldap_msgtype(message->message.get()) == LDAP_RES_SEARCH_ENTRY;
         message = next(*session)) {
        ++entries;
    }
    int code = 0;
    ldap_parse_result(session->handle(), message->message.get(), &code, nullptr, nullptr, nullptr,
                      nullptr, 0);

    EXPECT_EQ(message->id, id);
    EXPECT_EQ(code, LDAP_SIZELIMIT_EXCEEDED);
    EXPECT_EQ(entries, 2);
}

TEST_F(SessionOnSlapd, DropsTheAnswersOfAnAbandonedSearch)
{
    open();
    int const abandoned = send("(objectClass=person)");
    session->flush();
    session->abandon(abandoned);
    int const id = send("(uid=user0000001)");

    EXPECT_THAT(typesFor(*session, id), ElementsAre(LDAP_RES_SEARCH_ENTRY, LDAP_RES_SEARCH_RESULT));
}

TEST_F(SessionOnSlapd, IsStaleAfterTheServerStartedAgain)
{
    open();
    bool const wasFresh = session->isFresh();

    slapd().kill();
    slapd().restart();

    EXPECT_TRUE(wasFresh);
    EXPECT_TRUE(eventually([&] { return !session->isFresh(); }));
}

TEST_F(SessionOnSlapd, BreaksIfTheServerStartedAgainAndNeverConnectsAnew)
{
    open();
    ASSERT_THAT(typesFor(*session, send("(uid=user0000001)")),
                ElementsAre(LDAP_RES_SEARCH_ENTRY, LDAP_RES_SEARCH_RESULT));
    slapd().kill();
    slapd().restart();
    int id = 0;

    Verdict const first = session->send(request, "(uid=user0000001)", id);
    auto const received = next(*session)->received;
    Verdict const second = session->send(request, "(uid=user0000001)", id);
    auto const receivedAgain = next(*session)->received;

    EXPECT_EQ(shown(first), "Found 0 ");
    EXPECT_EQ(received, Session::Received::broken);
    EXPECT_THAT(shown(second), AllOf(StartsWith("TryLater -1 "), HasSubstr("the search: ")));
    EXPECT_EQ(receivedAgain, Session::Received::broken);
    EXPECT_EQ(shown(session->verdict()), shown(second));
}

TEST_F(SessionOnSlapd, NeverConnectsAnewIfItIsAnonymous)
{
    session = sessionAs("", nullptr);
    open(Step::connect);
    slapd().kill();
    slapd().restart();
    int id = 0;
    session->send(request, "(uid=user0000001)", id);

    auto const received = next(*session)->received;
    Verdict const second = session->send(request, "(uid=user0000001)", id);

    EXPECT_EQ(received, Session::Received::broken);
    EXPECT_THAT(shown(second), StartsWith("TryLater -1 "));
    EXPECT_EQ(slapd().connectionCount(), 0);
}

// TLS

TEST_F(SessionOnSlapd, BindsAndSearchesOverTls)
{
    SessionOptions options =
        secureOptions(slapd().tlsPort(), policy(TlsVerify::full, slapd().caFile()));
    options.bindDn = readerDn;
    options.password = &readerPassword;
    session = std::make_unique<Session>(options);
    open(Step::identify);

    EXPECT_THAT(typesFor(*session, send("(uid=user0000001)")),
                ElementsAre(LDAP_RES_SEARCH_ENTRY, LDAP_RES_SEARCH_RESULT));
    EXPECT_EQ(session->identity(), Identity::Confirmed);
    EXPECT_TRUE(session->isFresh());
}

TEST_F(SessionOnSlapd, JudgesTheCertificateByItsOwnContextAlone)
{
    TlsPolicy const right = policy(TlsVerify::full, slapd().caFile());
    TlsPolicy const wrong = policy(TlsVerify::full, slapd().caFile().parent_path() / "bad.pem");
    TlsPolicy const none = policy(TlsVerify::none);
    std::vector<Outcome> outcomes;

    for (TlsPolicy const& tls : {right, wrong, none, right, none, wrong}) {
        Session secure(secureOptions(slapd().tlsPort(), tls));
        outcomes.push_back(secure.reach(Step::handshake, soon()).outcome);
    }

    EXPECT_THAT(outcomes, ElementsAre(Outcome::Found, Outcome::Refused, Outcome::Found,
                                      Outcome::Found, Outcome::Found, Outcome::Refused));
}

TEST(SessionInVersion2, ProvesByARootDseThatTheServerIsAlive)
{
    if (!Slapd::isInstalled()) {
        Slapd::reportMissing();
        return;
    }
    Slapd const slapd({"--users", "0"});
    SessionOptions options = boundOptions(slapd.port());
    options.version = 2;
    Session session(options);

    Verdict const verdict = session.reach(Step::identify, soon());

    EXPECT_EQ(shown(verdict), "Found 0 ");
    EXPECT_EQ(session.identity(), Identity::Unconfirmed);
}

// Sessions over UNIX sockets.

namespace {

SessionOptions socketOptions(std::string const& path)
{
    SessionOptions options;
    options.socketPath = path;
    return options;
}

sockaddr_un addressOf(std::string const& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

int newSocket() { return checked(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0), "socket"); }

/// A listening socket whose queue is full.
class FullQueue {
public:
    explicit FullQueue(std::string const& path) : m_listener(newSocket())
    {
        sockaddr_un const address = addressOf(path);
        auto const* const generic = reinterpret_cast<sockaddr const*>(&address);
        checked(bind(m_listener.number(), generic, sizeof address), "bind");
        checked(listen(m_listener.number(), 0), "listen");
        do {
            m_fillers.emplace_back(newSocket());
        } while (connect(m_fillers.back().number(), generic, sizeof address) == 0);
        EXPECT_EQ(errno, EAGAIN);
    }

    /// Accepts all connections that wait.
    void accept()
    {
        for (;;) {
            int const accepted = ::accept(m_listener.number(), nullptr, nullptr);
            if (accepted == -1) {
                return;
            }
            m_fillers.emplace_back(accepted);
        }
    }

private:
    Descriptor m_listener;
    std::list<Descriptor> m_fillers;
};

class UnixSocket : public testing::Test {
protected:
    std::string path() const { return m_folder.path() / "ldapi"; }

    TemporaryDirectory m_folder;
};

} // namespace

TEST_F(UnixSocket, ThatDoesNotExistIsTriedLater)
{
    Session session(socketOptions(path()));

    Verdict const verdict = session.reach(Step::connect, soon());

    EXPECT_THAT(shown(verdict),
                AllOf(StartsWith("TryLater -1 ldapi://%2F"),
                      EndsWith(": cannot connect: " + path() + ": No such file or directory")));
    EXPECT_EQ(session.step(), Step::connect);
    EXPECT_EQ(session.peer(), "");
}

TEST_F(UnixSocket, OnWhichNobodyListensIsTriedLater)
{
    Descriptor const bound(newSocket());
    sockaddr_un const address = addressOf(path());
    ASSERT_EQ(bind(bound.number(), reinterpret_cast<sockaddr const*>(&address), sizeof address), 0);

    EXPECT_THAT(shown(Session(socketOptions(path())).reach(Step::connect, soon())),
                AllOf(StartsWith("TryLater -1 "), EndsWith("Connection refused")));
}

// connect(2) does not wait for room in the queue, and poll does not report it.
TEST_F(UnixSocket, WithAFullQueueIsTriedUntilThereIsRoom)
{
    FullQueue queue(path());
    Session session(socketOptions(path()));
    session.begin(Step::connect, soon());
    for (int i = 0; i < 5; ++i) {
        Waits waits;
        session.waits(waits);
        waits.wait();
        session.advance();
        ASSERT_FALSE(session.isSettled()) << shown(session.verdict());
    }

    queue.accept();

    EXPECT_EQ(shown(session.reach(Step::connect, soon())), "Found 0 ");
    EXPECT_EQ(session.peer(), path());
}

TEST_F(UnixSocket, WithAFullQueueEndsWithTheTimeout)
{
    FullQueue const queue(path());
    SessionOptions options = socketOptions(path());
    options.networkTimeout = milliseconds(200);

    EXPECT_THAT(
        shown(Session(options).reach(Step::connect, soon())),
        AllOf(StartsWith("TryLater -5 "), EndsWith("no connection within 0.200 s: " + path() +
                                                   ": the server accepts no connection")));
}

TEST_F(UnixSocket, NeedsAPathThatASocketCanHave)
{
    auto const verdictOn = [](std::string const& path) {
        return shown(Session(socketOptions(path)).reach(Step::connect, soon()));
    };
    std::string const longest(106, 'x');

    EXPECT_THAT(verdictOn("run/ldapi"), AllOf(StartsWith("Misconfigured -9 "),
                                              EndsWith("path of the socket is not absolute")));
    EXPECT_THAT(verdictOn(std::string("/run\0/ldapi", 11)),
                AllOf(StartsWith("Misconfigured -9 "), EndsWith("contains a NUL byte")));
    EXPECT_THAT(verdictOn('/' + longest + 'x'),
                AllOf(StartsWith("Misconfigured -9 "), EndsWith("is longer than 107 bytes")));
    EXPECT_THAT(verdictOn('/' + longest), EndsWith("No such file or directory"));
}

TEST_F(UnixSocket, HasNoTls)
{
    FullQueue const queue(path());
    SessionOptions secure = socketOptions(path());
    secure.secure = true;
    SessionOptions upgraded = socketOptions(path());
    upgraded.startTls = true;

    for (SessionOptions const& options : {secure, upgraded}) {
        EXPECT_THAT(
            shown(Session(options).reach(Step::connect, soon())),
            AllOf(StartsWith("Misconfigured -9 "), HasSubstr("TLS is not used on a UNIX socket")));
    }
}

TEST(UriOfASocket, IsThatOfOpenLdap)
{
    for (char const* const path : {"/run/slapd/ldapi", "/tmp/a b%20c/\xc3\xbc~-._:@?"}) {
        LDAPURLDesc* parts = nullptr;
        ASSERT_EQ(ldap_url_parse(uriOf(path).c_str(), &parts), LDAP_URL_SUCCESS) << uriOf(path);

        EXPECT_STREQ(parts->lud_scheme, "ldapi");
        EXPECT_STREQ(parts->lud_host, path);

        ldap_free_urldesc(parts);
    }
    EXPECT_EQ(uriOf("/run/slapd/ldapi"), "ldapi://%2Frun%2Fslapd%2Fldapi");
}

class SocketOfSlapd : public SuiteWithSlapd<SocketOfSlapd> {
public:
    static std::vector<std::string> options() { return {"--users", "3"}; }

protected:
    static SessionOptions socketOptions()
    {
        return SolvaneTest::socketOptions(slapd().socketPath());
    }
};

TEST_F(SocketOfSlapd, TakesBindsAndSearches)
{
    SessionOptions options = socketOptions();
    options.bindDn = readerDn;
    options.password = &readerPassword;
    Session session(options);

    EXPECT_EQ(shown(session.reach(Step::identify, soon())), "Found 0 ");

    EXPECT_EQ(session.peer(), slapd().socketPath());
    EXPECT_EQ(session.uri(), uriOf(slapd().socketPath()));
    EXPECT_EQ(session.tlsVersion(), "");
    EXPECT_THAT(session.addresses(), IsEmpty());
    EXPECT_EQ(session.authorizationId(), std::string("dn:") + readerDn);
    EXPECT_TRUE(session.isFresh());
    int id = 0;
    session.send(peopleSearch(), "(uid=user0000001)", id);
    EXPECT_THAT(typesFor(session, id), ElementsAre(LDAP_RES_SEARCH_ENTRY, LDAP_RES_SEARCH_RESULT));
}

TEST_F(SocketOfSlapd, KnowsTheUserOfTheProcess)
{
    SessionOptions options = socketOptions();
    options.mechanism = Mechanism::external;
    Session session(options);

    EXPECT_EQ(shown(session.reach(Step::identify, soon())), "Found 0 ");

    EXPECT_EQ(session.identity(), Identity::Confirmed);
    EXPECT_EQ(session.authorizationId(), "dn:gidNumber=" + std::to_string(getegid()) +
                                             "+uidNumber=" + std::to_string(geteuid()) +
                                             ",cn=peercred,cn=external,cn=auth");
}

TEST_F(SocketOfSlapd, IsStaleAfterTheServerStartedAgain)
{
    Session session(socketOptions());
    ASSERT_EQ(shown(session.reach(Step::identify, soon())), "Found 0 ");

    slapd().kill();
    slapd().restart();

    EXPECT_FALSE(session.isFresh());
    EXPECT_EQ(shown(Session(socketOptions()).reach(Step::identify, soon())), "Found 0 ");
}

} // namespace SolvaneTest
