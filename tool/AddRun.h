// Pipelined adds: several in flight, reported in the order of the entries.
#ifndef SOLVANE_TOOL_ADD_RUN_H
#define SOLVANE_TOOL_ADD_RUN_H

#include "Ldif.h"
#include "Outcome.h"

#include <solvane/session/Session.h>

#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Solvane::Tool {

/// The result for one entry.
struct AddReport {
    enum class Status {
        added,
        exists,
        refused, ///< by the server, or before anything was sent
        unknown, ///< sent, but no answer came: the entry may have been added
    };

    unsigned long line = 0; ///< where its record begins
    std::string dn;
    Status status = Status::unknown;
    int code = 0;       ///< LDAP result code, or OpenLDAP's own below 0
    std::string text;   ///< cause, one line; empty if it was added
    std::string remedy; ///< empty: the remedy follows from the code
    std::string server; ///< URI; empty if nothing was sent
};

/// Sends entries over one connection at a time, with up to `window` of them in flight. An entry is
/// held back while an ancestor, or an entry of the same name, is in flight: the server may execute
/// requests in any order, and would refuse a child whose parent does not exist yet. Nothing is sent
/// twice: after a lost connection it is unknown which of the adds in flight were executed.
class AddRun {
public:
    struct Limits {
        unsigned int window = 32;            ///< adds in flight
        std::chrono::milliseconds silence{}; ///< longest time without a byte from the server
        std::chrono::milliseconds answer{};  ///< time limit for the answer to one add
        bool goesOn = false;                 ///< continue after a failure
    };
    /// Opens and binds a connection.
    /// @throws Failure  no server can be reached
    using Connect = std::function<std::unique_ptr<Lookup::Session>()>;
    /// Receives the reports, in the order of the entries.
    using Sink = std::function<void(AddReport const&)>;

    AddRun(Limits const& limits, Connect connect, Sink sink);

    /// Sends an entry; blocks while it has to be held back. Does nothing after the run was stopped.
    /// @throws Failure  no server can be reached
    void add(LdifEntry const& entry);
    /// Reports an invalid entry without sending it.
    void refuse(LdifEntry const& entry, int code, std::string const& text,
                std::string const& remedy);
    /// Blocks until the descriptor can be read, and reports the answers that arrive meanwhile.
    /// Returns false when the run was stopped.
    bool awaitInput(int descriptor);
    /// Awaits all answers.
    void finish();
    /// False after a failure, unless the run continues after failures.
    bool mayGoOn() const { return m_limits.goesOn || m_worst == Outcome::found; }
    /// The worst outcome reported so far.
    Outcome worst() const { return m_worst; }

private:
    using Clock = Lookup::Clock;
    struct Pending {
        AddReport report;
        std::string name; ///< normalized DN
        Clock::time_point expiry;
        bool isDone = false;
    };

    void connect();
    void send(LdifEntry const& entry, std::string const& name);
    void takeWhatCame();
    void awaitOne(int input = -1);
    void take(Lookup::Session::Received received, int id, LDAPMessageBuffer const& message);
    void lose(int code, std::string const& why);
    void settle(Pending& pending, int code, std::string const& text);
    void conclude(Pending& pending);
    void reportFinished();
    bool mustWait(std::string const& name) const;

    Limits m_limits;
    Connect m_connect;
    Sink m_sink;
    std::unique_ptr<Lookup::Session> m_session;
    std::list<Pending> m_pending;                           ///< in the order of the entries
    std::map<int, std::list<Pending>::iterator> m_inFlight; ///< by message id
    std::multiset<std::string> m_names;                     ///< normalized DNs of those in flight
    Clock::time_point m_owedSince; ///< since when the server owes an answer
    Outcome m_worst = Outcome::found;
};

} // namespace Solvane::Tool

#endif
