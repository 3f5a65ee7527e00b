// What memory that runs out leaves of an entry, and of the texts that are made when they are asked for.
#include "Allocations.h"
#include "CallTest.h"

#include <new>

namespace SolvaneTest {
namespace {

using Solvane::LDAPAttribute;
using Solvane::LDAPAttributeType;
using Solvane::LDAPMessageBuffer;
using Solvane::LDAPResultImpl;
using testing::ElementsAre;

/// Does the work again and again, another allocation failing each time, until none does any more.
/// The number of failures.
template <typename Work, typename Check>
unsigned int failuresOf(Work const& work, Check const& afterFailure)
{
    for (unsigned int failures = 0;; ++failures) {
        try {
            FailingAllocation const failing(failures);
            work();
            return failures;
        } catch (std::bad_alloc const&) {
            afterFailure();
        }
    }
}

class TheMemoryOfAnEntry : public CallTest {};

TEST_F(TheMemoryOfAnEntry, RunsOutWithoutLeavingAHalfOfIt)
{
    LDAPMessageBuffer chain;
    *chain.address() =
        messages.entry("cn=an entry with a long name", {{"cn", {"a", "b"}}, {"sn", {"c"}}});
    RealCalls const unseen; // their records allocate
    LDAPResultImpl result(messages.session());

    unsigned int const failures =
        failuresOf([&] { result.parseListResultEntry(chain); },
                   [&] { EXPECT_TRUE(result.searchResultEntries().empty()); });

    EXPECT_GT(failures, 10U);
    ASSERT_EQ(result.searchResultEntries().size(), 1U);
    EXPECT_EQ(result.searchResultEntries().front().attributes().attributes().size(), 2U);
}

/// Memory of a dropped entry that the library kept for the next one would hide a use of what was freed
/// from valgrind and from AddressSanitizer.
TEST_F(TheMemoryOfAnEntry, IsAllocatedAnewForEachEntry)
{
    LDAPMessageBuffer chain;
    *chain.address() = messages.entry("cn=a", {{"cn", {"a", "b"}}, {"sn", {"c"}}});
    RealCalls const unseen;
    auto const readAndDrop = [&] {
        LDAPResultImpl result(messages.session());
        result.parseListResultEntry(chain);
    };

    readAndDrop();

    constexpr unsigned int bodies = 6; // the entry, its container, two attributes, two types
    constexpr unsigned int values = 3;
    EXPECT_GE(allocationsOf(readAndDrop), bodies + values);
}

TEST(TheMemoryOfTexts, RunsOutWithoutLeavingSomeOfTheValues)
{
    LDAPAttribute attribute(LDAPAttributeType("cn"));
    attribute.value("a");
    attribute.value("b");
    LDAPAttribute const& reader = attribute;

    unsigned int const failures = failuresOf([&] { reader.value(); }, [] {});

    EXPECT_EQ(failures, 2U);
    EXPECT_THAT(reader.value(), ElementsAre("a", "b"));
}

TEST(TheMemoryOfTexts, RunsOutWithoutLeavingABeginningOfADescription)
{
    LDAPAttributeType const type("aTypeWithALongName;binary;lang-en");

    unsigned int const failures = failuresOf([&] { type.asString(); }, [] {});

    EXPECT_GT(failures, 0U);
    EXPECT_EQ(type.asString(), "aTypeWithALongName;binary;lang-en");
}

TEST(TheMemoryOfTexts, IsNotNeededForTheSecondReading)
{
    LDAPAttribute attribute(LDAPAttributeType("aTypeWithALongName;lang-en"));
    attribute.value("a value that no string keeps in itself");
    LDAPAttribute const& reader = attribute;
    reader.value();
    reader.type().asString();

    EXPECT_EQ(allocationsOf([&] {
                  reader.value();
                  reader.type().asString();
              }),
              0U);
}

} // namespace
} // namespace SolvaneTest
