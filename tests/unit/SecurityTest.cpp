// StartTLS and SASL binds: the exact calls, and what is reported.
#include "SocketGuardTest.h"

#include <cerrno>
#include <deque>
#include <tuple>

#include <sasl/sasl.h>

namespace SolvaneTest {
namespace {

using Solvane::LDAPConnection;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr char uri[] = "ldap://[127.0.0.1]:389/";

/// Sets the message id that a call hands out.
template <typename... Arguments> int sentAs(int id, Arguments... arguments)
{
    *std::get<sizeof...(Arguments) - 1>(std::make_tuple(arguments...)) = id;
    return LDAP_SUCCESS;
}

/// What OpenLDAP says about the last failure.
auto saying(char const* text)
{
    return [text](LDAP* session, int option, void* value) {
        if (option != LDAP_OPT_DIAGNOSTIC_MESSAGE) {
            return ldap_get_option(session, option, value);
        }
        *static_cast<char**>(value) = ber_strdup(text);
        return LDAP_OPT_SUCCESS;
    };
}

class StartTls : public ConnectedTest {
protected:
    StartTls()
    {
        openldap.ldap_start_tls = [](auto... arguments) { return sentAs(12, arguments...); };
        openldap.ldap_install_tls = [](auto...) { return LDAP_SUCCESS; };
        // The first one of the process initialises TLS.
        static_cast<void>(LDAPConnection(newServer(LDAPConnection::V3, true), false));
        openldap.forgetCalls();
    }

    LDAPMessage* response(int code) { return messages.response(LDAP_RES_EXTENDED, code); }
};

TEST_F(StartTls, RequestsTlsAwaitsTheResponseAndDoesTheHandshake)
{
    willReceive({response(LDAP_SUCCESS)});

    connection.startTls();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_tls_inplace session", "ldap_get_option session X_TLS_CTX",
                            "ldap_pvt_tls_set_option null X_TLS_REQUIRE_CERT 3",
                            "ldap_set_option session X_TLS_REQUIRE_CERT 3",
                            "ldap_start_tls session null null", "ldap_result session 12 1 7s 0us",
                            "ldap_parse_result session message null 0", "ldap_install_tls session",
                            "ldap_msgfree message"));
    EXPECT_EQ(connection.openldapErrorCode(), 0);
    EXPECT_EQ(body().session(), connection.context());
}

TEST_F(StartTls, KeepsThePolicyOfASessionWithItsOwnTlsContext)
{
    int const forClients = 0;
    int const demand = LDAP_OPT_X_TLS_DEMAND;
    body().setOption(LDAP_OPT_X_TLS_REQUIRE_CERT, &demand);
    body().setOption(LDAP_OPT_X_TLS_NEWCTX, &forClients);
    openldap.forgetCalls();
    willReceive({response(LDAP_SUCCESS)});

    connection.startTls();

    EXPECT_THAT(openldap.calls(), Not(Contains(StartsWith("ldap_set_option"))));
    EXPECT_THAT(openldap.calls(), Not(Contains(StartsWith("ldap_pvt_tls_set_option"))));
    int policy = 0;
    body().getOption(LDAP_OPT_X_TLS_REQUIRE_CERT, &policy);
    EXPECT_EQ(policy, LDAP_OPT_X_TLS_DEMAND);
}

TEST_F(StartTls, WaitsASecondWithoutANetworkTimeout)
{
    connection = LDAPConnection(newServer(LDAPConnection::V3, false, 0), false);
    willReceive({response(LDAP_SUCCESS)});

    connection.startTls();

    EXPECT_THAT(openldap.calls(), Contains("ldap_result session 12 1 1s 0us"));
}

