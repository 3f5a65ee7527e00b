/// @file
/// Memory of the library's small objects.
#ifndef SOLVANE_LDAP_OBJECT_MEMORY_H
#define SOLVANE_LDAP_OBJECT_MEMORY_H

#include <solvane/ldap/Export.h>

#include <cstddef>
#include <new>

namespace Solvane {

/// Base of bodies and of what counts their references, for their memory: a lookup makes and destroys
/// a dozen.
///
/// A thread keeps some of what it gives back for the next objects of that size, at most 32 of each,
/// and lets go of it when it ends. Under AddressSanitizer nothing is kept, so that it sees a use of
/// what is gone. For any thread; memory may be given back by another one than took it. Each piece is
/// one of the global `operator new`.
class SOLVANE_LDAP_EXPORT ObjectMemory {
public:
    /// Memory for an object of this size.
    /// @throws std::bad_alloc  there is none
    // NOLINTNEXTLINE(misc-new-delete-overloads): the delete with a size is its other half
    static void* operator new(std::size_t bytes);
    /// Gives it back; null is allowed.
    static void operator delete(void* memory, std::size_t bytes) noexcept;

    // The other forms, which those two would hide from derived classes, as they are everywhere.

    /// Memory of this alignment, for derived classes that ask for more than usual; never kept.
    static void* operator new(std::size_t bytes, std::align_val_t alignment)
    {
        return ::operator new(bytes, alignment);
    }
    /// Gives such memory back.
    static void operator delete(void* memory, std::size_t, std::align_val_t alignment) noexcept
    {
        ::operator delete(memory, alignment);
    }
    /// Null where there is no memory.
    static void* operator new(std::size_t bytes, std::nothrow_t const& nothrow) noexcept
    {
        return ::operator new(bytes, nothrow);
    }
    /// Gives it back where the constructor throws.
    static void operator delete(void* memory, std::nothrow_t const& nothrow) noexcept
    {
        ::operator delete(memory, nothrow);
    }
    /// The caller's own memory.
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    /// Leaves it to the caller where the constructor throws.
    static void operator delete(void*, void*) noexcept {}

protected:
    ObjectMemory() = default;
    ~ObjectMemory() = default;
};

} // namespace Solvane

#endif
