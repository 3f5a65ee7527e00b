// Hides known leaks of the library from a leak checker.
#ifndef SOLVANE_TESTS_UNIT_ACCEPTED_LEAK_H
#define SOLVANE_TESTS_UNIT_ACCEPTED_LEAK_H

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SOLVANE_TEST_HAS_LEAK_CHECKER 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define SOLVANE_TEST_HAS_LEAK_CHECKER 1
#endif

#ifdef SOLVANE_TEST_HAS_LEAK_CHECKER
#include <sanitizer/lsan_interface.h>
#endif

namespace SolvaneTest {

/// Runs `work`. Leaks of this thread during `work` are not reported.
///
/// For adapters whose constructor fails half-way: what they had built by then stays behind, which
/// is part of their description.
template <typename Work> auto leakingOnPurpose(Work&& work)
{
#ifdef SOLVANE_TEST_HAS_LEAK_CHECKER
    __lsan::ScopedDisabler const accepted;
#endif
    return work();
}

} // namespace SolvaneTest

#endif
