// Verifying passwords on servers: with password policies, while servers and replicas fail, and what
// is left of a password in memory.
#include "Eventually.h"
#include "Lookups.h"
#include "Process.h"
#include "ProcessMemory.h"
#include "Slapd.h"
#include "TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <thread>
#include <vector>

using namespace Solvane;
using Lookup::Denial;
using Lookup::VerifyOutcome;
using testing::HasSubstr;

namespace SolvaneTest {

namespace {

std::filesystem::path written(TemporaryDirectory const& folder, char const* name,
                              std::string const& text)
{
    auto path = folder.path() / name;
    std::ofstream(path) << text;
    return path;
}

std::string policy(std::string const& name, std::string const& lines)
{
    return "dn: cn=" + name +
           ",dc=corp,dc=test\nchangetype: add\nobjectClass: device\nobjectClass: pwdPolicy\n"
           "pwdAttribute: userPassword\n" +
           lines + "\n";
}

std::string dnOf(int user)
{
    std::string const address = addressOf(user);
    return "uid=" + address.substr(0, address.find('@')) + ",ou=people,dc=corp,dc=test";
}

std::string passwordOf(int user)
{
    std::string const address = addressOf(user);
    return "pw-" + address.substr(0, address.find('@'));
}

std::string changeOf(int user, std::string const& lines)
{
    return "dn: " + dnOf(user) + "\nchangetype: modify\n" + lines + "\n";
}

/// The user's policy, and the password set anew, so that its age is known.
std::string agingOf(int user, std::string const& policy)
{
    return changeOf(user, "add: pwdPolicySubentry\npwdPolicySubentry: cn=" + policy +
                              ",dc=corp,dc=test\n-\nreplace: userPassword\nuserPassword: " +
                              passwordOf(user) + "\n");
}

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int threads = 16;
#else
constexpr int threads = 64;
#endif
constexpr int users = 40;

/// What all threads were told.
struct Tally {
    std::atomic<int> accepted{0};
    std::atomic<int> denied{0};
    std::atomic<int> found{0};
    std::atomic<int> unanswered{0};
    std::atomic<int> wrong{0}; ///< anything that is not true

    int answers() const { return accepted + denied + found; }
};

/// Whether the outcome says nothing about the user.
bool isOpen(VerifyOutcome outcome) { return outcome == VerifyOutcome::TryLater; }

void verifyOnce(LDAPLookup& lookup, Tally& tally, int user, bool isRight)
{
    // The wrong one is the right one of another user.
    auto const verification = lookup.verify(addressOf(user), passwordOf(isRight ? user : user + 1));
    if (isOpen(verification.outcome)) {
        ++tally.unanswered;
    } else if (isRight && verification.outcome == VerifyOutcome::Accepted) {
        ++tally.accepted;
    } else if (!isRight && verification.outcome == VerifyOutcome::Denied) {
        ++tally.denied;
    } else {
        ++tally.wrong;
        ADD_FAILURE() << (isRight ? "right" : "wrong")
                      << " password: " << name(verification.outcome) << ' ' << verification.text;
    }
}

void findOnce(LDAPLookup& lookup, Tally& tally, int user)
{
    auto const answer = lookup.find(addressOf(user));
    if (answer.outcome == Lookup::Outcome::TryLater) {
        ++tally.unanswered;
    } else if (answer.outcome == Lookup::Outcome::Found &&
               answer.identity == Lookup::Identity::Confirmed) {
        ++tally.found;
    } else {
        ++tally.wrong;
        ADD_FAILURE() << Lookup::name(answer.outcome) << ' ' << answer.text;
    }
}

} // namespace

class VerifyWithPolicies : public SuiteWithSlapd<VerifyWithPolicies> {
public:
    static std::vector<std::string> options()
    {
        static TemporaryDirectory const folder;
        return {"--users",
                "10",
                "--global-conf",
                written(folder, "global.conf", "moduleload ppolicy\n"),
                "--db-conf",
                written(folder, "db.conf",
                        "overlay ppolicy\nppolicy_default cn=default,dc=corp,dc=test\n"
                        "ppolicy_use_lockout\n")};
    }

protected:
    enum User { ordinary = 1, locked, lockedByGuesses, reset, expired, graced, warned };

