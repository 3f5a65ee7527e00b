// Slots in, stretches out; times in, shares out.
#include "Journal.h"

#include <algorithm>
#include <cmath>

namespace SolvaneTest {

using std::chrono::milliseconds;

SuccessTimes::SuccessTimes(Clock::time_point start, Clock::duration length)
    : m_start(start),
      m_slots(static_cast<std::size_t>(std::chrono::ceil<milliseconds>(length).count()))
{
}

void SuccessTimes::add(Clock::time_point moment)
{
    auto const slot = std::chrono::floor<milliseconds>(moment - m_start).count();
    if (slot >= 0 && static_cast<std::size_t>(slot) < m_slots.size()) {
        m_slots[static_cast<std::size_t>(slot)].store(true, std::memory_order_relaxed);
    }
}

std::vector<Span> SuccessTimes::stretchesWithout(Clock::duration shortest,
                                                 Clock::time_point end) const
{
    std::vector<Span> stretches;
    auto last = m_start;
    auto const note = [&](Clock::time_point next) {
        if (next - last > shortest) {
            stretches.push_back({last, next});
        }
        last = next;
    };
    for (std::size_t slot = 0; slot != m_slots.size(); ++slot) {
        if (m_slots[slot].load(std::memory_order_relaxed)) {
            note(m_start + milliseconds(slot));
        }
    }
    note(end);
    return stretches;
}

Outages::Outages(Clock::duration shortest) : m_shortest(shortest) { m_spans.reserve(room); }

void Outages::asked(Clock::time_point start)
{
    if (!m_isWaiting) {
        m_since = start;
        m_isWaiting = true;
    }
}

void Outages::answered(Clock::time_point end)
{
    if (end - m_since > m_shortest && m_spans.size() < room) {
        m_spans.push_back({m_since, end});
    }
    m_isWaiting = false;
}

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
