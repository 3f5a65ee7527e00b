// When lookups succeeded and when they did not, in memory that is taken before the load begins.
#ifndef SOLVANE_TESTS_SOAK_JOURNAL_H
#define SOLVANE_TESTS_SOAK_JOURNAL_H

#include <atomic>
#include <chrono>
#include <vector>

namespace SolvaneTest {

using Clock = std::chrono::steady_clock;

/// From one moment to another.
struct Span {
    Clock::time_point from;
    Clock::time_point to;
};

/// The moments at which any of several threads had a success, to the millisecond.
class SuccessTimes {
public:
    SuccessTimes(Clock::time_point start, Clock::duration length);

    /// For any thread; a moment beyond the length is not kept.
    void add(Clock::time_point moment);
    /// The times without a success that are longer than `shortest`, up to `end`.
    std::vector<Span> stretchesWithout(Clock::duration shortest, Clock::time_point end) const;

private:
    Clock::time_point const m_start;
    std::vector<std::atomic<bool>> m_slots; ///< one for each millisecond
};

/// The times in which one thread asked and got no good answer: each from the beginning of the first
/// lookup that did not succeed at once to the end of the one that did. For one thread.
class Outages {
public:
    explicit Outages(Clock::duration shortest);

    void asked(Clock::time_point start);
    void answered(Clock::time_point end);
    /// The thread asks nobody for a while: an outage that goes on is no longer watched.
    void paused() { m_isWaiting = false; }

    /// Those longer than the shortest, as far as there was room.
    std::vector<Span> const& spans() const { return m_spans; }

private:
    static constexpr std::size_t room = 8192;

    Clock::duration const m_shortest;
    std::vector<Span> m_spans;
    Clock::time_point m_since;
    bool m_isWaiting = false;
};

} // namespace SolvaneTest

#endif
