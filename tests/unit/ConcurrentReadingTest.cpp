// One answer, read by several threads at once. What these tests are for, ThreadSanitizer sees.
#include "CallTest.h"
#include "Process.h"

#include <atomic>
#include <functional>
#include <future>
#include <list>
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
using Solvane::LDAPSearchResultEntry;
using testing::Each;

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
