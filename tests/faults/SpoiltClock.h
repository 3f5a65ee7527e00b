// A wall clock that jumps.
#ifndef SOLVANE_TESTS_FAULTS_SPOILT_CLOCK_H
#define SOLVANE_TESTS_FAULTS_SPOILT_CLOCK_H

namespace SolvaneTest {

/// While it lives, the time of day is off; the steady clock goes on as ever. One object at a time.
class SpoiltClock {
public:
    /// @param hours      how far it is off
    /// @param alternates whether it is off at every second look only
    SpoiltClock(long hours, bool alternates);
    ~SpoiltClock();
    SpoiltClock(SpoiltClock const&) = delete;
    SpoiltClock& operator=(SpoiltClock const&) = delete;
};

} // namespace SolvaneTest

#endif
