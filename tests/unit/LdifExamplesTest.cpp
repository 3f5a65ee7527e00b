// The examples of RFC 2849.
#include "LdifRecords.h"
#include "TemporaryDirectory.h"

#include <gmock/gmock.h>

#include <fstream>
#include <string>
#include <vector>

using namespace Solvane;
using namespace std::string_literals;
using SolvaneTest::errorIn;
using SolvaneTest::isChange;
using SolvaneTest::Record;
using SolvaneTest::recordIn;
using SolvaneTest::recordsIn;
using SolvaneTest::textOf;
using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::SizeIs;

namespace {

using Type = Record::Type;
using Operation = Record::Change::Operation;

auto isAttribute(std::string const& description, std::string const& value)
{
    return AllOf(Field(&Record::Attribute::description, description),
                 Field(&Record::Attribute::value, value));
}

constexpr char barbara[] = "cn=Barbara Jensen, ou=Product Development, dc=airius, dc=com";

} // namespace

TEST(LdifExample, One)
{
    auto const records =
        recordsIn("version: 1\n"
                  "dn: cn=Barbara Jensen, ou=Product Development, dc=airius, dc=com\n"
                  "objectclass: top\nobjectclass: person\nobjectclass: organizationalPerson\n"
                  "cn: Barbara Jensen\n"
                  "cn: Barbara J Jensen\n"
                  "cn: Babs Jensen\n"
                  "sn: Jensen\n"
                  "uid: bjensen\n"
                  "telephonenumber: +1 408 555 1212\n"
                  "description: A big sailing fan.\n"
                  "\n"
                  "dn: cn=Bjorn Jensen, ou=Accounting, dc=airius, dc=com\n"
                  "objectclass: top\nobjectclass: person\nobjectclass: organizationalPerson\n"
                  "cn: Bjorn Jensen\n"
                  "sn: Jensen\n"
                  "telephonenumber: +1 408 555 1212\n");

    ASSERT_THAT(records, SizeIs(2));
    EXPECT_EQ(records[0].dn, barbara);
    EXPECT_EQ(records[0].line, 2U);
    EXPECT_EQ(records[0].type, Type::Content);
    EXPECT_EQ(textOf(records[0].attributes),
              "objectclass=top|objectclass=person|objectclass=organizationalPerson|"
              "cn=Barbara Jensen|cn=Barbara J Jensen|cn=Babs Jensen|sn=Jensen|uid=bjensen|"
              "telephonenumber=+1 408 555 1212|description=A big sailing fan.");
    EXPECT_EQ(records[1].dn, "cn=Bjorn Jensen, ou=Accounting, dc=airius, dc=com");
    EXPECT_EQ(records[1].line, 14U);
    EXPECT_THAT(records[1].attributes, SizeIs(6));
}

TEST(LdifExample, TwoWithFoldedLines)
{
    Record const record =
        recordIn("version: 1\n"
                 "dn:cn=Barbara Jensen, ou=Product Development, dc=airius, dc=com\n"
                 "objectclass:top\n"
                 "objectclass:person\n"
                 "objectclass:organizationalPerson\n"
                 "cn:Barbara Jensen\ncn:Barbara J Jensen\ncn:Babs Jensen\n"
                 "sn:Jensen\n"
                 "uid:bjensen\n"
                 "telephonenumber:+1 408 555 1212\n"
                 "description:Babs is a big sailing fan, and travels extensively in sea\n"
                 " rch of perfect sailing conditions.\n"
                 "title:Product Manager, Rod and Reel Division\n");

    EXPECT_EQ(record.dn, barbara);
    ASSERT_THAT(record.attributes, SizeIs(11));
    EXPECT_THAT(record.attributes[9],
                isAttribute("description", "Babs is a big sailing fan, and travels extensively in "
                                           "search of perfect sailing conditions."));
    EXPECT_EQ(record.attributes[9].line, 12U);
    EXPECT_THAT(record.attributes[10],
                isAttribute("title", "Product Manager, Rod and Reel Division"));
    EXPECT_EQ(record.attributes[10].line, 14U);
}

