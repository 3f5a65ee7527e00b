// Counts, watches and fails allocations with new and delete.
#ifndef SOLVANE_TESTS_UNIT_ALLOCATIONS_H
#define SOLVANE_TESTS_UNIT_ALLOCATIONS_H

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

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
    /// The names of what was given back since then, in order; other memory is left out, and so is
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

} // namespace SolvaneTest

#endif
