// A mutex, based on the standard library's.
#include <solvart/Mutex.h>

namespace Solvane {

void Mutex::lock() { m_mutex.lock(); }
void Mutex::unlock() { m_mutex.unlock(); }

Synchronized::Synchronized(Mutex* mutex) : m_mutex(mutex)
{
    if (m_mutex != nullptr) {
        m_mutex->lock();
    }
}

Synchronized::~Synchronized()
{
    if (m_mutex != nullptr) {
        m_mutex->unlock();
    }
}

} // namespace Solvane
