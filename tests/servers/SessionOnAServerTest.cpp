// The engine's sessions: TLS, identity, limits, references, staleness.
#include "Directory.h"
#include "Eventually.h"
#include "TestedServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

Counted answerOn(DirectorySession& session, LDAPSearch::Parameter const& parameter)
{
    int id = 0;
    session.send(parameter, id);
    Counted counted;
    LDAPResult result(session.connection());
    LDAPMessageBuffer message;
    while (session.receive(message, std::chrono::seconds(10)) == id) {
        result.impl()->parseMessage(message);
        message.free();
        switch (result.resultType()) {
        case 2:
            ++counted.entries;
            break;
        case 3:
            ++counted.references;
            break;
        default:
            counted.code = result.resultCode();
            return counted;
        }
    }
    return counted;
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
    static DirectorySession secureSession(TlsPolicy const& tls,
                                          std::string const& host = server().host())
    {
        return DirectorySession(server().secureDescription(), host, tls);
    }
    /// Where it is known what the certificate is for, a session that may bind.
    static DirectorySession newSession()
    {
        return DirectorySession(server().description(), server().host(), policy(TlsVerify::full));
    }
    static Verdict bind(DirectorySession& session, std::string const& password)
    {
        Verdict const connected = session.connect(soon());
        return connected.isGood() ? session.bind(server()["READER_DN"], password, soon())
                                  : connected;
    }
    static Verdict bind(DirectorySession& session) { return bind(session, server()["READER_PW"]); }
    static LDAPSearch::Parameter onePerson()
    {
        return searchFor(server()["PEOPLE"], "(mail=user0000001@corp.test)");
    }
};

TEST_F(SessionOnAServer, VerifiesChainAndName)
{
    for (TlsVerify const verify : {TlsVerify::none, TlsVerify::chain, TlsVerify::full}) {
        DirectorySession session = secureSession(policy(verify));

        Verdict const verdict = bind(session);

        EXPECT_EQ(verdict.text, "");
        EXPECT_EQ(answerOn(session, onePerson()).entries, 1);
        EXPECT_THAT(session.tlsVersion(), MatchesRegex("TLSv?1\\.[23]"));
        measured("tls", session.tlsVersion() + ", " + session.tlsCipher());
    }
}

TEST_F(SessionOnAServer, RefusesTheCertificateOfAnotherAuthority)
{
    DirectorySession session =
        secureSession(policy(TlsVerify::chain, TestedServer::second()["CA_FILE"]));

    Verdict const verdict = session.connect(soon());

    EXPECT_EQ(verdict.outcome, Outcome::Refused);
    EXPECT_EQ(verdict.code, -11);
    EXPECT_THAT(verdict.text, HasSubstr("authority"));
}

TEST_F(SessionOnAServer, RefusesTheCertificateForAnotherHost)
{
    DirectorySession session = secureSession(policy(TlsVerify::full), "ldap.example.test");

    Verdict const verdict = session.connect(soon());

    EXPECT_EQ(verdict.outcome, Outcome::Refused);
    EXPECT_EQ(verdict.code, -11);
    EXPECT_THAT(verdict.text, HasSubstr("ldap.example.test"));
}

TEST_F(SessionOnAServer, KeepsCodeAndTextOfARefusedBind)
{
    DirectorySession session = newSession();

    Verdict const verdict = bind(session, "guess");

    measured("wrong_password", verdict.code);
    measured("wrong_password_text", verdict.text.substr(verdict.text.find("(49)") + 4));
    EXPECT_EQ(verdict.outcome, Outcome::Refused);
    EXPECT_EQ(verdict.code, 49);
    EXPECT_THAT(verdict.text, HasSubstr("Invalid credentials (49)"));
    EXPECT_THAT(verdict.text, Not(HasSubstr("guess")));
}

TEST_F(SessionOnAServer, LearnsWhoItIsWhereTheServerSays)
{
    DirectorySession session = newSession();
    bind(session);

    Verdict const verdict = session.confirmIdentity(soon());

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
    DirectorySession session(server().description(LDAPConnection::V2), server().host(),
                             policy(TlsVerify::full));
    ASSERT_EQ(bind(session).code, server().number("VERSION_2"));

    Verdict const verdict = session.confirmIdentity(soon());

    EXPECT_TRUE(verdict.isGood()) << verdict.text;
    EXPECT_EQ(session.identity(), Identity::Unconfirmed);
}

TEST_F(SessionOnAServer, GetsNoMoreEntriesThanItsLimitWhereTheServerKeepsIt)
{
    DirectorySession session = newSession();
    bind(session);
    session.limits(5, 0);

    Counted const counted = answerOn(session, searchFor(server()["ESCAPES"], "(objectClass=*)"));

    measured("client_limit", counted.code);
    measured("client_limit_entries", counted.entries);
    EXPECT_EQ(counted.code, server().number("CLIENT_SIZE_LIMIT"));
    EXPECT_EQ(counted.entries, counted.code == 0 ? 7 : 5);
}

TEST_F(SessionOnAServer, GetsReferencesFromTheTopOnly)
{
    DirectorySession session = newSession();
    bind(session);
    auto top = onePerson();
    top.baseDN = server()["BASE_DN"];

    Counted const fromTheTop = answerOn(session, top);
    Counted const fromThePeople = answerOn(session, onePerson());

    measured("references_from_the_top", fromTheTop.references);
    EXPECT_EQ(fromTheTop.code, 0);
    EXPECT_EQ(fromTheTop.entries, 1);
    EXPECT_GT(fromTheTop.references, 0);
    EXPECT_EQ(fromThePeople.entries, 1);
    EXPECT_EQ(fromThePeople.references, 0);
}

TEST_F(SessionOnAServer, IsStaleAfterTheServerStartedAgain)
{
    DirectorySession session = newSession();
    bind(session);
    bool const wasFresh = session.isFresh();

    server().kill();
    server().restart();

    EXPECT_TRUE(wasFresh);
    EXPECT_TRUE(eventually([&] { return !session.isFresh(); }));
}

} // namespace SolvaneTest
