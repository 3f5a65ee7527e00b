#ifndef SOLVART_MUTEX_H
#define SOLVART_MUTEX_H

#include <mutex>

namespace Solvane {

class Mutex {
public:
    Mutex();

private:
    friend class Synchronized;

    std::mutex m_mutex;
};

class Synchronized {
public:
    explicit Synchronized(Mutex* mutex);
    Synchronized(Synchronized const&) = delete;
    Synchronized& operator=(Synchronized const&) = delete;
    ~Synchronized();

private:
    Mutex* m_mutex;
};

} // namespace Solvane

#endif
