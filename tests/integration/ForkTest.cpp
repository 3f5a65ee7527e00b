// Processes that fork with connections open: the children have the same sockets, and must not use
// them.
#include "Directory.h"
#include "Faults.h"
#include "LdapMessages.h"
#include "Process.h"
#include "ScriptedServer.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ldap.h>

#include <atomic>
#include <functional>
#include <list>
#include <thread>
#include <tuple>
#include <vector>

#include <fcntl.h>

using namespace Solvane;
using testing::ElementsAre;
using testing::IsEmpty;

namespace SolvaneTest {

namespace {

constexpr int users = 30;

std::string nameOf(int user)
{
    std::string const number = std::to_string(user);
    return "user" + std::string(7 - number.size(), '0') + number;
}

/// Looks one user up over a connection of the pool. What is wrong with the answer.
std::string wrongWith(LDAPConnectionCache& pool, LDAPConnection::RefServer const& server, int user)
{
    try {
        LDAPConnection connection = pool.getConnection(server, readerDn, readerPassword);
        LDAPResult const result =
            answerTo(connection, searchFor(people, "(uid=" + nameOf(user) + ")"));
        connection.cacheMarkAsAvailable();
        std::vector<std::string> const names = namesIn(result);
        if (names.size() != 1) {
            return nameOf(user) + ": found " + std::to_string(names.size());
        }
        bool const isRight = names.front().rfind("uid=" + nameOf(user) + ',', 0) == 0;
        return isRight ? std::string() : nameOf(user) + ": found " + names.front();
    } catch (Exception const& thrown) {
        return nameOf(user) + ": " + thrown.asString();
    }
}

/// Looks a few users up, others for each worker.
std::string wrongWithSome(LDAPConnectionCache& pool, LDAPConnection::RefServer const& server,
                          int worker)
{
    std::string wrong;
    for (int i = 1; i <= 3; ++i) {
        wrong += wrongWith(pool, server, worker * 3 + i);
    }
    return wrong;
}

/// Runs `work` in a child. Returns what the child reports as wrong.
std::string wrongInAChild(ForkedProcess::Work const& work)
{
    return ForkedProcess(work).complaint();
}

int descriptorOf(LDAPConnection& connection)
{
    int descriptor = -1;
    connection.impl()->getOption(LDAP_OPT_DESC, &descriptor);
    return descriptor;
}

bool isOpen(int descriptor) { return fcntl(descriptor, F_GETFD) != -1; }

/// Empty where `work` throws this fault.
template <typename Work> std::string unlessThrows(char const* unit, unsigned int line, Work&& work)
{
    try {
        work();
    } catch (LDAPException const& thrown) {
        bool const isThat = thrown.fileName() == unit && thrown.lineNumber() == line;
        return isThat ? std::string() : thrown.asString() + "; ";
    }
    return std::string(unit) + ':' + std::to_string(line) + " is not thrown; ";
}

} // namespace

/// With TLS or without, and how many workers.
class WorkersForkedAfterALookup : public SuiteWithSlapd<WorkersForkedAfterALookup>,
                                  public testing::WithParamInterface<std::tuple<bool, int>> {
public:
    static std::vector<std::string> options() { return {"--users", std::to_string(users)}; }
};

TEST_P(WorkersForkedAfterALookup, AndTheirParentFindWhomTheyLookFor)
{
    auto const [isSecure, count] = GetParam();
    LDAPConnection::RefServer const server =
        isSecure ? secureServer(slapd().tlsPort()) : plainServer(slapd().port());
    LDAPConnectionCache pool;
    ASSERT_EQ(wrongWith(pool, server, 1), "");

    for (int round = 0; round < rounds; ++round) {
        Gate gate;
        std::list<ForkedProcess> workers;
        for (int worker = 1; worker <= count; ++worker) {
            workers.emplace_back([&, worker] {
                gate.pass();
                return wrongWithSome(pool, server, worker);
            });
        }
        gate.open();
        ASSERT_EQ(wrongWithSome(pool, server, 0), "") << "in the parent";
        for (ForkedProcess& worker : workers) {
            ASSERT_EQ(worker.complaint(), "");
        }
    }

    EXPECT_EQ(pool.cacheSize().value(), 1) << "the parent needed another connection";
}

INSTANTIATE_TEST_SUITE_P(WithTlsAndCount, WorkersForkedAfterALookup,
                         testing::Combine(testing::Bool(), testing::Values(2, 8)));

/// A process with a bound connection, with TLS and without.
class AForkedChild : public SuiteWithSlapd<AForkedChild>, public testing::WithParamInterface<bool> {
public:
    static std::vector<std::string> options() { return {"--users", std::to_string(users)}; }

protected:
    void SetUp() override
    {
        SuiteWithSlapd<AForkedChild>::SetUp();
        if (hasSlapd()) {
            server = GetParam() ? secureServer(slapd().tlsPort()) : plainServer(slapd().port());
            connection = boundTo(server);
        }
    }

