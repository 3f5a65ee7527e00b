// A server that crashes, restarts or closes a connection. A bound session must never continue as another
// identity, and nothing may end the process.
#include "Descriptor.h"
#include "Directory.h"
#include "Eventually.h"
#include "Faults.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

using namespace Solvane;
using testing::AnyOf;
using testing::ElementsAre;

namespace SolvaneTest {

namespace {

/// That of a search that cannot be sent, or that gets no answer.
auto isSearchFault()
{
    return AnyOf(IsFault("Search.cpp", 270, 4, 4), IsFault("Search.cpp", 332, 4, 4));
}

int socketOf(LDAPConnection& connection)
{
    constexpr int descriptorOption = 1;
    int descriptor = -1;
    connection.impl()->getOption(descriptorOption, &descriptor);
    return descriptor;
}

} // namespace

class LostServer : public SuiteWithSlapd<LostServer> {
public:
    static std::vector<std::string> options() { return {"--users", "20", "--retcode"}; }

protected:
    LostServer() : secret(searchFor("ou=private,dc=corp,dc=test", "(cn=secret)")) {}

    void TearDown() override
    {
        if (hasSlapd() && !slapd().isRunning()) {
            slapd().restart();
        }
    }

    static void crash() { slapd().kill(); }
    static void comeBack() { slapd().restart(); }
    /// Runs a search to its end, lets the server crash, and waits once more. OpenLDAP notices the
    /// crash while nothing is outstanding, and drops the dead connection: the next operation would
    /// make a new one.
    static void answerAndCrash(LDAPSearch& search)
    {
        answerTo(search);
        crash();
        thrownBy([&] { search.wait(10); });
    }
    static bool hasNoConnections()
    {
        return eventually([] { return slapd().connectionCount() == 0; });
    }

    LDAPSearch::Parameter const secret; ///< finds something for bound sessions only
};

TEST_F(LostServer, FailsTheSearch)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    crash();

    auto const thrown = thrownBy([&] { answerTo(connection, secret); });

    EXPECT_THAT(thrown, isSearchFault());
    EXPECT_EQ(connection.openldapErrorCode(), -1);
    EXPECT_FALSE(connection.impl()->isValid());
}

TEST_F(LostServer, FailsTheSearchOverTls)
{
    LDAPConnection connection = boundTo(secureServer(slapd().tlsPort()));
    crash();

    auto const thrown = thrownBy([&] { answerTo(connection, secret); });

    EXPECT_THAT(thrown, isSearchFault());
}

TEST_F(LostServer, FailsAnOutstandingSearch)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    LDAPSearch search(connection, lookupOf("cn=sleep10,ou=codes,dc=corp,dc=test"));
    search.send();
    crash();

    EXPECT_THAT(thrownBy([&] { search.wait(10); }), IsFault("Search.cpp", 332, 4, 4));
}

TEST_F(LostServer, ThatHangsUpInsteadOfAnsweringFailsTheSearch)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    LDAPSearch search(connection, lookupOf("cn=pre,ou=codes,dc=corp,dc=test"));
    search.send();

    EXPECT_THAT(thrownBy([&] { search.wait(10); }), IsFault("Search.cpp", 332, 4, 4));
}

TEST_F(LostServer, IsNotAskedAgainByASessionThatWasBound)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    LDAPSearch search(connection, secret);
    answerAndCrash(search);
    comeBack();

    EXPECT_THAT(thrownBy([&] { answerTo(connection, secret); }), IsFault("Search.cpp", 270, 4, 4));
    EXPECT_EQ(connection.openldapErrorCode(), -1);
    EXPECT_TRUE(hasNoConnections());
}

TEST_F(LostServer, IsNotAskedAgainByASecureSessionThatWasBound)
{
    LDAPConnection connection = boundTo(secureServer(slapd().tlsPort()));
    LDAPSearch search(connection, secret);
    answerAndCrash(search);
    comeBack();

    EXPECT_THAT(thrownBy([&] { answerTo(connection, secret); }), IsFault("Search.cpp", 270, 4, 4));
    EXPECT_TRUE(hasNoConnections());
}

TEST_F(LostServer, IsNotAskedAgainHoweverOftenThatIsTried)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    LDAPSearch search(connection, secret);
    answerAndCrash(search);
    comeBack();

    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(thrownBy([&] { search.wait(1); }), IsFault("Search.cpp", 332, 4, 4));
        EXPECT_THAT(thrownBy([&] { answerTo(search); }), IsFault("Search.cpp", 270, 4, 4));
    }

    EXPECT_THAT(namesIn(search.result()), ElementsAre("cn=secret,ou=private,dc=corp,dc=test"));
    EXPECT_TRUE(hasNoConnections());
}

TEST_F(LostServer, ThatCameBackWhileTheSessionWasIdleIsNotAskedEither)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    crash();
    comeBack();

    auto const first = thrownBy([&] { answerTo(connection, secret); });
    auto const second = thrownBy([&] { answerTo(connection, secret); });

    EXPECT_THAT(first, isSearchFault());
    EXPECT_THAT(second, isSearchFault());
    EXPECT_TRUE(hasNoConnections());
}

TEST_F(LostServer, IsReachedAgainByANewBind)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    int const oldSocket = socketOf(connection);
    LDAPSearch search(connection, secret);
    answerAndCrash(search);
    comeBack();
    // As happens in a program with other files: the new socket gets another number. The old one
    // must not be polled any more.
    Descriptor inTheWay(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, oldSocket));
    connection.bind(readerDn, readerPassword, LDAPConnection::Asynchronous);
    inTheWay.close();

    connection.bindWait(10);

    EXPECT_NE(socketOf(connection), oldSocket);
    EXPECT_THAT(namesIn(answerTo(connection, secret)),
                ElementsAre("cn=secret,ou=private,dc=corp,dc=test"));
}

TEST_F(LostServer, IsReachedAgainByANewBindAfterASearchThatWasNotSent)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    LDAPSearch search(connection, secret);
    answerAndCrash(search);
    comeBack();
    thrownBy([&] { search.send(); });

    bindAsReader(connection);

    EXPECT_THAT(namesIn(answerTo(connection, secret)),
                ElementsAre("cn=secret,ou=private,dc=corp,dc=test"));
}

TEST_F(LostServer, IsReachedAgainByASessionThatWasNeverBound)
{
    LDAPConnection connection = anonymousTo(plainServer(slapd().port()));
    auto const person = lookupOf("uid=user0000001,ou=people,dc=corp,dc=test");
    LDAPSearch search(connection, person);
    answerAndCrash(search);
    comeBack();

    LDAPResult const result = answerTo(connection, person);

    EXPECT_THAT(namesIn(result), ElementsAre("uid=user0000001,ou=people,dc=corp,dc=test"));
}

TEST_F(LostServer, LetsAConnectionGoInPeace)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    crash();
    thrownBy([&] { answerTo(connection, secret); });

    int const rc = connection.unbind();

    EXPECT_EQ(rc, 0);
}

} // namespace SolvaneTest
