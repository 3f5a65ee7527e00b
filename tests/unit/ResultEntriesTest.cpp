// Entries of a result: how messages become entries and continuation references, call by call, also
// when memory runs out, and reading them by several threads at once.
#include "Allocations.h"
#include "CallTest.h"
#include "Process.h"

#include <atomic>
#include <functional>
#include <future>
#include <list>
#include <new>
#include <thread>

namespace SolvaneTest {
namespace {

using Solvane::LDAPAttribute;
using Solvane::LDAPAttributeContainer;
using Solvane::LDAPAttributeImpl;
using Solvane::LDAPAttributeType;
using Solvane::LDAPConnection;
using Solvane::LDAPMessageBuffer;
using Solvane::LDAPResult;
using Solvane::LDAPResultImpl;
using Solvane::LDAPSearchResultEntry;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

class Parsing : public CallTest {
protected:
    Parsing() : result(messages.session()) { openldap.name(messages.session(), "session"); }

    LDAPMessage* take(LDAPMessage* message)
    {
        openldap.name(message, "message");
        chain.free();
        *chain.address() = message;
        openldap.forgetCalls();
        return message;
    }
    void parse(LDAPMessage* message)
    {
        take(message);
        result.parseListResultEntry(chain);
    }

    LDAPSearchResultEntry const& firstEntry() const { return result.searchResultEntries().front(); }
    LDAPAttribute const& firstAttribute() const
    {
        return firstEntry().attributes().attributes().front();
    }
    std::vector<std::string> entryNames() const
    {
        std::vector<std::string> names;
        for (LDAPSearchResultEntry const& entry : result.searchResultEntries()) {
            names.push_back(entry.entryName());
        }
        return names;
    }

    LDAPResultImpl result;
    LDAPMessageBuffer chain;
};

using AnEntry = Parsing;
using AChain = Parsing;
using AContinuationReference = Parsing;
using AnEntryThatFails = Parsing;

TEST_F(AnEntry, IsReadWithTheseCallsInThisOrder)
{
    parse(messages.entry("cn=a", {{"cn", {"a", "b"}}, {"mail", {"a@b"}}}));

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_count_messages session message",
                            "ldap_first_message session message", "ldap_msgtype message",
                            "ldap_get_dn session message", "ldap_first_attribute session message",
                            "ldap_get_values_len session message 'cn'", "ldap_memfree 'cn'",
                            "ldap_next_attribute session message position",
                            "ldap_value_free_len ['a' 'b']",
                            "ldap_get_values_len session message 'mail'", "ldap_memfree 'mail'",
                            "ldap_next_attribute session message position",
                            "ldap_value_free_len ['a@b']", "ldap_next_message session message",
                            "ber_free position 0", "ldap_memfree 'cn=a'"));
}

TEST_F(AnEntry, GivesEachObjectBackOnce)
{
    parse(messages.entry("cn=a", {{"cn", {"a"}}}));

    EXPECT_THAT(openldap.calls(), Contains("ldap_memfree 'cn=a'").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_memfree 'cn'").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_value_free_len ['a']").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ber_free position 0").Times(1));
    EXPECT_THAT(openldap.calls(), Contains(testing::StartsWith("ldap_msgfree")).Times(0));
}

TEST_F(AnEntry, KeepsDnAndAttributesInTheServersOrder)
{
    parse(messages.entry("cn=a", {{"sn", {"s"}}, {"cn", {"a", "b"}}, {"mail", {"m"}}}));

    EXPECT_EQ(firstEntry().entryName(), "cn=a");
    std::vector<std::string> types;
    for (LDAPAttribute const& attribute : firstEntry().attributes().attributes()) {
        types.push_back(attribute.type().asString());
    }
    EXPECT_THAT(types, ElementsAre("sn", "cn", "mail"));
}

TEST_F(AnEntry, WithoutAttributesHasAnEmptyContainer)
{
    parse(messages.entry("cn=a"));

    ASSERT_EQ(result.searchResultEntries().size(), 1U);
    EXPECT_TRUE(firstEntry().attributes().empty());
}