TEST_F(StartTls, ThatIsRefusedEndsTheSessionInSilence)
{
    willReceive({response(LDAP_PROTOCOL_ERROR)});
    openldap.ldap_get_option = saying("unsupported\nextended operation");

    auto const thrown = thrownBy([&] { connection.startTls(); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 76, 4, 3));
    EXPECT_EQ(thrown.stringParameter(),
              std::string("Error: 'Protocol error' during StartTLS with ") + uri +
                  ": unsupported extended operation");
    EXPECT_EQ(connection.openldapErrorCode(), 2);
    EXPECT_EQ(body().session(), nullptr);
    EXPECT_THAT(openldap.calls(), Contains("ldap_unbind_ext session null null"));
    EXPECT_THAT(openldap.calls(), Not(Contains("ldap_install_tls session")));
}

TEST_F(StartTls, WhoseHandshakeFailsEndsTheSession)
{
    willReceive({response(LDAP_SUCCESS)});
    openldap.ldap_install_tls = [](auto...) { return LDAP_CONNECT_ERROR; };

    auto const thrown = thrownBy([&] { connection.startTls(); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 76, 4, 1));
    EXPECT_EQ(thrown.stringParameter(),
              std::string("Error: 'Connect error' during StartTLS with ") + uri);
    EXPECT_EQ(connection.openldapErrorCode(), -11);
    EXPECT_EQ(body().session(), nullptr);
}

TEST_F(StartTls, WithoutAnAnswerInTimeEndsTheSession)
{
    willReceive({});

    auto const thrown = thrownBy([&] { connection.startTls(); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 76, 4, 1));
    EXPECT_EQ(thrown.stringParameter(),
              std::string("Error: 'Timed out' during StartTLS with ") + uri);
    EXPECT_EQ(connection.openldapErrorCode(), -5);
    EXPECT_EQ(body().session(), nullptr);
}

TEST_F(StartTls, OnABrokenConnectionEndsTheSession)
{
    openldap.ldap_result = [](auto...) { return -1; };

    auto const thrown = thrownBy([&] { connection.startTls(); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 76, 4, 1));
    EXPECT_EQ(connection.openldapErrorCode(), -1);
    EXPECT_EQ(body().session(), nullptr);
}

TEST_F(StartTls, ThatCannotBeSentEndsTheSession)
{
    openldap.ldap_start_tls = [](auto...) { return LDAP_SERVER_DOWN; };

    auto const thrown = thrownBy([&] { connection.startTls(); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 76, 4, 1));
    EXPECT_THAT(openldap.calls(), Not(Contains(StartsWith("ldap_result"))));
    EXPECT_EQ(body().session(), nullptr);
}

TEST_F(StartTls, DoesNotTakeAnotherResponseForItsOwn)
{
    willReceive({messages.response(LDAP_RES_SEARCH_RESULT, LDAP_SUCCESS)});

    auto const thrown = thrownBy([&] { connection.startTls(); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 76, 4, 3));
    EXPECT_EQ(connection.openldapErrorCode(), LDAP_DECODING_ERROR);
    EXPECT_THAT(openldap.calls(), Not(Contains("ldap_install_tls session")));
}

TEST_F(StartTls, ChangesNothingOnAConnectionWithTls)
{
    openldap.ldap_tls_inplace = [](auto...) { return 1; };

    auto const thrown = thrownBy([&] { connection.startTls(); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 55, 4, 3));
    EXPECT_EQ(thrown.stringParameter(), "The connection has TLS already");
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_tls_inplace session"));
    EXPECT_NE(body().session(), nullptr);
}

