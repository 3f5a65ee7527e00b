// Passwords of users, on a healthy server.
#include "Lookups.h"
#include "TestedServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Solvane;
using Lookup::Denial;
using Lookup::VerifyOutcome;

namespace SolvaneTest {

class VerifyOnAServer : public ServerTest {
protected:
    static std::string passwordOf(int user)
    {
        std::string const address = addressOf(user);
        return "pw-" + address.substr(0, address.find('@'));
    }

    LDAPLookup m_lookup{server().settings()};
};

TEST_F(VerifyOnAServer, AcceptsTheRightPassword)
{
    auto const verification = m_lookup.verify(addressOf(7), passwordOf(7));

    EXPECT_EQ(verification.outcome, VerifyOutcome::Accepted) << verification.text;
    EXPECT_EQ(verification.denial, Denial::none);
    EXPECT_EQ(verification.dn, server().personDn(7));
}

TEST_F(VerifyOnAServer, DeniesAWrongOne)
{
    auto const verification = m_lookup.verify(addressOf(8), passwordOf(9));

    EXPECT_EQ(verification.outcome, VerifyOutcome::Denied) << verification.text;
    EXPECT_EQ(verification.denial, Denial::password) << verification.text;
    EXPECT_EQ(verification.code, 49);
}

TEST_F(VerifyOnAServer, JudgesEachUserAnewOnTheSameConnection)
{
    auto one = server().settings();
    one.verifyConnections = 1;
    LDAPLookup lookup(one);

    for (int user = 1; user <= 4; ++user) {
        EXPECT_EQ(lookup.verify(addressOf(user), passwordOf(user)).outcome,
                  VerifyOutcome::Accepted);
        EXPECT_EQ(lookup.verify(addressOf(user), passwordOf(user + 1)).outcome,
                  VerifyOutcome::Denied);
    }
}

TEST_F(VerifyOnAServer, FindsNoEntryOfAnUnknownAddress)
{
    EXPECT_EQ(m_lookup.verify("nobody@corp.test", "secret").outcome, VerifyOutcome::NotFound);
}

TEST_F(VerifyOnAServer, RefusesTwoEntriesOfOneKey)
{
    auto loose = server().settings();
    loose.queryTemplate = "(mail=user000000*)";
    LDAPLookup lookup(loose);

    EXPECT_EQ(lookup.verify(addressOf(1), passwordOf(1)).outcome, VerifyOutcome::Misconfigured);
}

TEST_F(VerifyOnAServer, SendsNoEmptyPassword)
{
    EXPECT_EQ(m_lookup.verify(addressOf(1), "").outcome, VerifyOutcome::BadKey);
}

} // namespace SolvaneTest
