// Entries and their attribute containers as values: order, sharing, and the narrow lookup.
#include <solvane/ldap/LDAPAttribute.h>
#include <solvane/ldap/LDAPResult.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <vector>

#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Solvane;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

LDAPAttribute attribute(std::string const& type) { return LDAPAttribute(LDAPAttributeType(type)); }

std::vector<std::string> typesOf(LDAPAttributeContainer const& container)
{
    std::vector<std::string> types;
    for (LDAPAttribute const& each : container.attributes()) {
        types.push_back(each.type().asString());
    }
    return types;
}

/// Raises SIGVTALRM once, after this process has computed for a fifth of a second.
void armTimer()
{
    itimerval const once{{0, 0}, {0, 200000}};
    ::setitimer(ITIMER_VIRTUAL, &once, nullptr);
}

/// How a child process ends that runs `work` and then exits with 0. It counts its own computing
/// time, so a busy machine makes no difference; one that only waits is ended after a minute.
template <typename Work> int statusOfChild(Work const& work)
{
    pid_t const child = ::fork();
    if (child == 0) {
        ::alarm(60);
        work();
        ::_exit(0);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return status;
}

LDAPAttributeType* g_soughtByChild = nullptr;

std::vector<std::string> typesOf(LDAPSearchResultEntry const& entry)
{
    return typesOf(entry.attributes());
}

} // namespace

TEST(AContainer, StartsEmpty)
{
    LDAPAttributeContainer const container;

    EXPECT_FALSE(container.isNull());
    EXPECT_TRUE(container.empty());
    EXPECT_THAT(container.attributes(), IsEmpty());
}

TEST(AContainer, KeepsTwoAttributesOfOneType)
{
    LDAPAttributeContainer container;
    LDAPAttribute first = attribute("mail");
    LDAPAttribute second = attribute("mail");
    first.value("a");
    second.value("b");

    container.add(first);
    container.add(second);

    ASSERT_EQ(container.attributes().size(), 2U);
    EXPECT_THAT(container.attributes().front().value(), ElementsAre("a"));
    EXPECT_THAT(container.attributes().back().value(), ElementsAre("b"));
    EXPECT_FALSE(container.empty());
}

TEST(AContainer, TakesANullAttribute)
{
    LDAPAttributeContainer container;

    container.add(LDAPAttribute());

    ASSERT_EQ(container.attributes().size(), 1U);
    EXPECT_TRUE(container.attributes().front().isNull());
}

TEST(AContainer, SharesTheBodyOfAnAddedAttribute)
{
    LDAPAttributeContainer container;
    LDAPAttribute mail = attribute("mail");
    container.add(mail);

    mail.value("a");

    EXPECT_THAT(container.attributes().front().value(), ElementsAre("a"));
}

TEST(AContainer, TakesOverAnAttributeThatIsMovedIn)
{
    LDAPAttributeContainer container;
    LDAPAttribute mail = attribute("mail");
    std::list<Buffer> const* const values = &mail.binaryValue();

    container.add(std::move(mail));

    EXPECT_TRUE(mail.isNull());
    EXPECT_THAT(typesOf(container), ElementsAre("mail"));
    EXPECT_EQ(&container.attributes().front().binaryValue(), values);
}

TEST(AContainer, HoldsAListInItsOrder)
{
    std::list<LDAPAttribute> const list{attribute("c"), attribute("a"), attribute("b")};

    LDAPAttributeContainer const container(list);

    EXPECT_THAT(typesOf(container), ElementsAre("c", "a", "b"));
}

TEST(AContainer, AppendsAListBehindWhatItHolds)
{
    LDAPAttributeContainer container;
    container.add(attribute("z"));

    container.add(std::list<LDAPAttribute>{attribute("b"), attribute("a")});
    container.add(std::list<LDAPAttribute>());

    EXPECT_THAT(typesOf(container), ElementsAre("z", "b", "a"));
}

TEST(AContainer, DoublesWhenItsOwnListIsAdded)
{
    LDAPAttributeContainer container;
    container.add(attribute("a"));
    container.add(attribute("b"));

    container.add(container.attributes());

    EXPECT_THAT(typesOf(container), ElementsAre("a", "b", "a", "b"));
}

TEST(AContainer, SharesItsAttributesWithItsCopies)
{
    LDAPAttributeContainer first;
    LDAPAttributeContainer second(first);
    LDAPAttributeContainer third;
    third = first;

    second.add(attribute("a"));
    third.add(attribute("b"));

    EXPECT_THAT(typesOf(first), ElementsAre("a", "b"));
    EXPECT_EQ(&first.attributes(), &second.attributes());
    EXPECT_EQ(&first.attributes(), &third.attributes());
}

TEST(AContainer, SurvivesTheHandleItWasCopiedFrom)
{
    LDAPAttributeContainer copy;

    {
        LDAPAttributeContainer original;
        original.add(attribute("a"));
        copy = original;
    }

    EXPECT_THAT(typesOf(copy), ElementsAre("a"));
}

TEST(FindingAnAttribute, GivesANullHandleFromAnEmptyContainer)
{
    LDAPAttributeContainer const container;

    EXPECT_TRUE(container.find(LDAPAttributeType("cn")).isNull());
}

TEST(FindingAnAttribute, GivesTheFirstOneWhereItMatches)
{
    LDAPAttributeContainer container;
    container.add(attribute("cn;lang-en"));
    container.add(attribute("sn"));

    LDAPAttribute found = container.find(LDAPAttributeType("CN;LANG-EN"));
    found.value("a");

    EXPECT_EQ(found.type().asString(), "cn;lang-en");
    EXPECT_THAT(container.attributes().front().value(), ElementsAre("a"));
}

TEST(FindingAnAttribute, DoesNotReturnWhereTheFirstOneDiffers)
{
    LDAPAttributeContainer container;
    container.add(attribute("cn"));
    container.add(attribute("sn"));
    LDAPAttributeType const sought("sn");

    int const status = statusOfChild([&] {
        armTimer();
        container.find(sought);
    });

    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGVTALRM);
}

TEST(FindingAnAttribute, ReturnsWhenTheFirstOneMatchesMeanwhile)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer delays signals until a call that it knows";
#endif
    LDAPAttributeContainer container;
    container.add(attribute("cn;binary"));
    LDAPAttributeType sought("cn");

    int const status = statusOfChild([&] {
        g_soughtByChild = &sought;
        // The interrupted loop only compares: it is inside no call that the handler makes, too.
        std::signal(SIGVTALRM, [](int) { g_soughtByChild->add("binary"); });
        armTimer();
        LDAPAttribute const found = container.find(sought);
        ::_exit(found.type().asString() == "cn;binary" ? 0 : 1);
    });

    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

// Entries as values.

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