TEST_F(StartTls, ChangesNothingOnAConnectionToASecureServer)
{
    connection = LDAPConnection(newServer(LDAPConnection::V3, true), false);
    openldap.forgetCalls();

    auto const thrown = thrownBy([&] { connection.startTls(); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 55, 4, 3));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(StartTls, IsRefusedOnAnUnboundConnection)
{
    connection.unbind();
    openldap.forgetCalls();

    auto const thrown = thrownBy([&] { connection.startTls(); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 48, 4, 3));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(StartTls, TracesItsFailure)
{
    willReceive({});
    openldap.ldap_result = [](auto...) {
        errno = ECONNRESET;
        return -1;
    };
    DebugLines const lines(0x80008);

    thrownBy([&] { connection.startTls(); });

    EXPECT_THAT(lines.all(),
                ElementsAre("Security:82 startTls 0: Error 'Can't contact LDAP server' Server "
                            "ldap://[127.0.0.1]:389/ errno=104"));
}

class BindSasl : public ConnectedTest {
protected:
    LDAPMessage* response(int code) { return messages.response(LDAP_RES_BIND, code); }

    /// Each step of GSSAPI returns the next of these.
    void willReturn(std::initializer_list<int> results)
    {
        m_results.assign(results);
        openldap.ldap_sasl_interactive_bind = [this](auto... arguments) {
            sentAs(12, arguments...);
            int const rc = m_results.front();
            m_results.pop_front();
            return rc;
        };
    }

private:
    std::deque<int> m_results;
};

class ExternalBind : public BindSasl {
protected:
    ExternalBind()
    {
        openldap.ldap_sasl_bind = [this](auto session, auto dn, auto mechanism, auto* credentials,
                                         auto server, auto client, int* id) {
            (void)session, (void)dn, (void)mechanism, (void)server, (void)client;
            sent = *credentials;
            *id = 12;
            return LDAP_SUCCESS;
        };
    }

    berval sent = {99, nullptr};
};

TEST_F(ExternalBind, SendsEmptyCredentialsAndAwaitsTheResponse)
{
    willReceive({response(LDAP_SUCCESS)});

    connection.bindSasl(LDAPConnection::External);

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_sasl_bind session '' 'EXTERNAL' '' null null",
                            "ldap_result session 12 1 7s 0us",
                            "ldap_parse_result session message null 0", "ldap_msgfree message"));
    EXPECT_EQ(sent.bv_len, 0U);
    EXPECT_NE(sent.bv_val, nullptr); // null would send none
}

TEST_F(ExternalBind, SendsTheAuthorizationId)
{
    willReceive({response(LDAP_SUCCESS)});

    connection.bindSasl(LDAPConnection::External, "dn:cn=reader");

    EXPECT_THAT(openldap.calls(),
                Contains("ldap_sasl_bind session '' 'EXTERNAL' 'dn:cn=reader' null null"));
}

TEST_F(ExternalBind, ForgetsTheCredentialsOfAnEarlierBind)
{
    body().m_bindDn = "cn=admin";
    body().m_bindPassword = "secret";
    willReceive({response(LDAP_SUCCESS)});

    connection.bindSasl(LDAPConnection::External);

    EXPECT_EQ(body().m_bindDn, "");
    EXPECT_EQ(body().m_bindPassword, "");
}

TEST_F(ExternalBind, ThatIsRefusedKeepsTheConnection)
{
    willReceive({response(LDAP_INAPPROPRIATE_AUTH)});
    openldap.ldap_get_option = saying("no certificate");

    auto const thrown = thrownBy([&] { connection.bindSasl(LDAPConnection::External); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 136, 4, 3));
    EXPECT_EQ(thrown.stringParameter(),
              std::string("Error: 'Inappropriate authentication' during SASL bind to ") + uri +
                  ": no certificate");
    EXPECT_EQ(connection.openldapErrorCode(), 48);
    EXPECT_NE(body().session(), nullptr);
}

TEST_F(ExternalBind, WithoutAnAnswerInTimeIsReported)
{
    willReceive({});

    auto const thrown = thrownBy([&] { connection.bindSasl(LDAPConnection::External); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 136, 4, 1));
    EXPECT_EQ(connection.openldapErrorCode(), -5);
}

TEST_F(ExternalBind, OnABrokenConnectionIsReported)
{
    openldap.ldap_result = [](auto...) { return -1; };

    auto const thrown = thrownBy([&] { connection.bindSasl(LDAPConnection::External); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 136, 4, 1));
    EXPECT_EQ(connection.openldapErrorCode(), -1);
}