TEST(LdifExample, ThreeWithBase64)
{
    Record const record =
        recordIn("version: 1\n"
                 "dn: cn=Gern Jensen, ou=Product Testing, dc=airius, dc=com\n"
                 "objectclass: top\nobjectclass: person\nobjectclass: organizationalPerson\n"
                 "cn: Gern Jensen\n"
                 "cn: Gern O Jensen\n"
                 "sn: Jensen\n"
                 "uid: gernj\n"
                 "telephonenumber: +1 408 555 1212\n"
                 "description:: V2hhdCBhIGNhcmVmdWwgcmVhZGVyIHlvdSBhcmUhICBUaGlzIHZhbHVl\n"
                 " IGlzIGJhc2UtNjQtZW5jb2RlZCBiZWNhdXNlIGl0IGhhcyBhIGNvbnRyb2wgY2hhcmFjdG\n"
                 " VyIGluIGl0IChhIENSKS4NICBCeSB0aGUgd2F5LCB5b3Ugc2hvdWxkIHJlYWxseSBnZXQg\n"
                 " b3V0IG1vcmUu\n");

    EXPECT_EQ(record.attributes.back().value,
              "What a careful reader you are!  This value is base-64-encoded because it has a "
              "control character in it (a CR).\r  By the way, you should really get out more.");
}

TEST(LdifExample, FourWithOtherLanguages)
{
    auto const records = recordsIn("version: 1\n"
                                   "dn:: b3U95Za25qWt6YOoLG89QWlyaXVz\n"
                                   "# dn:: ou=<JapaneseOU>,o=Airius\n"
                                   "objectclass: top\n"
                                   "objectclass: organizationalUnit\n"
                                   "ou:: 5Za25qWt6YOo\n"
                                   "# ou:: <JapaneseOU>\n"
                                   "ou;lang-ja:: 5Za25qWt6YOo\n"
                                   "# ou;lang-ja:: <JapaneseOU>\n"
                                   "ou;lang-ja;phonetic:: 44GI44GE44GO44KH44GG44G2\n"
                                   "# ou;lang-ja:: <JapaneseOU_in_phonetic_representation>\n"
                                   "ou;lang-en: Sales\n"
                                   "description: Japanese office\n"
                                   "\n"
                                   "dn:: dWlkPXJvZ2FzYXdhcmEsb3U95Za25qWt6YOoLG89QWlyaXVz\n"
                                   "# dn:: uid=<uid>,ou=<JapaneseOU>,o=Airius\n"
                                   "userpassword: {SHA}O3HSv1MusyL4kTjP+HKI5uxuNoM=\n"
                                   "cn;lang-ja:: 5bCP56yg5Y6fIOODreODieODi+ODvA==\n"
                                   "# cn;lang-ja:: <JapaneseCn>\n"
                                   "preferredlanguage: ja\n");

    ASSERT_THAT(records, SizeIs(2));
    EXPECT_EQ(records[0].dn, "ou=\u55b6\u696d\u90e8,o=Airius");
    EXPECT_THAT(records[0].attributes[4],
                isAttribute("ou;lang-ja;phonetic", "\u3048\u3044\u304e\u3087\u3046\u3076"));
    EXPECT_EQ(records[1].dn, "uid=rogasawara,ou=\u55b6\u696d\u90e8,o=Airius");
    EXPECT_THAT(
        records[1].attributes,
        ElementsAre(isAttribute("userpassword", "{SHA}O3HSv1MusyL4kTjP+HKI5uxuNoM="),
                    isAttribute("cn;lang-ja", "\u5c0f\u7b20\u539f \u30ed\u30c9\u30cb\u30fc"),
                    isAttribute("preferredlanguage", "ja")));
}

TEST(LdifExample, FiveWithAFileThatMustBeAllowed)
{
    EXPECT_EQ(errorIn("version: 1\n"
                      "dn: cn=Horatio Jensen, ou=Product Testing, dc=airius, dc=com\n"
                      "objectclass: top\n"
                      "jpegphoto:< file:///usr/local/directory/photos/hjensen.jpg\n"),
              "line 4: values from a URL are not supported; write the value in base64 after '::'");
}

