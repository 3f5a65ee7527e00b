// An eventfd, created on demand.
#include "Waiter.h"

#include <cerrno>
#include <new>

#include <sys/eventfd.h>
#include <unistd.h>

namespace Solvane::Lookup {

Waiter::~Waiter() { shut(); }

void Waiter::open()
{
    if (m_descriptor == -1) {
        m_descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    }
}

void Waiter::shut()
{
    if (m_descriptor != -1) {
        close(m_descriptor);
        m_descriptor = -1;
    }
}

void Waiter::wake() const
{
    if (m_descriptor != -1) {
        (void)eventfd_write(m_descriptor, 1);
    }
}

void Waiter::reset() const
{
    eventfd_t value = 0;
    if (m_descriptor != -1) {
        (void)eventfd_read(m_descriptor, &value);
    }
}

} // namespace Solvane::Lookup
