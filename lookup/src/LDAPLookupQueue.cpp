// Keys from an event loop through pipelines, behind one descriptor.
#include <solvane/lookup/LDAPLookupQueue.h>

#include "Pipelines.h"
#include "PollSet.h"
#include "PoolsAtFork.h"

#include <algorithm>
#include <list>
#include <utility>

namespace Solvane {

namespace {

using Lookup::Clock;
using Lookup::Pipeline;
using Lookup::PoolsAtFork;

/// When a wait of this length ends.
Clock::time_point after(std::chrono::milliseconds time)
{
    constexpr std::chrono::milliseconds longest = std::chrono::hours(365 * 24);
    return Clock::now() + std::min(time, longest); // time points count nanoseconds
}

} // namespace

/// A key is in one of three places: submitted (`m_keys`, `m_logins`), in a pipeline, or answered in
/// a pipeline. `advance` moves them on. The descriptor is signalled while an answer is here, or a
/// call changed something that `advance` has not seen yet.
class LDAPLookupQueue::State {
public:
    explicit State(Lookup::Engine& engine)
        : m_pipelines(engine, Pipeline::Order::ofAnswers), m_forks(PoolsAtFork::forks()),
          m_births(PoolsAtFork::births())
    {
    }

    ~State()
    {
        if (isOfParent()) {
            m_pipelines.disown();
        }
    }

    /// @param login  whose password is to be verified; null: a lookup
    void submit(std::string key, Tag tag, std::unique_ptr<Lookup::Login> login)
    {
        enter();
        auto& submitted = login == nullptr ? m_keys : m_logins;
        submitted.push_back({std::move(key), tag, Clock::now(), std::move(login)});
        ++m_pending;
        m_set.signal(true);
    }

    int descriptor()
    {
        enter();
        return m_set.descriptor();
    }

    std::optional<Result> next(std::chrono::milliseconds timeout)
    {
        enter();
        if (!m_pipelines.hasAnswer()) {
            try {
                work(timeout);
            } catch (...) {
                m_set.signal(true); // the work is not done
                throw;
            }
        }
        return m_pipelines.hasAnswer() ? std::optional<Result>(taken()) : std::nullopt;
    }

    void cancel(Tag tag)
    {
        enter();
        takeOver();
        std::size_t count = m_pipelines.cancel(tag);
        for (std::list<Submitted>* const submitted : {&m_keys, &m_logins}) {
            std::size_t const before = submitted->size();
            submitted->remove_if([tag](Submitted const& key) { return key.tag == tag; });
            count += before - submitted->size();
        }
        m_pending -= count;
        m_pipelines.restIfDone();
        leave();
        m_set.signal(m_pending != 0); // there may be room for others now
    }

    std::size_t pending()
    {
        enter();
        return m_pending;
    }

private:
    struct Submitted {
        std::string key;
        Tag tag;
        Clock::time_point at;
        std::unique_ptr<Lookup::Login> login;
    };

    /// Whether this process is a child, and the keys are its parent's.
    bool isOfParent() const { return m_births != PoolsAtFork::births(); }

    /// Starts afresh in a child.
    void enter()
    {
        if (isOfParent()) {
            m_set.renew();
            m_pipelines.disown();
            m_keys.clear();
            m_logins.clear();
            m_pending = 0;
            m_births = PoolsAtFork::births();
            m_forks = PoolsAtFork::forks();
        }
    }

    /// Before connections may be closed. If the process has forked, a child may have a copy of each
    /// socket: it would stay in the set when it is closed here, and could not be removed any more.
    void takeOver()
    {
        if (m_forks != PoolsAtFork::forks()) {
            m_set.clear();
        }
    }

    void work(std::chrono::milliseconds timeout)
    {
        takeOver();
        m_pipelines.excuseServers(m_leftAt);
        advance();
        if (timeout.count() > 0) {
            awaitAnswer(after(timeout));
        }
        leave();
    }

    /// Makes as much progress as possible without blocking.
    void advance()
    {
        m_pipelines.run();
        feed();
        m_pipelines.restIfDone();
    }

