// Verifying passwords on a slapd with password policies, and while its replicas fail.
#include "Eventually.h"
#include "Lookups.h"
#include "Process.h"
#include "Slapd.h"
#include "TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

using namespace Solvane;
using Lookup::Denial;
using Lookup::VerifyOutcome;
using testing::HasSubstr;

namespace SolvaneTest {

namespace {

std::filesystem::path written(TemporaryDirectory const& folder, char const* name,
                              std::string const& text)
{
    auto path = folder.path() / name;
    std::ofstream(path) << text;
    return path;
}

std::string policy(std::string const& name, std::string const& lines)
{
    return "dn: cn=" + name +
           ",dc=corp,dc=test\nchangetype: add\nobjectClass: device\nobjectClass: pwdPolicy\n"
           "pwdAttribute: userPassword\n" +
           lines + "\n";
}

std::string dnOf(int user)
{
    std::string const address = addressOf(user);
    return "uid=" + address.substr(0, address.find('@')) + ",ou=people,dc=corp,dc=test";
}

std::string passwordOf(int user)
{
    std::string const address = addressOf(user);
    return "pw-" + address.substr(0, address.find('@'));
}

std::string changeOf(int user, std::string const& lines)
{
    return "dn: " + dnOf(user) + "\nchangetype: modify\n" + lines + "\n";
}

/// The user's policy, and the password set anew, so that its age is known.
std::string agingOf(int user, std::string const& policy)
{
    return changeOf(user, "add: pwdPolicySubentry\npwdPolicySubentry: cn=" + policy +
                              ",dc=corp,dc=test\n-\nreplace: userPassword\nuserPassword: " +
                              passwordOf(user) + "\n");
}

} // namespace

class VerifyWithPolicies : public SuiteWithSlapd<VerifyWithPolicies> {
public:
    static std::vector<std::string> options()
    {
        static TemporaryDirectory const folder;
        return {"--users",
                "10",
                "--global-conf",
                written(folder, "global.conf", "moduleload ppolicy\n"),
                "--db-conf",
                written(folder, "db.conf",
                        "overlay ppolicy\nppolicy_default cn=default,dc=corp,dc=test\n"
                        "ppolicy_use_lockout\n")};
    }

protected:
    enum User { ordinary = 1, locked, lockedByGuesses, reset, expired, graced, warned };

    static void SetUpTestSuite()
    {
        SuiteWithSlapd::SetUpTestSuite();
        if (hasSlapd()) {
            modify(policy("default", "pwdLockout: TRUE\npwdMaxFailure: 3\npwdMustChange: TRUE\n") +
                   policy("short", "pwdMaxAge: 1\n") +
                   policy("grace", "pwdMaxAge: 1\npwdGraceAuthnLimit: 2\n") +
                   policy("warn", "pwdMaxAge: 3600\npwdExpireWarning: 3600\n") +
                   changeOf(locked,
                            "add: pwdAccountLockedTime\npwdAccountLockedTime: 000001010000Z\n") +
                   changeOf(reset, "add: pwdReset\npwdReset: TRUE\n") + agingOf(expired, "short") +
                   agingOf(graced, "grace") + agingOf(warned, "warn"));
        }
    }

    static void modify(std::string const& ldif)
    {
        TemporaryDirectory const folder;
        auto const done =
            run({"ldapmodify", "-x", "-H", slapd().uri(), "-D", "cn=admin,dc=corp,dc=test", "-w",
                 "secret", "-f", written(folder, "change.ldif", ldif)});
        ASSERT_EQ(done.exitStatus, 0) << done.output;
    }

    LDAPLookup::Verification verify(int user) { return verify(user, passwordOf(user)); }
    LDAPLookup::Verification verify(int user, std::string const& password)
    {
        return m_lookup.verify(addressOf(user), password);
    }