TEST_F(AnEntry, WithABinaryAttributeKeepsTheOptionAndTheBytes)
{
    parse(messages.entry("cn=a", {{"userCertificate;binary", {std::string("\0\1", 2), "b"}}}));

    EXPECT_TRUE(firstAttribute().type().isBinary());
    EXPECT_EQ(firstAttribute().type().type(), "userCertificate");
    ASSERT_EQ(firstAttribute().binaryValue().size(), 2U);
    Solvane::Buffer const& value = firstAttribute().binaryValue().front();
    ASSERT_EQ(value.length(), 2U);
    EXPECT_EQ(value.data()[0], 0);
    EXPECT_EQ(value.data()[1], 1);
}

TEST_F(AnEntry, WithATextAttributeGivesItsValuesAsStrings)
{
    parse(messages.entry("cn=a", {{"cn", {"a", "b"}}}));

    EXPECT_FALSE(firstAttribute().type().isBinary());
    EXPECT_THAT(firstAttribute().value(), ElementsAre("a", "b"));
}

TEST_F(AnEntry, WithAnAttributeWithoutValuesKeepsTheAttribute)
{
    parse(messages.entry("cn=a", {{"cn", {}}}));

    ASSERT_FALSE(firstEntry().attributes().empty());
    EXPECT_THAT(firstAttribute().value(), IsEmpty());
}

TEST_F(AnEntry, KeepsAnAttributeWhoseValuesOpenLDAPDoesNotGive)
{
    openldap.ldap_get_values_len = [](auto...) { return nullptr; };

    parse(messages.entry("cn=a", {{"cn", {"a"}}}));

    EXPECT_THAT(firstAttribute().value(), IsEmpty());
    EXPECT_THAT(openldap.calls(), Contains(testing::StartsWith("ldap_value_free")).Times(0));
}

TEST_F(AnEntry, WithoutADnHasAnEmptyOne)
{
    openldap.ldap_get_dn = [](auto...) { return nullptr; };

    parse(messages.entry("cn=a", {{"cn", {"a"}}}));

    EXPECT_EQ(firstEntry().entryName(), "");
    EXPECT_THAT(firstAttribute().value(), ElementsAre("a"));
}

TEST_F(AnEntry, JoinsThoseThatArrivedBefore)
{
    parse(messages.entry("cn=a"));

    parse(messages.entry("cn=b"));

    EXPECT_THAT(entryNames(), ElementsAre("cn=a", "cn=b"));
}

TEST_F(AChain, OfEntriesIsReadWhole)
{
    parse(messages.entries({"cn=a", "cn=b", "cn=c"}));

    EXPECT_THAT(entryNames(), ElementsAre("cn=a", "cn=b", "cn=c"));
}

TEST_F(AChain, IsJudgedByItsFirstMessageAndStepsFromEachEntryToTheNext)
{
    LDAPMessage* const first = take(messages.entries({"cn=a", "cn=b"}));
    openldap.name(first, "first");
    openldap.name(ldap_next_message(messages.session(), first), "second");
    openldap.forgetCalls();

    result.parseListResultEntry(chain);

    EXPECT_THAT(openldap.calls(), Contains("ldap_msgtype first").Times(2));
    EXPECT_THAT(openldap.calls(), Contains("ldap_get_dn session first").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_get_dn session second").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_next_message session first").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_next_message session second").Times(1));
}

TEST_F(AChain, ThatIsEmptyIsLeftAloneWithoutACall)
{
    result.parseListResultEntry(chain);

    EXPECT_THAT(openldap.calls(), IsEmpty());
    EXPECT_THAT(entryNames(), IsEmpty());
}

TEST_F(AChain, ThatHasNoMessagesIsLeftAlone)
{
    openldap.ldap_first_message = [](auto...) { return nullptr; };
    parse(messages.entry("cn=a"));
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_count_messages session message",
                                              "ldap_first_message session message"));

    openldap.ldap_count_messages = [](auto...) { return 0; };
    parse(messages.entry("cn=a"));
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_count_messages session message"));
    EXPECT_THAT(entryNames(), IsEmpty());
}

TEST_F(AChain, ThatBeginsWithAnotherKindOfMessageIsRefused)
{
    auto const thrown =
        thrownBy([&] { parse(messages.response(LDAP_RES_SEARCH_RESULT, LDAP_SUCCESS)); });

    EXPECT_THAT(thrown, IsFault("Result.cpp", 420, 4, 6, ""));
    EXPECT_FALSE(thrown.hasCause());
}

