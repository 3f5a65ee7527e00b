// Owns a file descriptor.
#ifndef SOLVANE_TESTS_SUPPORT_DESCRIPTOR_H
#define SOLVANE_TESTS_SUPPORT_DESCRIPTOR_H

#include <cerrno>
#include <system_error>
#include <utility>

#include <unistd.h>

namespace SolvaneTest {

/// Returns the result of a system call; throws if it is negative.
template <typename Number> Number checked(Number result, char const* what)
{
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return result;
}

/// Owns a file descriptor; the destructor closes it.
class Descriptor {
public:
    explicit Descriptor(int number) : m_number(number) {}
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;
    ~Descriptor() { close(); }

    int number() const { return m_number; }
    void close()
    {
        if (m_number >= 0) {
            ::close(std::exchange(m_number, -1));
        }
    }

private:
    int m_number;
};

} // namespace SolvaneTest

#endif