    LDAPLookup m_lookup{settingsFor({slapd().port()})};
};

TEST_F(VerifyWithPolicies, AcceptsTheRightPassword)
{
    auto const verification = verify(ordinary);

    EXPECT_EQ(verification.outcome, VerifyOutcome::Accepted) << verification.text;
    EXPECT_EQ(verification.dn, dnOf(ordinary));
    EXPECT_EQ(verification.expiresIn, std::nullopt);
}

TEST_F(VerifyWithPolicies, DeniesAWrongOne)
{
    auto const verification = verify(ordinary, "pw-user0000002");

    EXPECT_EQ(verification.outcome, VerifyOutcome::Denied);
    EXPECT_EQ(verification.denial, Denial::password);
    EXPECT_EQ(verification.code, 49);
    EXPECT_EQ(verify(ordinary).outcome, VerifyOutcome::Accepted);
}

TEST_F(VerifyWithPolicies, FindsNoEntryOfAnotherAddress)
{
    EXPECT_EQ(verify(99).outcome, VerifyOutcome::NotFound);
}

TEST_F(VerifyWithPolicies, DeniesALockedAccount)
{
    auto const verification = verify(locked);

    EXPECT_EQ(verification.outcome, VerifyOutcome::Denied);
    EXPECT_EQ(verification.denial, Denial::locked);
    EXPECT_THAT(verification.text, HasSubstr("locked"));
}

TEST_F(VerifyWithPolicies, CountsAWrongPasswordOnce)
{
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(verify(lockedByGuesses, "wrong").denial, Denial::password);
    }
    auto const thirdTime = verify(lockedByGuesses, "wrong");
    auto const fourthTime = verify(lockedByGuesses);

    EXPECT_EQ(thirdTime.denial, Denial::password);
    EXPECT_EQ(fourthTime.denial, Denial::locked); // by the third
}

TEST_F(VerifyWithPolicies, DeniesAPasswordThatMustBeChanged)
{
    auto const verification = verify(reset);

    EXPECT_EQ(verification.outcome, VerifyOutcome::Denied);
    EXPECT_EQ(verification.denial, Denial::mustChange);
    EXPECT_EQ(verify(reset, "wrong").denial, Denial::password);
}

TEST_F(VerifyWithPolicies, DeniesAnExpiredPassword)
{
    EXPECT_TRUE(eventually([&] { return verify(expired).denial == Denial::expired; }));

    EXPECT_EQ(verify(expired).outcome, VerifyOutcome::Denied);
    EXPECT_EQ(verify(expired, "wrong").denial, Denial::password);
}

TEST_F(VerifyWithPolicies, CountsTheGraceLoginsOfAnExpiredPassword)
{
    std::vector<unsigned int> left;
    bool const isOver = eventually([&] {
        auto const verification = verify(graced);
        if (verification.graceLogins) {
            EXPECT_EQ(verification.outcome, VerifyOutcome::Accepted);
            left.push_back(*verification.graceLogins);
        }
        return verification.outcome != VerifyOutcome::Accepted;
    });

    EXPECT_TRUE(isOver);
    EXPECT_THAT(left, testing::ElementsAre(1U, 0U));
    EXPECT_EQ(verify(graced).denial, Denial::expired);
}

TEST_F(VerifyWithPolicies, TellsWhenThePasswordExpires)
{
    auto const verification = verify(warned);

    EXPECT_EQ(verification.outcome, VerifyOutcome::Accepted);
    ASSERT_TRUE(verification.expiresIn.has_value());
    EXPECT_GT(verification.expiresIn->count(), 0);
    EXPECT_LE(verification.expiresIn->count(), 3600);
}

TEST_F(VerifyWithPolicies, WorksOverTls)
{
    auto secure = settingsFor({slapd().tlsPort()});
    secure.servers.front().secure = true;
    secure.tls.caFile = slapd().caFile();
    LDAPLookup lookup(secure);

    EXPECT_EQ(lookup.verify(addressOf(ordinary), passwordOf(ordinary)).outcome,
              VerifyOutcome::Accepted);
    EXPECT_EQ(lookup.verify(addressOf(ordinary), "wrong").outcome, VerifyOutcome::Denied);
    EXPECT_EQ(verify(ordinary).outcome, VerifyOutcome::Accepted);
}

// The parent's connections are kept open for it, and idle.
TEST_F(VerifyWithPolicies, WorksInChildrenAndAfterwardsInTheParent)
{
    ASSERT_EQ(verify(ordinary).outcome, VerifyOutcome::Accepted);

    for (int round = 0; round < rounds; ++round) {
        auto const work = [&](bool isRight) {
            auto const outcome = verify(ordinary, isRight ? passwordOf(ordinary) : "").outcome;
            auto const wanted = isRight ? VerifyOutcome::Accepted : VerifyOutcome::BadKey;
            return outcome == wanted ? std::string() : std::string(name(outcome));
        };
        ForkedProcess first([&] { return work(true); });
        ForkedProcess second([&] { return work(true) + work(false); });
        ASSERT_EQ(first.complaint(), "");
        ASSERT_EQ(second.complaint(), "");
    }

    EXPECT_EQ(verify(ordinary).outcome, VerifyOutcome::Accepted);
}

} // namespace SolvaneTest
