// A connection on which the server said what OpenLDAP does not take, and then said more.
#include "Directory.h"
#include "Faults.h"
#include "LdapMessages.h"
#include "ScriptedServer.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ldap.h>

#include <ctime>

using namespace Solvane;

namespace SolvaneTest {

namespace {

/// Milliseconds of processor time that this thread has used.
long processorTime()
{
    timespec used = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return used.tv_sec * 1000 + used.tv_nsec / 1000000;
}

/// Awaits a search again whose first wait failed, after what makes OpenLDAP forget that it did. That it
/// ends is what counts; it may fail at once or run out.
void waitAgain(LDAPConnection& connection, LDAPSearch& search)
{
    LDAPSearch malformed(connection, searchFor(people, "(cn="));
    thrownBy([&] { malformed.send(); });
    ldap_abandon_ext(static_cast<LDAP*>(connection.context()), search.id() + 1000, nullptr,
                     nullptr);
    long const before = processorTime();

    try {
        EXPECT_TRUE(search.wait(2));
    } catch (LDAPException const& thrown) {
        EXPECT_THAT(thrown, IsFault("Search.cpp", 332, 4, 4));
    }

    EXPECT_LT(processorTime() - before, 1000); // it waited, and did not spin
}

} // namespace

class AMessageThatIsTooLarge : public SuiteWithSlapd<AMessageThatIsTooLarge>,
                               public testing::WithParamInterface<bool> {
public:
    static std::vector<std::string> options() { return {"--users", "20"}; }
};

TEST_P(AMessageThatIsTooLarge, LeavesAConnectionOnWhichEveryWaitEnds)
{
    LDAPConnection connection(
        GetParam() ? secureServer(slapd().tlsPort()) : plainServer(slapd().port()), false);
    connection.impl()->maximumMessageSize(20000);
    bindAsReader(connection);
    LDAPSearch search(connection, lookupOf("uid=bigphoto,ou=big,dc=corp,dc=test"));
    search.send();
    auto const thrown = thrownBy([&] { search.wait(10); });

    waitAgain(connection, search);

    EXPECT_THAT(thrown, IsFault("Search.cpp", 332, 4, 4));
    EXPECT_FALSE(connection.impl()->isValid());
}

INSTANTIATE_TEST_SUITE_P(WithTls, AMessageThatIsTooLarge, testing::Bool());

TEST(AMessageThatIsTooLargeWithBytesBehindIt, LeavesAConnectionOnWhichEveryWaitEnds)
{
    ScriptedServer const server([](ScriptedServer::Peer& peer) {
        peer.grantBind();
        int const id = messageIdOf(peer.receiveMessage());
        peer.send(hugeMessageHeader() + searchEntry(id, "cn=x", {}) + searchDone(id));
        peer.receiveUntilClosed();
    });
    LDAPConnection connection = boundTo(plainServer(server.port()));
    LDAPSearch search(connection, lookupOf("cn=x"));
    search.send();
    auto const thrown = thrownBy([&] { search.wait(10); });

    waitAgain(connection, search);

    EXPECT_THAT(thrown, IsFault("Search.cpp", 332, 4, 4));
}

} // namespace SolvaneTest