    /// Moves submitted keys to the pipeline that takes them, also those that are late: the
    /// pipeline concludes them. Keys do not wait for room on the connections for binds.
    void feed()
    {
        if (m_logins.empty() && m_keys.empty()) {
            return;
        }
        auto const lateFrom = Clock::now() - m_pipelines.settings().deadline;
        while (!m_logins.empty() &&
               (m_logins.front().at <= lateFrom || m_pipelines.wantsLogins())) {
            feedFirst(m_logins);
        }
        while (!m_keys.empty() &&
               (m_keys.front().at <= lateFrom || m_pipelines.latest().wantsKeys())) {
            feedFirst(m_keys);
        }
        m_pipelines.flush();
    }

    /// At each moment, the key is in one place: memory may run out.
    void feedFirst(std::list<Submitted>& submitted)
    {
        Submitted& key = submitted.front();
        Pipeline& pipeline = m_pipelines.latest();
        bool const isToBeSent = pipeline.take(key.key, key.at, key.tag, key.login);
        submitted.pop_front();
        if (isToBeSent) {
            pipeline.dispatch();
        }
    }

    void awaitAnswer(Clock::time_point end)
    {
        while (!m_pipelines.hasAnswer() && m_pending != 0 && Clock::now() < end) {
            wishes();
            m_waits.until(end);
            m_waits.wait();
            advance();
        }
    }

    /// Collects what `advance` waits for.
    void wishes()
    {
        m_waits.clear();
        m_pipelines.waits(m_waits);
        for (std::list<Submitted> const* const submitted : {&m_keys, &m_logins}) {
            if (!submitted->empty()) {
                m_waits.until(submitted->front().at + m_pipelines.settings().deadline);
            }
        }
    }

    /// Hands over to the caller's loop.
    void leave()
    {
        wishes();
        auto const changes = m_pipelines.connectionChanges();
        m_set.watch(m_waits, std::exchange(m_changes, changes) != changes);
        m_set.signal(m_pipelines.hasAnswer());
        m_leftAt = Clock::now();
    }

    Result taken()
    {
        Lookup::Task& task = m_pipelines.front();
        Result result;
        result.tag = task.tag;
        result.key = std::move(task.key);
        if (task.login == nullptr) {
            result.answer = std::move(task.answer);
        } else {
            result.verification = std::move(task.login->verification);
        }
        m_pipelines.pop();
        --m_pending;
        return result;
    }

    Lookup::Pipelines m_pipelines;
    std::list<Submitted> m_keys;   ///< in order; sent as the pipelines have room for them
    std::list<Submitted> m_logins; ///< the same, whose passwords are to be verified
    std::size_t m_pending = 0;
    Lookup::PollSet m_set;
    Lookup::Waits m_waits;
    unsigned long m_changes = 0; ///< of connections, when they were watched
    unsigned long m_forks;       ///< of this process, at the queue's beginning
    unsigned long m_births;
    Clock::time_point m_leftAt;
};

LDAPLookupQueue::LDAPLookupQueue(LDAPLookup& lookup)
    : m_state(std::make_unique<State>(*lookup.m_engine))
{
}

LDAPLookupQueue::~LDAPLookupQueue() = default;

void LDAPLookupQueue::submit(std::string key, Tag tag)
{
    m_state->submit(std::move(key), tag, nullptr);
}

void LDAPLookupQueue::submitVerify(std::string key, std::string const& password, Tag tag,
                                   Lookup::BindGuard mayBind)
{
    m_state->submit(std::move(key), tag,
                    std::make_unique<Lookup::Login>(password, std::move(mayBind)));
}

int LDAPLookupQueue::descriptor() const { return m_state->descriptor(); }

std::optional<LDAPLookupQueue::Result> LDAPLookupQueue::next(std::chrono::milliseconds timeout)
{
    return m_state->next(timeout);
}

void LDAPLookupQueue::cancel(Tag tag) { m_state->cancel(tag); }

std::size_t LDAPLookupQueue::pending() const { return m_state->pending(); }

} // namespace Solvane
