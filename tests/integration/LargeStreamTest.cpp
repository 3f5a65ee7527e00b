// A directory that is larger than the memory that a stream may use: read whole, and while its server is
// killed. It has as many entries as SOLVANE_STREAM_ENTRIES says; `scripts/faults --stream` sets a million.
#include "Directory.h"
#include "Faults.h"
#include "ProcessMemory.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <iterator>

#include <ldap.h>

#include <sys/socket.h>

using namespace Solvane;
using testing::AnyOf;

namespace SolvaneTest {

namespace {

constexpr unsigned int patience = 60; // seconds
constexpr long mostMegabytes = 20;

std::size_t entriesOfDirectory()
{
    char const* const entries = std::getenv("SOLVANE_STREAM_ENTRIES");
    return entries == nullptr ? 20000 : std::stoul(entries);
}

std::size_t openDescriptors()
{
    std::filesystem::directory_iterator const all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

/// What a stream has given: a bit for each user.
class Taken {
public:
    explicit Taken(std::size_t entries) : m_isTaken(entries + 1) {}

    /// Reads the number out of "uid=user0000001,ou=people,...".
    void add(LDAPSearchResultEntry const& entry)
    {
        constexpr std::size_t start = sizeof "uid=user" - 1;
        auto bit = m_isTaken.begin();
        std::advance(bit, std::stol(entry.entryName().substr(start)));
        if (*bit) {
            ++m_twice;
        }
        *bit = true;
        ++m_count;
        if (m_count % 1000 == 0) {
            m_mostMegabytes = std::max(m_mostMegabytes, m_memory.growth());
        }
    }

    std::size_t count() const { return m_count; }
    std::size_t twice() const { return m_twice; }
    /// What the process has grown by at the most.
    long mostMegabytes() const { return m_mostMegabytes; }

private:
    std::vector<bool> m_isTaken;
    ResidentMemory const m_memory;
    std::size_t m_count = 0;
    std::size_t m_twice = 0;
    long m_mostMegabytes = 0;
};

} // namespace

/// With pages of this size; 0: without pages.
class StreamOfALargeDirectory : public SuiteWithSlapd<StreamOfALargeDirectory>,
                                public testing::WithParamInterface<int> {
public:
    static std::vector<std::string> options()
    {
        return {"--users", std::to_string(entriesOfDirectory()), "--sizelimit", "unlimited"};
    }

protected:
    void TearDown() override
    {
        if (hasSlapd() && !slapd().isRunning()) {
            slapd().restart();
        }
    }

    /// A stream of all people with all their attributes.
    static LDAPSearchStream sentOn(LDAPConnection const& connection)
    {
        LDAPSearchStream::Parameter parameter(people);
        parameter.scope = LDAPSearch::ScopeOneLevel;
        parameter.pageSize = GetParam();
        LDAPSearchStream stream(connection, parameter);
        stream.send();
        return stream;
    }

    /// Bounds what the kernel receives ahead of the reader.
    static void narrow(LDAPConnection& connection)
    {
        int descriptor = -1;
        connection.impl()->getOption(LDAP_OPT_DESC, &descriptor);
        int const bytes = 65536;
        setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    }

    static void expectLittleMemory(Taken const& taken)
    {
        std::cout << taken.count() << " entries, " << taken.mostMegabytes() << " MB\n";
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // those keep what is freed
        EXPECT_LT(taken.mostMegabytes(), mostMegabytes);
#endif
    }
};

TEST_P(StreamOfALargeDirectory, GivesEveryEntryOnce)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    LDAPSearchStream stream = sentOn(connection);
    Taken taken(entriesOfDirectory());

    while (stream.next(patience) == LDAPSearchStream::ItemEntry) {
        taken.add(stream.entry());
    }

    EXPECT_EQ(stream.result().resultCode(), 0);
    EXPECT_EQ(taken.count(), entriesOfDirectory());
    EXPECT_EQ(taken.twice(), 0U);
    expectLittleMemory(taken);
}

// What the server has sent before its end may still be read, but never as a success: most of the entries
// do not fit into the buffers of both sockets.
TEST_P(StreamOfALargeDirectory, FailsClearlyWhenTheServerIsKilled)
{
    std::size_t const descriptors = openDescriptors();
    Taken taken(entriesOfDirectory());
    {
        LDAPConnection connection = boundTo(plainServer(slapd().port()));
        narrow(connection);
        LDAPSearchStream stream = sentOn(connection);
        auto const takeUpTo = [&](std::size_t count) {
            while (taken.count() != count && stream.next(patience) == LDAPSearchStream::ItemEntry) {
                taken.add(stream.entry());
            }
        };
        takeUpTo(entriesOfDirectory() / 10);
        slapd().kill();

        auto const thrown = thrownBy([&] { takeUpTo(entriesOfDirectory()); });

        EXPECT_THAT(thrown, AnyOf(IsFault("SearchStream.cpp", 84, 4, 4),
                                  IsFault("SearchStream.cpp", 91, 4, 4)));
        EXPECT_TRUE(stream.result().isNull());
        EXPECT_FALSE(connection.impl()->isValid());
        EXPECT_THAT(thrownBy([&] { stream.next(1); }), IsFault("Operation.cpp", 92, 2, 0));
    }
    EXPECT_GE(taken.count(), entriesOfDirectory() / 10);
    EXPECT_LT(taken.count(), entriesOfDirectory());
    EXPECT_EQ(taken.twice(), 0U);
    expectLittleMemory(taken);
    EXPECT_EQ(openDescriptors(), descriptors);
}

INSTANTIATE_TEST_SUITE_P(WithPages, StreamOfALargeDirectory, testing::Values(0, 500));

} // namespace SolvaneTest
