// The sessions' inner parts, which the library does not export.
#include "Conversation.h"
#include "MessageFrame.h"
#include "NameService.h"
#include "SaslExchange.h"

#include "Allocations.h"
#include "LdapMessages.h"
#include "NameServer.h"
#include "ProcessMemory.h"
#include "Sessions.h"

#include <solvane/session/Resolver.h>
#include <solvane/session/ResultCodes.h>
#include <solvane/session/SrvQuery.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <new>
#include <set>
#include <vector>

#include <arpa/nameser.h>
#include <poll.h>
#include <resolv.h>
#include <sasl/sasl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Solvane;
using namespace Solvane::Lookup;
using testing::AnyOf;
using testing::Contains;
using testing::StartsWith;

namespace {

int g_nameServers = -1; ///< that this thread would have asked in the last sasl_client_new

} // namespace

// The linker leads the calls of sasl_client_new to the first, and names the library's the second.
extern "C" {
decltype(sasl_client_new) __real_sasl_client_new; // NOLINT(bugprone-reserved-identifier)
// NOLINTNEXTLINE(bugprone-reserved-identifier)
int __wrap_sasl_client_new(char const* service, char const* server, char const* local,
                           char const* remote, sasl_callback_t const* callbacks, unsigned flags,
                           sasl_conn_t** connection)
{
    g_nameServers = _res.nscount;
    return __real_sasl_client_new(service, server, local, remote, callbacks, flags, connection);
}
}

namespace SolvaneTest {

// Kerberos

// Cyrus SASL resolves the name of this machine. A silent name service must not delay the bind.
TEST(ExchangeOfSasl, AsksNoNameServerForTheNameOfThisMachine)
{
    ASSERT_EQ(res_ninit(&_res), 0);
    int const before = _res.nscount;
    ASSERT_GT(before, 0);
    SaslExchange exchange("localhost", "", false, "");

    exchange.start();

    EXPECT_EQ(g_nameServers, 0);
    EXPECT_EQ(_res.nscount, before);
}

// Messages

TEST(FrameOfAMessage, MayBeNearlyAsLongAsALengthCanTell)
{
    std::size_t const most = std::numeric_limits<std::size_t>::max();
    std::size_t const content = 0xFFFFFFFE;

    MessageFrame const frame = frameOf("\x30\x84\xFF\xFF\xFF\xFE\x02\x01\x01");

    EXPECT_EQ(frame.state, MessageFrame::partial);
    EXPECT_EQ(frame.length, content > most - 6 ? most : content + 6);
}

// The password

#if !defined(__SANITIZE_ADDRESS__) // keeps what was freed
TEST(PasswordThatIsNotWrittenYet, StandsNowhereElseInMemoryAfterTheUnbind)
{
    for (bool const isHeard : {true, false}) {
        SCOPED_TRACE(isHeard ? "the unbind goes behind the bind, and both are sent"
                             : "the peer has closed");
        std::string password = "correct horse battery staple, number ";
        password += std::to_string(2 * getpid() + (isHeard ? 1 : 0)); // it stands in no constant
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
        auto peer = std::make_unique<Lookup::Descriptor>(ends[1]);
        int id = 0;
        auto conversation = std::make_unique<Conversation>(Lookup::Descriptor(ends[0]), 3,
                                                           1UL << 20, std::chrono::seconds(10));
        ASSERT_EQ(conversation->bind(readerDn, password, id), 0);
        ASSERT_TRUE(conversation->channel().hasOutput());
        if (!isHeard) {
            peer.reset();
        }

        conversation.reset();

        EXPECT_EQ(occurrencesInMemory(password), 1U);
    }
}
#endif

// Output that the socket does not take

/// A conversation with a peer in this test, and a bind that is larger than the socket's buffers.
class ConversationWithALargeRequest : public testing::Test {
protected:
    ConversationWithALargeRequest()
    {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        m_peer = ends[1];
        m_conversation =
            std::make_unique<Conversation>(Lookup::Descriptor(ends[0]), 3, 1UL << 20, patience);
        int id = 0;
        EXPECT_EQ(m_conversation->bind(std::string(largeSize, 'x'), "secret", id), 0);
        channel().flush();
        EXPECT_TRUE(channel().hasOutput());
    }
    ~ConversationWithALargeRequest() override { close(m_peer); }

    Channel& channel() { return m_conversation->channel(); }
    /// Receives what has arrived at the peer.
    void drain() const
    {
        std::vector<char> bytes(largeSize);
        while (recv(m_peer, bytes.data(), bytes.size(), 0) > 0) {
        }
    }
    short awaited()
    {
        Waits waits;
        channel().waits(waits);
        return waits.descriptors().front().events;
    }

