// Counts of a piece of work, which are the same in every run. There are two implementations: one counts
// instructions with callgrind, the other allocations and the memory in use. COUNTS_INSTRUCTIONS chooses.
#ifndef SOLVANE_BENCH_EXACT_COUNTING_H
#define SOLVANE_BENCH_EXACT_COUNTING_H

#include <string>

namespace SolvaneBench {

/// Counts the work of this thread during its lifetime; several objects add up.
///
/// Meanwhile each read of a clock advances it by one microsecond, so that no count depends on the time.
class Counted {
public:
    Counted();
    ~Counted();
    Counted(Counted const&) = delete;
    Counted& operator=(Counted const&) = delete;
};

/// Resets the counts.
void forget();
/// Prints the counts since then, for work that was done `pieces` times.
void report(std::string const& name, unsigned int pieces);

// Internal.

/// Stops or starts the program's clocks.
void stopClocks(bool areStopped);

} // namespace SolvaneBench

#endif
