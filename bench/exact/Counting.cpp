// The program's clocks, which replace the C library's, and both ways to count.
#include "Counting.h"

#ifdef COUNTS_INSTRUCTIONS
#include <valgrind/callgrind.h>
#endif

#include <cstddef>
#include <cstdio>
#include <ctime>

#include <malloc.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

thread_local bool t_areStopped = false;
long g_looks = 0; // used only by the counting thread

timespec look(clockid_t clock)
{
    timespec now = {};
    if (t_areStopped) {
        constexpr time_t aMomentIn2023 = 1700000000;
        constexpr long aSecond = 1000000;
        ++g_looks;
        now = {aMomentIn2023 + g_looks / aSecond, g_looks % aSecond * 1000};
    } else {
        syscall(SYS_clock_gettime, clock, &now);
    }
    return now;
}

} // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* now)
{
    *now = look(clock);
    return 0;
}

int gettimeofday(timeval* now, void*)
{
    timespec const seen = look(CLOCK_REALTIME);
    *now = {seen.tv_sec, seen.tv_nsec / 1000};
    return 0;
}

time_t time(time_t* now)
{
    time_t const seen = look(CLOCK_REALTIME).tv_sec;
    if (now != nullptr) {
        *now = seen;
    }
    return seen;
}
}

void SolvaneBench::stopClocks(bool areStopped) { t_areStopped = areStopped; }

#ifdef COUNTS_INSTRUCTIONS

// By callgrind. A report is one of its output files, named in its "Trigger".
namespace SolvaneBench {

Counted::Counted()
{
    stopClocks(true);
    CALLGRIND_TOGGLE_COLLECT;
}

Counted::~Counted()
{
    CALLGRIND_TOGGLE_COLLECT;
    stopClocks(false);
}

void forget() { CALLGRIND_ZERO_STATS; }

void report(std::string const& name, unsigned int pieces)
{
    std::string const label = name + '/' + std::to_string(pieces);
    CALLGRIND_DUMP_STATS_AT(label.c_str());
}

} // namespace SolvaneBench

#else

// Allocations, by functions that replace the C library's and call them.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void __libc_free(void* memory);
}

namespace {

thread_local bool t_isCounting = false;
unsigned long g_allocations = 0; // used only by the counting thread
long g_keptBytes = 0;

/// Adds or subtracts the heap memory of an allocation: its bytes and its header.
void account(void* memory, int sign)
{
    if (t_isCounting && memory != nullptr) {
        g_keptBytes += sign * static_cast<long>(malloc_usable_size(memory) + sizeof(std::size_t));
    }
}

void* allocated(void* memory)
{
    g_allocations += t_isCounting ? 1U : 0U;
    account(memory, 1);
    return memory;
}

} // namespace

extern "C" {

void* malloc(std::size_t size) { return allocated(__libc_malloc(size)); }

void* calloc(std::size_t count, std::size_t size) { return allocated(__libc_calloc(count, size)); }

void* realloc(void* memory, std::size_t size)
{
    account(memory, -1);
    return allocated(__libc_realloc(memory, size));
}

void free(void* memory)
{
    account(memory, -1);
    __libc_free(memory);
}
}

namespace SolvaneBench {

Counted::Counted()
{
    stopClocks(true);
    t_isCounting = true;
}

Counted::~Counted()
{
    t_isCounting = false;
    stopClocks(false);
}

void forget()
{
    g_allocations = 0;
    g_keptBytes = 0;
}

void report(std::string const& name, unsigned int pieces)
{
    std::printf("%s allocations %.3f\n", name.c_str(), static_cast<double>(g_allocations) / pieces);
    std::printf("%s memory %.3f\n", name.c_str(), static_cast<double>(g_keptBytes) / pieces);
}

} // namespace SolvaneBench

#endif
