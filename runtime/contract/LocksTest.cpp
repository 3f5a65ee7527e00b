// Mutual exclusion, and semaphore tokens, by one thread and by several.
#include <solvart/Mutex.h>
#include <solvart/Semaphore.h>

#include "Threads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <type_traits>

namespace {

using Solvane::Mutex;
using Solvane::Semaphore;
using Solvane::Synchronized;

TEST(ASynchronizedScope, IsEnteredByOneThreadAtATime)
{
    Mutex mutex;
    int counter = 0; // only the mutex keeps its increments apart

    onThreads(4, [&](int) {
        for (int i = 0; i < 10000; ++i) {
            Synchronized const scope(&mutex);
            ++counter;
        }
    });

    EXPECT_EQ(counter, 40000);
}

TEST(ASynchronizedScope, HoldsTheMutexUntilItsEnd)
{
    Mutex mutex;
    std::atomic<bool> isInside{false};
    std::thread other;
    {
        Synchronized const scope(&mutex);
        std::atomic<bool> isStarted{false};
        other = std::thread([&] {
            isStarted = true;
            Synchronized const otherScope(&mutex);
            isInside = true;
        });
        while (!isStarted) {
            std::this_thread::yield();
        }

        EXPECT_FALSE(isInside);
    }
    other.join();

    EXPECT_TRUE(isInside);
}

TEST(ASynchronizedScope, LocksNothingWithoutAMutex)
{
    Synchronized const outer(nullptr);
    Synchronized const inner(nullptr);

    SUCCEED();
}

TEST(ASemaphore, IsNotMadeByConversion)
{
    EXPECT_FALSE((std::is_convertible_v<unsigned int, Semaphore>));
}

TEST(ASemaphore, GivesAsManyTokensAsItCounts)
{
    Semaphore semaphore(2);

    EXPECT_TRUE(semaphore.trywait());
    EXPECT_TRUE(semaphore.trywait());
    EXPECT_FALSE(semaphore.trywait());
}

TEST(ASemaphore, OfZeroGivesNone)
{
    Semaphore semaphore(0);

    EXPECT_FALSE(semaphore.trywait());
}

TEST(ASemaphore, GivesAPostedTokenOnce)
{
    Semaphore semaphore(0);

    semaphore.post();

    EXPECT_TRUE(semaphore.trywait());
    EXPECT_FALSE(semaphore.trywait());
}

TEST(ASemaphore, TakesATokenFromAThreadThatDidNotHoldIt)
{
    Semaphore semaphore(1);
    EXPECT_TRUE(semaphore.trywait());

    std::thread([&] { semaphore.post(); }).join();

    EXPECT_TRUE(semaphore.trywait());
}

TEST(ASemaphore, GivesItsLastTokenToOneOfManyThreads)
{
    Semaphore semaphore(1);
    std::atomic<int> taken{0};

    onThreads(8, [&](int) {
        if (semaphore.trywait()) {
            ++taken;
        }
    });

    EXPECT_EQ(taken, 1);
}

TEST(ASemaphore, PassesOnWhatWasWrittenBeforeThePost)
{
    Semaphore semaphore(1);
    int counter = 0; // only the token keeps its increments apart

    onThreads(4, [&](int) {
        for (int i = 0; i < 1000; ++i) {
            while (!semaphore.trywait()) {
                std::this_thread::yield();
            }
            ++counter;
            semaphore.post();
        }
    });

    EXPECT_EQ(counter, 4000);
}

} // namespace
