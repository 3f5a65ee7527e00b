// A search of any size: entries and references one after the other, page by page.
#ifndef SOLVANE_TOOL_SEARCH_RUN_H
#define SOLVANE_TOOL_SEARCH_RUN_H

#include <solvane/session/Session.h>

#include <solvane/ldap/LDAPControls.h>
#include <solvane/ldap/LDAPResult.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <list>
#include <string>
#include <vector>

namespace Solvane::Tool {

/// What to search for.
struct SearchQuery {
    std::string base;
    int scope = 2; ///< LDAP_SCOPE_...
    int deref = 0; ///< LDAP_DEREF_...
    std::string filter;
    std::vector<std::string> attributes; ///< empty: all user attributes
    bool isTypesOnly = false;
    unsigned int sizeLimit = 0;                 ///< 0: none
    unsigned int timeLimit = 0;                 ///< seconds at the server; 0: none
    unsigned int pageSize = 0;                  ///< entries; 0: no pages
    bool sorts = false;                         ///< one of the controls is for that
    std::list<LDAPOperation::Control> controls; ///< besides that of the pages
};

/// While it exists, SIGINT, SIGTERM and SIGHUP are remembered, so that what was received can still be
/// written. A second one ends the process at once. Signals that are ignored stay so. One at a time.
class Interruption {
public:
    /// @throws Failure  "configuration": no descriptors are left
    Interruption();
    ~Interruption();
    Interruption(Interruption const&) = delete;
    Interruption& operator=(Interruption const&) = delete;

    /// The signal that came; 0: none.
    static int signal();
    /// Can be read once a signal has come.
    static int descriptor();
};

/// One search on a session. Memory: one entry, and the session's buffer. Not thread-safe.
class SearchRun {
public:
    enum class Item {
        entry,     ///< see `entry`
        reference, ///< see `references`
        end,       ///< see `verdict`
    };

    /// @param session       open; must outlive the run
    /// @param silence       longest time without a byte from the server
    /// @param beforeWaiting is called before each wait for the server
    SearchRun(Lookup::Session& session, SearchQuery query, std::chrono::milliseconds silence,
              std::function<void()> beforeWaiting);

    /// Takes the next entry or reference; blocks until it has arrived. A signal ends the search.
    Item next();

    LDAPSearchResultEntry const& entry() const { return m_entries.front(); }
    std::vector<std::string> const& references() const { return m_references; }
    /// How the search ended; good if complete, or if a signal came.
    Lookup::Verdict const& verdict() const { return m_verdict; }
    /// What the server says about the sort; 0 if it has sorted, or says nothing.
    LDAPControls::SortResult const& sortResult() const { return m_sortResult; }

private:
    void sendRequest(std::string const& cookie);
    Lookup::Session::Received receive(LDAPMessageBuffer& message, int& id);
    void takeEntry(LDAPMessageBuffer const& message);
    void takeReference(LDAPMessageBuffer const& message);
    void takeResult(LDAPMessageBuffer const& message);
    void finish(Lookup::Verdict const& verdict);
    void finishDamaged();

    Lookup::Session& m_session;
    SearchQuery m_query;
    std::chrono::milliseconds m_silence;
    std::function<void()> m_beforeWaiting;
    int m_id = 0;
    bool m_isDone = false;
    std::list<LDAPSearchResultEntry> m_entries; ///< at most one
    std::vector<std::string> m_references;
    LDAPControls::SortResult m_sortResult;
    Lookup::Verdict m_verdict;
};

} // namespace Solvane::Tool

#endif
