// Locks that a child process finds free.
#ifndef SOLVANE_LDAP_SRC_FORKED_LOCKS_H
#define SOLVANE_LDAP_SRC_FORKED_LOCKS_H

#include <mutex>

namespace Solvane {

/// Makes every fork wait until the lock is free. Otherwise a lock that another thread holds stays locked in
/// the child, which does not have that thread. A thread must not wait for one of these locks while it
/// holds another.
/// @param lock  must never be destroyed
void keepFreeOverForks(std::mutex& lock);

} // namespace Solvane

#endif
