// Which pooled connection a lookup takes: the same server, the same kind, the same credentials.
#include "PoolTest.h"

#include <string>

namespace SolvaneTest {
namespace {

using namespace std::string_literals;
using Solvane::LDAPConnection;
using Solvane::LDAPConnectionImpl;

using ALookup = PoolTest;

TEST_F(ALookup, ForAnotherServerOpensAConnection)
{
    LDAPConnectionImpl const* const boundBody = givenBack(bound());
    LDAPConnectionImpl const* const unboundBody = givenBack(unbound());

    LDAPConnection const other = cache.getConnection(serverAt(390), "cn=a", "secret");
    LDAPConnection const unboundOther = cache.getConnection(serverAt(390));

    EXPECT_NE(other.impl(), boundBody);
    EXPECT_EQ(other.server()->port, 390U);
    EXPECT_NE(unboundOther.impl(), unboundBody);
    EXPECT_EQ(state(), "hits 0, size 4, pooled 4");
}

TEST_F(ALookup, FindsItsServerAmongOthers)
{
    auto const other = serverAt(390);
    LDAPConnectionImpl const* const here = givenBack(bound());
    LDAPConnectionImpl const* const there = givenBack(cache.getConnection(other, "cn=a", "secret"));

    EXPECT_EQ(cache.getConnection(other, "cn=a", "secret").impl(), there);
    EXPECT_EQ(bound().impl(), here);
    EXPECT_EQ(state(), "hits 2, size 2, pooled 2");
}

TEST_F(ALookup, TellsServersByTheirUriAlone)
{
    LDAPConnectionImpl const* const boundBody = givenBack(bound());
    LDAPConnectionImpl const* const unboundBody = givenBack(unbound());
    LDAPConnection::RefServer const sameUri("127.0.0.1", 389, LDAPConnection::V2, false, 99, true,
                                            true);

    EXPECT_EQ(cache.getConnection(sameUri, "cn=a", "secret").impl(), boundBody);
    EXPECT_EQ(cache.getConnection(sameUri).impl(), unboundBody);
    EXPECT_EQ(state(), "hits 2, size 2, pooled 2");
}

TEST_F(ALookup, PassesAConnectionOfTheOtherKindOver)
{
    LDAPConnectionImpl const* const boundBody = givenBack(bound());

    LDAPConnectionImpl const* const unboundBody = givenBack(unbound());

    EXPECT_NE(unboundBody, boundBody);
    cache.clear();
    LDAPConnectionImpl const* const first = givenBack(unbound());
    EXPECT_NE(givenBack(bound()), first);
    EXPECT_EQ(state(), "hits 0, size 2, pooled 2");
}

TEST_F(ALookup, WithEmptyCredentialsDiffersFromOneWithoutABind)
{
    LDAPConnectionImpl const* const without = givenBack(unbound());

    LDAPConnectionImpl const* const empty = givenBack(bound("", ""));

    EXPECT_NE(empty, without);
    EXPECT_EQ(bound("", "").impl(), empty);
    EXPECT_EQ(unbound().impl(), without);
    EXPECT_EQ(state(), "hits 2, size 2, pooled 2");
}

TEST_F(ALookup, WithoutABindTakesAConnectionThatItsLastUserBound)
{
    LDAPConnection connection = unbound();
    connection.bind("cn=b", "other", LDAPConnection::Asynchronous);
    givenBack(connection);

    EXPECT_EQ(unbound().impl(), connection.impl());
}

TEST_F(ALookup, GoesByTheLastBindOfAConnection)
{
    LDAPConnection connection = bound("cn=a", "secret");
    connection.bind("cn=b", "other", LDAPConnection::Asynchronous);
    givenBack(connection);

    EXPECT_NE(bound("cn=a", "secret").impl(), connection.impl());
    EXPECT_EQ(bound("cn=b", "other").impl(), connection.impl());
}

TEST_F(ALookup, LeavesTheMarkersOfOtherConnectionsAlone)
{
    LDAPConnection otherDn = bound("cn=b", "secret");
    LDAPConnection otherPassword = bound("cn=a", "other");
    LDAPConnection otherKind = unbound();
    LDAPConnection otherServer = cache.getConnection(serverAt(390), "cn=a", "secret");
    for (auto* const each : {&otherDn, &otherPassword, &otherKind, &otherServer}) {
        each->cacheMarkAsAvailable();
    }

    bound();

    for (auto* const each : {&otherDn, &otherPassword, &otherKind, &otherServer}) {
        EXPECT_TRUE(each->cacheMarkAsUsed());
        EXPECT_FALSE(each->cacheMarkAsUsed());
    }
}

TEST_F(ALookup, ChecksNoConnectionButTheOneThatItTakes)
{
    givenBack(bound("cn=b", "secret"));
    givenBack(unbound());
    LDAPConnection const busy = bound();
    LDAPConnection taken = bound();
    givenBackAs("taken", taken);

    bound();

    EXPECT_THAT(openldap.calls(),
                testing::ElementsAre("time", "ldap_get_option taken DESC", "getsockopt 5 1 4 4"));
}

struct Credentials {
    char const* how;
    std::string dn;
    std::string password;
};

void PrintTo(Credentials const& tested, std::ostream* out) { *out << tested.how; }

class ALookupForOtherCredentials : public PoolTest,
                                   public testing::WithParamInterface<Credentials> {};

TEST_P(ALookupForOtherCredentials, OpensAConnectionOfItsOwn)
{
    LDAPConnectionImpl const* const body = givenBack(bound("cn=a", "secret"));

    LDAPConnectionImpl const* const other = givenBack(bound(GetParam().dn, GetParam().password));

    EXPECT_NE(other, body);
    EXPECT_EQ(bound("cn=a", "secret").impl(), body);
    EXPECT_EQ(bound(GetParam().dn, GetParam().password).impl(), other);
    EXPECT_EQ(state(), "hits 2, size 2, pooled 2");
}

INSTANTIATE_TEST_SUITE_P(
    Such, ALookupForOtherCredentials,
    testing::Values(Credentials{"AsAnotherDn", "cn=b", "secret"},
                    Credentials{"AsAnotherPassword", "cn=a", "Secret"},
                    Credentials{"AsTheDnInAnotherCase", "CN=a", "secret"},
                    Credentials{"AsADnThatTheOtherBeginsWith", "cn=", "secret"},
                    Credentials{"AsADnThatBeginsWithTheOther", "cn=ab", "secret"},
                    Credentials{"AsAPasswordThatTheOtherBeginsWith", "cn=a", "secre"},
                    Credentials{"AsAPasswordThatBeginsWithTheOther", "cn=a", "secrets"},
                    Credentials{"AsAnEmptyDn", "", "secret"},
                    Credentials{"AsAnEmptyPassword", "cn=a", ""},
                    Credentials{"AsADnWithBlanks", "cn=a ", "secret"},
                    Credentials{"AsADnWithAZeroByte", "cn=a\0"s, "secret"},
                    Credentials{"AsAPasswordWithAZeroByte", "cn=a", "secret\0x"s},
                    Credentials{"AsDnAndPasswordExchanged", "secret", "cn=a"}),
    [](auto const& tested) { return std::string(tested.param.how); });

} // namespace
} // namespace SolvaneTest
