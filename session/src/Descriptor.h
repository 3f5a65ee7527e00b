// Owns a file descriptor.
#ifndef SOLVANE_SESSION_SRC_DESCRIPTOR_H
#define SOLVANE_SESSION_SRC_DESCRIPTOR_H

#include <utility>

#include <unistd.h>

namespace Solvane::Lookup {

/// Owns a file descriptor; the destructor closes it. -1: none.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int number) : m_number(number) {}
    Descriptor(Descriptor&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(m_number, other.m_number);
        return *this;
    }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;
    ~Descriptor()
    {
        if (m_number != -1) {
            close(m_number);
        }
    }

    int number() const { return m_number; }

private:
    int m_number = -1;
};

} // namespace Solvane::Lookup

#endif