TEST_F(ExternalBind, ThatCannotBeSentIsReportedAndTraced)
{
    openldap.ldap_sasl_bind = [](auto...) {
        errno = ECONNREFUSED;
        return LDAP_SERVER_DOWN;
    };
    DebugLines const lines(0x80008);

    auto const thrown = thrownBy([&] { connection.bindSasl(LDAPConnection::External); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 136, 4, 1));
    EXPECT_THAT(lines.all(),
                ElementsAre("Security:142 bindSasl 0: Error 'Can't contact LDAP server' Server "
                            "ldap://[127.0.0.1]:389/ errno=111"));
}

TEST_F(BindSasl, IsRefusedOnAnUnboundConnection)
{
    connection.unbind();
    openldap.forgetCalls();

    auto const thrown = thrownBy([&] { connection.bindSasl(LDAPConnection::Gssapi); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 108, 4, 3));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(BindSasl, RefusesAnUnknownMechanism)
{
    auto const thrown =
        thrownBy([&] { connection.bindSasl(static_cast<LDAPConnection::SaslMechanism>(2)); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 115, 2, 0));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(BindSasl, WithGssapiTakesStepsUntilTheServerAccepts)
{
    willReturn({LDAP_SASL_BIND_IN_PROGRESS, LDAP_SASL_BIND_IN_PROGRESS, LDAP_SUCCESS});
    willReceive({response(LDAP_SASL_BIND_IN_PROGRESS), response(LDAP_SUCCESS)});

    connection.bindSasl(LDAPConnection::Gssapi);

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_sasl_interactive_bind session '' 'GSSAPI' null null 2 null",
                            "ldap_result session 12 1 7s 0us",
                            "ldap_sasl_interactive_bind session '' 'GSSAPI' null null 2 message",
                            "ldap_msgfree message", "ldap_result session 12 1 7s 0us",
                            "ldap_sasl_interactive_bind session '' 'GSSAPI' null null 2 message",
                            "ldap_msgfree message"));
}

TEST_F(BindSasl, WithGssapiReportsWhatKerberosSays)
{
    willReturn({LDAP_LOCAL_ERROR});
    openldap.ldap_get_option = saying("SASL(-1): generic failure: No Kerberos credentials");

    auto const thrown = thrownBy([&] { connection.bindSasl(LDAPConnection::Gssapi); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 136, 4, 3));
    EXPECT_EQ(thrown.stringParameter(), std::string("Error: 'Local error' during SASL bind to ") +
                                            uri +
                                            ": SASL(-1): generic failure: No Kerberos credentials");
    EXPECT_EQ(connection.openldapErrorCode(), -2);
}

TEST_F(BindSasl, WithGssapiEndsWhenTheServerStopsAnswering)
{
    willReturn({LDAP_SASL_BIND_IN_PROGRESS});
    willReceive({});

    auto const thrown = thrownBy([&] { connection.bindSasl(LDAPConnection::Gssapi); });

    EXPECT_THAT(thrown, IsFault("Security.cpp", 136, 4, 1));
    EXPECT_EQ(connection.openldapErrorCode(), -5);
}

TEST_F(BindSasl, WithGssapiAnswersTheQuestionForTheAuthorizationId)
{
    std::vector<sasl_interact_t> questions = {
        {SASL_CB_AUTHNAME, nullptr, "name", "me", nullptr, 9},
        {SASL_CB_USER, nullptr, "act as", "me", nullptr, 9},
        {SASL_CB_PASS, nullptr, "password", nullptr, nullptr, 9},
        {SASL_CB_LIST_END, nullptr, nullptr, nullptr, nullptr, 0}};
    int rc = -1;
    std::vector<std::string> answers;
    openldap.ldap_sasl_interactive_bind = [&](LDAP* session, auto, auto, auto, auto,
                                              unsigned int flags, auto* interact, void* defaults,
                                              auto, auto, auto) {
        rc = interact(session, flags, defaults, questions.data());
        for (sasl_interact_t const& each : questions) {
            answers.emplace_back(static_cast<char const*>(each.result), each.len);
        }
        return LDAP_SUCCESS;
    };

    connection.bindSasl(LDAPConnection::Gssapi, "u:anna");

    EXPECT_EQ(rc, LDAP_SUCCESS);
    EXPECT_THAT(answers, ElementsAre("me", "u:anna", "", ""));
}

