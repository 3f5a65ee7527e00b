// Keeps the locks of Cyrus SASL and Kerberos free in a forked child.
#ifndef SOLVANE_SESSION_SRC_SASL_AT_FORK_H
#define SOLVANE_SESSION_SRC_SASL_AT_FORK_H

#include <solvane/ldap/RefCounted.h>

namespace Solvane::Lookup {

/// Both libraries have locks of their own, and no handlers at a fork: a child forked while another
/// thread is inside would wait for them for ever. So a fork waits until no thread is inside.
/// Thread-safe.
class SaslAtFork {
public:
    /// To be held during a call of Cyrus SASL. Any number of threads may hold one, but a thread only
    /// one.
    class Guard : public NonCopyable {
    public:
        Guard();
        ~Guard();
    };
};

} // namespace Solvane::Lookup

#endif
