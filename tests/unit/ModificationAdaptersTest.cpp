// The arrays that an add passes to OpenLDAP: layout, pointers and ownership.
#include "Allocations.h"
#include "CallTest.h"

#include <memory>

namespace SolvaneTest {
namespace {

using namespace std::string_literals;
using Solvane::BerValueAdapter;
using Solvane::Buffer;
using Solvane::LDAPAddAdapter;
using Solvane::LDAPAddImpl;
using Solvane::LDAPAttribute;
using Solvane::LDAPAttributeContainer;
using Solvane::LDAPConnection;
using Solvane::LDAPModAdapter;
using Solvane::StringValueAdapter;
using testing::ElementsAre;

Buffer bytes(std::string const& text)
{
    return Buffer(text.data(), static_cast<unsigned int>(text.size()), false);
}

LDAPAttribute attribute(std::string const& type, std::vector<std::string> const& values)
{
    LDAPAttribute made((Solvane::LDAPAttributeType(type)));
    for (std::string const& value : values) {
        made.value(value);
    }
    return made;
}

std::string textOf(berval const& value) { return std::string(value.bv_val, value.bv_len); }

// Text values

TEST(StringValues, AreAnArrayIntoTheList)
{
    std::list<std::string> const source{"first", "second", "first"};

    StringValueAdapter const adapter(source);

    ASSERT_EQ(adapter.count, 3U);
    auto expected = source.begin();
    EXPECT_EQ(adapter.values[0], (expected++)->c_str());
    EXPECT_EQ(adapter.values[1], (expected++)->c_str());
    EXPECT_EQ(adapter.values[2], (expected++)->c_str());
    EXPECT_EQ(adapter.values[3], nullptr);
}

TEST(StringValues, OfAnEmptyListAreOneNull)
{
    StringValueAdapter const adapter(std::list<std::string>{});

    EXPECT_EQ(adapter.count, 0U);
    EXPECT_EQ(adapter.values[0], nullptr);
}

TEST(StringValues, EndAtTheirFirstZeroByte)
{
    std::list<std::string> const source{"before\0after"s, ""};

    StringValueAdapter const adapter(source);

    EXPECT_STREQ(adapter.values[0], "before");
    EXPECT_STREQ(adapter.values[1], "");
    EXPECT_EQ(adapter.values[2], nullptr);
}

TEST(StringValues, GiveBackTheArrayAloneAndOnce)
{
    std::list<std::string> const source{"one text that does not fit into its string"};
    auto adapter = std::make_unique<StringValueAdapter>(source);
    Releases::Named const named{{adapter->values, "array"}, {source.front().c_str(), "text"}};
    Releases const releases;

    adapter.reset();

    EXPECT_THAT(releases.of(named), ElementsAre("array"));
    EXPECT_EQ(source.front(), "one text that does not fit into its string");
}

// Binary values

TEST(BinaryValues, AreAnArrayOfCountedBytesInTheList)
{
    std::list<Buffer> const source{bytes("one"), bytes("tw\0o"s)};

    BerValueAdapter const adapter(source);

    ASSERT_EQ(adapter.count, 2U);
    EXPECT_EQ(static_cast<void const*>(adapter.values[0]->bv_val), source.front().data());
    EXPECT_EQ(adapter.values[0]->bv_len, 3U);
    EXPECT_EQ(static_cast<void const*>(adapter.values[1]->bv_val), source.back().data());
    EXPECT_EQ(adapter.values[1]->bv_len, 4U);
    EXPECT_EQ(textOf(*adapter.values[1]), "tw\0o"s);
    EXPECT_EQ(adapter.values[2], nullptr);
}

TEST(BinaryValues, OfAnEmptyListAreOneNull)
{
    BerValueAdapter const adapter(std::list<Buffer>{});

    EXPECT_EQ(adapter.count, 0U);
    EXPECT_EQ(adapter.values[0], nullptr);
}

// OpenLDAP refuses to encode a value whose bytes are null, also one of length 0.
TEST(BinaryValues, HaveBytesAlsoWhenTheyAreEmpty)
{
    std::list<Buffer> const source{Buffer()};

    BerValueAdapter const adapter(source);

    EXPECT_EQ(adapter.values[0]->bv_len, 0U);
    EXPECT_NE(adapter.values[0]->bv_val, nullptr);
    EXPECT_EQ(adapter.values[1], nullptr);
}

TEST(BinaryValues, GiveBackTheirRecordsInOrderAndThenTheArray)
{
    std::list<Buffer> const source{bytes("so many bytes that they are kept outside"), bytes("b")};
    auto adapter = std::make_unique<BerValueAdapter>(source);
    Releases::Named const named{{adapter->values, "array"},
                                {adapter->values[0], "first"},
                                {adapter->values[1], "second"},
                                {source.front().data(), "bytes"}};
    Releases const releases;

    adapter.reset();

    EXPECT_THAT(releases.of(named), ElementsAre("first", "second", "array"));
    EXPECT_EQ(source.front().length(), 40U);
}

// Modifications

TEST(Modifications, OfAnEmptyContainerAreOneNull)
{
    LDAPAttributeContainer const container;

    LDAPModAdapter const adapter(container, LDAP_MOD_ADD);

    EXPECT_EQ(adapter.count, 0U);
    ASSERT_NE(adapter.mods, nullptr);
    EXPECT_EQ(adapter.mods[0], nullptr);
}

TEST(Modifications, OfATextAttributeAreStrings)
{
    LDAPAttributeContainer const container({attribute("cn", {"one", "two"})});

    LDAPModAdapter const adapter(container, LDAP_MOD_ADD);

    ASSERT_EQ(adapter.count, 1U);
    LDAPMod const& mod = *adapter.mods[0];
    EXPECT_EQ(mod.mod_op, 0);
    EXPECT_STREQ(mod.mod_type, "cn");
    EXPECT_STREQ(mod.mod_values[0], "one");
    EXPECT_STREQ(mod.mod_values[1], "two");
    EXPECT_EQ(mod.mod_values[2], nullptr);
    EXPECT_EQ(adapter.mods[1], nullptr);
}

TEST(Modifications, OfABinaryAttributeAreCountedBytes)
{
    LDAPAttributeContainer const container({attribute("jpegPhoto;binary", {"a\0b"s, "c"})});

    LDAPModAdapter const adapter(container, LDAP_MOD_ADD);

    LDAPMod const& mod = *adapter.mods[0];
    EXPECT_EQ(mod.mod_op, 0x80);
    EXPECT_STREQ(mod.mod_type, "jpegPhoto;binary");
    EXPECT_EQ(textOf(*mod.mod_bvalues[0]), "a\0b"s);
    EXPECT_EQ(textOf(*mod.mod_bvalues[1]), "c");
    EXPECT_EQ(mod.mod_bvalues[2], nullptr);
}

TEST(Modifications, AreBinaryByTheOptionAloneInAnyCaseAndPlace)
{
    LDAPAttributeContainer const container({attribute("cn;lang-de;BINARY", {"a"}),
                                            attribute("binary", {"b"}),
                                            attribute("cn;binaryish", {"c"})});

    LDAPModAdapter const adapter(container, LDAP_MOD_ADD);

    EXPECT_EQ(adapter.mods[0]->mod_op, 0x80);
    EXPECT_STREQ(adapter.mods[0]->mod_type, "cn;lang-de;BINARY");
    EXPECT_EQ(adapter.mods[1]->mod_op, 0);
    EXPECT_EQ(adapter.mods[2]->mod_op, 0);
}

TEST(Modifications, CarryTheOperationThatTheyAreMadeFor)
{
    LDAPAttributeContainer const container({attribute("cn", {"a"}), attribute("a;binary", {"b"})});

    LDAPModAdapter const adapter(container, LDAP_MOD_REPLACE);

    EXPECT_EQ(adapter.mods[0]->mod_op, 2);
    EXPECT_EQ(adapter.mods[1]->mod_op, 0x82);
}

TEST(Modifications, KeepTheContainersOrderAndItsDuplicates)
{
    LDAPAttribute const cn = attribute("cn", {"a"});
    LDAPAttributeContainer const container(
        {cn, attribute("sn;binary", {"b"}), cn, attribute("CN", {"c"})});

    LDAPModAdapter const adapter(container, LDAP_MOD_ADD);

    ASSERT_EQ(adapter.count, 4U);
    EXPECT_STREQ(adapter.mods[0]->mod_type, "cn");
    EXPECT_STREQ(adapter.mods[1]->mod_type, "sn;binary");
    EXPECT_STREQ(adapter.mods[2]->mod_type, "cn");
    EXPECT_STREQ(adapter.mods[3]->mod_type, "CN");
    EXPECT_STREQ(adapter.mods[3]->mod_values[0], "c");
    EXPECT_EQ(adapter.mods[4], nullptr);
}

TEST(Modifications, OfAnAttributeWithoutValuesHaveAnEmptyArray)
{
    LDAPAttributeContainer const container({attribute("cn", {}), attribute("sn;binary", {})});

    LDAPModAdapter const adapter(container, LDAP_MOD_ADD);

    ASSERT_NE(adapter.mods[0]->mod_values, nullptr);
    EXPECT_EQ(adapter.mods[0]->mod_values[0], nullptr);
    EXPECT_EQ(adapter.mods[1]->mod_op, 0x80);
    ASSERT_NE(adapter.mods[1]->mod_bvalues, nullptr);
    EXPECT_EQ(adapter.mods[1]->mod_bvalues[0], nullptr);
}

TEST(Modifications, EndATextValueAtItsZeroByteAndKeepABinaryOneWhole)
{
    LDAPAttributeContainer const container(
        {attribute("cn", {"a\0b"s}), attribute("sn;binary", {"a\0b"s})});

    LDAPModAdapter const adapter(container, LDAP_MOD_ADD);

    EXPECT_STREQ(adapter.mods[0]->mod_values[0], "a");
    EXPECT_EQ(adapter.mods[1]->mod_bvalues[0]->bv_len, 3U);
}

TEST(Modifications, LeadIntoTheAttributesWithoutACopy)
{
    LDAPAttribute const text = attribute("cn;lang-de", {"a"});
    LDAPAttribute const binary = attribute("sn;binary", {"b"});
    LDAPAttributeContainer const container({text, binary});

    LDAPModAdapter const adapter(container, LDAP_MOD_ADD);

    EXPECT_EQ(adapter.mods[0]->mod_type, text.type().asString().c_str());
    EXPECT_EQ(adapter.mods[0]->mod_values[0], text.value().front().c_str());
    EXPECT_EQ(adapter.mods[1]->mod_type, binary.type().asString().c_str());
    EXPECT_EQ(static_cast<void const*>(adapter.mods[1]->mod_bvalues[0]->bv_val),
              binary.binaryValue().front().data());
}

TEST(Modifications, LeaveEveryAttributeAsItWas)
{
    LDAPAttributeContainer const container({attribute("cn;lang-de", {"a", "b"}),
                                            attribute("sn;binary", {"c\0d"s}), attribute("l", {})});

    {
        LDAPModAdapter const adapter(container, LDAP_MOD_ADD);
    }

    ASSERT_EQ(container.attributes().size(), 3U);
    auto each = container.attributes().begin();
    EXPECT_EQ(each->type().asString(), "cn;lang-de");
    EXPECT_THAT(each->value(), ElementsAre("a", "b"));
    ++each;
    EXPECT_EQ(each->type().asString(), "sn;binary");
    EXPECT_THAT(each->value(), ElementsAre("c\0d"s));
    ++each;
    EXPECT_EQ(each->type().asString(), "l");
    EXPECT_THAT(each->value(), ElementsAre());
}

TEST(Modifications, GiveBackTheirRecordsThenBinaryAndThenTextValues)
{
    LDAPAttributeContainer const container({attribute("cn", {"a"}), attribute("sn;binary", {"b"}),
                                            attribute("l", {}), attribute("o;binary", {})});
    auto adapter = std::make_unique<LDAPModAdapter>(container, LDAP_MOD_ADD);
    LDAPMod** const mods = adapter->mods;
    Releases::Named const named{{mods, "array"},
                                {mods[0], "cn"},
                                {mods[1], "sn"},
                                {mods[2], "l"},
                                {mods[3], "o"},
                                {mods[0]->mod_values, "array of cn"},
                                {mods[1]->mod_bvalues[0], "value of sn"},
                                {mods[1]->mod_bvalues, "array of sn"},
                                {mods[2]->mod_values, "array of l"},
                                {mods[3]->mod_bvalues, "array of o"}};
    Releases const releases;

    adapter.reset();

    EXPECT_THAT(releases.of(named),
                ElementsAre("cn", "sn", "l", "o", "array", "value of sn", "array of sn",
                            "array of o", "array of cn", "array of l"));
}

TEST(Modifications, OfAnEmptyContainerGiveBackTheirArray)
{
    LDAPAttributeContainer const container;
    auto adapter = std::make_unique<LDAPModAdapter>(container, LDAP_MOD_ADD);
    Releases::Named const named{{adapter->mods, "array"}};
    Releases const releases;

    adapter.reset();

    EXPECT_THAT(releases.of(named), ElementsAre("array"));
}

TEST(Modifications, CannotBeMadeOfANullAttribute)
{
    LDAPAttributeContainer const container({attribute("cn", {"a"}), LDAPAttribute()});

    EXPECT_THAT(thrownBy([&] {
                    leakingOnPurpose(
                        [&] { LDAPModAdapter const adapter(container, LDAP_MOD_ADD); });
                }),
                IsFault("Attribute.cpp", 247, 1, 0));
}

TEST(Modifications, CannotBeMadeOfAnAttributeWithANullType)
{
    LDAPAttributeContainer const container({LDAPAttribute(Solvane::LDAPAttributeType())});

    EXPECT_THAT(thrownBy([&] {
                    leakingOnPurpose(
                        [&] { LDAPModAdapter const adapter(container, LDAP_MOD_ADD); });
                }),
                IsFault("Attribute.cpp", 41, 1, 0));
}

// The add

using TheArgumentsOfAnAdd = ConnectedTest;

TEST_F(TheArgumentsOfAnAdd, LeadIntoTheRequest)
{
    std::string dn = "cn=a,dc=example";
    LDAPAddImpl request(dn);
    request.connection(connection);
    request.attributes({attribute("cn", {"a"}), attribute("sn;binary", {"b"})});

    LDAPAddAdapter const adapter(request);

    EXPECT_EQ(adapter.handle, connection.context());
    EXPECT_EQ(adapter.dn, request.name().c_str());
    EXPECT_EQ(adapter.modifications.count, 2U);
    EXPECT_EQ(adapter.modifications.mods[0]->mod_op, 0);
    EXPECT_EQ(adapter.modifications.mods[1]->mod_op, 0x80);
    EXPECT_THAT(openldap.calls(), testing::IsEmpty());
}

TEST_F(TheArgumentsOfAnAdd, CannotBeMadeWithoutAConnection)
{
    std::string dn = "cn=a";
    LDAPAddImpl request(dn);

    EXPECT_THAT(thrownBy([&] { LDAPAddAdapter const adapter(request); }),
                IsFault("Connection.cpp", 129, 1, 0));
}

} // namespace
} // namespace SolvaneTest
