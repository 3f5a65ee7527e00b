// A non-blocking caller's place in the pool's queue.
#ifndef SOLVANE_LOOKUP_SRC_WAITER_H
#define SOLVANE_LOOKUP_SRC_WAITER_H

#include <solvane/ldap/RefCounted.h>

namespace Solvane::Lookup {

/// Its descriptor becomes readable when the caller should ask the pool again. It is created at the
/// first wait, so callers that never wait need none. Not thread-safe.
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
    bool m_isRegistered = false; ///< known to the pool; accessed only by the caller

    // Guarded by the pool's mutex.
    bool m_wantsRoom = false;    ///< waits for room; else for a server's or the credentials' state
    bool m_isCalled = false;     ///< a session or room is reserved for it
    unsigned long m_process = 0; ///< the pool's count of forks at registration
};

} // namespace Solvane::Lookup

#endif