    static void SetUpTestSuite()
    {
        SuiteWithSlapd::SetUpTestSuite();
        if (hasSlapd()) {
            modify(policy("default", "pwdLockout: TRUE\npwdMaxFailure: 3\npwdMustChange: TRUE\n") +
                   policy("short", "pwdMaxAge: 1\n") +
                   policy("grace", "pwdMaxAge: 1\npwdGraceAuthnLimit: 2\n") +
                   policy("warn", "pwdMaxAge: 3600\npwdExpireWarning: 3600\n") +
                   changeOf(locked,
                            "add: pwdAccountLockedTime\npwdAccountLockedTime: 000001010000Z\n") +
                   changeOf(reset, "add: pwdReset\npwdReset: TRUE\n") + agingOf(expired, "short") +
                   agingOf(graced, "grace") + agingOf(warned, "warn"));
        }
    }

    static void modify(std::string const& ldif)
    {
        TemporaryDirectory const folder;
        auto const done =
            run({"ldapmodify", "-x", "-H", slapd().uri(), "-D", "cn=admin,dc=corp,dc=test", "-w",
                 "secret", "-f", written(folder, "change.ldif", ldif)});
        ASSERT_EQ(done.exitStatus, 0) << done.output;
    }

    LDAPLookup::Verification verify(int user) { return verify(user, passwordOf(user)); }
    LDAPLookup::Verification verify(int user, std::string const& password)
    {
        return m_lookup.verify(addressOf(user), password);
    }

    LDAPLookup m_lookup{settingsFor({slapd().port()})};
};

TEST_F(VerifyWithPolicies, AcceptsTheRightPassword)
{
    auto const verification = verify(ordinary);

    EXPECT_EQ(verification.outcome, VerifyOutcome::Accepted) << verification.text;
    EXPECT_EQ(verification.dn, dnOf(ordinary));
    EXPECT_EQ(verification.expiresIn, std::nullopt);
}

TEST_F(VerifyWithPolicies, DeniesAWrongOne)
{
    auto const verification = verify(ordinary, "pw-user0000002");

    EXPECT_EQ(verification.outcome, VerifyOutcome::Denied);
    EXPECT_EQ(verification.denial, Denial::password);
    EXPECT_EQ(verification.code, 49);
    EXPECT_EQ(verify(ordinary).outcome, VerifyOutcome::Accepted);
}

TEST_F(VerifyWithPolicies, FindsNoEntryOfAnotherAddress)
{
    EXPECT_EQ(verify(99).outcome, VerifyOutcome::NotFound);
}

TEST_F(VerifyWithPolicies, DeniesALockedAccount)
{
    auto const verification = verify(locked);

    EXPECT_EQ(verification.outcome, VerifyOutcome::Denied);
    EXPECT_EQ(verification.denial, Denial::locked);
    EXPECT_THAT(verification.text, HasSubstr("locked"));
}

TEST_F(VerifyWithPolicies, CountsAWrongPasswordOnce)
{
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(verify(lockedByGuesses, "wrong").denial, Denial::password);
    }
    auto const thirdTime = verify(lockedByGuesses, "wrong");
    auto const fourthTime = verify(lockedByGuesses);

    EXPECT_EQ(thirdTime.denial, Denial::password);
    EXPECT_EQ(fourthTime.denial, Denial::locked); // by the third
}

TEST_F(VerifyWithPolicies, DeniesAPasswordThatMustBeChanged)
{
    auto const verification = verify(reset);

    EXPECT_EQ(verification.outcome, VerifyOutcome::Denied);
    EXPECT_EQ(verification.denial, Denial::mustChange);
    EXPECT_EQ(verify(reset, "wrong").denial, Denial::password);
}

TEST_F(VerifyWithPolicies, DeniesAnExpiredPassword)
{
    EXPECT_TRUE(eventually([&] { return verify(expired).denial == Denial::expired; }));

    EXPECT_EQ(verify(expired).outcome, VerifyOutcome::Denied);
    EXPECT_EQ(verify(expired, "wrong").denial, Denial::password);
}

TEST_F(VerifyWithPolicies, CountsTheGraceLoginsOfAnExpiredPassword)
{
    std::vector<unsigned int> left;
    bool const isOver = eventually([&] {
        auto const verification = verify(graced);
        if (verification.graceLogins) {
            EXPECT_EQ(verification.outcome, VerifyOutcome::Accepted);
            left.push_back(*verification.graceLogins);
        }
        return verification.outcome != VerifyOutcome::Accepted;
    });

    EXPECT_TRUE(isOver);
    EXPECT_THAT(left, testing::ElementsAre(1U, 0U));
    EXPECT_EQ(verify(graced).denial, Denial::expired);
}

