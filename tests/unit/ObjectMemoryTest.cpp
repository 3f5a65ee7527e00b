// Memory of small objects: what a thread keeps for its next ones, and what it does not.
#include "Allocations.h"

#include <solvane/ldap/LDAPAttribute.h>
#include <solvane/ldap/ObjectMemory.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <list>
#include <thread>
#include <vector>

#include <malloc.h>

namespace SolvaneTest {
namespace {

using Solvane::LDAPAttribute;
using Solvane::LDAPAttributeType;
using Solvane::ObjectMemory;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool isKept = false;
#elif defined(__has_feature)
constexpr bool isKept = !__has_feature(address_sanitizer);
#else
constexpr bool isKept = true;
#endif

constexpr std::size_t largestKept = 512;
constexpr unsigned int mostKept = 32;

std::vector<void*> taken(unsigned int count, std::size_t bytes)
{
    std::vector<void*> all;
    for (unsigned int i = 0; i < count; ++i) {
        all.push_back(ObjectMemory::take(bytes));
    }
    return all;
}

void giveBack(std::vector<void*> const& all, std::size_t bytes)
{
    for (void* const memory : all) {
        ObjectMemory::giveBack(memory, bytes);
    }
}

/// How many allocations `count` objects of a size cost in a thread that has given so many back.
unsigned int costOf(unsigned int count, std::size_t bytes)
{
    unsigned int cost = 0;
    std::thread([&] {
        giveBack(taken(count, bytes), bytes);
        std::vector<void*> all;
        all.reserve(count);
        cost = allocationsOf([&] {
            for (unsigned int i = 0; i < count; ++i) {
                all.push_back(ObjectMemory::take(bytes));
            }
        });
        giveBack(all, bytes);
    }).join();
    return cost;
}

TEST(MemoryOfAnObject, ServesTheNextOneOfItsSize)
{
    EXPECT_EQ(costOf(1, 1), isKept ? 0U : 1U);
    EXPECT_EQ(costOf(1, largestKept), isKept ? 0U : 1U);
    EXPECT_EQ(costOf(mostKept, 16), isKept ? 0U : mostKept);
}

TEST(MemoryOfAnObject, IsKeptUpToABound)
{
    EXPECT_EQ(costOf(mostKept + 3, 48), isKept ? 3U : mostKept + 3);
}

TEST(MemoryOfAnObject, IsNotKeptWhereTheObjectIsLarge)
{
    EXPECT_EQ(costOf(5, largestKept + 1), 5U);
}

TEST(MemoryOfAnObject, IsItsOwnWhateverWasGivenBackBefore)
{
    for (int round = 0; round < 3; ++round) {
        std::vector<unsigned char*> all;
        for (std::size_t bytes = 1; bytes <= largestKept + 16; ++bytes) {
            all.push_back(static_cast<unsigned char*>(ObjectMemory::take(bytes)));
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(all.back()) % alignof(std::max_align_t), 0U);
            std::memset(all.back(), static_cast<int>(bytes % 251), bytes);
        }
        for (std::size_t bytes = 1; bytes <= all.size(); ++bytes) {
            std::vector<unsigned char> const written(bytes,
                                                     static_cast<unsigned char>(bytes % 251));
            EXPECT_EQ(std::memcmp(all[bytes - 1], written.data(), bytes), 0) << bytes;
            ObjectMemory::giveBack(all[bytes - 1], bytes);
        }
    }
}

TEST(MemoryOfAnObject, OfNoBytesIsStillMemory)
{
    void* const memory = ObjectMemory::take(0);

    EXPECT_NE(memory, nullptr);
    ObjectMemory::giveBack(memory, 0);
    ObjectMemory::giveBack(nullptr, 16);
}

TEST(MemoryOfAnObject, MayBeGivenBackByAnotherThread)
{
    std::list<LDAPAttribute> attributes;
    for (unsigned int i = 0; i < 3 * mostKept; ++i) {
        attributes.emplace_back(LDAPAttributeType("mail"));
    }

    std::thread([&] { attributes.clear(); }).join();

    EXPECT_TRUE(attributes.empty());
}

TEST(MemoryOfAnObject, GoesWithTheThreadThatKeptIt)
{
    auto const keepSome = [] {
        std::thread([] { giveBack(taken(mostKept, largestKept), largestKept); }).join();
    };
    keepSome(); // whatever is made once is made now
    std::size_t const before = mallinfo2().uordblks;

    for (int i = 0; i < 100; ++i) {
        keepSome();
    }

    std::size_t const kept = mostKept * largestKept; // bytes of one thread
    EXPECT_LT(mallinfo2().uordblks, before + 10 * kept);
}

} // namespace
} // namespace SolvaneTest
