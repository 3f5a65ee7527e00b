// The passwords of users, verified by the engine on a server.
#include "Eventually.h"
#include "Lookups.h"
#include "Process.h"
#include "TemporaryDirectory.h"
#include "TestedServer.h"

#include <gtest/gtest.h>

#include <fstream>

using namespace Solvane;
using Lookup::Denial;
using Lookup::VerifyOutcome;

namespace SolvaneTest {

class VerifyOnAServer : public ServerTestByWay {
protected:
    static std::string passwordOf(int user)
    {
        std::string const address = addressOf(user);
        return "pw-" + address.substr(0, address.find('@'));
    }

    LDAPLookup m_lookup{settings()};
};

TEST_P(VerifyOnAServer, AcceptsTheRightPassword)
{
    auto const verification = m_lookup.verify(addressOf(7), passwordOf(7));

    EXPECT_EQ(verification.outcome, VerifyOutcome::Accepted) << verification.text;
    EXPECT_EQ(verification.denial, Denial::none);
    EXPECT_EQ(verification.dn, server().personDn(7));
}

TEST_P(VerifyOnAServer, DeniesAWrongOne)
{
    auto const verification = m_lookup.verify(addressOf(8), passwordOf(9));

    EXPECT_EQ(verification.outcome, VerifyOutcome::Denied) << verification.text;
    EXPECT_EQ(verification.denial, Denial::password) << verification.text;
    EXPECT_EQ(verification.code, 49);
}

TEST_P(VerifyOnAServer, JudgesEachUserAnewOnTheSameConnection)
{
    auto one = settings();
    one.verifyConnections = 1;
    LDAPLookup lookup(one);

    for (int user = 1; user <= 4; ++user) {
        EXPECT_EQ(lookup.verify(addressOf(user), passwordOf(user)).outcome,
                  VerifyOutcome::Accepted);
        EXPECT_EQ(lookup.verify(addressOf(user), passwordOf(user + 1)).outcome,
                  VerifyOutcome::Denied);
    }
}

TEST_P(VerifyOnAServer, FindsNoEntryOfAnUnknownAddress)
{
    EXPECT_EQ(m_lookup.verify("nobody@corp.test", "secret").outcome, VerifyOutcome::NotFound);
}

TEST_P(VerifyOnAServer, RefusesTwoEntriesOfOneKey)
{
    auto loose = settings();
    loose.queryTemplate = "(mail=user000000*)";
    LDAPLookup lookup(loose);

    EXPECT_EQ(lookup.verify(addressOf(1), passwordOf(1)).outcome, VerifyOutcome::Misconfigured);
}

TEST_P(VerifyOnAServer, SendsNoEmptyPassword)
{
    EXPECT_EQ(m_lookup.verify(addressOf(1), "").outcome, VerifyOutcome::BadKey);
}

INSTANTIATE_TEST_SUITE_P(Ways, VerifyOnAServer,
                         testing::Values(Way{"AsTheServerIsSet"}, Way{"StartTls", true, false},
                                         Way{"GssapiOverStartTls", true, true}),
                         nameOf);

/// People whom the server does not let in, by the profile's POLICIES.
class DenialByAServer : public VerifyOnAServer {
protected:
    enum Person { guessed = 91, inactive, expired, reset };

    static void SetUpTestSuite()
    {
        TemporaryDirectory const folder;
        auto const file = folder.path() / "policies.ldif";
        std::ofstream(file) << server()["POLICIES"];
        auto const done =
            run({"ldapmodify", "-x", "-o", "TLS_REQCERT=never", "-H", server()["LDAPS_URI"], "-D",
                 server()["ADMIN_DN"], "-w", server()["ADMIN_PW"], "-f", file});
        ASSERT_EQ(done.exitStatus, 0) << done.output;
    }

    /// With the right password.
    LDAPLookup::Verification verify(Person person)
    {
        return m_lookup.verify(addressOf(person), passwordOf(person));
    }
    static void expect(Denial denial, LDAPLookup::Verification const& verification,
                       std::string const& state)
    {
        EXPECT_EQ(verification.outcome, VerifyOutcome::Denied) << verification.text;
        EXPECT_EQ(verification.denial, denial) << verification.text;
        measured("denied_" + state, verification.code);
        measured("denied_" + state + "_text", wordsOfServer(verification.text, verification.code));
    }
};

TEST_P(DenialByAServer, IsOfAnAccountThatIsLockedAfterWrongPasswords)
{
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(m_lookup.verify(addressOf(guessed), "guess").outcome, VerifyOutcome::Denied);
    }

    expect(Denial::locked, verify(guessed), "guessed");
}

TEST_P(DenialByAServer, IsOfAnAccountThatTheAdministratorLocked)
{
    expect(Denial::locked, verify(inactive), "inactive");
}

TEST_P(DenialByAServer, IsOfAnExpiredPassword)
{
    if (server().number("PASSWORDS_EXPIRE") == 0) {
        GTEST_SKIP() << "passwords do not expire so soon";
    }
    EXPECT_TRUE(eventually([&] { return verify(expired).denial == Denial::expired; }));

    expect(Denial::expired, verify(expired), "expired");
}

TEST_P(DenialByAServer, IsOfAPasswordThatMustBeChanged)
{
    expect(Denial::mustChange, verify(reset), "reset");
}

TEST_P(DenialByAServer, OfAnotherRequestWhileThePasswordMustBeChanged)
{
    if (!server().has("RESET_MODIFY")) {
        GTEST_SKIP() << "the server refuses the bind";
    }
    std::string const dn = server().personDn(reset);
    LDAPConnection user(server().description(), false);
    user.bind(dn, passwordOf(reset), LDAPConnection::Synchronous);
    LDAPModify request(user, dn);
    request.replace("sn", {"other"});
    request.controls() = {LDAPControls::passwordPolicy()};
    request.send();

    ASSERT_FALSE(request.wait(10));

    LDAPControls::PasswordPolicy policy;
    EXPECT_EQ(request.result().resultCode(), server().number("RESET_MODIFY"));
    EXPECT_EQ(LDAPControls::passwordPolicy(request.responseControls(), policy),
              server().number("RESET_ERROR") >= 0);
    EXPECT_EQ(policy.error, server().number("RESET_ERROR"));
}

INSTANTIATE_TEST_SUITE_P(Ways, DenialByAServer,
                         testing::Values(Way{"AsTheServerIsSet"}, Way{"StartTls", true, false}),
                         nameOf);

} // namespace SolvaneTest
