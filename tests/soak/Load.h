// Many threads that look up users, each in one way, and the results.
#ifndef SOLVANE_TESTS_SOAK_LOAD_H
#define SOLVANE_TESTS_SOAK_LOAD_H

#include "Journal.h"
#include "Ways.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace SolvaneTest {

/// The load. Each tide has a flood, in which all threads send lookups, and an ebb, in which only
/// one thread of each way does, so that connections become idle.
struct LoadSettings {
    unsigned int threads = 64;       ///< of all ways together
    double rate = 2000;              ///< lookups a second that the threads try to make, in a flood
    std::chrono::seconds length{60}; ///< of the load
    Clock::duration tide{};          ///< from flood to flood
    unsigned int users = 1000;       ///< that exist: user0000001@corp.test and on
    std::string base;                ///< where they are
    std::uint64_t seed = 1;
};

/// The results of one way.
struct WayReport {
    std::string name;
    unsigned int threads = 0;
    std::uint64_t found = 0;
    std::uint64_t notFound = 0;
    std::uint64_t wrong = 0;
    std::vector<std::string> wrongAnswers;           ///< the first few, in words
    std::map<std::string, std::uint64_t> errors;     ///< lookups without an answer, by their reason
    std::map<std::string, std::uint64_t> errorTexts; ///< the same in words
    std::vector<Clock::time_point> errorTimes;       ///< when they ended, as far as there was room
    Latencies latencies;                             ///< of all lookups
    std::vector<Span> stretches;                     ///< without a success of any thread
    std::vector<Span> outages;                       ///< of single threads
    std::map<std::string, unsigned long> statistics;
};

/// A way and the threads that use it.
struct Party {
    std::string name;
    std::unique_ptr<Way> way;
};

struct LoadReport {
    Span time;
    std::vector<WayReport> ways;
};

/// Runs the load on all parties at once; returns at its end.
LoadReport putLoadOn(std::vector<Party> const& parties, LoadSettings const& settings);

} // namespace SolvaneTest

#endif
