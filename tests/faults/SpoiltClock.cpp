// Replaces the C library's functions for the time of day in the whole program. As a preloaded
// library (LD_PRELOAD), it reads SOLVANE_SPOILT_HOURS.
#include "SpoiltClock.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

std::atomic<long> g_hours{0};
std::atomic<bool> g_alternates{false};
std::atomic<unsigned int> g_looks{0};

/// Seconds to add at this call.
long offset()
{
    constexpr long secondsOfAnHour = 3600;
    long const seconds = g_hours * secondsOfAnHour;
    bool const isOff = !g_alternates || g_looks++ % 2 != 0;
    return isOff ? seconds : 0;
}

int realTime(clockid_t clock, timespec* now)
{
    return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
}

[[gnu::constructor]] void readEnvironment()
{
    if (char const* const hours = std::getenv("SOLVANE_SPOILT_HOURS")) {
        g_hours = std::atol(hours);
        g_alternates = true;
    }
}

} // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* now) noexcept
{
    int const rc = realTime(clock, now);
    if (rc == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
        now->tv_sec += offset();
    }
    return rc;
}

int gettimeofday(timeval* now, void*) noexcept
{
    timespec precise = {};
    realTime(CLOCK_REALTIME, &precise);
    now->tv_sec = precise.tv_sec + offset();
    now->tv_usec = precise.tv_nsec / 1000;
    return 0;
}

time_t time(time_t* stored) noexcept
{
    timespec precise = {};
    realTime(CLOCK_REALTIME, &precise);
    time_t const now = precise.tv_sec + offset();
    if (stored != nullptr) {
        *stored = now;
    }
    return now;
}

} // extern "C"

namespace SolvaneTest {

SpoiltClock::SpoiltClock(long hours, bool alternates)
{
    g_alternates = alternates;
    g_hours = hours;
}

SpoiltClock::~SpoiltClock() { g_hours = 0; }

} // namespace SolvaneTest
