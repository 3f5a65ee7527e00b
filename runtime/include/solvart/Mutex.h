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

    void lock();
    void unlock();

private:
    std::mutex m_mutex;
};

/// Holds a mutex from construction to destruction; given null, it locks nothing.
class SOLVART_EXPORT Synchronized {
public:
    explicit Synchronized(Mutex* mutex);
    ~Synchronized();
    Synchronized(Synchronized const&) = delete;
    Synchronized& operator=(Synchronized const&) = delete;

private:
    Mutex* m_mutex;
};

} // namespace Solvane

#endif
