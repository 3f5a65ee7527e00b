/// @file
/// What happens to connections and servers, for logs and metrics.
#ifndef SOLVANE_LOOKUP_OBSERVER_H
#define SOLVANE_LOOKUP_OBSERVER_H

#include <solvane/session/Export.h>
#include <solvane/session/Verdict.h>

#include <chrono>
#include <cstdint>
#include <string>

namespace Solvane::Lookup {

/// Something that happened to a connection or a server. A value.
struct Event {
    /// What happened.
    enum class Kind {
        connected,          ///< a connection was opened, and bound if there is an identity
        connectFailed,      ///< a connection could not be opened
        disconnected,       ///< an open connection was lost, or given up as its server misbehaves
        backOff,            ///< a server has failed: it is skipped for `backOff`
        recovered,          ///< a server that was skipped serves again
        credentialsRefused, ///< a server refused the bind of the settings (code 49)
        repeated,           ///< a search is sent again, because of `why`
    };
    Kind kind;                            ///< what happened
    std::string server;                   ///< URI of the server concerned
    Verdict why;                          ///< the cause; good if `connected` or `recovered`
    std::chrono::milliseconds backOff{0}; ///< for how long, if `backOff`
    /// Counts the events of an `LDAPLookup` in the order in which they happened: threads may report
    /// them in another order.
    std::uint64_t number = 0;
};

/// The name of a kind of event, as "back-off".
SOLVANE_LOOKUP_EXPORT char const* name(Event::Kind kind);

/// Is told what happens. Derive from it, and set `Settings::observer`.
class SOLVANE_LOOKUP_EXPORT Observer {
public:
    Observer() = default;
    Observer(Observer const&) = delete;
    Observer& operator=(Observer const&) = delete;
    virtual ~Observer();

    /// Called in the thread in which it happens, under no lock; by several threads at the same
    /// time. The lookup waits for it. It may call `statistics`, `servers` and `reconfigure` of the
    /// `LDAPLookup`, but look nothing up. What it throws is ignored.
    virtual void happened(Event const& event) = 0;
};

} // namespace Solvane::Lookup

#endif
