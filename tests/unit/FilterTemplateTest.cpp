// Filter templates instantiated for one address.
#include <solvane/ldap/LDAPUtil.h>

#include "Faults.h"

#include <gmock/gmock.h>

using namespace Solvane;
using SolvaneTest::IsFault;
using SolvaneTest::thrownBy;

TEST(InstantiatingATemplate, PutsThePartsOfTheAddressIn)
{
    EmailAddress const address("jdoe@corp.test");

    EXPECT_EQ(LDAPUtil::instanceFilterTemplate("(&(uid=$u)(dc=$d)(mail=$m))", address),
              "(&(uid=jdoe)(dc=corp.test)(mail=jdoe@corp.test))");
}

TEST(InstantiatingATemplate, EscapesThePartsOfTheAddress)
{
    EmailAddress const address("j*(doe)@corp\\test");

    EXPECT_EQ(LDAPUtil::instanceFilterTemplate("(mail=$m)", address),
              "(mail=j\\2A\\28doe\\29@corp\\5Ctest)");
}

TEST(InstantiatingATemplate, LosesTheTextBeforeTheOptionalValues)
{
    EmailAddress const address("jdoe@corp.test");

    EXPECT_EQ(LDAPUtil::instanceFilterTemplate("(a=1)$b(uid=$u)", address), "(uid=jdoe)");
    EXPECT_EQ(LDAPUtil::instanceFilterTemplate("(a=1)$g(uid=$u)", address), "(uid=jdoe)");
}

TEST(InstantiatingATemplate, PutsAHashForAnEmptyDomain)
{
    EmailAddress const address("jdoe");

    EXPECT_EQ(LDAPUtil::instanceFilterTemplate("(dc=$d)", address), "(dc=#)");
}

TEST(InstantiatingATemplate, ReadsTheTemplateUpToItsFirstZeroByte)
{
    EmailAddress const address("jdoe@corp.test");

    EXPECT_EQ(LDAPUtil::instanceFilterTemplate(std::string("(uid=$u)\0$", 10), address),
              "(uid=jdoe)");
}

TEST(InstantiatingATemplate, SplitsTheAddressAtItsLastAt)
{
    EmailAddress const address("a@b@corp.test");

    EXPECT_EQ(LDAPUtil::instanceFilterTemplate("$u|$d", address), "a@b|corp.test");
}

TEST(InstantiatingATemplate, PassesTheExceptionOfAMalformedTemplateOn)
{
    EmailAddress const address("jdoe@corp.test");

    auto const thrown = thrownBy([&] { LDAPUtil::instanceFilterTemplate(" cn=$x ", address); });

    EXPECT_THAT(thrown, IsFault("Utility.cpp", 169, 2, 0));
    EXPECT_EQ(thrown.stringParameter(),
              "Invalid format specifier in LdapQuery definition: at pos 3 (x) :  cn=$x ");
    EXPECT_FALSE(thrown.hasCause());
}

TEST(InstantiatingATemplate, ReportsTheTemplateUpToItsFirstZeroByte)
{
    EmailAddress const address("jdoe@corp.test");

    auto const thrown =
        thrownBy([&] { LDAPUtil::instanceFilterTemplate(std::string("cn=$\0u", 6), address); });

    EXPECT_EQ(thrown.stringParameter(),
              "Invalid UserQuery string: The last character must be a '$' : cn=$");
}
