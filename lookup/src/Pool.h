// The pool of sessions shared by all threads, and the state of the servers.
#ifndef SOLVANE_LOOKUP_SRC_POOL_H
#define SOLVANE_LOOKUP_SRC_POOL_H

#include "Counters.h"
#include "Credentials.h"
#include "Failover.h"
#include "Report.h"
#include "ServerList.h"
#include "Waiter.h"

#include <solvane/lookup/ServerStatistics.h>
#include <solvane/lookup/Settings.h>

#include <solvane/session/Session.h>

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Solvane::Lookup {

/// A session of the pool with its state. Not thread-safe.
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
    bool hasAnswered = false;       ///< any request: the server is alive, not only its kernel
    bool hasAnsweredSearch = false; ///< a search, with a result
    bool wasUsed = false;           ///< at least one search was sent
    bool isTrial = false;           ///< the trial of a server that failed
    bool isFirstBind = false;       ///< the credentials have not been accepted yet
};

/// A pool of sessions: idle, in use, and being opened, at most `connections` in total. Sessions are
/// validated on checkout; callers that get none wait in a queue. The pool chooses the server: the
/// first one in order that is up. It never blocks: callers open sessions and wait for them on their
/// own. Thread-safe; nothing is sent or received under its lock.
class Pool : public NonCopyable {
public:
    /// @param settings  must outlive it
    /// @param totals    must outlive it
    /// @param tls       of another pool with the same policy; null: its own, if a server needs one
    /// @param before    the pool of the earlier settings; null: there are none
    Pool(Settings const& settings, Totals& totals, std::shared_ptr<TlsContext> tls, Pool* before);
    ~Pool();

    /// A session in use. The destructor closes it unless it was returned with `giveBack`. Must not
    /// outlive the pool.
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
        /// Returns an open session without pending requests to the pool.
        void giveBack();
        void close();

    private:
        friend class Pool;
        Pool* m_pool = nullptr;
        std::unique_ptr<PooledSession> m_session;
        unsigned long m_process = 0; ///< the pool's count of forks at creation
    };

    /// The requirements of a key.
    struct Wish {
        Clock::time_point now;
        Clock::time_point deadline;
        std::vector<Failure> const& failures;  ///< servers that must not be asked again
        ServerRecord const* brokeOn = nullptr; ///< sessions to it must be newer than `brokeAt`
        Clock::time_point brokeAt;
        bool needsAnswered = false;          ///< only a session on which something was answered
        bool mayWait = true;                 ///< in the queue, if there is none
        bool mayResolve = true;              ///< asks for the servers of a domain, if that is due
        std::string const* server = nullptr; ///< URI of the one to prefer, if it is up
    };

    /// The result of a checkout.
    struct Outlook {
        enum Kind {
            ready,   ///< `lease` is an open session
            open,    ///< the caller must open `lease` and call `opened` or `failed`
            resolve, ///< the caller must query the servers of `domain` and call `resolved`
            wait,    ///< wait until the waiter's descriptor is readable, or until `until`
            refused, ///< no server can be asked; `failures` are the causes
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
    /// Removes the caller from the queue.
    void withdraw(Waiter& waiter);
    /// Whether callers wait for a session, so that one in long use should be returned.
    bool isWaitedFor() const { return m_waitingForRoom.load(std::memory_order_relaxed) != 0; }

    // Results of SRV queries

    void resolved(ServerDomain& domain, Verdict const& verdict,
                  std::vector<SrvTarget> const& targets);
    /// The caller does not wait for the answer. Who asks next goes on with the question.
    void park(ServerDomain& domain, std::unique_ptr<SrvQuery> query, Clock::time_point until);

    // Results of sessions

    /// The session is open and, if there is a bind DN, bound.
    void opened(PooledSession& session);
    /// What a failed attempt to open a session means.
    enum class Attempt {
        failed, ///< the server counts as failed
        lacksTime, ///< its caller had too little time, or this process no descriptor: nothing is proved
        another, ///< another session to the same address works: one of several servers hangs
    };
    /// The session could not be opened; closes the lease.
    Attempt failed(Lease& lease, Verdict const& why, Clock::time_point begun, bool isLate);
    /// A search was answered with a result; call it for each one.
    void answered(PooledSession& session, Clock::time_point now)
    {
        storeLatest(session.server.answeredAt, now);
        session.server.counters->answered.fetch_add(1, std::memory_order_relaxed);
        session.hasAnsweredSearch = true;
        if (session.server.awaitsAnswer.load(std::memory_order_relaxed) ||
            session.server.isWindowNarrow.load(std::memory_order_relaxed)) {
            noteAnswer(session);
        }
    }
    /// A search failed, and either another server answered it or this one reports that it cannot
    /// serve.
    void searchFailed(Failure const& failure);
    /// Searches are not answered. Ignored if the server answered on another session meanwhile.
    void fellSilent(ServerRecord& server, Verdict const& why, Clock::duration cost);
    /// A connection was lost with searches in flight.
    void lost(PooledSession& session, std::size_t inFlight);

    /// An open connection is given up.
    void disconnected(ServerRecord const& server, Verdict const& why);
    /// A search is sent again.
    void repeated(ServerRecord const& server, Verdict const& why);

    /// State and counts of the servers, in order.
    std::vector<ServerStatistics> servers();
    /// The number of servers; each unresolved domain counts as one.
    std::size_t serverCount() const { return m_servers.size(); }
    /// How long a caller must have waited for its timeout to count as a failure of the server: a
    /// third of the network timeout or the deadline, whichever is shorter. Less time proves
    /// nothing.
    Clock::duration proof() const;

    /// Null if no server needs TLS.
    std::shared_ptr<TlsContext> const& tls() const { return m_tls; }

private:
    friend class PoolsAtFork;
    using Idle = std::list<std::unique_ptr<PooledSession>>;

    /// Which servers may be used in one pass over the list: those that are up or due for a trial;
    /// those that fell silent and may be retried at once; those whose failures cost no time.
    enum class Among { eligible, silent, prompt };

    void inherit(Pool& before);
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
    Report report() { return Report(m_settings.observer.get(), m_totals); }
    static void publish(ServerRecord& server, Report* report = nullptr);

    Settings const& m_settings;
    std::shared_ptr<TlsContext> const m_tls;
    Totals& m_totals;
    std::atomic<std::size_t> m_waitingForRoom{0}; ///< written under m_mutex

    std::mutex m_mutex;   // guards the members below, and the guarded members of the records
    ServerList m_servers; // except its size
    Credentials m_credentials;
    Idle m_idle;                  ///< most recently used first
    std::size_t m_count = 0;      ///< sessions idle, in use and being opened
    std::size_t m_called = 0;     ///< waiters for which a session or room is reserved
    std::list<Waiter*> m_waiters; ///< in order of arrival
    unsigned long m_process = 0;  ///< count of forks
    unsigned long m_known = 0;    ///< m_process when the members above were last valid
};

} // namespace Solvane::Lookup

#endif