    void expectThatTheParentGoesOn()
    {
        EXPECT_TRUE(connection.impl()->isValid());
        EXPECT_THAT(namesIn(answerTo(connection, searchFor(people, "(uid=user0000001)"))),
                    ElementsAre("uid=user0000001,ou=people,dc=corp,dc=test"));
    }

    LDAPConnection::RefServer server;
    LDAPConnection connection;
};

TEST_P(AForkedChild, ClosesItsDescriptorAndNothingElseWhenItLetsGo)
{
    std::string const wrong = wrongInAChild([&]() -> std::string {
        int const descriptor = descriptorOf(connection);
        connection = LDAPConnection();
        return isOpen(descriptor) ? "the descriptor is open" : "";
    });

    EXPECT_EQ(wrong, "");
    expectThatTheParentGoesOn();
}

TEST_P(AForkedChild, ClosesItsDescriptorAndNothingElseWhenItUnbinds)
{
    std::string const wrong = wrongInAChild([&]() -> std::string {
        int const descriptor = descriptorOf(connection);
        connection.unbind();
        return isOpen(descriptor) ? "the descriptor is open" : "";
    });

    EXPECT_EQ(wrong, "");
    expectThatTheParentGoesOn();
}

TEST_P(AForkedChild, FindsItsParentsConnectionsInvalid)
{
    std::string const wrong = wrongInAChild(
        [&]() -> std::string { return connection.impl()->isValid() ? "it is valid" : ""; });

    EXPECT_EQ(wrong, "");
    expectThatTheParentGoesOn();
}

TEST_P(AForkedChild, CannotUseItsParentsConnection)
{
    LDAPConnection another = boundTo(server);
    std::string const wrong = wrongInAChild([&] {
        LDAPSearch search(connection, searchFor(people, "(uid=user0000001)"));
        std::string dn = "cn=x,ou=new,dc=corp,dc=test";
        LDAPAdd add(connection, dn);
        LDAPDelete deletion(connection, dn);
        return unlessThrows("Search.cpp", 270, [&] { search.send(); }) +
               unlessThrows("Add.cpp", 83, [&] { add.send(); }) +
               unlessThrows("Changes.cpp", 31, [&] { deletion.send(); }) +
               unlessThrows("Connection.cpp", 241, [&] { bindAsReader(another); });
    });

    EXPECT_EQ(wrong, "");
    expectThatTheParentGoesOn();
    EXPECT_TRUE(another.impl()->isValid());
}

TEST_P(AForkedChild, DoesNotWaitForAnswersToItsParent)
{
    LDAPSearch search(connection, searchFor(people, "(uid=user0000001)"));
    slapd().pause();
    search.send();

    std::string const wrong =
        wrongInAChild([&] { return unlessThrows("Search.cpp", 332, [&] { search.wait(1000); }); });
    slapd().resume();

    EXPECT_EQ(wrong, "");
    EXPECT_FALSE(search.wait(10));
    EXPECT_EQ(search.result().searchResultEntries().size(), 1U);
}

TEST_P(AForkedChild, NeitherAwaitsNorCancelsARequestOfItsParent)
{
    LDAPExtended request = LDAPExtended::whoAmI(connection);
    slapd().pause();
    request.send();

    std::string const wrong = wrongInAChild([&]() -> std::string {
        std::string const waited = unlessThrows("Extended.cpp", 91, [&] { request.wait(1000); });
        request.cancel();
        return waited + (request.id() == 0 ? "" : "still in flight");
    });
    slapd().resume();

    EXPECT_EQ(wrong, "");
    EXPECT_FALSE(request.wait(10));
    EXPECT_EQ(request.responseValue(), "dn:cn=reader,dc=corp,dc=test");
}

TEST_P(AForkedChild, NeitherReadsNorAbandonsAStreamOfItsParent)
{
    using Work = std::function<std::string(LDAPSearchStream&)>;
    Work const read = [](LDAPSearchStream& stream) {
        return unlessThrows("SearchStream.cpp", 91, [&] { stream.next(1000); });
    };
    Work const cancel = [](LDAPSearchStream& stream) {
        stream.cancel();
        return std::string();
    };
    Work const destroy = [](LDAPSearchStream& stream) {
        stream = LDAPSearchStream();
        return std::string();
    };
    LDAPSearchStream::Parameter parameter(people);
    parameter.filter = "(uid=user*)";
    for (Work const& work : {read, cancel, destroy}) {
        LDAPSearchStream stream(connection, parameter);
        slapd().pause();
        stream.send();

        std::string const wrong = wrongInAChild([&] { return work(stream); });
        slapd().resume();

        EXPECT_EQ(wrong, "");
        int taken = 0;
        while (stream.next(10) == LDAPSearchStream::ItemEntry) {
            ++taken;
        }
        EXPECT_EQ(taken, users);
        EXPECT_EQ(stream.result().resultCode(), 0);
    }
}

TEST_P(AForkedChild, MayConnectASessionThatItsParentDidNot)
{
    LDAPConnection unconnected(server, false);

    std::string const wrong = wrongInAChild([&]() -> std::string {
        bindAsReader(unconnected);
        return unconnected.impl()->isValid() ? "" : "it is invalid";
    });

    EXPECT_EQ(wrong, "");
}

INSTANTIATE_TEST_SUITE_P(WithTls, AForkedChild, testing::Bool());

// OpenLDAP has a lock of its own while it creates a session.
TEST(AForkWhileOtherThreadsCreateSessions, LeavesTheChildAbleToCreateOne)
{
    if (!allocatorForks) {
        GTEST_SKIP() << "the allocator does not support forks of processes with several threads";
    }
    auto const create = [] { LDAPConnection(plainServer(1), false); };
    std::atomic<bool> isOver{false};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            while (!isOver) {
                create();
            }
        });
    }

    std::string wrong;
    for (int round = 0; round < rounds && wrong.empty(); ++round) {
        wrong = wrongInAChild([&]() -> std::string {
            create();
            return "";
        });
    }
    isOver = true;
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(wrong, "");
}

TEST(AConnectionOfAForkedChild, CarriesNothing)
{
    ScriptedServer server([](ScriptedServer::Peer& peer) {
        peer.grantBind();
        peer.receiveUntilClosed();
    });
    {
        LDAPConnection connection = boundTo(plainServer(server.port()));
        EXPECT_EQ(wrongInAChild([&]() -> std::string {
                      connection = LDAPConnection();
                      return "";
                  }),
                  "");
        EXPECT_EQ(server.received().size(), 1U);
    }

    server.awaitEndedScripts(1);

    ASSERT_EQ(server.received().size(), 2U);
    EXPECT_EQ(operationOf(server.received().back()), UnbindRequest);
}

} // namespace SolvaneTest
