// Bound sessions that all threads of a lookup share, as many as the settings allow.
#ifndef SOLVANE_LOOKUP_SRC_SESSION_POOL_H
#define SOLVANE_LOOKUP_SRC_SESSION_POOL_H

#include "ServerList.h"

#include <solvane/lookup/DirectorySession.h>
#include <solvane/lookup/LDAPLookup.h>

#include <atomic>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace Solvane::Lookup {

/// A session and what belongs to it. For one thread at a time.
struct PooledSession {
    PooledSession(LDAPConnection::RefServer const& server, std::size_t serverIndex,
                  std::string const& host, TlsPolicy const& tls)
        : session(server, host, tls), server(serverIndex)
    {
    }

    DirectorySession session;
    std::size_t server; ///< index in the list of servers
    /// Everything of a search but its filter; here, as attribute types are for one thread at a time.
    LDAPSearch::Parameter search;
    Clock::time_point openedAt;
    bool hasAnswered = false; ///< to anything
    bool wasUsed = false;     ///< for a search, ever
};

/// The sessions. Unlike `LDAPConnectionCache`, it bounds their number, checks a server's
/// certificate before the password is sent, and takes only a bind that was answered for one.
class SessionPool : public NonCopyable {
public:
    SessionPool(LDAPLookup::Settings const& settings, ServerList& servers);
    ~SessionPool();

    /// A session in the hands of one thread. Closed at its end, unless it was given back.
    class Lease : public NonCopyable {
    public:
        Lease() = default;
        Lease(SessionPool& pool, std::unique_ptr<PooledSession> session);
        Lease(Lease&& other) noexcept;
        Lease& operator=(Lease&& other) noexcept;
        ~Lease();

        explicit operator bool() const { return m_session != nullptr; }
        PooledSession* operator->() const { return m_session.get(); }
        /// For a session on which nothing is outstanding.
        void giveBack();
        void close();

    private:
        SessionPool* m_pool = nullptr;
        std::unique_ptr<PooledSession> m_session;
    };

    /// What the caller needs.
    struct Wish {
        Clock::time_point deadline;
        bool isNew = false;  ///< not one that was opened before
        bool mayWait = true; ///< until one comes free
    };
    /// Either a lease, or why there is none. Without both, the caller did not want to wait.
    struct Outlook {
        Lease lease;
        std::optional<Verdict> refusal;
        std::string server; ///< URI of the one that the refusal is about; may be empty
    };

    /// An idle session to the first server that is up, or a new one, or one that comes free.
    Outlook acquire(Wish const& wish);
    /// Whether a caller waits for a session, so that one that is used on and on should be given back.
    bool isWaitedFor() const { return m_waiting != 0; }
    /// A search failed on a session. Passes the server over from now on, and closes its idle sessions.
    void serverFailed(std::size_t server, Verdict const& why, Clock::duration cost);

    /// Closes the idle sessions of a pool that belongs to the parent of this process, whose servers
    /// notice nothing. A pool that was being changed when the process forked is left as it is.
    void leaveToParent();

    unsigned long openedCount() const { return m_opened; }
    unsigned long staleCount() const { return m_stale; }

private:
    using Idle = std::list<std::unique_ptr<PooledSession>>;

    /// What one walk along the servers came to.
    struct Walk {
        Lease lease;
        std::optional<Verdict> refusal;
        std::size_t refusedBy = 0;
        bool isFull = false;  ///< all sessions are in use
        bool isFinal = false; ///< no other server would do better
        bool hasTried = false;
        Clock::time_point knownBy; ///< whether another caller's trial succeeds; may be past
    };

    /// To open a session.
    struct Attempt {
        Verdict verdict;
        Clock::time_point start;
        Clock::time_point end;
        /// The server answered somebody else meanwhile: what failed is one of several that stand
        /// behind a balancer's address.
        bool isOneOfSeveral = false;
    };

    /// Which servers a walk asks: those that are not passed over; those that are, and that one caller
    /// may try all the same; or these, those that fail at once, and who is not passed over any more.
    enum class Among { eligible, dueForTrial, passedOver };

    Walk walk(Wish const& wish);
    Walk walkAlong(Wish const& wish, Among among);
    bool mayTry(std::size_t server, Among among) const;
    bool claim(std::size_t server, Among among);
    void passOver(Walk& walk, std::size_t server) const;
    void note(Walk& walk, Verdict const& why, std::size_t server) const;
    void visit(Walk& walk, std::size_t server, Wish const& wish, Among among);
    void tryServer(Walk& walk, std::size_t server, Wish const& wish);
    Attempt attemptOn(std::size_t server, Wish const& wish, Lease& lease);
    std::unique_ptr<PooledSession> takeIdle(std::size_t server);
    enum class Room { taken, none, unneeded };
    Room takeRoom(std::size_t server, Wish const& wish);
    Verdict open(std::size_t server, Wish const& wish, Lease& lease);
    Verdict authenticate(PooledSession& opened, Wish const& wish) const;
    void prepare(PooledSession& opened) const;
    Clock::duration proof() const;
    unsigned long changes() const;
    bool awaitRoom(Clock::time_point deadline, unsigned long seenChanges);
    void awaitTrial(Clock::time_point end, unsigned long seenChanges);
    void put(std::unique_ptr<PooledSession>& session);
    void freeRoom();
    void closeIdle(std::size_t server);
    void announceChange();
    void announceTrouble();
    void passOn();

    LDAPLookup::Settings const& m_settings;
    ServerList& m_servers;
    std::atomic<unsigned long> m_opened{0};
    std::atomic<unsigned long> m_stale{0};
    std::atomic<unsigned int> m_waiting{0}; ///< callers in awaitRoom; changed under m_mutex

    mutable std::mutex m_mutex; // guards everything below; no network work under it
    std::condition_variable m_changed;
    Idle m_idle;                 ///< used last in front
    unsigned int m_count = 0;    ///< idle, in use and being opened
    unsigned long m_changes = 0; ///< how often it was worth looking again
};

} // namespace Solvane::Lookup

#endif
