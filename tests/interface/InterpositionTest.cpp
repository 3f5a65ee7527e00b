// Puts this program's functions in the place of those that the shared library calls, as a program
// may: all of them are reached through the dynamic linker.
#include <solvane/ldap.h>
#include <solvane/ldap/impl/LDAPConnectionImpl.h>

#include "Faults.h"

#define LDAP_DEPRECATED 1 // ldap_value_free
#include <ldap.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <ctime>
#include <string>
#include <vector>

#include <sys/socket.h>

using namespace Solvane;
using SolvaneTest::IsFault;
using SolvaneTest::thrownBy;
using testing::Contains;
using testing::ElementsAre;

namespace {

std::vector<std::string> g_calls;

/// The one session and the one message that there are here. OpenLDAP never sees them.
char g_session;
char g_message;

LDAP* session() { return reinterpret_cast<LDAP*>(&g_session); }

int note(char const* function, int result = 0)
{
    g_calls.push_back(function);
    return result;
}

} // namespace

extern "C" {

time_t time(time_t* out) noexcept
{
    constexpr time_t now = 1000000000;
    if (out != nullptr) {
        *out = now;
    }
    return now;
}

int getsockopt(int, int, int, void* value, socklen_t*) noexcept
{
    *static_cast<int*>(value) = EPIPE;
    return note("getsockopt");
}

int ldap_initialize(LDAP** out, char const*)
{
    *out = session();
    return note("ldap_initialize");
}

int ldap_set_option(LDAP*, int, void const*) { return note("ldap_set_option"); }

int ldap_get_option(LDAP*, int, void* value)
{
    *static_cast<int*>(value) = 0;
    return note("ldap_get_option");
}

int ldap_pvt_tls_set_option(LDAP*, int, void*) { return note("ldap_pvt_tls_set_option"); }

int ldap_sasl_bind(LDAP*, char const*, char const*, berval*, LDAPControl**, LDAPControl**, int* id)
{
    *id = 42;
    return note("ldap_sasl_bind");
}

int ldap_sasl_bind_s(LDAP*, char const*, char const*, berval*, LDAPControl**, LDAPControl**,
                     berval**)
{
    return note("ldap_sasl_bind_s", LDAP_BUSY);
}

int ldap_search_ext(LDAP*, char const*, int, char const*, char**, int, LDAPControl**, LDAPControl**,
                    timeval*, int, int* id)
{
    *id = 43;
    return note("ldap_search_ext");
}

int ldap_add_ext(LDAP*, char const*, LDAPMod**, LDAPControl**, LDAPControl**, int* id)
{
    *id = 44;
    return note("ldap_add_ext");
}

int ldap_result(LDAP*, int, int, timeval*, LDAPMessage** out)
{
    *out = reinterpret_cast<LDAPMessage*>(&g_message);
    note("ldap_result");
    return static_cast<int>(LDAP_RES_SEARCH_RESULT);
}

int ldap_msgtype(LDAPMessage*)
{
    note("ldap_msgtype");
    return static_cast<int>(LDAP_RES_SEARCH_RESULT);
}

int ldap_parse_result(LDAP*, LDAPMessage*, int* code, char**, char**, char***, LDAPControl***, int)
{
    *code = LDAP_BUSY;
    return note("ldap_parse_result");
}

char* ldap_err2string(int)
{
    note("ldap_err2string");
    static char text[] = "a text of this program";
    return text;
}

int ldap_msgfree(LDAPMessage*) { return note("ldap_msgfree"); }

int ldap_unbind_ext(LDAP*, LDAPControl**, LDAPControl**) { return note("ldap_unbind_ext"); }

} // extern "C"

namespace {

class TheSharedLibrary : public testing::Test {
protected:
    TheSharedLibrary() { g_calls.clear(); }

    static LDAPConnection connect(bool secure = false)
    {
        return LDAPConnection(LDAPConnection::RefServer("127.0.0.1", 389, LDAPConnection::V3,
                                                        secure, 5, false, false),
                              true);
    }
};

} // namespace

TEST_F(TheSharedLibrary, TakesTheTimeFromTheProgram)
{
    LDAPConnection const connection = connect();

    EXPECT_EQ(connection.impl()->m_expiry, 1000000300);
}

TEST_F(TheSharedLibrary, OpensAndEndsSessionsThroughTheProgram)
{
    {
        LDAPConnection const connection = connect();
        EXPECT_EQ(connection.context(), session());
    }

    EXPECT_EQ(g_calls.front(), "ldap_initialize");
    EXPECT_THAT(g_calls, Contains("ldap_set_option"));
    EXPECT_EQ(g_calls.back(), "ldap_unbind_ext");
}

TEST_F(TheSharedLibrary, SetsTheTlsPolicyThroughTheProgram)
{
    LDAPConnection const connection = connect(true);

    EXPECT_THAT(g_calls, Contains("ldap_pvt_tls_set_option"));
}

TEST_F(TheSharedLibrary, AsksTheProgramForTheStateOfASocket)
{
    LDAPConnection const connection = connect();
    g_calls.clear();

    EXPECT_FALSE(connection.impl()->isValid());

    EXPECT_THAT(g_calls, ElementsAre("ldap_get_option", "getsockopt"));
}

TEST_F(TheSharedLibrary, SendsAnAsynchronousBindThroughTheProgram)
{
    LDAPConnection connection = connect();
    g_calls.clear();

    connection.bind("cn=a", "secret", LDAPConnection::Asynchronous);

    EXPECT_THAT(g_calls, ElementsAre("ldap_sasl_bind"));
    EXPECT_EQ(connection.id(), 42);
}

TEST_F(TheSharedLibrary, SendsASynchronousBindThroughTheProgram)
{
    LDAPConnection connection = connect();
    g_calls.clear();

    auto const thrown =
        thrownBy([&] { connection.bind("cn=a", "secret", LDAPConnection::Synchronous); });

    EXPECT_THAT(g_calls, ElementsAre("ldap_sasl_bind_s", "ldap_err2string"));
    EXPECT_THAT(thrown,
                IsFault("Connection.cpp", 241, 4, 3,
                        "Error: 'a text of this program' during bind to ldap://[127.0.0.1]:389/"));
}

TEST_F(TheSharedLibrary, SearchesThroughTheProgram)
{
    LDAPConnection connection = connect();
    LDAPSearch search(connection, LDAPSearch::Parameter("dc=test"));
    g_calls.clear();

    search.send();
    bool const ranOut = search.wait(1);

    EXPECT_FALSE(ranOut);
    EXPECT_EQ(search.id(), 43);
    EXPECT_EQ(search.result().resultCode(), LDAP_BUSY);
    EXPECT_EQ(search.result().errorMessage(), "a text of this program");
    EXPECT_THAT(g_calls, ElementsAre("ldap_search_ext", "ldap_result", "ldap_msgtype",
                                     "ldap_parse_result", "ldap_err2string", "ldap_msgfree"));
}

TEST_F(TheSharedLibrary, AddsThroughTheProgram)
{
    LDAPConnection connection = connect();
    std::string dn = "cn=a,dc=test";
    LDAPAdd add(connection, dn);
    g_calls.clear();

    add.send();

    EXPECT_EQ(add.id(), 44);
    EXPECT_THAT(g_calls, ElementsAre("ldap_add_ext"));
}
