// An open file descriptor of our own.
#ifndef SOLVANE_TESTS_SUPPORT_DESCRIPTOR_H
#define SOLVANE_TESTS_SUPPORT_DESCRIPTOR_H

#include <cerrno>
#include <system_error>
#include <utility>

#include <unistd.h>

namespace SolvaneTest {

/// The result of a system call that is negative, with errno set, when it fails.
template <typename Number> Number checked(Number result, char const* what)
{
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return result;
}

/// Closes the descriptor when it goes.
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
