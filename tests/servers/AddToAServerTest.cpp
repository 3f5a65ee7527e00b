// Entries that are added and read back, and the refusals of a server.
#include "Directory.h"
#include "TestedServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

using namespace Solvane;
using testing::ElementsAre;

namespace SolvaneTest {

class AddToAServer : public ServerTest {
protected:
    static LDAPAttribute attribute(std::string const& type, std::string const& value)
    {
        LDAPAttribute attribute{LDAPAttributeType(type)};
        attribute.value(value);
        return attribute;
    }
    static LDAPAttributeContainer person(std::string const& name)
    {
        return LDAPAttributeContainer({attribute("objectClass", "inetOrgPerson"),
                                       attribute("cn", name), attribute("sn", name)});
    }
    static std::string dnOf(std::string const& name)
    {
        return "cn=" + name + ',' + server()["NEW"];
    }

    /// The server's verdict on a new entry.
    int verdictOn(std::string dn, LDAPAttributeContainer const& attributes)
    {
        LDAPAdd add(connection, dn);
        add.attributes(attributes);
        add.send();
        return add.wait(10) ? -1 : add.result().resultCode();
    }

    LDAPConnection connection = server().bound();
};

TEST_F(AddToAServer, StoresTextAndBytes)
{
    std::string const bytes = "\xff\xd8\xff\x80\x01\xff\xd9";
    LDAPAttributeContainer newcomer = person("first");
    newcomer.add(attribute("givenName", "Zo\xC3\xAB"));
    newcomer.add(attribute("jpegPhoto", bytes));

    int const verdict = verdictOn(dnOf("first"), newcomer);

    EXPECT_EQ(verdict, 0);
    LDAPResult const stored = answerTo(connection, lookupOf(dnOf("first")));
    EXPECT_THAT(valuesIn(stored, "givenName"), ElementsAre("Zo\xC3\xAB"));
    EXPECT_THAT(valuesIn(stored, "jpegPhoto"), ElementsAre(bytes));
}

TEST_F(AddToAServer, OfACertificateByItsBinaryOptionEndsAsTheServerHandlesOptions)
{
    std::ifstream file(server()["SERVER_DIR"] + "/tls/good.der", std::ios::binary);
    std::string const certificate{std::istreambuf_iterator<char>(file),
                                  std::istreambuf_iterator<char>()};
    LDAPAttributeContainer certified = person("certified");
    certified.add(attribute("userCertificate;binary", certificate));

    int const verdict = verdictOn(dnOf("certified"), certified);

    measured("binary_option", verdict);
    EXPECT_EQ(verdict, server().number("BINARY_OPTION"));
    if (verdict == 0) {
        LDAPResult const stored = answerTo(connection, lookupOf(dnOf("certified")));
        EXPECT_THAT(valuesIn(stored, server()["CERTIFICATE"]), ElementsAre(certificate));
    }
}

TEST_F(AddToAServer, OfAnAttributeWithALanguageEndsAsTheServerHandlesOptions)
{
    LDAPAttributeContainer french = person("french");
    french.add(attribute("description;lang-fr", "une personne"));

    int const verdict = verdictOn(dnOf("french"), french);

    measured("language_option", verdict);
    EXPECT_EQ(verdict, server().number("LANGUAGE_OPTION"));
}

TEST_F(AddToAServer, IsRefusedForAnEntryThatExists)
{
    int const first = verdictOn(dnOf("twice"), person("twice"));
    int const second = verdictOn(dnOf("twice"), person("twice"));

    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 68);
}

TEST_F(AddToAServer, IsRefusedForATypeThatDoesNotExist)
{
    LDAPAttributeContainer odd = person("odd");
    odd.add(attribute("noSuchAttributeType", "x"));

    int const verdict = verdictOn(dnOf("odd"), odd);

    measured("undefined_type", verdict);
    EXPECT_EQ(verdict, server().number("UNDEFINED_TYPE"));
}

TEST_F(AddToAServer, IsRefusedWhereTheBindGivesNoRight)
{
    std::string const dn = "cn=intruder," + server()["PEOPLE"];

    EXPECT_EQ(verdictOn(dn, person("intruder")), 50);
}

TEST_F(AddToAServer, IsRefusedBelowWhatDoesNotExist)
{
    std::string const dn = "cn=orphan,ou=nowhere," + server()["NEW"];

    int const verdict = verdictOn(dn, person("orphan"));

    measured("missing_parent", verdict);
    EXPECT_EQ(verdict, 32);
}

} // namespace SolvaneTest
