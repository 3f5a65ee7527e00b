// A run over keys from one thread: searches in flight on several sessions, answers in order.
#ifndef SOLVANE_LOOKUP_SRC_BULK_H
#define SOLVANE_LOOKUP_SRC_BULK_H

#include "KeyForms.h"
#include "SessionPool.h"

#include <solvane/lookup/LDAPLookup.h>
#include <solvane/lookup/QueryTemplate.h>

#include <solvart/EmailAddress.h>

#include <atomic>
#include <deque>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include <poll.h>

namespace Solvane::Lookup {

/// What the runs of all threads share.
struct Shared {
    explicit Shared(LDAPLookup::Settings const& given)
        : settings(given), queryTemplate(settings.queryTemplate, settings.bValue, settings.gValue),
          forms(settings), servers(settings), sessions(settings, servers)
    {
    }

    LDAPLookup::Settings const settings;
    QueryTemplate const queryTemplate;
    KeyForms const forms;
    ServerList servers;
    SessionPool sessions;
    std::atomic<unsigned long> reused{0};
    std::atomic<unsigned long> repeated{0};
};

/// One run. A key becomes a task, a session a lane; a task waits for a lane, is searched for on it,
/// and is done when it has its answer. A single lookup is a run over one key.
class Bulk : public NonCopyable {
public:
    /// @param lanes   sessions at most
    /// @param window  searches in flight on each
    Bulk(Shared& shared, LDAPLookup::Source const& source, LDAPLookup::Sink const& sink,
         unsigned int lanes, unsigned int window);

    void run();

private:
    struct Task {
        std::string key;
        std::vector<EmailAddress> forms;
        std::size_t form = 0; ///< index of the one that is asked for
        Clock::time_point start;
        Clock::time_point deadline;
        Clock::time_point sentAt;
        Clock::time_point brokeAt; ///< when its connection broke, if it is repeated
        int messageId = 0;
        LDAPResult result;
        Answer answer;
        bool isReferred = false; ///< for a part of what it looks through, to a server not asked
        bool isDone = false;
    };

    struct Lane {
        SessionPool::Lease lease;
        std::vector<Task*> tasks; ///< searches in flight, oldest first
        Clock::time_point heardAt;
        bool hasAbandoned = false; ///< a search; the rest of its answer may still come
        bool isLeaving = false;    ///< gets no more searches, as others wait for a session
    };
    using Lanes = std::list<Lane>;

    // Keys in, answers out.
    void fill();
    bool supply();
    LDAPLookup::Supply ask(std::string& key, bool mayWait);
    void begin(Task& task);
    bool prepareFilter(Task& task);
    void finish(Task& task, Outcome outcome, int code, std::string const& text);
    void emit();
    void excuse(Clock::duration held);

    // Tasks to lanes.
    void dispatch();
    Lanes::iterator laneFor(Task const& task, std::optional<SessionPool::Outlook>& refused);
    static bool mayServeAgain(Lane const& lane, Clock::time_point brokeAt);
    Lanes::iterator newLane(Task const& task, std::optional<SessionPool::Outlook>& refused);
    void closeIdleLanesNotServing(Clock::time_point time);
    void leaveOneLaneToOthers();
    void endLeavingLanes();
    void endLanes();
    void send(Task& task, Lanes::iterator lane);

    // Answers.
    void pump();
    bool drain(Lanes::iterator lane, std::chrono::milliseconds patience);
    bool take(Lane& lane, int messageId, LDAPMessageBuffer& message);
    bool isOverfull(Task const& task) const;
    void complete(Lane& lane, Task& task);
    void concludeEmpty(Task& task);
    bool passesOn(Lane const& lane, Task& task, Verdict const& why);
    void release(Lane& lane, Task& task);
    void abandon(Lane& lane, Task& task);
    void broke(Lanes::iterator lane, Verdict const& why);
    void repeatOrFinish(Task& task, Verdict const& why);

    // Time.
    std::chrono::milliseconds patience() const;
    Clock::time_point earliestDeadline() const;
    void waitForInput(std::chrono::milliseconds patience);
    void expire();
    void expireWaiting(Clock::time_point now);
    void expireLane(Lanes::iterator lane, Clock::time_point now);
    Clock::time_point silentAt(Lane const& lane) const;

    Shared& m_shared;
    LDAPLookup::Source const& m_source;
    LDAPLookup::Sink const& m_sink;
    std::size_t const m_maximumLanes;
    std::size_t const m_window;
    std::size_t const m_maximumTasks; ///< with answers that wait for an earlier one's

    std::deque<Task> m_tasks;    ///< in the order of the keys; addresses stay
    std::deque<Task*> m_waiting; ///< for a lane
    Lanes m_lanes;
    std::size_t m_inFlight = 0;
    Clock::time_point m_noNewLaneBefore;
    std::vector<pollfd> m_polled;
    bool m_isSupplied = true; ///< the source has more
    bool m_isWanted = true;   ///< the sink wants more
};

} // namespace Solvane::Lookup

#endif
