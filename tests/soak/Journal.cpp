// Slots in, stretches out.
#include "Journal.h"

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

} // namespace SolvaneTest
