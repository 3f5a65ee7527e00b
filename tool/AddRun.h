// Adds in flight: sent ahead of their answers, reported in the order of the entries.
#ifndef SOLVANE_TOOL_ADD_RUN_H
#define SOLVANE_TOOL_ADD_RUN_H

#include "LdifReader.h"
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

/// What became of one entry.
struct AddReport {
    enum class Status {
        added,
        exists,
        refused, ///< by the server, or before it was asked
        unknown, ///< it was sent, and no answer came: it may have been added
    };

    unsigned long line = 0; ///< of its record
    std::string dn;
    Status status = Status::unknown;
    int code = 0;       ///< LDAP result code, or OpenLDAP's own below 0
    std::string text;   ///< why, in one line; empty where it was added
    std::string remedy; ///< where the code does not tell it
    std::string server; ///< URI; empty: none was asked
};

/// Sends entries over one connection at a time, up to a number of them ahead of their answers. An
/// entry waits for the answer to one above it, and to one of the same name. Nothing is sent twice.
class AddRun {
public:
    struct Limits {
        unsigned int window = 32;            ///< adds in flight
        std::chrono::milliseconds silence{}; ///< for the server to say nothing at all
        std::chrono::milliseconds answer{};  ///< for one entry to be answered
        bool goesOn = false;                 ///< behind a failure
    };
    /// Opens a connection that is ready for adds, or throws a Failure.
    using Connect = std::function<std::unique_ptr<Lookup::Session>()>;
    /// Takes the reports, in the order of the entries.
    using Sink = std::function<void(AddReport const&)>;

    AddRun(Limits const& limits, Connect connect, Sink sink);

    /// Sends an entry as soon as it may be; does nothing once the run is to stop.
    /// @throws Failure  no server can be reached
    void add(LdifEntry const& entry);
    /// Reports an entry that is not sent.
    void refuse(LdifEntry const& entry, int code, std::string const& text,
                std::string const& remedy);
    /// Awaits all answers.
    void finish();
    /// False where something failed, unless failures do not count.
    bool mayGoOn() const { return m_limits.goesOn || m_worst == Outcome::found; }
    /// The worst of what was reported.
    Outcome worst() const { return m_worst; }

private:
    using Clock = Lookup::Clock;
    struct Pending {
        AddReport report;
        std::string name; ///< by which entries are compared
        Clock::time_point expiry;
        bool isDone = false;
    };

    void connect();
    void send(LdifEntry const& entry, std::string const& name);
    void takeWhatCame();
    void awaitOne();
    void take(Lookup::Session::Received received, int id, LDAPMessageBuffer const& message);
    void lose(int code, std::string const& why);
    void settle(Pending& pending, int code, std::string const& text);
    void conclude(Pending& pending);
    void reportFinished();
    bool mustWait(std::vector<std::string> const& names) const;

    Limits m_limits;
    Connect m_connect;
    Sink m_sink;
    std::unique_ptr<Lookup::Session> m_session;
    std::list<Pending> m_pending;                           ///< in the order of the entries
    std::map<int, std::list<Pending>::iterator> m_inFlight; ///< by message id
    std::multiset<std::string> m_names;                     ///< of those in flight
    Clock::time_point m_owedSince; ///< the server has something to answer since then
    Outcome m_worst = Outcome::found;
};

} // namespace Solvane::Tool

#endif
