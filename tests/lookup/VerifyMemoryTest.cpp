// What is left of a password in memory once it is verified.
#include "Lookups.h"
#include "Process.h"
#include "ProcessMemory.h"
#include "Slapd.h"

#include <solvane/lookup/LDAPLookupQueue.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

using namespace Solvane;
using Lookup::VerifyOutcome;

namespace SolvaneTest {

// Under AddressSanitizer, freed memory stays as it was, and the interceptors keep copies.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

/// Overwrites what the test itself left on the stack: to bind a function at its first call, the
/// dynamic linker saves the registers there, through which the password was copied.
__attribute__((noinline)) void clearStack()
{
    char frame[1UL << 16];
    explicit_bzero(frame, sizeof frame);
}

class VerifiedPasswordInMemory : public SuiteWithSlapd<VerifiedPasswordInMemory> {
public:
    static std::vector<std::string> options() { return {"--users", "5"}; }

protected:
    VerifiedPasswordInMemory()
    {
        // Joined here, so that it stands in no constant, and on the heap, so that it stands once.
        m_password.reserve(2000);
        m_password += "pw-";
        m_password += "user0000001";
    }

    static LDAPLookup::Settings settings(bool isSecure)
    {
        auto settings = settingsFor({isSecure ? slapd().tlsPort() : slapd().port()});
        settings.servers.front().secure = isSecure;
        settings.tls.caFile = slapd().caFile();
        return settings;
    }

    /// Verifies several times, on new connections and on kept ones.
    void expectNothingLeft(LDAPLookup::Settings const& settings, VerifyOutcome outcome)
    {
        LDAPLookup lookup(settings);
        clearStack();
        ASSERT_EQ(occurrencesInMemory(m_password), 1U);

        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(lookup.verify(addressOf(1), m_password).outcome, outcome);
        }

        EXPECT_EQ(occurrencesInMemory(m_password), 1U);
    }

    std::string m_password;
};

TEST_F(VerifiedPasswordInMemory, IsWipedAfterItIsAccepted)
{
    expectNothingLeft(settings(false), VerifyOutcome::Accepted);
}

TEST_F(VerifiedPasswordInMemory, IsWipedAfterItIsSentWithTls)
{
    expectNothingLeft(settings(true), VerifyOutcome::Accepted);
}

TEST_F(VerifiedPasswordInMemory, IsWipedAfterItIsDenied)
{
    m_password += " and a long tail that makes it wrong";

    expectNothingLeft(settings(false), VerifyOutcome::Denied);
}

TEST_F(VerifiedPasswordInMemory, IsWipedIfItIsAsLongAsPossible)
{
    while (m_password.size() < 1024) {
        m_password += static_cast<char>('a' + m_password.size() % 23);
    }

    expectNothingLeft(settings(true), VerifyOutcome::Denied);
}

TEST_F(VerifiedPasswordInMemory, IsWipedIfNoServerAnswers)
{
    slapd().pause();
    auto late = settings(false);
    late.deadline = std::chrono::milliseconds(100);

    expectNothingLeft(late, VerifyOutcome::TryLater);
    slapd().resume();
}

TEST_F(VerifiedPasswordInMemory, IsWipedIfTheBindIsNotAnswered)
{
    auto late = settings(false);
    late.deadline = std::chrono::milliseconds(300);
    LDAPLookup lookup(late);
    ASSERT_EQ(lookup.verify(addressOf(1), m_password).outcome, VerifyOutcome::Accepted);

    slapd().pause();
    EXPECT_EQ(lookup.verify(addressOf(1), m_password).outcome, VerifyOutcome::TryLater);
    slapd().resume();

    EXPECT_EQ(occurrencesInMemory(m_password), 1U);
}

// In a queue, passwords wait, are given up with it, and are copied by a fork.

TEST_F(VerifiedPasswordInMemory, IsWipedBeforeAQueueReturnsTheVerification)
{
    LDAPLookup lookup(settings(false));
    LDAPLookupQueue queue(lookup);
    clearStack();
    ASSERT_EQ(occurrencesInMemory(m_password), 1U);

    for (LDAPLookupQueue::Tag tag = 1; tag <= 10; ++tag) {
        queue.submitVerify(addressOf(1), m_password, tag);
    }
    for (int count = 0; count < 10; ++count) {
        auto const result = queue.next(std::chrono::seconds(10));
        ASSERT_TRUE(result && result->verification);
        EXPECT_EQ(result->verification->outcome, VerifyOutcome::Accepted);
    }

    EXPECT_EQ(occurrencesInMemory(m_password), 1U);
}

TEST_F(VerifiedPasswordInMemory, IsWipedIfAQueueGivesItUp)
{
    slapd().pause();
    LDAPLookup lookup(settings(false));
    auto queue = std::make_unique<LDAPLookupQueue>(lookup);
    clearStack();
    ASSERT_EQ(occurrencesInMemory(m_password), 1U);

    for (LDAPLookupQueue::Tag tag = 1; tag <= 10; ++tag) {
        queue->submitVerify(addressOf(1), m_password, tag);
    }
    EXPECT_FALSE(queue->next());
    EXPECT_EQ(occurrencesInMemory(m_password), 11U);
    for (LDAPLookupQueue::Tag tag = 1; tag <= 5; ++tag) {
        queue->cancel(tag);
    }
    std::size_t const afterCancel = occurrencesInMemory(m_password);
    std::string const inAChild = ForkedProcess([&] {
                                     queue->pending(); // empties it
                                     auto const left = occurrencesInMemory(m_password);
                                     return left == 1 ? std::string() : std::to_string(left);
                                 }).complaint();
    queue.reset();
    slapd().resume();

    EXPECT_EQ(afterCancel, 6U);
    EXPECT_EQ(inAChild, "");
    EXPECT_EQ(occurrencesInMemory(m_password), 1U);
}

#endif

} // namespace SolvaneTest
