/// @file
/// A mutex and a scoped lock.
#ifndef SOLVART_MUTEX_H
#define SOLVART_MUTEX_H

#include <solvart/Export.h>

#include <mutex>

namespace Solvane {

/// A mutex. Not recursive.
class SOLVART_EXPORT Mutex {
public:
    Mutex() = default;
    ~Mutex() = default;
    Mutex(Mutex const&) = delete;
    Mutex& operator=(Mutex const&) = delete;

    /// Locks the mutex; blocks until it is free.
    void lock();
    /// Unlocks the mutex. Only the thread that holds it may call this.
    void unlock();

private:
    std::mutex m_mutex;
};

/// Holds a mutex from construction to destruction; does nothing for null.
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
