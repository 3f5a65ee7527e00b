// Checkout and return of pooled connections, without network traffic.
#include "Library.h"
#include "ReplayServer.h"

#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace {

using Solvane::LDAPConnection;
using Solvane::LDAPConnectionCache;

/// A pool with open connections to one server, of which some are in use.
class OpenPool {
public:
    OpenPool(unsigned long connections, unsigned long busy)
        : m_target(SolvaneBench::serverAt("127.0.0.1", m_server.port()))
    {
        std::vector<LDAPConnection> taken;
        for (unsigned long i = 0; i < connections; ++i) {
            taken.push_back(take());
        }
        for (unsigned long i = busy; i < connections; ++i) {
            taken[i].cacheMarkAsAvailable(); // the last ones in the list
        }
    }

    LDAPConnection take() { return m_pool.getConnection(m_target, m_dn, m_password); }

    /// Shared by all threads of a benchmark; created at the first call.
    static OpenPool& with(unsigned long connections, unsigned long busy)
    {
        static std::mutex mutex;
        static std::map<std::pair<unsigned long, unsigned long>, std::unique_ptr<OpenPool>> pools;
        std::lock_guard<std::mutex> const lock(mutex);
        std::unique_ptr<OpenPool>& pool = pools[{connections, busy}];
        if (pool == nullptr) {
            pool = std::make_unique<OpenPool>(connections, busy);
        }
        return *pool;
    }

private:
    SolvaneBench::ReplayServer m_server;
    LDAPConnection::RefServer m_target;
    LDAPConnectionCache m_pool;
    std::string const m_dn = "cn=reader,dc=corp,dc=test";
    std::string const m_password = "reader-pw";
};

void takeAndReturn(OpenPool& pool, benchmark::State& state)
{
    for (auto _ : state) {
        pool.take().cacheMarkAsAvailable();
    }
    state.SetItemsProcessed(state.iterations());
}

void checkoutIdle(benchmark::State& state)
{
    takeAndReturn(OpenPool::with(static_cast<unsigned long>(state.range(0)), 0), state);
}

void checkoutBusy(benchmark::State& state)
{
    auto const connections = static_cast<unsigned long>(state.range(0));
    takeAndReturn(OpenPool::with(connections, connections - 1), state);
}

} // namespace

BENCHMARK(checkoutIdle)->Name("checkout, all idle")->Arg(1)->Arg(64)->Arg(512);
BENCHMARK(checkoutBusy)
    ->Name("checkout, one idle")
    ->Arg(1)
    ->Arg(4)
    ->Arg(16)
    ->Arg(64)
    ->Arg(256)
    ->Arg(512)
    ->Arg(1024)
    ->Arg(4096);
BENCHMARK(checkoutIdle)->Name("checkout by threads")->Arg(64)->ThreadRange(1, 64)->UseRealTime();
