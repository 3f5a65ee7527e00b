// A histogram of durations in fixed memory.
#ifndef SOLVANE_TESTS_SOAK_LATENCIES_H
#define SOLVANE_TESTS_SOAK_LATENCIES_H

#include <array>
#include <chrono>
#include <cstdint>
#include <vector>

namespace SolvaneTest {

/// A histogram of times with a resolution of 1/32: exact up to 63 microseconds, then 32 ranges to
/// each power of two. A process whose memory is watched must not keep every measurement.
class Latencies {
public:
    void add(std::chrono::nanoseconds time);
    void add(Latencies const& other);

    std::uint64_t count() const { return m_count; }
    /// The end of the range in which `share` (0 to 1) of all times are done. Not of no times at
    /// all.
    double milliseconds(double share) const;

    struct Range {
        double milliseconds; ///< its end
        std::uint64_t count;
    };
    /// Those that are not empty, in ascending order.
    std::vector<Range> ranges() const;

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
