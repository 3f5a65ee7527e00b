// Distinguishes a process from its forked children.
#ifndef SOLVANE_LDAP_SRC_CURRENT_PROCESS_H
#define SOLVANE_LDAP_SRC_CURRENT_PROCESS_H

namespace Solvane {

/// A number that a process shares with none of its ancestors: a socket that was connected under
/// another number belongs to an ancestor, too.
///
/// It counts forks. The process id would not do: a child may get that of an ancestor that is gone,
/// and asking for it is a system call. The first call starts the count, and throws `std::bad_alloc`
/// without memory; later calls throw nothing. A child of `vfork` lives in its parent's memory,
/// counts as its parent, and may only execute another program; so may a child of the bare system
/// call `clone` or of `_Fork`.
unsigned long currentProcess();

} // namespace Solvane

#endif
