/// @file
/// A counting semaphore.
#ifndef SOLVART_SEMAPHORE_H
#define SOLVART_SEMAPHORE_H

#include <solvart/Export.h>

#include <semaphore.h>

namespace Solvane {

/// A count of tokens that threads take and give back without ever waiting.
class SOLVART_EXPORT Semaphore {
public:
    /// Starts with `count` tokens.
    /// @throws Exception  the system cannot make a semaphore of this count
    explicit Semaphore(unsigned int count);
    ~Semaphore();
    Semaphore(Semaphore const&) = delete;
    Semaphore& operator=(Semaphore const&) = delete;

    /// Takes a token if there is one; never blocks. True when a token was taken.
    bool trywait();
    /// Gives a token back. More tokens than the system counts are a programming error and end the
    /// process.
    void post();

private:
    sem_t m_semaphore;
};

} // namespace Solvane

#endif
