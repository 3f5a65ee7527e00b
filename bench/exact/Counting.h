// Counts of what a piece of work does, the same in every run. Two units count: one has callgrind
// count instructions, the other counts allocations and the memory that stays; a program is linked
// with either.
#ifndef SOLVANE_BENCH_EXACT_COUNTING_H
#define SOLVANE_BENCH_EXACT_COUNTING_H

#include <string>

namespace SolvaneBench {

/// While it lives, the work of this thread is counted; what several count adds up.
///
/// The clocks go on by one microsecond at each look meanwhile, so that no count depends on the time.
class Counted {
public:
    Counted();
    ~Counted();
    Counted(Counted const&) = delete;
    Counted& operator=(Counted const&) = delete;
};

/// Counts from zero again.
void forget();
/// Tells what has been counted since then, for work that was done `pieces` times.
void report(std::string const& name, unsigned int pieces);

// Between the units.

/// Stops the program's clocks, or lets them go again.
void stopClocks(bool areStopped);

} // namespace SolvaneBench

#endif
