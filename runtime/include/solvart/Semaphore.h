/// @file
/// A counting semaphore.
#ifndef SOLVART_SEMAPHORE_H
#define SOLVART_SEMAPHORE_H

#include <solvart/Export.h>

#include <semaphore.h>

namespace Solvane {

/// A counting semaphore whose operations never block. Thread-safe.
class SOLVART_EXPORT Semaphore {
public:
    /// Starts with `count` tokens.
    /// @throws Exception  the system cannot create a semaphore with this count
    explicit Semaphore(unsigned int count);
    ~Semaphore();
    Semaphore(Semaphore const&) = delete;
    Semaphore& operator=(Semaphore const&) = delete;

    /// Takes a token if there is one; never blocks. Returns whether it took one.
    bool trywait();
    /// Returns a token. Aborts the process if the count exceeds the system's maximum.
    void post();

private:
    sem_t m_semaphore;
};

} // namespace Solvane

#endif