TEST_F(AContinuationReference, IsCheckedWithTheseCallsAndFreed)
{
    parse(messages.reference({"ldap://a/", "ldap://b/"}));

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_count_messages session message",
                            "ldap_first_message session message", "ldap_msgtype message",
                            "ldap_first_message session message",
                            "ldap_parse_reference session message null 0",
                            "ldap_value_free ['ldap://a/' 'ldap://b/']",
                            "ldap_next_message session message"));
}

TEST_F(AContinuationReference, LeavesEntriesAndReferencesUnchanged)
{
    parse(messages.entry("cn=a"));

    parse(messages.reference({"ldap://a/"}));

    EXPECT_THAT(entryNames(), ElementsAre("cn=a"));
    EXPECT_THAT(result.searchReferrals(), IsEmpty());
    EXPECT_THAT(result.referrals(), IsEmpty());
}

TEST_F(AContinuationReference, ThatIsDamagedIsReported)
{
    EXPECT_THAT(thrownBy([&] { parse(messages.damagedReference()); }),
                IsFault("Result.cpp", 646, 4, 5, "Decoding error"));
}

TEST_F(AContinuationReference, ThatIsMalformedFreesWhatOpenLDAPReturned)
{
    openldap.ldap_parse_reference = [](LDAP*, LDAPMessage*, char*** references, LDAPControl***,
                                       int) {
        *references = newTexts({"ldap://a/"});
        return LDAP_DECODING_ERROR;
    };

    thrownBy([&] { parse(messages.reference({"ldap://a/"})); });

    EXPECT_THAT(openldap.calls(), Contains("ldap_value_free ['ldap://a/']").Times(1));
}

// OpenLDAP would end the process.
TEST_F(AContinuationReference, ThatIsNotThereIsLeftAloneWithoutACall)
{
    result.parseSearchReference(chain);

    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AContinuationReference, CanBeCheckedByItself)
{
    take(messages.reference({"ldap://a/"}));

    result.parseSearchReference(chain);

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_first_message session message",
                                              "ldap_parse_reference session message null 0",
                                              "ldap_value_free ['ldap://a/']"));
}

TEST_F(AnEntryThatFails, WithAForeignExceptionHasItAsTheCauseOnceAlsoThroughTheWholeParser)
{
    openldap.ldap_get_dn = throwForeign<char*>;
    take(messages.entry("cn=a"));

    for (auto const parser :
         {&LDAPResultImpl::parseListResultEntry, &LDAPResultImpl::parseMessage}) {
        auto const thrown = thrownBy([&] { (result.*parser)(chain); });

        EXPECT_THAT(thrown, IsFault("Result.cpp", 479, 4, 6, ""));
        ASSERT_TRUE(thrown.hasCause());
        EXPECT_EQ(thrown.cause().name(), "foreign");
        EXPECT_FALSE(thrown.cause().hasCause());
    }
}

TEST_F(AnEntryThatFails, LetsAnLDAPExceptionPassUnchanged)
{
    openldap.ldap_get_dn = [](auto...) -> char* {
        throw Solvane::LDAPException("LDAPException", 4, "Elsewhere.cpp", 5, 3);
    };

    auto const thrown = thrownBy([&] { parse(messages.entry("cn=a")); });

    EXPECT_THAT(thrown, IsFault("Elsewhere.cpp", 5, 4, 3));
    EXPECT_FALSE(thrown.hasCause());
}

TEST_F(AnEntryThatFails, IsNotAppendedAndLeavesThoseBeforeIt)
{
    parse(messages.entry("cn=before"));
    openldap.ldap_next_attribute = throwForeign<char*>;

    thrownBy([&] { parse(messages.entry("cn=a", {{"cn", {"a"}}, {"mail", {"m"}}})); });

    EXPECT_THAT(entryNames(), ElementsAre("cn=before"));
}

TEST_F(AnEntryThatFails, WhileItsValuesAreReadGivesNamePositionAndDnBackOnce)
{
    openldap.ldap_get_values_len = throwForeign<berval**>;

    thrownBy([&] { parse(messages.entry("cn=a", {{"cn", {"a"}}})); });

    EXPECT_THAT(openldap.calls(), Contains("ldap_memfree 'cn'").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ber_free position 0").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_memfree 'cn=a'").Times(1));
}

