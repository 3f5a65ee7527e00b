/// @file
/// Mutual exclusion and the scoped lock over it.
#ifndef SOLVART_MUTEX_H
#define SOLVART_MUTEX_H

#include <solvart/Export.h>

#include <mutex>

namespace Solvane {

/// A lock that one thread holds at a time. Not recursive.
class SOLVART_EXPORT Mutex {
public:
    Mutex() = default;
    ~Mutex() = default;
    Mutex(Mutex const&) = delete;
    Mutex& operator=(Mutex const&) = delete;

    /// Waits until it is free, and holds it.
    void lock();
    /// Lets go of it; by the thread that holds it.
    void unlock();

private:
    std::mutex m_mutex;
};

/// Holds a mutex from construction to destruction; given null, it locks nothing.
class SOLVART_EXPORT Synchronized {
public:
    /// Locks `mutex`, which must outlive this object.
    explicit Synchronized(Mutex* mutex);
    ~Synchronized();
    Synchronized(Synchronized const&) = delete;
    Synchronized& operator=(Synchronized const&) = delete;

private:
    Mutex* m_mutex;
};

} // namespace Solvane

#endif