TEST(LdifExample, SixWithChanges)
{
    auto const records =
        recordsIn("version: 1\n"
                  "# Add a new entry\n"
                  "dn: cn=Fiona Jensen, ou=Marketing, dc=airius, dc=com\n"
                  "changetype: add\n"
                  "objectclass: top\nobjectclass: person\nobjectclass: organizationalPerson\n"
                  "cn: Fiona Jensen\n"
                  "sn: Jensen\n"
                  "uid: fiona\n"
                  "telephonenumber: +1 408 555 1212\n"
                  "\n"
                  "# Delete an existing entry\n"
                  "dn: cn=Robert Jensen, ou=Marketing, dc=airius, dc=com\n"
                  "changetype: delete\n"
                  "\n"
                  "# Modify an entry's relative distinguished name\n"
                  "dn: cn=Paul Jensen, ou=Product Development, dc=airius, dc=com\n"
                  "changetype: modrdn\n"
                  "newrdn: cn=Paula Jensen\n"
                  "deleteoldrdn: 1\n"
                  "\n"
                  "# Rename an entry and move all of its children to a new location in\n"
                  "# the directory tree (only implemented by LDAPv3 servers).\n"
                  "dn: ou=PD Accountants, ou=Product Development, dc=airius, dc=com\n"
                  "changetype: modrdn\n"
                  "newrdn: ou=Product Development Accountants\n"
                  "deleteoldrdn: 0\n"
                  "newsuperior: ou=Accounting, dc=airius, dc=com\n"
                  "\n"
                  "# Modify an entry: add an additional value to the postaladdress\n"
                  "# attribute, completely delete the description attribute, replace\n"
                  "# the telephonenumber attribute with two values, and delete a specific\n"
                  "# value from the facsimiletelephonenumber attribute\n"
                  "dn: cn=Paula Jensen, ou=Product Development, dc=airius, dc=com\n"
                  "changetype: modify\n"
                  "add: postaladdress\n"
                  "postaladdress: 123 Anystreet $ Sunnyvale, CA $ 94086\n"
                  "-\n"
                  "delete: description\n"
                  "-\n"
                  "replace: telephonenumber\n"
                  "telephonenumber: +1 408 555 1234\n"
                  "telephonenumber: +1 408 555 5678\n"
                  "-\n"
                  "delete: facsimiletelephonenumber\n"
                  "facsimiletelephonenumber: +1 408 555 9876\n"
                  "-\n"
                  "\n"
                  "# Modify an entry: replace the postaladdress attribute with an empty\n"
                  "# set of values (which will cause the attribute to be removed), and\n"
                  "# delete the entire description attribute. Note that the first will\n"
                  "# always succeed, while the second will only succeed if at least\n"
                  "# one value for the description attribute is present.\n"
                  "dn: cn=Ingrid Jensen, ou=Product Support, dc=airius, dc=com\n"
                  "changetype: modify\n"
                  "replace: postaladdress\n"
                  "-\n"
                  "delete: description\n"
                  "-\n");

    ASSERT_THAT(records, SizeIs(6));
    EXPECT_EQ(records[0].type, Type::Add);
    EXPECT_EQ(records[0].typeLine, 4U);
    EXPECT_THAT(records[0].attributes, SizeIs(7));
    EXPECT_EQ(records[1].type, Type::Delete);
    EXPECT_EQ(records[2].type, Type::Rename);
    EXPECT_EQ(records[2].newRdn, "cn=Paula Jensen");
    EXPECT_TRUE(records[2].deletesOldRdn);
    EXPECT_EQ(records[2].newSuperior, std::nullopt);
    EXPECT_EQ(records[3].newRdn, "ou=Product Development Accountants");
    EXPECT_FALSE(records[3].deletesOldRdn);
    EXPECT_EQ(records[3].newSuperior, "ou=Accounting, dc=airius, dc=com");
    EXPECT_THAT(
        records[4].changes,
        ElementsAre(
            isChange(Operation::Add, "postaladdress", {"123 Anystreet $ Sunnyvale, CA $ 94086"}),
            isChange(Operation::Delete, "description", {}),
            isChange(Operation::Replace, "telephonenumber", {"+1 408 555 1234", "+1 408 555 5678"}),
            isChange(Operation::Delete, "facsimiletelephonenumber", {"+1 408 555 9876"})));
    EXPECT_THAT(records[5].changes, ElementsAre(isChange(Operation::Replace, "postaladdress", {}),
                                                isChange(Operation::Delete, "description", {})));
}

TEST(LdifExample, SevenWithAControl)
{
    Record const record = recordIn("version: 1\n"
                                   "# Delete an entry. The operation will attach the LDAPv3\n"
                                   "# Tree Delete Control defined in [9]. The criticality\n"
                                   "# field is \"true\" and the controlValue field is\n"
                                   "# absent, as required by [9].\n"
                                   "dn: ou=Product Development, dc=airius, dc=com\n"
                                   "control: 1.2.840.113556.1.4.805 true\n"
                                   "changetype: delete\n");

    EXPECT_EQ(record.type, Type::Delete);
    ASSERT_THAT(record.controls, SizeIs(1));
    EXPECT_EQ(record.controls[0].oid, "1.2.840.113556.1.4.805");
    EXPECT_TRUE(record.controls[0].isCritical);
    EXPECT_EQ(record.controls[0].value, std::nullopt);
    EXPECT_EQ(record.controls[0].line, 7U);
}
