// What a load keeps of its lookups, in memory that is taken before it begins: when they succeeded, when
// they did not, and how long they took.
#ifndef SOLVANE_TESTS_SOAK_JOURNAL_H
#define SOLVANE_TESTS_SOAK_JOURNAL_H

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <vector>

namespace SolvaneTest {

using Clock = std::chrono::steady_clock;

/// A span of time.
struct Span {
    Clock::time_point from;
    Clock::time_point to;
};

/// The times at which any thread had a success, to the millisecond.
class SuccessTimes {
public:
    SuccessTimes(Clock::time_point start, Clock::duration length);

    /// Thread-safe. Times beyond the length are dropped.
    void add(Clock::time_point moment);
    /// The spans without a success longer than `shortest`, up to `end`.
    std::vector<Span> stretchesWithout(Clock::duration shortest, Clock::time_point end) const;

private:
    Clock::time_point const m_start;
    std::vector<std::atomic<bool>> m_slots; ///< one for each millisecond
};

/// The outages seen by one thread: each from the start of the first failed or slow lookup to the
/// end of the next good one. Not thread-safe.
class Outages {
public:
    explicit Outages(Clock::duration shortest);

    void asked(Clock::time_point start);
    void answered(Clock::time_point end);
    /// The thread pauses its lookups: an outage in progress is dropped.
    void paused() { m_isWaiting = false; }

    /// The outages longer than the shortest, as far as there was room.
    std::vector<Span> const& spans() const { return m_spans; }

private:
    static constexpr std::size_t room = 8192;

    Clock::duration const m_shortest;
    std::vector<Span> m_spans;
    Clock::time_point m_since;
    bool m_isWaiting = false;
};

/// A histogram of times with a resolution of 1/32: exact up to 63 microseconds, then 32 ranges to
/// each power of two. A process whose memory is watched must not keep every measurement.
class Latencies {
public:
    void add(std::chrono::nanoseconds time);
    void add(Latencies const& other);

    std::uint64_t count() const { return m_count; }
    /// The end of the range in which `share` (0 to 1) of all times are done. Not of no times at all.
    double milliseconds(double share) const;

private:
    static constexpr unsigned int subBits = 5;
    static constexpr std::size_t size = 64 + (40 << subBits);

    static std::size_t indexOf(std::uint64_t microseconds);
    static double endOf(std::size_t index);

    std::array<std::uint64_t, size> m_counts{};
    std::uint64_t m_count = 0;
};

} // namespace SolvaneTest

#endif
