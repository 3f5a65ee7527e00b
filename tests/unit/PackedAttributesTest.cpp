// Entries behind the first of an answer: their attributes wait, packed, until somebody asks for them.
#include "Allocations.h"
#include "CallTest.h"
#include "NoSpareMemory.h"

#include <algorithm>

namespace SolvaneTest {
namespace {

using Solvane::LDAPAttribute;
using Solvane::LDAPAttributeContainer;
using Solvane::LDAPAttributeType;
using Solvane::LDAPMessageBuffer;
using Solvane::LDAPResultImpl;
using Solvane::LDAPSearchResultEntry;
using testing::ElementsAre;
using testing::IsEmpty;

class ALaterEntry : public CallTest {
protected:
    ALaterEntry() : result(messages.session()) { parse(messages.entry("cn=first")); }

    LDAPSearchResultEntry parse(LDAPMessage* message)
    {
        LDAPMessageBuffer chain;
        *chain.address() = message;
        result.parseListResultEntry(chain);
        return result.searchResultEntries().back();
    }
    LDAPSearchResultEntry parsed(std::vector<Attribute> const& attributes)
    {
        return parse(messages.entry("cn=later", attributes));
    }

    LDAPResultImpl result;
};

using APackedAttribute = ALaterEntry;

/// What an entry holds, in the form in which the tests send it.
std::vector<Attribute> contentOf(LDAPAttributeContainer const& container)
{
    std::vector<Attribute> content;
    for (LDAPAttribute const& attribute : container.attributes()) {
        content.push_back({attribute.type().asString(), {}});
        for (Solvane::Buffer const& value : attribute.binaryValue()) {
            content.back().second.emplace_back(reinterpret_cast<char const*>(value.data()),
                                               value.length());
        }
    }
    return content;
}

TEST_F(ALaterEntry, HoldsWhatTheServerSentInItsOrder)
{
    std::vector<Attribute> const sent = {{"cn", {"a", "b"}},
                                         {"userCertificate;binary", {std::string("\0\1", 2), ""}},
                                         {"description", {}},
                                         {"sn", {"c"}}};

    EXPECT_EQ(contentOf(parsed(sent).attributes()), sent);
}

TEST_F(ALaterEntry, KeepsItsDn) { EXPECT_EQ(parsed({{"cn", {"a"}}}).entryName(), "cn=later"); }

TEST_F(ALaterEntry, WithAttributesIsNotEmptyBeforeTheyAreAskedFor)
{
    EXPECT_FALSE(parsed({{"cn", {"a"}}}).attributes().empty());
}

TEST_F(ALaterEntry, WithoutAttributesIsEmpty)
{
    LDAPSearchResultEntry const entry = parsed({});

    EXPECT_TRUE(entry.attributes().empty());
    EXPECT_THAT(entry.attributes().attributes(), IsEmpty());
}

TEST_F(ALaterEntry, KeepsAnAttributeWhoseValuesOpenLDAPDoesNotGive)
{
    openldap.ldap_get_values_len = [](auto...) { return nullptr; };

    std::vector<Attribute> const kept = {{"cn", {}}};
    EXPECT_EQ(contentOf(parsed({{"cn", {"a"}}}).attributes()), kept);
}

TEST_F(ALaterEntry, KeepsAnAttributeWithoutADescription)
{
    std::vector<Attribute> const sent = {{"", {"a"}}, {"cn", {"b"}}};

    EXPECT_EQ(contentOf(parsed(sent).attributes()), sent);
}

TEST_F(ALaterEntry, SharesItsAttributesWithCopiesMadeBeforeTheyWereAskedFor)
{
    LDAPSearchResultEntry const entry = parsed({{"cn", {"a"}}});
    LDAPSearchResultEntry const copy = entry;

    LDAPAttribute attribute = entry.attributes().attributes().front();
    attribute.value("b");

    std::vector<Attribute> const both = {{"cn", {"a", "b"}}};
    EXPECT_EQ(contentOf(copy.attributes()), both);
    EXPECT_EQ(&entry.attributes().attributes(), &copy.attributes().attributes());
}

TEST_F(ALaterEntry, TakesAnotherAttributeBehindThoseOfTheServer)
{
    LDAPSearchResultEntry entry = parsed({{"cn", {"a"}}});

    entry.appendAttribute(LDAPAttribute(LDAPAttributeType("mail")));

    std::vector<Attribute> const all = {{"cn", {"a"}}, {"mail", {}}};
    EXPECT_EQ(contentOf(entry.attributes()), all);
}

TEST_F(ALaterEntry, TakesAListBehindThoseOfTheServer)
{
    LDAPAttributeContainer container = parsed({{"cn", {"a"}}}).attributes();

    container.add({LDAPAttribute(LDAPAttributeType("mail")), LDAPAttribute()});

    ASSERT_EQ(container.attributes().size(), 3U);
    EXPECT_EQ(container.attributes().front().type().asString(), "cn");
    EXPECT_TRUE(container.attributes().back().isNull());
}

TEST_F(ALaterEntry, FindsItsFirstAttributeBeforeTheyWereAskedFor)
{
    EXPECT_EQ(parsed({{"cn", {"a"}}}).attributes().find(LDAPAttributeType("CN")).asString(','),
              "a");
}

TEST_F(ALaterEntry, MakesItsAttributesWhenTheyAreFirstAskedFor)
{
    std::vector<Attribute> const sent(20, {"description", {"more than fits a short string"}});
    LDAPAttributeContainer const container = parsed(sent).attributes();

    unsigned int const first = allocationsOf([&] { container.attributes(); });
    unsigned int const second = allocationsOf([&] { container.attributes(); });

    EXPECT_GE(first, 20U);
    EXPECT_EQ(second, 0U);
}

class AValueOfEachSize : public ALaterEntry, public testing::WithParamInterface<std::size_t> {};

TEST_P(AValueOfEachSize, IsKeptBetweenItsNeighbours)
{
    std::vector<Attribute> const sent = {
        {"cn", {"a"}}, {"jpegPhoto", {"b", std::string(GetParam(), 'x'), "c"}}, {"mail", {"d"}}};

    EXPECT_EQ(contentOf(parsed(sent).attributes()), sent);
}

INSTANTIATE_TEST_SUITE_P(Bytes, AValueOfEachSize,
                         testing::Values(0U, 1U, 1024U, 4095U, 4096U, 4097U, 100000U));

TEST_F(APackedAttribute, MayHaveThousandsOfValues)
{
    std::vector<Attribute> sent = {{"member", {}}};
    for (int i = 0; i < 3000; ++i) {
        sent[0].second.push_back("uid=user" + std::to_string(i) + ",ou=people,dc=corp,dc=test");
    }

    EXPECT_EQ(contentOf(parsed(sent).attributes()), sent);
}

TEST_F(APackedAttribute, IsThereAtTheNextAttemptWhereMemoryEndedWhileItWasUnpacked)
{
    std::vector<Attribute> const sent = {{"cn", {"a", "a value that is longer than others"}},
                                         {"mail", {"b"}}};
    LDAPAttributeContainer const container = parsed(sent).attributes();
    unsigned int failures = 0;

    for (bool isWhole = false; !isWhole;) {
        NoSpareMemory const nothingKept;
        FailingAllocation const failing(failures);
        try {
            static_cast<void>(container.attributes());
            isWhole = true;
        } catch (std::bad_alloc const&) {
            ++failures;
        }
    }

    EXPECT_GT(failures, 4U);
    EXPECT_EQ(contentOf(container), sent);
}

TEST_F(APackedAttribute, IsNotThereWhereMemoryEndedWhileItWasPacked)
{
    LDAPMessage* const message = messages.entry("cn=later", {{"cn", {"a"}}});
    LDAPMessageBuffer chain;
    *chain.address() = message;
    RealCalls const unseen; // their records allocate
    unsigned int failures = 0;

    for (bool isWhole = false; !isWhole;) {
        NoSpareMemory const nothingKept;
        FailingAllocation const failing(failures);
        try {
            result.parseListResultEntry(chain);
            isWhole = true;
        } catch (std::bad_alloc const&) {
            ++failures;
            ASSERT_EQ(result.searchResultEntries().size(), 1U);
        }
    }

    EXPECT_GT(failures, 2U);
    EXPECT_EQ(result.searchResultEntries().size(), 2U);
}

} // namespace
} // namespace SolvaneTest
