// Entries added to a real directory, and read back byte for byte.
#include "Directory.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

using namespace Solvane;
using testing::ElementsAre;
using testing::IsEmpty;

namespace SolvaneTest {

namespace {

LDAPAttributeContainer personNamed(std::string const& name)
{
    return LDAPAttributeContainer({attributeOf("objectClass", "inetOrgPerson"),
                                   attributeOf("uid", name), attributeOf("cn", name),
                                   attributeOf("sn", name)});
}

} // namespace

class AnAddToADirectory : public SuiteWithSlapd<AnAddToADirectory> {
public:
    static std::vector<std::string> options() { return {"--users", "5"}; }

protected:
    void SetUp() override
    {
        SuiteWithSlapd<AnAddToADirectory>::SetUp();
        if (hasSlapd()) {
            connection = boundTo(plainServer(slapd().port()));
        }
    }

    /// The server's verdict on a new entry.
    int verdictOn(std::string dn, LDAPAttributeContainer const& attributes)
    {
        LDAPAdd add(connection, dn);
        add.attributes(attributes);
        add.send();
        return add.wait(10) ? -1 : add.result().resultCode();
    }

    LDAPConnection connection;
};

TEST_F(AnAddToADirectory, StoresTextAndBinaryValues)
{
    std::ifstream file(slapd().certificateFile(), std::ios::binary);
    std::string const certificate{std::istreambuf_iterator<char>(file),
                                  std::istreambuf_iterator<char>()};
    std::string const dn = "uid=first,ou=new,dc=corp,dc=test";
    LDAPAttributeContainer person = personNamed("first");
    person.add(attributeOf("givenName", "Zo\xC3\xAB"));
    person.add(attributeOf("userCertificate;binary", certificate));

    int const verdict = verdictOn(dn, person);

    EXPECT_EQ(verdict, 0);
    LDAPResult const stored = answerTo(connection, lookupOf(dn));
    EXPECT_THAT(valuesIn(stored, "givenName"), ElementsAre("Zo\xC3\xAB"));
    EXPECT_THAT(valuesIn(stored, "userCertificate;binary"), ElementsAre(certificate));
}

TEST_F(AnAddToADirectory, CutsATextAtItsFirstZeroByte)
{
    std::string const dn = "uid=cut,ou=new,dc=corp,dc=test";
    LDAPAttributeContainer person = personNamed("cut");
    person.add(attributeOf("description", std::string("seen\0lost", 9)));

    int const verdict = verdictOn(dn, person);

    EXPECT_EQ(verdict, 0);
    EXPECT_THAT(valuesIn(answerTo(connection, lookupOf(dn)), "description"), ElementsAre("seen"));
}

TEST_F(AnAddToADirectory, IsRefusedForAnEntryThatExists)
{
    std::string const dn = "uid=twice,ou=new,dc=corp,dc=test";

    int const first = verdictOn(dn, personNamed("twice"));
    int const second = verdictOn(dn, personNamed("twice"));

    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 68);
}

TEST_F(AnAddToADirectory, IsRefusedForWhatTheSchemaForbids)
{
    LDAPAttributeContainer const nameless(
        {attributeOf("objectClass", "inetOrgPerson"), attributeOf("uid", "nameless")});

    int const verdict = verdictOn("uid=nameless,ou=new,dc=corp,dc=test", nameless);

    EXPECT_EQ(verdict, 65);
}

TEST_F(AnAddToADirectory, IsRefusedWithoutAttributes)
{
    std::string const dn = "uid=empty,ou=new,dc=corp,dc=test";

    int const verdict = verdictOn(dn, LDAPAttributeContainer());

    EXPECT_EQ(verdict, 2); // protocolError: an entry has attributes
    EXPECT_THAT(namesIn(answerTo(connection, lookupOf(dn))), IsEmpty());
}

TEST_F(AnAddToADirectory, IsRefusedWhenAnAttributeStandsTwiceWithOneValue)
{
    LDAPAttributeContainer person = personNamed("double");
    person.add(attributeOf("cn", "double"));

    int const verdict = verdictOn("uid=double,ou=new,dc=corp,dc=test", person);

    EXPECT_EQ(verdict, 20); // attributeOrValueExists
}

} // namespace SolvaneTest
