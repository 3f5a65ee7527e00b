// Many descriptors and a moment behind one descriptor.
#ifndef SOLVANE_LOOKUP_SRC_POLL_SET_H
#define SOLVANE_LOOKUP_SRC_POLL_SET_H

#include <solvane/session/Waits.h>

#include <solvane/ldap/RefCounted.h>

#include <vector>

namespace Solvane::Lookup {

/// An epoll descriptor that is readable while one of the watched descriptors is ready, from a
/// moment on, or while it is signalled. Not thread-safe.
class PollSet : public NonCopyable {
public:
    /// @throws std::system_error  the process has no descriptor left
    PollSet();
    ~PollSet();

    /// The descriptor to poll for input; stays the same.
    int descriptor() const { return m_epoll; }

    /// Makes it readable, until it is switched off.
    void signal(bool isOn);
    /// Watches what `waits` has, and nothing else.
    /// @param mayBeReused  a watched descriptor may have been closed since, and its number used
    ///                     again
    void watch(Waits& waits, bool mayBeReused);
    /// Watches no descriptor.
    void clear();
    /// In a forked child: makes a set of its own, empty and with the same descriptor. The one of
    /// the parent stays as it is.
    void renew();

private:
    struct Watched {
        int descriptor;
        short events;
    };

    void open();
    void add(int descriptor, short events) const;
    void remove(int descriptor) const;
    void replace(std::vector<Watched> wanted, bool mayBeReused);
    void setTimer(Clock::time_point moment);

    int m_epoll = -1;
    int m_event = -1;
    int m_timer = -1;
    bool m_isSignalled = false;
    Clock::time_point m_timerAt = Clock::time_point::max(); ///< when the timer expires or expired
    std::vector<Watched> m_watched;                         ///< by descriptor, each once
};

} // namespace Solvane::Lookup

#endif
