// The sessions that all threads of a lookup share, and what they know of the servers.
#ifndef SOLVANE_LOOKUP_SRC_POOL_H
#define SOLVANE_LOOKUP_SRC_POOL_H

#include "Credentials.h"
#include "Failover.h"
#include "ServerList.h"
#include "Waiter.h"

#include <solvane/lookup/Settings.h>

#include <solvane/session/Session.h>

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Solvane::Lookup {

/// A session and what belongs to it. Not thread-safe.
struct PooledSession {
    PooledSession(SessionOptions options, ServerRecord& record)
        : session(std::move(options)), server(record)
    {
    }

    Session session;
    ServerRecord& server;
    Clock::time_point openedAt;
    Clock::time_point expiresAt; ///< while it is idle
    bool hasExpired = false;
    bool isOpen = false;
    bool hasAnswered = false;       ///< to anything: the server is alive, not only its kernel
    bool hasAnsweredSearch = false; ///< with a result
    bool wasUsed = false;           ///< for a search, ever
    bool isTrial = false;           ///< of its server
    bool isFirstBind = false;       ///< the credentials are not known to be right yet
};

/// Sessions, at most as many as the settings allow, idle, in use and being opened. A session is
/// validated on checkout; who gets none waits in a queue. The pool decides which server is asked: the
/// first in order that is up. It blocks for no one: its callers open sessions, and wait for them, by
/// themselves. Thread-safe; nothing is sent or received under its lock.
class Pool : public NonCopyable {
public:
    explicit Pool(Settings const& settings);
    ~Pool();

    /// A session in use. Closed at its end unless it was given back.
    class Lease : public NonCopyable {
    public:
        Lease() = default;
        Lease(Pool& pool, std::unique_ptr<PooledSession> session, unsigned long process);
        Lease(Lease&& other) noexcept;
        Lease& operator=(Lease&& other) noexcept;
        ~Lease();

        explicit operator bool() const { return m_session != nullptr; }
        PooledSession* operator->() const { return m_session.get(); }
        PooledSession& operator*() const { return *m_session; }
        /// For an open session with nothing outstanding.
        void giveBack();
        void close();

    private:
        friend class Pool;
        Pool* m_pool = nullptr;
        std::unique_ptr<PooledSession> m_session;
        unsigned long m_process = 0; ///< the pool's count of forks when it was made
    };

    /// What a key needs.
    struct Wish {
        Clock::time_point now;
        Clock::time_point deadline;
        std::vector<Failure> const& failures;  ///< servers that are not asked again
        ServerRecord const* brokeOn = nullptr; ///< a session to it has to be younger than `brokeAt`
        Clock::time_point brokeAt;
        bool needsAnswered = false; ///< only a session on which something was answered
        bool mayWait = true;        ///< in the queue, if there is none
        bool mayResolve = true;     ///< asks for the servers of a domain, if that is due
    };

    /// What a caller gets.
    struct Outlook {
        enum Kind {
            ready,   ///< a session: `lease`
            open,    ///< room for one: the caller opens `lease` and reports to `opened` or `failed`
            resolve, ///< the caller asks for the servers of `domain` and reports to `resolved`
            wait,    ///< until the waiter's descriptor is readable or `until` has come
            refused, ///< `failures` tell why no server can be asked
        } kind = wait;
        Lease lease;
        ServerDomain* domain = nullptr;
        bool isRefresh = false;          ///< it has servers already
        std::unique_ptr<SrvQuery> query; ///< that was asked already, until `until`
        Clock::time_point until = Clock::time_point::max();
        bool isFull = false; ///< all sessions are in use
        std::vector<Failure> failures;
    };
    Outlook checkOut(Wish const& wish, Waiter& waiter);
    /// The caller does not wait any more.
    void withdraw(Waiter& waiter);
    /// Whether others wait for a session, so that one in long use should be given back.
    bool isWaitedFor() const { return m_waitingForRoom.load(std::memory_order_relaxed) != 0; }

    // What came of a domain

    void resolved(ServerDomain& domain, Verdict const& verdict,
                  std::vector<SrvTarget> const& targets);
    /// The caller does not wait for the answer. Who asks next goes on with the question.
    void park(ServerDomain& domain, std::unique_ptr<SrvQuery> query, Clock::time_point until);

    // What came of a session

    /// It is open and, if there is a bind DN, bound.
    void opened(PooledSession& session);
    /// What a failed attempt to open one means.
    enum class Attempt {
        failed, ///< the server counts as failed
        lacksTime, ///< its caller had too little time, or this process no descriptor: nothing is proved
        another, ///< another session to the same address works: one of several servers hangs
    };
    /// It could not be opened; the lease is closed.
    Attempt failed(Lease& lease, Verdict const& why, Clock::time_point begun, bool isLate);
    /// An answer came; to be called for each search that is answered with a result.
    void answered(PooledSession& session, Clock::time_point now)
    {
        storeLatest(session.server.answeredAt, now);
        session.hasAnsweredSearch = true;
        if (session.server.awaitsAnswer.load(std::memory_order_relaxed) ||
            session.server.isWindowNarrow.load(std::memory_order_relaxed)) {
            noteAnswer(session);
        }
    }
    /// A search on it failed, and another server answered it or the server says that it cannot serve.
    void searchFailed(Failure const& failure);
    /// Searches on it are not answered. Nothing is noted if the server answered elsewhere since.
    void fellSilent(ServerRecord& server, Verdict const& why, Clock::duration cost);
    /// Its connection ended with searches in flight.
    void lost(PooledSession& session, std::size_t inFlight);

    /// How many servers there are; domains that have not been resolved count as one each.
    std::size_t serverCount() const { return m_servers.size(); }
    /// What a caller must have waited at least, if it ran out of time, to prove a failure. The first of
    /// several servers gets half of a key's time.
    Clock::duration proof() const;

    unsigned long openedCount() const { return m_opened; }
    unsigned long staleCount() const { return m_stale; }

private:
    friend class PoolsAtFork;
    using Idle = std::list<std::unique_ptr<PooledSession>>;

    /// Which servers are admitted: those that are up or due for a trial; those that fell silent and
    /// may be tried anew at once; those that fail at once.
    enum class Among { eligible, silent, prompt };

    void decide(Outlook& outlook, Wish const& wish, Waiter& waiter, Idle& dropped);
    bool consider(Outlook& outlook, ServerRecord& server, Wish const& wish, Waiter& waiter,
                  Among among, Clock::time_point now, Idle& dropped);
    static bool admits(ServerRecord const& server, Among among, Clock::time_point now);
    void open(Outlook& outlook, ServerRecord& server, Among among, Idle& dropped);
    void refuse(Outlook& outlook, Wish const& wish);
    void wait(Outlook& outlook, Waiter& waiter, bool mayWait);
    Clock::time_point trialEnd(Wish const& wish) const;
    Clock::duration claimTime() const;
    ServerRecord& inOrder(std::size_t position) const;
    Idle::iterator idleFor(ServerRecord const& server, Wish const& wish);
    SessionOptions optionsFor(ServerRecord const& server) const;

    std::size_t available() const { return m_idle.size() + m_settings.connections - m_count; }
    void take(Waiter& waiter);
    void leaveQueue(Waiter& waiter);
    void callNext();
    void announce();
    void afterFork(Idle& dropped);

    void put(Lease& lease);
    void letGo(Lease& lease);
    void endTrial(PooledSession& session);
    void freeRoom();
    void closeIdle(ServerRecord const& server, Idle& dropped);
    void noteAnswer(PooledSession& session);
    static void publish(ServerRecord& server);

    Settings const& m_settings;
    std::shared_ptr<TlsContext> const m_tls;
    std::atomic<unsigned long> m_opened{0};
    std::atomic<unsigned long> m_stale{0};
    std::atomic<std::size_t> m_waitingForRoom{0}; ///< changed under m_mutex

    std::mutex m_mutex;   // guards what is below, and the records' guarded members
    ServerList m_servers; // but for its size
    Credentials m_credentials;
    Idle m_idle;                  ///< used last in front
    std::size_t m_count = 0;      ///< idle, in use and being opened
    std::size_t m_called = 0;     ///< waiters for which a session or room is reserved
    std::list<Waiter*> m_waiters; ///< first come in front
    unsigned long m_process = 0;  ///< how often this process's line was forked
    unsigned long m_known = 0;    ///< the fork that the members above belong to
};

} // namespace Solvane::Lookup

#endif
