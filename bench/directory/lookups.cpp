// Lookups of one address: sequential, many in flight, from many threads.
#include "rows.h"

#include "RawSession.h"

#include <solvane/lookup.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <poll.h>

namespace SolvaneBench {

using Solvane::LDAPConnection;
using Solvane::LDAPConnectionCache;
using Solvane::LDAPLookup;
using Solvane::LDAPSearch;
using Solvane::LDAPUtil;

namespace {

/// `size` threads, which sleep between jobs.
class Team {
public:
    /// The work of the thread with this number.
    using Job = std::function<void(unsigned int member)>;

    explicit Team(unsigned int size)
    {
        for (unsigned int member = 0; member < size; ++member) {
            m_threads.emplace_back([this, member] { serve(member); });
        }
    }
    Team(Team const&) = delete;
    Team& operator=(Team const&) = delete;
    ~Team()
    {
        announce(nullptr);
        for (std::thread& thread : m_threads) {
            thread.join();
        }
    }

    /// Makes every thread do its part; returns when all are done.
    void run(Job const& job)
    {
        announce(&job);
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_busy == 0; });
    }

private:
    void announce(Job const* job)
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_job = job;
        m_busy = m_threads.size();
        ++m_number;
        m_changed.notify_all();
    }

    void serve(unsigned int member)
    {
        for (unsigned long done = 0;; ++done) {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait(lock, [&] { return m_number > done; });
            Job const* const job = m_job;
            lock.unlock();
            if (job == nullptr) {
                return;
            }
            (*job)(member);
            lock.lock();
            if (--m_busy == 0) {
                m_changed.notify_all();
            }
        }
    }

    std::mutex m_mutex; // guards everything below except m_threads
    std::condition_variable m_changed;
    Job const* m_job = nullptr; ///< null: end
    unsigned long m_number = 0; ///< of jobs announced
    std::size_t m_busy = 0;     ///< members that have not done the last job
    std::vector<std::thread> m_threads;
};

std::vector<std::string> const wanted = {"mail", "cn", "employeeNumber"};

std::string filterFor(std::string const& address) { return "(mail=" + address + ")"; }

/// Lookups with raw calls on a separate session.
class RawLookups {
public:
    explicit RawLookups(Options const& options)
        : m_session(options.uri(), reader()), m_base(people()), m_names(wanted),
          m_addresses(options.users)
    {
    }

    void run(unsigned long count)
    {
        for (; count > 0; --count) {
            finish(send());
        }
    }

    void run(unsigned long count, unsigned long window)
    {
        std::deque<int> underway;
        for (; count > 0; --count) {
            if (underway.size() == window) {
                finish(underway.front());
                underway.pop_front();
            }
            underway.push_back(send());
        }
        for (int const id : underway) {
            finish(id);
        }
    }

private:
    int send()
    {
        return raw_send_search(m_session.get(), m_base.c_str(),
                               filterFor(m_addresses.next()).c_str(), m_names.array());
    }
    void finish(int id) { require(raw_read_entries(m_session.get(), id) == 1, "entries"); }

    RawSession m_session;
    std::string m_base;
    NameList m_names;
    Addresses m_addresses;
};

LDAPSearch::Parameter searchForAddress()
{
    LDAPSearch::Parameter parameter(people());
    parameter.attributes = NameList(wanted).types();
    return parameter;
}

/// Lookups with the library on a kept connection.
class KeptLookups {
public:
    explicit KeptLookups(Options const& options)
        : m_connection(openBound(serverAt(options.host, options.port), reader())),
          m_parameter(searchForAddress()), m_addresses(options.users)
    {
    }

    void run(unsigned long count)
    {
        for (; count > 0; --count) {
            m_parameter->filter = filterFor(m_addresses.next());
            LDAPSearch search(m_connection, m_parameter);
            search.send();
            awaitAndRead(search, 1);
        }
    }

    /// Sends as many as allowed, waits for all of them, and repeats.
    void runInBatches(unsigned long count, unsigned long batch)
    {
        for (unsigned long done = 0; done < count; done += batch) {
            run(std::min(batch, count - done), batch);
        }
    }

