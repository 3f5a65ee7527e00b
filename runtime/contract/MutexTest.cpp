// Mutual exclusion between threads.
#include <solvart/Mutex.h>

#include "Threads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

using Solvane::Mutex;
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

} // namespace