    static constexpr std::size_t largeSize = 8UL << 20;
    static constexpr std::chrono::milliseconds patience{50};
    int m_peer = -1;
    std::unique_ptr<Conversation> m_conversation;
};

TEST_F(ConversationWithALargeRequest, AwaitsWritingUntilAllIsSent)
{
    EXPECT_EQ(awaited(), POLLIN | POLLOUT);

    while (channel().hasOutput()) {
        drain();
        channel().flush();
        ASSERT_EQ(shown(channel().fault()), "Found 0 ");
    }

    EXPECT_EQ(awaited(), POLLIN);
}

TEST_F(ConversationWithALargeRequest, LosesPatienceOnlyIfThePeerReadsNothing)
{
    auto const end = Clock::now() + 2 * patience; // longer than patience lasts
    while (Clock::now() < end) {
        Waits waits;
        waits.until(end);
        waits.wait();
    }
    drain();
    channel().flush(); // goes on, and is blocked again

    EXPECT_TRUE(channel().hasOutput());
    EXPECT_EQ(shown(channel().fault()), "Found 0 ");
}

// The server's last message may say why it has closed the connection.
TEST_F(ConversationWithALargeRequest, ReceivesWhatThePeerSentBeforeItTellsOfAFailedWrite)
{
    std::string const last = noticeOfDisconnection();
    ASSERT_EQ(send(m_peer, last.data(), last.size(), 0), static_cast<ssize_t>(last.size()));
    ASSERT_EQ(shutdown(m_peer, SHUT_RD), 0);

    channel().flush();

    EXPECT_THAT(shown(channel().fault()), StartsWith("TryLater -1 "));
    EXPECT_EQ(channel().fill(), Channel::Input::message);
    channel().drop();
    EXPECT_EQ(channel().fill(), Channel::Input::broken);
    EXPECT_THAT(shown(channel().fault()), testing::EndsWith("Broken pipe"));
}

// Names

TEST(NameServiceWithoutMemory, ThrowsNothingThroughTheResolversLibrary)
{
    NameServer const names;
    NameService service({names.address()});
    ASSERT_EQ(service.fault(), "");
    auto const ignored = [](void*, int, int, unsigned char*, int) {};

    {
        FailingAllocation const failing(0);
        EXPECT_NO_THROW(
            ares_query(service.channel(), "one.example.test", ns_c_in, ns_t_a, ignored, nullptr));
    }

    EXPECT_TRUE(service.lacksMemory());
}

/// What became of a question of which one allocation in this thread failed.
template <typename Query, typename Ask> std::string resultWithout(unsigned int allocation, Ask ask)
{
    std::unique_ptr<Query> query;
    try {
        FailingAllocation const failing(allocation);
        query = ask();
        Waits waits;
        while (!query->isSettled()) {
            waits.clear();
            query->waits(waits);
            waits.wait();
            query->advance();
        }
        return shown(query->verdict());
    } catch (std::bad_alloc const&) {
        return "thrown";
    }
}

/// The results with each allocation failing in turn.
template <typename Query, typename Ask> std::set<std::string> resultsWithoutMemory(Ask const& ask)
{
    constexpr unsigned int enough = 200;
    std::set<std::string> results;
    for (unsigned int i = 0; i < enough; ++i) {
        results.insert(resultWithout<Query>(i, ask));
    }
    return results;
}

TEST(QuestionWithoutMemory, EndsInAVerdictOrIsThrownToItsCaller)
{
    NameServer names;
    names.add("one.example.test", {"127.0.0.1"});
    names.addService("_ldap._tcp.example.test", 1, 1, 389, "one.example.test");
    std::string const server = names.address();
    std::string const noMemory = "TryLater -10 no memory is left to ask name servers";

    auto const addresses = resultsWithoutMemory<Resolver>([&] {
        return std::make_unique<Resolver>("one.example.test", 389,
                                          std::vector<std::string>{server});
    });
    auto const targets = resultsWithoutMemory<SrvQuery>([&] {
        return std::make_unique<SrvQuery>("example.test", false, std::vector<std::string>{server});
    });

    EXPECT_THAT(addresses, testing::UnorderedElementsAre("Found 0 ", noMemory, "thrown"));
    EXPECT_THAT(targets, testing::UnorderedElementsAre("Found 0 ", noMemory, "thrown"));
}

TEST(TargetOfADomain, IsInsideIfItIsTheDomainOrBelow)
{
    EXPECT_TRUE(isInside("example.com", "example.com"));
    EXPECT_TRUE(isInside("ldap.example.com", "example.com"));
    EXPECT_TRUE(isInside("a.b.Example.COM.", "example.com"));
    EXPECT_TRUE(isInside("ldap.example.com", "Example.com."));
}

TEST(TargetOfADomain, IsOutsideElsewhere)
{
    for (char const* const target : {"", ".", "com", "example.org", "notexample.com",
                                     "example.com.attacker.test", ".example.com", "ldap.example"}) {
        EXPECT_FALSE(isInside(target, "example.com")) << target;
    }
    EXPECT_FALSE(isInside("ldap.example.com", ""));
    EXPECT_FALSE(isInside("ldap.example.com", "."));
    EXPECT_FALSE(isInside("", ""));
}

// Result codes

TEST(ResultCode, ThatSpeaksOfThisProcessSpeaksOfNoServer)
{
    std::set<int> found;
    for (int code = -20; code <= 200; ++code) {
        if (speaksOfProcess(code)) {
            found.insert(code);
            EXPECT_FALSE(speaksOfServer(code)) << code;
        }
    }

    EXPECT_EQ(found, (std::set<int>{-2, -10}));
}

} // namespace SolvaneTest
