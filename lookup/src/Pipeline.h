// The non-blocking core of all lookups: keys in, answers out.
#ifndef SOLVANE_LOOKUP_SRC_PIPELINE_H
#define SOLVANE_LOOKUP_SRC_PIPELINE_H

#include "Lane.h"
#include "Shared.h"
#include "Task.h"

#include <solvane/session/Waits.h>

#include <list>
#include <memory>
#include <string>
#include <vector>

namespace Solvane::Lookup {

/// Looks up the keys pushed into it and returns their answers, in the order of the keys or as they
/// come; or binds with the passwords pushed into it, on a pool of its own for that. Each key is a
/// task, each session a lane. A task moves through these states:
///
///     waiting (m_waiting) --send--> in flight (lane->tasks) --result--> done (isDone) --pop-->
///     gone
///          ^                             |
///          +------- repeat: connection lost, server silent or busy
///
/// The members of groups are further tasks (`m_members`), on behalf of a key that is done when they
/// all are: PipelineMembers.cpp.
///
/// Nothing blocks: the owner alternates `run` with a poll on `waits`. Not thread-safe; the `Shared`
/// state of all pipelines is.
class Pipeline : public NonCopyable {
public:
    /// How many keys with members to search may make a pipeline refuse further keys.
    static constexpr std::size_t expandedAtOnce = 8;

    /// The order of the answers.
    enum class Order {
        ofKeys,    ///< as the keys were pushed
        ofAnswers, ///< as they come
    };
    /// @param shared   with that of logins, to look up; or that of logins itself, to bind
    /// @param lanes    maximum number of sessions
    /// @param window   maximum of searches in flight on each; one bind
    /// @param binding  where passwords go on once their entry is found; must outlive the pipeline.
    ///                 Null: there are none
    Pipeline(Shared& shared, std::size_t lanes, std::size_t window, Order order = Order::ofKeys,
             Pipeline* binding = nullptr);
    ~Pipeline();

    // Keys in, answers out

    /// False while another key could not be sent at once.
    bool wantsKeys() const;
    /// Adds a key and starts its deadline.
    void push(std::string key) { push(std::move(key), Clock::now(), 0, nullptr); }
    /// Adds a key whose deadline has started.
    /// @param tag    for `cancel`
    /// @param login  whose password is to be verified, only if answers are returned as they come.
    ///               It then has the verification. Null: looks the key up
    void push(std::string key, Clock::time_point start, std::uint64_t tag,
              std::unique_ptr<Login> login);
    /// The first half of `push`, which sends nothing: all or nothing, if memory runs out. Returns
    /// whether `dispatch` is to follow.
    bool take(std::string& key, Clock::time_point start, std::uint64_t tag,
              std::unique_ptr<Login>& login);
    /// Sends what can be sent.
    void dispatch();
    /// Drops the keys with this tag, whether under way or answered. Abandons their searches.
    /// Returns how many there were.
    std::size_t cancel(std::uint64_t tag);
    /// Whether no key is under way and no answer is here.
    bool isIdle() const { return m_tasks.empty() && m_answered.empty(); }
    /// Whether a key is under way. Only if the answers are returned as they come.
    bool isBusy() const { return !m_tasks.empty(); }
    /// Whether the next answer is here.
    bool hasAnswer() const
    {
        return m_order == Order::ofKeys ? !m_tasks.empty() && m_tasks.front().isDone
                                        : !m_answered.empty();
    }
    /// The next answer with its key; valid until `pop`.
    Task& front() { return returned().front(); }
    void pop()
    {
        m_heldBytes -= front().bytes;
        returned().pop_front();
    }

    // Time

    /// Makes as much progress as possible without blocking.
    void run();
    /// Writes what is to be written; `run` does that too.
    void flush();
    /// Makes answers of keys that are done, if they are returned as they come; `run` does that too.
    void collect();
    /// Adds what `run` waits for.
    void waits(Waits& waits) const;
    /// Returns the sessions to the pool.
    void rest();
    /// Does what `rest` does, in a forked child: the sessions are the parent's.
    void disown();
    /// Extends the deadlines by a time that the owner spent elsewhere.
    void excuse(Clock::duration held);
    /// Call it before `run`: time that the owner may have spent elsewhere since does not count
    /// against servers. Deadlines of keys stay.
    void excuseServers(Clock::time_point since);
    /// Changes if a descriptor of `waits` may have been closed and its number used again.
    unsigned long connectionChanges() const { return m_connectionChanges; }

private:
    using Lanes = std::list<Lane>;

    /// A pending SRV query; other tasks continue meanwhile.
    struct Query {
        ServerDomain& domain;
        bool isRefresh; ///< its servers are in use meanwhile
        Clock::time_point until;
        std::unique_ptr<SrvQuery> service;
    };

    /// Why the searches of a lane are repeated elsewhere.
    enum class Trouble {
        broken,  ///< the connection was lost
        silent,  ///< the server sent nothing for too long
        damaged, ///< the server sent an invalid message for one of them
    };

