// new and delete of the whole program. Each leads on to the one that would have been called without
// it, the C++ library's or a sanitizer's, which goes on telling new from new[].
#include "Allocations.h"

#include <algorithm>
#include <cstdlib>
#include <new>

#include <dlfcn.h>

namespace {

thread_local unsigned int t_count = 0;
thread_local bool t_isFailing = false;
thread_local unsigned int t_failing = 0; ///< t_count of the allocation that fails
thread_local SolvaneTest::Releases* t_releases = nullptr;
thread_local bool t_isInside = false; ///< the C++ library's new[] calls new, and so does delete

/// The function hidden by the program's own.
template <typename Function> Function* next(char const* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/// During its lifetime, this thread uses the real functions directly.
class Inside {
public:
    Inside() : m_before(t_isInside) { t_isInside = true; }
    ~Inside() { t_isInside = m_before; }

private:
    bool m_before;
};

void* allocate(void* (*real)(std::size_t), std::size_t size)
{
    if (t_isInside) {
        return real(size);
    }
    unsigned int const number = t_count++;
    if (t_isFailing && number == t_failing) {
        throw std::bad_alloc();
    }
    Inside const inside;
    void* const memory = real(size);
    if (t_releases != nullptr) {
        t_releases->noteAllocation(memory);
    }
    return memory;
}

template <typename... Size> void release(void (*real)(void*, Size...), void* memory, Size... size)
{
    if (t_isInside) {
        real(memory, size...);
        return;
    }
    if (t_releases != nullptr) {
        t_releases->noteRelease(memory);
    }
    Inside const inside;
    real(memory, size...);
}

} // namespace

void* operator new(std::size_t size)
{
    static auto* const real = next<void*(std::size_t)>("_Znwm");
    return allocate(real, size);
}

void* operator new[](std::size_t size)
{
    static auto* const real = next<void*(std::size_t)>("_Znam");
    return allocate(real, size);
}

void operator delete(void* memory) noexcept
{
    static auto* const real = next<void(void*)>("_ZdlPv");
    release(real, memory);
}

void operator delete(void* memory, std::size_t size) noexcept
{
    static auto* const real = next<void(void*, std::size_t)>("_ZdlPvm");
    release(real, memory, size);
}

void operator delete[](void* memory) noexcept
{
    static auto* const real = next<void(void*)>("_ZdaPv");
    release(real, memory);
}

void operator delete[](void* memory, std::size_t size) noexcept
{
    static auto* const real = next<void(void*, std::size_t)>("_ZdaPvm");
    release(real, memory, size);
}

namespace SolvaneTest {

unsigned int allocationsSoFar() { return t_count; }

FailingAllocation::FailingAllocation(unsigned int number)
{
    t_failing = t_count + number;
    t_isFailing = true;
}

FailingAllocation::~FailingAllocation() { t_isFailing = false; }

Releases::Releases()
{
    m_events.reserve(10000);
    t_releases = this;
}

Releases::~Releases() { t_releases = nullptr; }

void Releases::note(Event const& event)
{
    if (m_events.size() == m_events.capacity()) {
        std::abort(); // to grow now would be to allocate, and to forget would be to mislead
    }
    m_events.push_back(event);
}

std::vector<std::string> Releases::of(Named named) const
{
    Inside const unnoted;
    std::vector<std::string> names;
    for (Event const& event : m_events) {
        auto const known = std::find_if(named.begin(), named.end(), [&](auto const& each) {
            return each.first == event.memory;
        });
        if (known == named.end()) {
            continue;
        }
        if (event.isRelease) {
            names.push_back(known->second);
        } else {
            named.erase(known);
        }
    }
    return names;
}

} // namespace SolvaneTest