    void run(unsigned long count, unsigned long window)
    {
        std::deque<LDAPSearch> underway;
        for (; count > 0; --count) {
            if (underway.size() == window) {
                awaitAndRead(underway.front(), 1);
                underway.pop_front();
            }
            m_parameter->filter = filterFor(m_addresses.next());
            underway.emplace_back(m_connection, m_parameter).send();
        }
        for (LDAPSearch& search : underway) {
            awaitAndRead(search, 1);
        }
    }

private:
    LDAPConnection m_connection;
    LDAPSearch::RefParameter m_parameter;
    Addresses m_addresses;
};

/// Lookups like those of a mail server: each expands a template and checks a connection out.
class PooledLookups {
public:
    PooledLookups(Options const& options, LDAPConnectionCache& pool)
        : m_pool(pool), m_server(serverAt(options.host, options.port)),
          m_parameter(searchForAddress()), m_addresses(options.users)
    {
    }

    void run(unsigned long count)
    {
        for (; count > 0; --count) {
            m_parameter->filter = LDAPUtil::instanceFilterTemplate(
                "(mail=$m)", Solvane::EmailAddress(m_addresses.next()));
            LDAPConnection connection =
                m_pool.getConnection(m_server, m_credentials.dn, m_credentials.password);
            LDAPSearch search(connection, m_parameter);
            search.send();
            awaitAndRead(search, 1);
            connection.cacheMarkAsAvailable();
        }
    }

private:
    LDAPConnectionCache& m_pool;
    LDAPConnection::RefServer m_server;
    Credentials m_credentials = reader();
    LDAPSearch::RefParameter m_parameter;
    Addresses m_addresses;
};

LDAPLookup::Settings engineSettings(Options const& options, unsigned int connections)
{
    LDAPLookup::Settings settings;
    settings.servers = {{options.host, options.port, false, LDAPConnection::V3}};
    settings.bindDn = reader().dn;
    settings.password = reader().password;
    settings.base = people();
    settings.queryTemplate = "(mail=$m)";
    settings.attributes = wanted;
    settings.connections = connections;
    return settings;
}

void requireFound(LDAPLookup::Answer const& answer)
{
    require(answer.outcome == LDAPLookup::Outcome::Found && readEntries(answer.entries) > 0,
            "answer");
}

void findOneByOne(LDAPLookup& engine, Addresses& addresses, unsigned long count)
{
    for (; count > 0; --count) {
        requireFound(engine.find(addresses.next()));
    }
}

void findAll(LDAPLookup& engine, Addresses& addresses, unsigned long count)
{
    engine.findAll(
        [&](std::string& key, bool) {
            if (count == 0) {
                return LDAPLookup::Supply::end;
            }
            --count;
            key = addresses.next();
            return LDAPLookup::Supply::key;
        },
        [](std::string const&, LDAPLookup::Answer&& answer) {
            requireFound(answer);
            return true;
        });
}

/// Keeps as many keys pending as `findAll` has in flight.
void findByQueue(Solvane::LDAPLookupQueue& queue, Addresses& addresses, unsigned long count)
{
    constexpr std::size_t enough = 256;
    while (count > 0 || queue.pending() != 0) {
        for (; count > 0 && queue.pending() < enough; --count) {
            queue.submit(addresses.next(), count);
        }
        pollfd polled{queue.descriptor(), POLLIN, 0};
        require(poll(&polled, 1, 10000) == 1, "wake-up");
        while (auto const result = queue.next()) {
            requireFound(result->answer);
        }
    }
}

Contender oneByOne(std::string const& name, RawLookups& lookups)
{
    return {name, [&lookups](unsigned long count) { lookups.run(count); }};
}

} // namespace

