// Several threads at one piece of work.
#ifndef SOLVART_CONTRACT_THREADS_H
#define SOLVART_CONTRACT_THREADS_H

#include <thread>
#include <vector>

/// Runs `work(0)` to `work(count - 1)`, each on a thread of its own, and waits for all.
template <typename Work> void onThreads(int count, Work const& work)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&work, i] { work(i); });
    }
    for (std::thread& each : threads) {
        each.join();
    }
}

#endif
