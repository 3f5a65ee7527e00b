// Events, and how they reach the observer.
#include <solvane/lookup/Observer.h>

#include "Report.h"

namespace Solvane::Lookup {

char const* name(Event::Kind kind)
{
    switch (kind) {
    case Event::Kind::connected:
        return "connected";
    case Event::Kind::connectFailed:
        return "connect failed";
    case Event::Kind::disconnected:
        return "disconnected";
    case Event::Kind::backOff:
        return "back-off";
    case Event::Kind::recovered:
        return "recovered";
    case Event::Kind::credentialsRefused:
        return "credentials refused";
    case Event::Kind::repeated:
        return "repeated";
    }
    return "unknown";
}

Observer::~Observer() = default;

Report::~Report()
{
    for (Event const& event : m_events) {
        try {
            m_observer->happened(event);
        } catch (...) { // an observer's fault must not fail a lookup
        }
    }
}

void Report::add(Event::Kind kind, std::string const& server, Verdict const& why,
                 Clock::duration backOff)
{
    if (m_observer != nullptr) {
        m_events.push_back({kind, server, why,
                            std::chrono::ceil<std::chrono::milliseconds>(backOff),
                            ++m_totals.events});
    }
}

} // namespace Solvane::Lookup
