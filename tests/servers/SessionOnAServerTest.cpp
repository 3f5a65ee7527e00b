// The engine's sessions: each way in with each identity, as in the matrix of the guide, TLS,
// limits, references, and staleness.
#include "Eventually.h"
#include "ProcessMemory.h"
#include "TestedServer.h"

#include <solvane/session/Session.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ldap.h>

#include <sstream>
#include <tuple>

using namespace Solvane;
using namespace Solvane::Lookup;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

namespace SolvaneTest {

namespace {

Clock::time_point soon() { return Clock::now() + std::chrono::seconds(15); }

/// The messages of a search.
struct Counted {
    int entries = 0;
    int references = 0;
    int code = -1; ///< -1: no answer in time
};

/// The next message of a session. False if it broke, or none came in ten seconds.
bool receiveNext(Session& session, LDAPMessageBuffer& message)
{
    auto const deadline = Clock::now() + std::chrono::seconds(10);
    int id = 0;
    Waits waits;
    for (;;) {
        auto const received = session.receive(message, id);
        if (received != Session::Received::nothing || Clock::now() > deadline) {
            return received == Session::Received::message;
        }
        waits.clear();
        session.waits(waits);
        waits.until(deadline);
        waits.wait();
    }
}

Counted answerOn(Session& session, SearchRequest const& request, std::string const& filter)
{
    int id = 0;
    session.send(request, filter, id);
    Counted counted;
    LDAPMessageBuffer message;
    while (receiveNext(session, message)) {
        switch (ldap_msgtype(message.get())) {
        case LDAP_RES_SEARCH_ENTRY:
            ++counted.entries;
            break;
        case LDAP_RES_SEARCH_REFERENCE:
            ++counted.references;
            break;
        default:
            ldap_parse_result(session.handle(), message.get(), &counted.code, nullptr, nullptr,
                              nullptr, nullptr, 0);
            return counted;
        }
    }
    return counted;
}

/// A column of WAY_... in the profile.
enum class As { nobody, reader, external, gssapi };

char const* nameOf(As as)
{
    constexpr char const* names[] = {"nobody", "reader", "external", "gssapi"};
    return names[static_cast<int>(as)];
}

} // namespace

class SessionOnAServer : public ServerTest {
protected:
    static TlsPolicy policy(TlsVerify verify, std::string const& caFile = server()["CA_FILE"])
    {
        TlsPolicy tls;
        tls.verify = verify;
        tls.caFile = caFile;
        return tls;
    }
    /// Options of a session as the reader, by TLS if `isSecure`.
    static SessionOptions options(bool isSecure, TlsPolicy const& tls)
    {
        SessionOptions options;
        options.host = server().host();
        options.port =
            static_cast<unsigned int>(server().number(isSecure ? "LDAPS_PORT" : "LDAP_PORT"));
        options.secure = isSecure;
        options.tls = std::make_shared<TlsContext>(tls);
        options.bindDn = server()["READER_DN"];
        options.password = &server()["READER_PW"];
        return options;
    }
    static SessionOptions secureOptions(TlsPolicy const& tls) { return options(true, tls); }
    /// The same by TLS if the server needs it, so that one may bind.
    static SessionOptions options()
    {
        return options(server().needsTls(), policy(TlsVerify::full));
    }
    /// A search for one person.
    static Counted personBelow(std::string const& base, Session& session)
    {
        SearchRequest request;
        request.base = base;
        return answerOn(session, request, "(mail=user0000001@corp.test)");
    }
};

TEST_F(SessionOnAServer, VerifiesChainAndName)
{
    for (TlsVerify const verify : {TlsVerify::none, TlsVerify::chain, TlsVerify::full}) {
        Session session(secureOptions(policy(verify)));

        Verdict const verdict = session.reach(Step::bind, soon());

        EXPECT_EQ(verdict.text, "");
        EXPECT_EQ(personBelow(server()["PEOPLE"], session).entries, 1);
        EXPECT_THAT(session.tlsVersion(), MatchesRegex("TLS1\\.[23]"));
        measured("tls", session.tlsVersion() + ", " + session.tlsCipher());
    }
}

TEST_F(SessionOnAServer, RefusesTheCertificateOfAnotherAuthority)
{
    Session session(secureOptions(policy(TlsVerify::chain, TestedServer::second()["CA_FILE"])));

    Verdict const verdict = session.reach(Step::handshake, soon());

    EXPECT_EQ(verdict.outcome, Outcome::Refused);
    EXPECT_EQ(verdict.code, -11);
    EXPECT_THAT(verdict.text, HasSubstr("authority"));
}

TEST_F(SessionOnAServer, RefusesTheCertificateForAnotherHost)
{
    SessionOptions other = secureOptions(policy(TlsVerify::full));
    other.addresses = {Address::parse(other.host, other.port).value()};
    other.host = "ldap.example.test";
    Session session(other);

    Verdict const verdict = session.reach(Step::handshake, soon());

    EXPECT_EQ(verdict.outcome, Outcome::Refused);
    EXPECT_EQ(verdict.code, -11);
    EXPECT_THAT(verdict.text, HasSubstr("ldap.example.test"));
}

TEST_F(SessionOnAServer, KeepsCodeAndTextOfARefusedBind)
{
    std::string const wrong = "guess";
    SessionOptions guessing = options();
    guessing.password = &wrong;
    Session session(guessing);

    Verdict const verdict = session.reach(Step::bind, soon());

    measured("wrong_password", verdict.code);
    measured("wrong_password_text", verdict.text.substr(verdict.text.find("(49)") + 4));
    EXPECT_EQ(verdict.outcome, Outcome::Refused);
    EXPECT_EQ(verdict.code, 49);
    EXPECT_THAT(verdict.text, HasSubstr("Invalid credentials (49)"));
    EXPECT_THAT(verdict.text, Not(HasSubstr("guess")));
}

TEST_F(SessionOnAServer, LearnsWhoItIsWhereTheServerSays)
{
    Session session(options());

    Verdict const verdict = session.reach(Step::identify, soon());

    bool const isConfirmed = session.identity() == Identity::Confirmed;
    measured("who_am_i", isConfirmed ? session.authorizationId() : "");
    EXPECT_TRUE(verdict.isGood()) << verdict.text;
    EXPECT_EQ(isConfirmed, server().number("WHO_AM_I") == 0);
    if (isConfirmed) {
        EXPECT_THAT(session.authorizationId(), testing::EndsWith(server()["READER_DN"]));
    } else {
        EXPECT_EQ(session.authorizationId(), "");
    }
}

TEST_F(SessionOnAServer, StaysUnconfirmedInProtocolVersionTwo)
{
    SessionOptions versionTwo = options();
    versionTwo.version = 2;
    Session session(versionTwo);
    ASSERT_EQ(session.reach(Step::bind, soon()).code, server().number("VERSION_2"));

    Verdict const verdict = session.reach(Step::identify, soon());

    EXPECT_TRUE(verdict.isGood()) << verdict.text;
    EXPECT_EQ(session.identity(), Identity::Unconfirmed);
}

TEST_F(SessionOnAServer, GetsNoMoreEntriesThanItsLimitWhereTheServerKeepsIt)
{
    Session session(options());
    session.reach(Step::bind, soon());
    SearchRequest request;
    request.base = server()["ESCAPES"];
    request.entryLimit = 5;

    Counted const counted = answerOn(session, request, "(objectClass=*)");

    measured("client_limit", counted.code);
    measured("client_limit_entries", counted.entries);
    EXPECT_EQ(counted.code, server().number("CLIENT_SIZE_LIMIT"));
    EXPECT_EQ(counted.entries, counted.code == 0 ? 7 : 5);
}

TEST_F(SessionOnAServer, GetsReferencesFromTheTopOnly)
{
    Session session(options());
    session.reach(Step::bind, soon());

    Counted const fromTheTop = personBelow(server()["BASE_DN"], session);
    Counted const fromThePeople = personBelow(server()["PEOPLE"], session);

    measured("references_from_the_top", fromTheTop.references);
    EXPECT_EQ(fromTheTop.code, 0);
    EXPECT_EQ(fromTheTop.entries, 1);
    EXPECT_GT(fromTheTop.references, 0);
    EXPECT_EQ(fromThePeople.entries, 1);
    EXPECT_EQ(fromThePeople.references, 0);
}

TEST_F(SessionOnAServer, IsStaleAfterTheServerStartedAgain)
{
    Session session(options());
    session.reach(Step::bind, soon());
    bool const wasFresh = session.isFresh();

    server().kill();
    server().restart();

    EXPECT_TRUE(wasFresh);
    EXPECT_TRUE(eventually([&] { return !session.isFresh(); }));
}

// Each way into a server, with each identity: the matrix of the guide.

class WayIntoAServer : public ServerTest,
                       public testing::WithParamInterface<std::tuple<char const*, As>> {
protected:
    static std::string way() { return std::get<0>(GetParam()); }
    static As as() { return std::get<1>(GetParam()); }

    static int expected()
    {
        std::istringstream codes(server()["WAY_" + way()]);
        int code = -1;
        for (int i = 0; i <= static_cast<int>(as()); ++i) {
            codes >> code;
        }
        return code;
    }

    static SessionOptions options()
    {
        SessionOptions options;
        options.secure = way() == "LDAPS";
        options.startTls = way() == "STARTTLS";
        if (way() == "LDAPI") {
            options.socketPath = server()["SOCKET"];
        } else {
            options.port = static_cast<unsigned int>(
                server().number(options.secure ? "LDAPS_PORT" : "LDAP_PORT"));
            options.addresses = {*Address::parse(server().host(), options.port)};
        }
        // The name for which the server has a principal; its certificate has it too.
        options.host = server()["KERBEROS_HOST"];
        TlsPolicy policy;
        policy.caFile = server()["CA_FILE"];
        if (as() == As::external) {
            options.mechanism = Mechanism::external;
            policy.certificateFile = server()["SERVER_DIR"] + "/tls/client.pem";
            policy.keyFile = server()["SERVER_DIR"] + "/tls/client.key";
        } else if (as() == As::gssapi) {
            options.mechanism = Mechanism::gssapi;
        } else if (as() == As::reader) {
            options.bindDn = server()["READER_DN"];
            options.password = &server()["READER_PW"];
        }
        options.tls = std::make_shared<TlsContext>(policy);
        return options;
    }

    /// The code of a search for a person who exists.
    static int search(Session& session, int& entries)
    {
        SearchRequest request;
        request.base = server()["PEOPLE"];
        int id = 0;
        session.send(request, "(mail=user0000001@corp.test)", id);
        Waits waits;
        Session::Message message;
        auto const deadline = Clock::now() + std::chrono::seconds(15);
        while (Clock::now() < deadline) {
            Session::Received const received = session.receive(message);
            if (received == Session::Received::broken) {
                return session.verdict().code;
            }
            if (received == Session::Received::message) {
                if (message.type == LDAP_RES_SEARCH_RESULT) {
                    int code = -1;
                    ldap_parse_result(session.handle(), message.parsed.get(), &code, nullptr,
                                      nullptr, nullptr, nullptr, 0);
                    return code;
                }
                ++entries;
                continue;
            }
            waits.clear();
            session.waits(waits);
            waits.until(deadline);
            waits.wait();
        }
        return LDAP_TIMEOUT;
    }
};

TEST_P(WayIntoAServer, IsAsTheProfileSays)
{
    ToleratedLeak const leak; // with GSSAPI over TLS
    Session session(options());
    Verdict const verdict = session.reach(Step::identify, Clock::now() + std::chrono::seconds(30));
    std::string const cell = "way_" + way() + '_' + nameOf(as());
    int entries = 0;
    int code = verdict.code;
    if (verdict.isGood()) {
        code = search(session, entries);
        measured(cell + "_identity", session.authorizationId());
    } else {
        measured(cell + "_text", wordsOfServer(verdict.text, code));
    }

    measured(cell, code);
    EXPECT_EQ(code, expected()) << verdict.text;
    EXPECT_EQ(entries, expected() == 0 ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(All, WayIntoAServer,
                         testing::Combine(testing::Values("PLAIN", "LDAPS", "STARTTLS", "LDAPI"),
                                          testing::Values(As::nobody, As::reader, As::external,
                                                          As::gssapi)),
                         [](auto const& parameters) {
                             return std::string(std::get<0>(parameters.param)) + "As" +
                                    nameOf(std::get<1>(parameters.param));
                         });

} // namespace SolvaneTest