    // Keys: PipelineKeys.cpp
    std::list<Task>& returned() { return m_order == Order::ofKeys ? m_tasks : m_answered; }
    std::list<Task>::iterator add(Clock::time_point start);
    bool begin(Task& task);
    bool isInvalid(Task& task);
    bool prepareFilter(Task& task);
    SearchRequest const& requestOf(Task const& task) const;
    std::string lackOf(Task const& task) const;
    bool isFull() const;
    void dropWaiting(Task const& task);
    void finish(Task& task, Outcome outcome, int code, std::string const& text);
    void concludeEmpty(Task& task);
    void conclude(Task& task, std::vector<Failure> const& others);
    void concludeLate(Task& task);
    void concludeUnsent(Task& task);
    void expire(Clock::time_point now);
    void expireTask(Task& task, Clock::time_point now);
    void giveUp(Task& task, Clock::time_point now);
    void expireLane(Lane& lane);
    Clock::duration silence() const;

    // Members of groups: PipelineMembers.cpp
    bool isMissing(Task const& member) const;
    void concludeMember(Task& member);
    void expand(Task& key);
    void goOn(Task& key);
    void failMembers(Task& key, Verdict const& why);
    void dropMembers(Task const& key);
    void expireMembers(Task& key, Clock::time_point now);
    bool advanceMembers();
    void settle(Task& member);
    bool startMembers();
    std::size_t membersAtOnce() const;

    // Lanes: PipelineLanes.cpp
    void sendWaiting();
    static std::string const* homeOf(Task const& task);
    Lane* laneFor(Task const& task) const;
    bool isAwaited(Task const& task) const;
    bool canBeServed(Task const& task) const;
    bool mustWait(Task const& task, std::vector<Task const*> const& told);
    bool makesRoom(Task const& task);
    bool endUselessLane();
    bool checkOut(Task& task);
    void resolve(Pool::Outlook outlook, Task const& task);
    void advanceQuery();
    void endQuery(Verdict const& verdict, std::vector<SrvTarget> const& targets);
    void open(Pool::Lease lease, Task const& task);
    Clock::time_point shareOf(Task const& task) const;
    void advance(Lane& lane);
    void opened(Lane& lane);
    void notOpened(Lane& lane);
    void send(Task& task, Lane& lane);
    void leaveOneLaneToOthers();
    void endLeavingLanes();
    void end(Lane& lane);
    void remove(Lane& lane);

    // Answers: Pipeline.cpp
    void advanceLanes();
    void drain(Lane& lane);
    void take(Lane& lane, Task& task, Session::Message const& message);
    void takeEntry(Lane& lane, Task& task, Session::Message const& message);
    void takeResult(Lane& lane, Task& task, Session::Message const& message);
    void takeLogin(Lane& lane, Task& task, Session::Message const& message); // PipelineLogins.cpp
    bool isVerified(Task& task);                                             // the same
    bool isPermitted(Task& task);                                            // the same
    void refused(Lane& lane, Task& task, Verdict const& why);
    void abandon(Lane& lane, Task& task);
    /// @param why  a copy, as the session that owns the original is destroyed
    void leave(Lane& lane, Trouble trouble, Verdict why, Task const* guilty = nullptr);
    void repeat(Task& task, ServerRecord const& server, Failure failure, bool isItsFault,
                bool isFree);
    void proveFailures(Task const& task);

    Shared& m_shared;
    bool const m_binds; ///< as users, instead of searching
    Pipeline* const m_binding;
    std::size_t const m_maximumLanes;
    std::size_t const m_window;
    std::size_t const m_maximumTasks; ///< including answers that wait for an earlier one
    Order const m_order;
    bool const m_makesResults;

    std::list<Task> m_tasks;      ///< in the order of the keys; addresses are stable
    std::list<Task> m_answered;   ///< done; empty if answers are returned in the order of the keys
    bool m_hasFinished = false;   ///< a task is done since they were collected
    std::vector<Task*> m_waiting; ///< for a lane; the next one is at the end
    std::list<Task> m_members;    ///< searches on behalf of keys, until they are settled
    std::vector<Task*> m_expanding;   ///< keys with more searches to make, in order
    std::size_t m_turn = 0;           ///< of these keys
    bool m_hasFinishedMember = false; ///< one is to be settled
    Lanes m_lanes;
    std::unique_ptr<Query> m_query;
    std::size_t m_inFlight = 0;
    unsigned long m_connectionChanges = 0;
    std::size_t m_heldBytes = 0; ///< of entries, received and not taken by the owner yet
    Waiter m_waiter;
    Clock::time_point m_lookAgainAt = Clock::time_point::max(); ///< when to ask the pool again
    Clock::time_point m_noNewLaneBefore;
    Clock::time_point m_now;   ///< when `push` or `run` began: to look at the clock is not free
    bool m_isPoolFull = false; ///< when it was asked last
};

} // namespace Solvane::Lookup

#endif