TEST_F(VerifyWithPolicies, TellsWhenThePasswordExpires)
{
    auto const verification = verify(warned);

    EXPECT_EQ(verification.outcome, VerifyOutcome::Accepted);
    ASSERT_TRUE(verification.expiresIn.has_value());
    EXPECT_GT(verification.expiresIn->count(), 0);
    EXPECT_LE(verification.expiresIn->count(), 3600);
}

TEST_F(VerifyWithPolicies, WorksOverTls)
{
    auto secure = settingsFor({slapd().tlsPort()});
    secure.servers.front().secure = true;
    secure.tls.caFile = slapd().caFile();
    LDAPLookup lookup(secure);

    EXPECT_EQ(lookup.verify(addressOf(ordinary), passwordOf(ordinary)).outcome,
              VerifyOutcome::Accepted);
    EXPECT_EQ(lookup.verify(addressOf(ordinary), "wrong").outcome, VerifyOutcome::Denied);
    EXPECT_EQ(verify(ordinary).outcome, VerifyOutcome::Accepted);
}

// The parent's connections are kept open for it, and idle.
TEST_F(VerifyWithPolicies, WorksInChildrenAndAfterwardsInTheParent)
{
    ASSERT_EQ(verify(ordinary).outcome, VerifyOutcome::Accepted);

    for (int round = 0; round < rounds; ++round) {
        auto const work = [&](bool isRight) {
            auto const outcome = verify(ordinary, isRight ? passwordOf(ordinary) : "").outcome;
            auto const wanted = isRight ? VerifyOutcome::Accepted : VerifyOutcome::BadKey;
            return outcome == wanted ? std::string() : std::string(name(outcome));
        };
        ForkedProcess first([&] { return work(true); });
        ForkedProcess second([&] { return work(true) + work(false); });
        ASSERT_EQ(first.complaint(), "");
        ASSERT_EQ(second.complaint(), "");
    }

    EXPECT_EQ(verify(ordinary).outcome, VerifyOutcome::Accepted);
}

// Many threads verify passwords and look up addresses while servers are killed and paused.

TEST(VerifyUnderTrouble, NeverAcceptsAWrongPasswordNorDeniesARightOne)
{
    Slapd first({"--users", std::to_string(users + 1)});
    Slapd second({"--users", std::to_string(users + 1)});
    auto settings = settingsFor({first.port(), second.port()});
    settings.connections = settings.verifyConnections = 8;
    settings.networkTimeout = 1;
    settings.deadline = std::chrono::seconds(5);
    settings.backOff = std::chrono::milliseconds(50);
    settings.longestBackOff = std::chrono::milliseconds(200);
    LDAPLookup lookup(settings);
    Tally tally;
    std::atomic<bool> isOver{false};
    std::vector<std::thread> running;
    auto const awaitAnswers = [&](int count) {
        int const wanted = tally.answers() + count;
        EXPECT_TRUE(eventually([&] { return tally.answers() >= wanted; }));
    };

    for (int thread = 0; thread < threads; ++thread) {
        running.emplace_back([&, thread] {
            for (int i = thread; !isOver; ++i) {
                int const user = 1 + i % users;
                i % 3 == 0 ? findOnce(lookup, tally, user)
                           : verifyOnce(lookup, tally, user, i % 3 == 1);
            }
        });
    }
    awaitAnswers(100);
    first.kill();
    awaitAnswers(100);
    first.restart();
    awaitAnswers(100);
    first.pause();
    awaitAnswers(100);
    first.resume();
    second.pause();
    awaitAnswers(100);
    first.kill();
    second.resume();
    awaitAnswers(100);
    second.kill();
    first.restart();
    awaitAnswers(100);
    isOver = true;
    for (std::thread& thread : running) {
        thread.join();
    }

    EXPECT_EQ(tally.wrong, 0);
    EXPECT_GT(tally.accepted, 0);
    EXPECT_GT(tally.denied, 0);
    EXPECT_GT(tally.found, 0);
}

// What is left of a password in memory once it is verified.

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
    // Freed memory may keep it, where the next test would find it.
    ~VerifiedPasswordInMemory() override { explicit_bzero(&m_password[0], m_password.size()); }

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