void lookups(Options const& options, Rounds const& rounds)
{
    RawLookups raw(options);
    RawLookups again(options);
    KeptLookups kept(options);
    LDAPConnectionCache pool;
    PooledLookups pooled(options, pool);
    LDAPLookup engine(engineSettings(options, 1));
    Addresses addresses(options.users);
    rounds.compare("lookup", {oneByOne("raw", raw),
                              oneByOne("raw again", again),
                              {"library", [&](unsigned long count) { kept.run(count); }},
                              {"pool", [&](unsigned long count) { pooled.run(count); }},
                              {"engine", [&](unsigned long count) {
                                   findOneByOne(engine, addresses, count);
                               }}});
}

void windows(Options const& options, Rounds const& rounds)
{
    RawLookups raw(options);
    KeptLookups kept(options);
    LDAPLookup engine(engineSettings(options, 4));
    LDAPLookup narrow(engineSettings(options, 1)); // a window of 32
    Solvane::LDAPLookupQueue queue(engine);
    Addresses addresses(options.users);
    for (unsigned long const window : {1UL, 2UL, 4UL, 8UL, 16UL, 32UL, 64UL, 128UL}) {
        std::vector<Contender> contenders = {
            {"raw", [&](unsigned long count) { raw.run(count, window); }},
            {"library", [&](unsigned long count) { kept.run(count, window); }},
            {"library one at a time", [&](unsigned long count) { kept.run(count); }},
        };
        if (window == 64) {
            contenders.push_back({"library in batches",
                                  [&](unsigned long count) { kept.runInBatches(count, window); }});
            contenders.push_back(
                {"engine, all", [&](unsigned long count) { findAll(engine, addresses, count); }});
            contenders.push_back({"engine, queue", [&](unsigned long count) {
                                      findByQueue(queue, addresses, count);
                                  }});
        }
        if (window == 32) {
            contenders.push_back({"engine, one connection",
                                  [&](unsigned long count) { findAll(narrow, addresses, count); }});
        }
        constexpr unsigned long fillings = 10;
        rounds.compare("window", contenders, window, window * fillings);
    }
}

namespace {

/// The objects of a row's threads. Each thread has its own, except for the pool and the engine.
class Threads {
public:
    Threads(Options const& options, unsigned int size)
        : m_engine(engineSettings(options, size)), m_addresses(size, Addresses(options.users)),
          m_team(size), m_size(size)
    {
        for (unsigned int member = 0; member < size; ++member) {
            m_raw.push_back(std::make_unique<RawLookups>(options));
            m_kept.push_back(std::make_unique<KeptLookups>(options));
            m_pooled.push_back(std::make_unique<PooledLookups>(options, m_pool));
        }
    }

    void compare(Rounds const& rounds)
    {
        constexpr unsigned long lookupsOfEach = 25; // makes the time to wake the threads negligible
        auto const one = [](auto& own) {
            return [&own](unsigned int member, unsigned long count) { own[member]->run(count); };
        };
        rounds.compare("threads",
                       {shared("raw", one(m_raw)), shared("library", one(m_kept)),
                        shared("pool", one(m_pooled)),
                        shared("engine",
                               [this](unsigned int member, unsigned long count) {
                                   findOneByOne(m_engine, m_addresses[member], count);
                               })},
                       m_size, m_size * lookupsOfEach);
    }

private:
    /// Work that is divided among the threads.
    template <typename Work> Contender shared(std::string const& name, Work const& work)
    {
        return {name, [this, work](unsigned long count) {
                    unsigned long const share = (count + m_size - 1) / m_size;
                    m_team.run([&](unsigned int member) { work(member, share); });
                }};
    }

    std::vector<std::unique_ptr<RawLookups>> m_raw;
    std::vector<std::unique_ptr<KeptLookups>> m_kept;
    LDAPConnectionCache m_pool;
    std::vector<std::unique_ptr<PooledLookups>> m_pooled;
    LDAPLookup m_engine;
    std::vector<Addresses> m_addresses;
    Team m_team;
    unsigned int m_size;
};

} // namespace

void threads(Options const& options, Rounds const& rounds)
{
    for (unsigned int const size : {1U, 2U, 4U, 8U, 16U, 32U, 64U}) {
        Threads(options, size).compare(rounds);
    }
}

} // namespace SolvaneBench
