// Work done in turn by several contenders, and how long each took: records for bench/figures.py.
#ifndef SOLVANE_BENCH_ROUNDS_H
#define SOLVANE_BENCH_ROUNDS_H

#include <ctime>
#include <functional>
#include <string>
#include <vector>

namespace SolvaneBench {

/// One way to do the work of a row.
struct Contender {
    std::string name;
    /// Does so many operations.
    std::function<void(unsigned long operations)> work;
};

/// Whose processor time counts.
enum class Cpu { process, thread };

/// Seconds on a clock of `clock_gettime`.
double secondsOn(clockid_t clock);
/// Bytes that the program has allocated and not given back.
unsigned long heapBytes();

/// Runs rows and prints a line of JSON for every turn of every contender.
class Rounds {
public:
    /// @param rounds        records of each contender
    /// @param blockSeconds  how long a contender's part of a round should take; first turns, which
    ///                      are not recorded, find out how many operations that is
    Rounds(unsigned int rounds, double blockSeconds, Cpu cpu);

    /// Lets each contender do the same number of operations in each round. A round goes in slices, a
    /// slice of each contender in turn, so that other load on the machine meets all of them alike;
    /// the order changes, so that none always comes first.
    /// @param size   what the row grows with; 0: nothing
    /// @param least  operations of a slice, where starting and ending one takes time
    void compare(std::string const& row, std::vector<Contender> const& contenders,
                 unsigned long size = 0, unsigned long least = 1) const;

    /// Prints a figure that needs no rounds.
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
