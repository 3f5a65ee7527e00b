// Looks one address up repeatedly for some seconds, with the engine and with the pool.
//
//   LDAP_PASSWORD=... steady_lookups SECONDS BIND-DN BASE ADDRESS PORT...
//
// The servers listen on 127.0.0.1. The engine gets all ports as its list of servers; the pool gets the
// first, which should be the balancer's. Prints a line per second. Exit status: 0 all found, 1 an
// answer was wrong, 75 a lookup was deferred.
#include <solvane/ldap.h>
#include <solvane/lookup.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include <sysexits.h>

using namespace Solvane;

namespace {

constexpr unsigned int threadsEach = 4;

struct Counts {
    std::atomic<unsigned long> found{0};
    std::atomic<unsigned long> deferred{0};
    std::atomic<unsigned long> wrong{0};

    void add(LDAPLookup::Outcome outcome)
    {
        bool const isFound = outcome == LDAPLookup::Outcome::Found;
        bool const isUnknown = outcome == LDAPLookup::Outcome::NotFound;
        ++(isFound ? found : isUnknown ? wrong : deferred); // the user exists: NotFound is wrong
    }
};

LDAPLookup::Settings settingsFrom(int count, char** arguments)
{
    char const* const password = std::getenv("LDAP_PASSWORD");
    LDAPLookup::Settings settings;
    for (int i = 5; i < count; ++i) {
        settings.servers.emplace_back();
        settings.servers.back().host = "127.0.0.1";
        settings.servers.back().port = static_cast<unsigned int>(std::atoi(arguments[i]));
    }
    settings.networkTimeout = 2; // the deadline leaves time for three servers
    settings.deadline = std::chrono::seconds(8);
    settings.bindDn = arguments[2];
    settings.password = password == nullptr ? "" : password;
    settings.base = arguments[3];
    settings.queryTemplate = "(mail=$m)";
    settings.attributes = {"mail"};
    return settings;
}

/// Lookups with the pool. The retry is the caller's job here; the engine does it itself.
class Pooled {
public:
    explicit Pooled(LDAPLookup::Settings const& settings)
        : m_settings(settings),
          m_server(settings.servers.front().host, settings.servers.front().port, LDAPConnection::V3,
                   false, settings.networkTimeout, false, false)
    {
    }

    LDAPLookup::Outcome find(std::string const& address)
    {
        for (bool isRepeated : {false, true}) {
            try {
                return findOnce(address);
            } catch (LDAPException const&) {
                if (!isRepeated) {
                    m_pool.clear(); // the idle connections have probably broken too
                }
            }
        }
        return LDAPLookup::Outcome::TryLater;
    }

private:
    LDAPLookup::Outcome findOnce(std::string const& address)
    {
        LDAPConnection connection =
            m_pool.getConnection(m_server, m_settings.bindDn, m_settings.password);
        if (connection.isNull()) {
            return LDAPLookup::Outcome::TryLater;
        }
        struct Marker {
            LDAPConnection& taken;
            ~Marker() { taken.cacheMarkAsAvailable(); }
        } const marker{connection};
        LDAPSearch::Parameter parameter(m_settings.base);
        parameter.filter =
            LDAPUtil::instanceFilterTemplate(m_settings.queryTemplate, EmailAddress(address));
        LDAPSearch search(connection, parameter);
        search.send();
        if (search.wait(m_settings.networkTimeout)) {
            connection.unbind(); // the pool drops it, and a late answer with it
            return LDAPLookup::Outcome::TryLater;
        }
        if (search.result().resultCode() != 0) {
            return LDAPLookup::Outcome::TryLater;
        }
        return search.result().searchResultEntries().empty() ? LDAPLookup::Outcome::NotFound
                                                             : LDAPLookup::Outcome::Found;
    }

    LDAPLookup::Settings const m_settings;
    LDAPConnection::RefServer const m_server;
    LDAPConnectionCache m_pool;
};

template <typename Find>
void lookUpUntil(std::atomic<bool> const& isOver, Counts& counts, Find find)
{
    while (!isOver) {
        counts.add(find());
        std::this_thread::sleep_for(std::chrono::milliseconds(5)); // a pace, not a wait
    }
}

void printEachSecond(int seconds, std::array<Counts, 2> const& counts)
{
    std::array<unsigned long, 2> before{};
    for (int second = 1; second <= seconds; ++second) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        std::printf("second %2d: engine %5lu found, pool %5lu found\n", second,
                    counts[0].found - before[0], counts[1].found - before[1]);
        std::fflush(stdout);
        before = {counts[0].found, counts[1].found};
    }
}

int run(int seconds, std::string const& address, LDAPLookup::Settings const& settings)
{
    LDAPLookup engine(settings);
    Pooled pool(settings);
    std::array<Counts, 2> counts;
    std::atomic<bool> isOver{false};
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i != threadsEach; ++i) {
        threads.emplace_back(
            [&] { lookUpUntil(isOver, counts[0], [&] { return engine.find(address).outcome; }); });
        threads.emplace_back(
            [&] { lookUpUntil(isOver, counts[1], [&] { return pool.find(address); }); });
    }
    printEachSecond(seconds, counts);
    isOver = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (std::size_t way : {0U, 1U}) {
        std::cout << (way == 0 ? "engine: " : "pool:   ") << counts[way].found << " found, "
                  << counts[way].deferred << " deferred, " << counts[way].wrong << " wrong\n";
    }
    if (counts[0].wrong + counts[1].wrong != 0) {
        return 1;
    }
    return counts[0].deferred + counts[1].deferred == 0 ? EX_OK : EX_TEMPFAIL;
}

} // namespace

int main(int count, char** arguments)
{
    if (count < 6) {
        std::cerr << "usage: steady_lookups SECONDS BIND-DN BASE ADDRESS PORT...\n";
        return EX_USAGE;
    }
    try {
        return run(std::atoi(arguments[1]), arguments[4], settingsFrom(count, arguments));
    } catch (Exception const& fault) {
        std::cerr << "steady_lookups: " << fault.asString() << '\n';
    } catch (std::exception const& fault) {
        std::cerr << "steady_lookups: " << fault.what() << '\n';
    }
    return EX_CONFIG;
}
