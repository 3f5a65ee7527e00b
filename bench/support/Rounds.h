// Measures several contenders in turn; prints records for bench/figures.py.
#ifndef SOLVANE_BENCH_ROUNDS_H
#define SOLVANE_BENCH_ROUNDS_H

#include <ctime>
#include <functional>
#include <string>
#include <vector>

namespace SolvaneBench {

/// A contender: one way to do the work of a row.
struct Contender {
    std::string name;
    /// Does this number of operations.
    std::function<void(unsigned long operations)> work;
    /// Makes what that many operations need; not measured. Empty: nothing.
    std::function<void(unsigned long operations)> prepare = {};
};

/// Whose processor time counts.
enum class Cpu { process, thread };

/// Seconds on a clock of `clock_gettime`.
double secondsOn(clockid_t clock);
/// Bytes that the program has allocated and not freed.
unsigned long heapBytes();

/// Runs rows and prints a line of JSON for each turn of each contender.
class Rounds {
public:
    /// @param rounds        records of each contender
    /// @param blockSeconds  intended duration of a contender's part of a round; unrecorded first turns
    ///                      find the number of operations for it
    Rounds(unsigned int rounds, double blockSeconds, Cpu cpu);

    /// Lets each contender do the same number of operations in each round. A round consists of slices,
    /// one of each contender in turn, so that other load on the machine affects all of them equally;
    /// the order of contenders changes.
    /// @param size   the size of the row; 0 for none
    /// @param least  minimum operations of a slice, if starting and ending one takes time
    void compare(std::string const& row, std::vector<Contender> const& contenders,
                 unsigned long size = 0, unsigned long least = 1) const;

    /// Prints a figure that does not need rounds.
    static void note(std::string const& row, std::string const& contender, std::string const& what,
                     double value, unsigned long size = 0);

private:
    struct Time {
        double seconds = 0;
        double cpu = 0;
    };

    unsigned long operationsOfABlock(Contender const& contender) const;
    Time timeOf(Contender const& contender, unsigned long operations) const;

    unsigned int m_rounds;
    double m_blockSeconds;
    clockid_t m_cpuClock;
};

} // namespace SolvaneBench

#endif