/// Sessions that connect, as their guard sees it.
class ASecuredSession : public CallTest {
protected:
    ASecuredSession()
    {
        openldap.ldap_set_option = [this](LDAP* session, int option, void const* value) {
            if (option == LDAP_OPT_CONNECT_CB) {
                callback = static_cast<ldap_conncb*>(const_cast<void*>(value));
            }
            return ldap_set_option(session, option, value);
        };
        connection = LDAPConnection(newServer(), false);
        openldap.ldap_start_tls = [this](auto... arguments) {
            connect();
            return sentAs(12, arguments...);
        };
        openldap.ldap_install_tls = [](auto...) { return LDAP_SUCCESS; };
        openldap.ldap_sasl_bind = [this](auto... arguments) {
            connect();
            return sentAs(12, arguments...);
        };
    }

    void connect()
    {
        Connected connected;
        answers.push_back(connected.offerTo(callback));
    }

    ldap_conncb* callback = nullptr;
    std::vector<int> answers; ///< of the guard, to each connect
    LDAPConnection connection;
};

TEST_F(ASecuredSession, NeverConnectsAgainInPlainText)
{
    willReceive({messages.response(LDAP_RES_EXTENDED, LDAP_SUCCESS)});
    connection.startTls();

    connection.bind("cn=admin", "secret", LDAPConnection::Asynchronous);
    connect();

    EXPECT_THAT(answers, ElementsAre(0, -1, -1));
}

TEST_F(ASecuredSession, NeverConnectsAgainAfterASaslBind)
{
    willReceive({messages.response(LDAP_RES_BIND, LDAP_SUCCESS)});
    connection.bindSasl(LDAPConnection::External);

    connection.bind("cn=admin", "secret", LDAPConnection::Asynchronous);
    connect();

    EXPECT_THAT(answers, ElementsAre(0, -1, -1));
}

TEST_F(ASecuredSession, SaysNothingAfterAHandshakeThatFailed)
{
    Connected connected;
    openldap.ldap_start_tls = [&](auto... arguments) {
        connected.offerTo(callback);
        return sentAs(12, arguments...);
    };
    willReceive({});

    thrownBy([&] { connection.startTls(); });

    EXPECT_EQ(connected.peerReads(), "");
}

TEST_F(ASecuredSession, EndsTheConnectionOfASaslBindWithoutAnAnswer)
{
    Connected connected;
    openldap.ldap_sasl_bind = [&](auto... arguments) {
        connected.offerTo(callback);
        return sentAs(12, arguments...);
    };
    willReceive({});

    thrownBy([&] { connection.bindSasl(LDAPConnection::External); });

    EXPECT_EQ(connected.write("search"), -1);
    EXPECT_EQ(connected.peerReads(), "");
}

TEST_F(ASecuredSession, KeepsTheConnectionOfASaslBindThatWasRefused)
{
    Connected connected;
    openldap.ldap_sasl_bind = [&](auto... arguments) {
        connected.offerTo(callback);
        return sentAs(12, arguments...);
    };
    willReceive({messages.response(LDAP_RES_BIND, LDAP_INVALID_CREDENTIALS)});

    thrownBy([&] { connection.bindSasl(LDAPConnection::External); });

    EXPECT_EQ(connected.write("search"), 6);
}

} // namespace
} // namespace SolvaneTest
