// A wall clock that jumps.
#ifndef SOLVANE_TESTS_FAULTS_SPOILT_CLOCK_H
#define SOLVANE_TESTS_FAULTS_SPOILT_CLOCK_H

namespace SolvaneTest {

/// During its lifetime, the time of day is wrong; the steady clock is not affected. One object at a
/// time.
class SpoiltClock {
public:
    /// @param hours      the offset
    /// @param alternates whether the offset applies only to every second call
    SpoiltClock(long hours, bool alternates);
    ~SpoiltClock();
    SpoiltClock(SpoiltClock const&) = delete;
    SpoiltClock& operator=(SpoiltClock const&) = delete;
};

} // namespace SolvaneTest

#endif
