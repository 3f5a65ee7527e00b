// Ranges and shares.
#include "Latencies.h"

#include <algorithm>
#include <cmath>

namespace SolvaneTest {

void Latencies::add(std::chrono::nanoseconds time)
{
    auto const microseconds =
        static_cast<std::uint64_t>(std::max<std::int64_t>(time.count(), 0)) / 1000;
    ++m_counts[std::min(indexOf(microseconds), size - 1)];
    ++m_count;
}

void Latencies::add(Latencies const& other)
{
    for (std::size_t index = 0; index != size; ++index) {
        m_counts[index] += other.m_counts[index];
    }
    m_count += other.m_count;
}

double Latencies::milliseconds(double share) const
{
    auto const rank = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(m_count)));
    std::uint64_t passed = 0;
    std::size_t index = 0;
    while (index != size - 1 && (passed += m_counts[index]) < rank) {
        ++index;
    }
    return endOf(index);
}

std::size_t Latencies::indexOf(std::uint64_t microseconds)
{
    if (microseconds < 64) {
        return microseconds;
    }
    unsigned int shift = 0; // such that 32 <= microseconds >> shift < 64
    while (microseconds >> shift >= 64) {
        ++shift;
    }
    return 64 + (std::size_t{shift - 1} << subBits) + (microseconds >> shift) - 32;
}

double Latencies::endOf(std::size_t index)
{
    if (index < 64) {
        return static_cast<double>(index + 1) / 1000;
    }
    std::size_t const shift = ((index - 64) >> subBits) + 1;
    std::uint64_t const leading = ((index - 64) & 31) + 32;
    return static_cast<double>((leading + 1) << shift) / 1000;
}

} // namespace SolvaneTest
