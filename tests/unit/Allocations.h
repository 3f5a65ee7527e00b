// Counts, watches and fails allocations with new and delete, and hides known leaks from a leak
// checker.
#ifndef SOLVANE_TESTS_UNIT_ALLOCATIONS_H
#define SOLVANE_TESTS_UNIT_ALLOCATIONS_H

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

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

/// The number of allocations of this thread during `work`.
template <typename Work> unsigned int allocationsOf(Work&& work);

/// While it lives, one allocation of this thread fails, the first one being number 0; one object at
/// a time.
class FailingAllocation {
public:
    explicit FailingAllocation(unsigned int number);
    ~FailingAllocation();
    FailingAllocation(FailingAllocation const&) = delete;
    FailingAllocation& operator=(FailingAllocation const&) = delete;
};

/// During its lifetime, records the order in which this thread frees memory; one object at a time.
class Releases {
public:
    using Named = std::vector<std::pair<void const*, std::string>>;

    Releases();
    ~Releases();
    Releases(Releases const&) = delete;
    Releases& operator=(Releases const&) = delete;

    /// Forgets what was noted so far.
    void forget() { m_events.clear(); }
    /// The names of what was freed since then, in order; other memory is left out, and so is
    /// what became of memory that was allocated anew.
    std::vector<std::string> of(Named named) const;

    // For new and delete.
    void noteAllocation(void const* memory) { note({memory, false}); }
    void noteRelease(void const* memory) { note({memory, true}); }

private:
    struct Event {
        void const* memory;
        bool isRelease;
    };

    void note(Event const& event);

    std::vector<Event> m_events; // never grows while it is watching
};

// For the template.
unsigned int allocationsSoFar();

template <typename Work> unsigned int allocationsOf(Work&& work)
{
    unsigned int const before = allocationsSoFar();
    std::forward<Work>(work)();
    return allocationsSoFar() - before;
}

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
