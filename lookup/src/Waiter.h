// A place in the queue for sessions, of a caller that must not block.
#ifndef SOLVANE_LOOKUP_SRC_WAITER_H
#define SOLVANE_LOOKUP_SRC_WAITER_H

#include <solvane/ldap/RefCounted.h>

namespace Solvane::Lookup {

/// What a caller polls while it waits: readable when it is worth asking the pool again. The
/// descriptor is made when it is needed first, which is when all sessions are in use.
class Waiter : public NonCopyable {
public:
    Waiter() = default;
    ~Waiter();

    /// Whether it is in the pool's queue, to be woken.
    bool isQueued() const { return m_isRegistered; }
    /// To poll; -1 before the first wait, or if the process has no descriptor left.
    int descriptor() const { return m_descriptor; }

private:
    friend class Pool;

    void open();
    void shut();
    void wake() const;
    void reset() const;

    int m_descriptor = -1;
    bool m_isRegistered = false; ///< known to the pool; only the caller reads and writes it

    // Guarded by the pool's mutex.
    bool m_wantsRoom = false;    ///< otherwise news of a server or of the credentials
    bool m_isCalled = false;     ///< a session or the room for one is reserved for it
    unsigned long m_process = 0; ///< the pool's count of forks when it was registered
};

} // namespace Solvane::Lookup

#endif
