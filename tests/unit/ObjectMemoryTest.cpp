// Memory of small objects: what a thread keeps for its next ones, and what it does not.
#include "Allocations.h"

#include <solvane/ldap/LDAPAttribute.h>
#include <solvane/ldap/ObjectMemory.h>
#include <solvane/ldap/impl/LDAPAttributeImpl.h>

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <list>
#include <memory>
#include <new>
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
        all.push_back(ObjectMemory::operator new(bytes));
    }
    return all;
}

void giveBack(std::vector<void*> const& all, std::size_t bytes)
{
    for (void* const memory : all) {
        ObjectMemory::operator delete(memory, bytes);
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
                all.push_back(ObjectMemory::operator new(bytes));
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
            all.push_back(static_cast<unsigned char*>(ObjectMemory::operator new(bytes)));
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(all.back()) % alignof(std::max_align_t), 0U);
            std::memset(all.back(), static_cast<int>(bytes % 251), bytes);
        }
        for (std::size_t bytes = 1; bytes <= all.size(); ++bytes) {
            std::vector<unsigned char> const written(bytes,
                                                     static_cast<unsigned char>(bytes % 251));
            EXPECT_EQ(std::memcmp(all[bytes - 1], written.data(), bytes), 0) << bytes;
            ObjectMemory::operator delete(all[bytes - 1], bytes);
        }
    }
}

TEST(MemoryOfAnObject, OfNoBytesIsStillMemory)
{
    void* const memory = ObjectMemory::operator new(0);

    EXPECT_NE(memory, nullptr);
    ObjectMemory::operator delete (memory, std::size_t{0});
    ObjectMemory::operator delete (nullptr, std::size_t{16});
}

struct alignas(64) WideBody : Solvane::LDAPAttributeImpl {};

TEST(MemoryOfAnObject, IsAlignedAsADerivedClassWantsIt)
{
    std::list<std::unique_ptr<WideBody>> bodies;
    for (int i = 0; i < 20; ++i) {
        bodies.push_back(std::make_unique<WideBody>());
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(bodies.back().get()) % alignof(WideBody), 0U);
    }
}

TEST(MemoryOfAnObject, MayBeTheCallersOwn)
{
    using Body = Solvane::LDAPAttributeImpl;
    alignas(Body) std::array<char, sizeof(Body)> place{};

    auto* const body = new (place.data()) Body;

    EXPECT_EQ(static_cast<void*>(body), place.data());
    body->~Body();
}

TEST(MemoryOfAnObject, IsAskedForWithoutAnExceptionLikeAnyOther)
{
    std::unique_ptr<Solvane::LDAPAttributeImpl> const body(new (std::nothrow)
                                                               Solvane::LDAPAttributeImpl);

    EXPECT_NE(body, nullptr);
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
