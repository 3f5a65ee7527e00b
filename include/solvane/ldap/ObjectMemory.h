/// @file
/// Memory of the library's small objects.
#ifndef SOLVANE_LDAP_OBJECT_MEMORY_H
#define SOLVANE_LDAP_OBJECT_MEMORY_H

#include <solvane/ldap/Export.h>

#include <cstddef>

namespace Solvane {

/// Memory for bodies and for what counts their references: a lookup makes and destroys a dozen.
///
/// A thread keeps some of what it gives back for the next objects of that size, at most 32 of each,
/// and lets go of it when it ends. Under AddressSanitizer nothing is kept, so that it sees a use of
/// what is gone. For any thread; memory may be given back by another one than took it.
class SOLVANE_LDAP_EXPORT ObjectMemory {
public:
    /// Memory for an object of this size, aligned as `operator new` does.
    /// @throws std::bad_alloc  there is none
    static void* take(std::size_t bytes);
    /// Gives it back; null is allowed.
    /// @param bytes  as it was taken
    static void giveBack(void* memory, std::size_t bytes) noexcept;
};

} // namespace Solvane

#endif