TEST_F(AnEntryThatFails, AtTheNextAttributeGivesValuesNamePositionAndDnBackOnce)
{
    openldap.ldap_next_attribute = throwForeign<char*>;

    thrownBy([&] { parse(messages.entry("cn=a", {{"cn", {"a"}}})); });

    EXPECT_THAT(openldap.calls(), Contains("ldap_value_free_len ['a']").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_memfree 'cn'").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ber_free position 0").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_memfree 'cn=a'").Times(1));
}

TEST_F(AnEntryThatFails, AtItsFirstAttributeGivesPositionAndDnBackOnce)
{
    openldap.ldap_first_attribute = [&](LDAP* session, LDAPMessage* entry,
                                        BerElement** position) -> char* {
        ldap_memfree(ldap_first_attribute(session, entry, position));
        openldap.name(*position, "position");
        return throwForeign<char*>();
    };

    thrownBy([&] { parse(messages.entry("cn=a", {{"cn", {"a"}}})); });

    EXPECT_THAT(openldap.calls(), Contains("ber_free position 0").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_memfree 'cn=a'").Times(1));
}

// What memory that runs out leaves of an entry, and of the texts that are made when they are asked for.

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

// One answer, read by several threads at once. What these tests are for, ThreadSanitizer sees.

constexpr unsigned int threads = 8;
constexpr unsigned int rounds = 40;

/// What each thread makes of the work; they begin together.
std::vector<std::string> inAllThreads(std::function<std::string()> const& work)
{
    std::atomic<unsigned int> arrived{0};
    std::list<std::future<std::string>> running;
    for (unsigned int i = 0; i != threads; ++i) {
        running.push_back(std::async(std::launch::async, [&] {
            ++arrived;
            while (arrived < threads) {
                std::this_thread::yield();
            }
            return work();
        }));
    }
    std::vector<std::string> results;
    for (std::future<std::string>& each : running) {
        results.push_back(each.get());
    }
    return results;
}

std::string textOf(LDAPAttributeType const& type)
{
    std::string text = type.isBinary() ? "binary " : "text ";
    text += type.asString() + " (" + type.type();
    for (std::string const& option : type.options()) {
        text += ", " + option;
    }
    return text + ")";
}

std::string textOf(LDAPAttribute const& attribute)
{
    std::string text = textOf(attribute.type()) + " =";
    for (std::string const& value : attribute.value()) {
        text += " " + value;
    }
    text += " [" + attribute.asString(',') + "]";
    for (Solvane::Buffer const& bytes : attribute.binaryValue()) {
        text += " " + std::to_string(bytes.length());
    }
    return text;
}

std::string textOf(LDAPAttributeContainer const& container)
{
    std::string text = container.empty() ? "empty" : "";
    for (LDAPAttribute const& attribute : container.attributes()) {
        LDAPAttribute const copy(attribute);
        LDAPAttributeType const type(copy.type());
        text += textOf(copy) + (type == attribute.type() ? "\n" : "differs from itself\n");
    }
    return text;
}

std::string textOf(LDAPSearchResultEntry const& entry)
{
    return entry.entryName() + "\n" + textOf(LDAPAttributeContainer(entry.attributes()));
}

std::string textOf(LDAPResult const& result)
{
    std::string text = std::to_string(result.resultType()) + " " +
                       std::to_string(result.resultCode()) + result.errorMessage() +
                       result.matchedDN() + std::to_string(result.referrals().size()) +
                       std::to_string(result.searchReferrals().size()) + "\n";
    for (LDAPSearchResultEntry const& entry : result.searchResultEntries()) {
        text += textOf(LDAPSearchResultEntry(entry));
    }
    return text;
}

class SeveralThreads : public CallTest {
protected:
    /// An answer of which nothing has been read yet.
    LDAPResult answer()
    {
        LDAPResult result(static_cast<void*>(messages.session()));
        take(result, messages.entry("cn=a", {{"cn", {"a", "b"}},
                                             {"userCertificate;binary;lang-en", {"c"}},
                                             {"description", {}}}));
        take(result, messages.entry("cn=b", {{"mail", {"a value of more than sixteen bytes"}}}));
        take(result, messages.entry("cn=c"));
        take(result, messages.response(LDAP_RES_SEARCH_RESULT, LDAP_SUCCESS));
        return result;
    }

private:
    static void take(LDAPResult& result, LDAPMessage* message)
    {
        LDAPMessageBuffer chain;
        *chain.address() = message;
        result.impl()->parseMessage(chain);
    }
};

TEST_F(SeveralThreads, ReadOneResult)
{
    std::string const expected = textOf(answer());

    for (unsigned int i = 0; i != rounds; ++i) {
        LDAPResult const result = answer();

        EXPECT_THAT(inAllThreads([&] { return textOf(result); }), Each(expected));
    }
}

TEST_F(SeveralThreads, ReadCopiesOfOneResult)
{
    std::string const expected = textOf(answer());

    for (unsigned int i = 0; i != rounds; ++i) {
        LDAPResult const result = answer();

        EXPECT_THAT(inAllThreads([&] { return textOf(LDAPResult(result)); }), Each(expected));
    }
}

TEST_F(SeveralThreads, ReadTheTextsOfOneDescription)
{
    for (unsigned int i = 0; i != rounds; ++i) {
        LDAPAttributeType const type("userCertificate;binary;x-a-rather-long-option");
        LDAPAttributeType const same("USERCERTIFICATE;BINARY;X-A-RATHER-LONG-OPTION");

        EXPECT_THAT(inAllThreads([&] {
                        return textOf(LDAPAttributeType(type)) + (type == same ? "" : " differs");
                    }),
                    Each("binary userCertificate;binary;x-a-rather-long-option "
                         "(userCertificate, binary, x-a-rather-long-option)"));
    }
}

TEST_F(SeveralThreads, FindTheFirstAttributeOfOneContainer)
{
    for (unsigned int i = 0; i != rounds; ++i) {
        LDAPAttributeContainer container;
        container.add(LDAPAttribute(LDAPAttributeType("cn;lang-en")));

        EXPECT_THAT(inAllThreads([&] {
                        LDAPAttributeType const wanted("CN;LANG-EN");
                        return container.find(wanted).type().asString();
                    }),
                    Each("cn;lang-en"));
    }
}

TEST_F(SeveralThreads, CopyABodyThatOthersRead)
{
    for (unsigned int i = 0; i != rounds; ++i) {
        LDAPAttributeImpl body;
        body.type(LDAPAttributeType("cn"));
        body.value(std::string("a value of more than sixteen bytes"));
        LDAPAttributeImpl const& reader = body;

        EXPECT_THAT(inAllThreads([&] {
                        std::string const text = reader.asString(',');
                        LDAPAttributeImpl const copy(reader);
                        return text + copy.value().front();
                    }),
                    Each("a value of more than sixteen bytesa value of more than sixteen bytes"));
    }
}

// A child does not have the thread that would unlock what was locked at the time of the fork.
TEST_F(SeveralThreads, LeaveAForkedChildAbleToReadWhatTheyRead)
{
    if (!allocatorForks) {
        GTEST_SKIP() << "the allocator does not support forks of processes with several threads";
    }
    constexpr std::size_t values = 2000; // so many that the lock is held most of the time
    LDAPAttributeImpl body;
    for (std::size_t i = 0; i != values; ++i) {
        body.value(std::string("a value of more than sixteen bytes"));
    }
    LDAPAttributeImpl const& reader = body;
    reader.value();
    std::atomic<bool> isOver{false};
    std::atomic<int> copies{0};
    std::list<std::thread> copying;
    for (int i = 0; i != 3; ++i) {
        copying.emplace_back([&] {
            for (; !isOver; ++copies) {
                LDAPAttributeImpl const copy(reader);
            }
        });
    }

    std::string wrong;
    for (unsigned int i = 0; i != rounds && wrong.empty(); ++i) {
        for (int const before = copies; copies == before; std::this_thread::yield()) {
        }
        wrong = ForkedProcess([&]() -> std::string {
                    return reader.value().size() == values ? "" : "values are missing";
                }).complaint();
    }
    isOver = true;
    for (std::thread& thread : copying) {
        thread.join();
    }

    EXPECT_EQ(wrong, "");
}

} // namespace
} // namespace SolvaneTest
