// Whether this is still the process that made something.
#ifndef SOLVANE_SESSION_SRC_FORKS_H
#define SOLVANE_SESSION_SRC_FORKS_H

#include <atomic>

namespace Solvane::Lookup {

/// Counts the forks on the way from the first process to this one: two moments with the same count
/// belong to one process. Unlike getpid(2), to ask costs no system call.
class Forks {
public:
    /// The count now; it begins to count with the first call.
    static unsigned long count();

private:
    static void counted();

    static std::atomic<unsigned long> s_count;
};

} // namespace Solvane::Lookup

#endif
