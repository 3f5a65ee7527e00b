// Sessions over UNIX sockets.
#include "Descriptor.h"
#include "Sessions.h"
#include "Slapd.h"
#include "TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ldap.h>

#include <cerrno>
#include <list>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Solvane;
using namespace Solvane::Lookup;
using std::chrono::milliseconds;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace SolvaneTest {

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
