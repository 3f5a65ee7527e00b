// Tells the observer what happened under a lock, once it is unlocked.
#ifndef SOLVANE_LOOKUP_SRC_REPORT_H
#define SOLVANE_LOOKUP_SRC_REPORT_H

#include "Counters.h"

#include <solvane/lookup/Observer.h>

#include <solvane/ldap/RefCounted.h>

#include <vector>

namespace Solvane::Lookup {

/// Collects events; its destructor tells them. Make it before the lock. Not thread-safe.
class Report : public NonCopyable {
public:
    /// @param observer  null: nothing is collected
    Report(Observer* observer, Totals& totals) : m_observer(observer), m_totals(totals) {}
    ~Report();

    void add(Event::Kind kind, std::string const& server, Verdict const& why = Verdict(),
             Clock::duration backOff = Clock::duration(0));

private:
    Observer* const m_observer;
    Totals& m_totals;
    std::vector<Event> m_events;
};

} // namespace Solvane::Lookup

#endif
