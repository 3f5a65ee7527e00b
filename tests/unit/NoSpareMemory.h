// A thread without memory for its next small objects.
#ifndef SOLVANE_TESTS_UNIT_NO_SPARE_MEMORY_H
#define SOLVANE_TESTS_UNIT_NO_SPARE_MEMORY_H

#include <solvane/ldap/ObjectMemory.h>

#include <cstddef>
#include <utility>
#include <vector>

namespace SolvaneTest {

/// Takes what this thread has kept and gives it back at the end: meanwhile an object needs an
/// allocation, but for what is given back by then.
class NoSpareMemory {
public:
    NoSpareMemory()
    {
        for (std::size_t bytes = 8; bytes <= 512; bytes += 8) {
            for (int i = 0; i < 32; ++i) {
                m_taken.emplace_back(Solvane::ObjectMemory::operator new(bytes), bytes);
            }
        }
    }
    ~NoSpareMemory()
    {
        for (auto const& [memory, bytes] : m_taken) {
            Solvane::ObjectMemory::operator delete(memory, bytes);
        }
    }
    NoSpareMemory(NoSpareMemory const&) = delete;
    NoSpareMemory& operator=(NoSpareMemory const&) = delete;

private:
    std::vector<std::pair<void*, std::size_t>> m_taken;
};

} // namespace SolvaneTest

#endif
