// Entries as values.
#include <solvane/ldap/LDAPResult.h>

#include <gmock/gmock.h>

#include <algorithm>

using namespace Solvane;
using testing::ElementsAre;

namespace {

LDAPAttribute attribute(std::string const& type) { return LDAPAttribute(LDAPAttributeType(type)); }

std::list<std::string> typesOf(LDAPSearchResultEntry const& entry)
{
    std::list<std::string> types;
    for (LDAPAttribute const& each : entry.attributes().attributes()) {
        types.push_back(each.type().asString());
    }
    return types;
}

} // namespace

TEST(AnEntry, StartsWithoutAttributes)
{
    LDAPSearchResultEntry const entry("cn=a,dc=test");

    EXPECT_EQ(entry.entryName(), "cn=a,dc=test");
    EXPECT_TRUE(entry.attributes().empty());
}

TEST(AnEntry, HoldsAListOfAttributesInItsOrder)
{
    LDAPSearchResultEntry const entry("cn=a", {attribute("sn"), attribute("cn")});

    EXPECT_EQ(entry.entryName(), "cn=a");
    EXPECT_THAT(typesOf(entry), ElementsAre("sn", "cn"));
}

TEST(AnEntry, AppendsAttributesOfOneTypeSideBySide)
{
    LDAPSearchResultEntry entry("cn=a", {attribute("cn")});

    entry.appendAttribute(attribute("mail"));
    entry.appendAttribute(attribute("cn"));

    EXPECT_THAT(typesOf(entry), ElementsAre("cn", "mail", "cn"));
}

TEST(AnEntry, TakesOverANameAndAnAttributeThatAreMovedIn)
{
    std::string name = "cn=a name that no string keeps in itself";
    char const* const characters = name.data();
    LDAPAttribute cn = attribute("cn");

    LDAPSearchResultEntry entry(std::move(name));
    entry.appendAttribute(std::move(cn));

    EXPECT_EQ(entry.entryName().data(), characters);
    EXPECT_TRUE(cn.isNull());
    EXPECT_THAT(typesOf(entry), ElementsAre("cn"));
}

TEST(AnEntry, SharesTheBodyOfAnAppendedAttribute)
{
    LDAPSearchResultEntry entry("cn=a");
    LDAPAttribute cn = attribute("cn");

    entry.appendAttribute(cn);
    cn.value("a");

    EXPECT_THAT(entry.attributes().attributes().front().value(), ElementsAre("a"));
}

TEST(AnEntry, EqualsNothingAndIsNotFoundInAList)
{
    LDAPSearchResultEntry entry("cn=a");
    LDAPSearchResultEntry const& itself = entry;
    std::list<LDAPSearchResultEntry> entries{entry};

    EXPECT_FALSE(entry == itself);
    EXPECT_FALSE(entry == LDAPSearchResultEntry("cn=a"));
    EXPECT_EQ(std::find(entries.begin(), entries.end(), entries.front()), entries.end());
}

TEST(AnEntry, HasANameOfItsOwnAndSharedAttributesWhenCopied)
{
    LDAPSearchResultEntry original("cn=a");
    LDAPSearchResultEntry copy(original);
    LDAPSearchResultEntry assigned("cn=b");
    assigned = original;

    copy.appendAttribute(attribute("mail"));

    EXPECT_EQ(copy.entryName(), "cn=a");
    EXPECT_NE(copy.entryName().data(), original.entryName().data());
    EXPECT_THAT(typesOf(original), ElementsAre("mail"));
    EXPECT_THAT(typesOf(assigned), ElementsAre("mail"));
}

TEST(AnEntry, KeepsZeroBytesInItsName)
{
    std::string const name("a\0b", 3);

    EXPECT_EQ(LDAPSearchResultEntry(name).entryName(), name);
}
