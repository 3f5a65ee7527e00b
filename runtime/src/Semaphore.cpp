// A counting semaphore, based on POSIX's unnamed semaphore.
#include <solvart/Semaphore.h>

#include <solvart/Exception.h>

#include <cassert>
#include <cerrno>
#include <system_error>

namespace Solvane {

Semaphore::Semaphore(unsigned int count)
{
    if (::sem_init(&m_semaphore, 0, count) != 0) {
        Exception failure("Semaphore", errno, "Semaphore.cpp", __LINE__);
        failure.stringParameter(std::generic_category().message(failure.code()));
        throw failure;
    }
}

Semaphore::~Semaphore() { ::sem_destroy(&m_semaphore); }

bool Semaphore::trywait()
{
    int rc = 0;
    do {
        rc = ::sem_trywait(&m_semaphore);
    } while (rc != 0 && errno == EINTR);
    return rc == 0;
}

void Semaphore::post()
{
    [[maybe_unused]] int const rc = ::sem_post(&m_semaphore);
    assert(rc == 0); // fails if the count exceeds SEM_VALUE_MAX
}

} // namespace Solvane
