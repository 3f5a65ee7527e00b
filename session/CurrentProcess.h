// Tells a process from the children that it forks.
#ifndef SOLVANE_SESSION_CURRENT_PROCESS_H
#define SOLVANE_SESSION_CURRENT_PROCESS_H

#include <solvane/ldap/Export.h>

namespace Solvane {

/// A number that a process shares with none of its ancestors: a socket that was connected under
/// another number is also some other process's.
///
/// It counts forks. The process id would not do: a child may be given that of an ancestor that is
/// gone. A child of `vfork` lives in its parent's memory, counts as its parent, and may only execute
/// another program; so may a process that the bare system call `clone`, or `_Fork`, has made.
SOLVANE_LDAP_EXPORT unsigned long currentProcess();

} // namespace Solvane

#endif
