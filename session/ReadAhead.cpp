// A buffer between a socket and its reader.
#include "ReadAhead.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace Solvane {

namespace {

constexpr ber_len_t bufferSize = 16384;

} // namespace

ReadAhead::ReadAhead() : m_buffer(new char[bufferSize]), m_begin(0), m_end(0), m_error(0) {}

ber_slen_t ReadAhead::read(char* bytes, ber_len_t length, Receive const& receive)
{
    ber_len_t const taken = take(bytes, length);
    if (taken == length) {
        return static_cast<ber_slen_t>(taken);
    }
    if (taken == 0 && m_error != 0) {
        errno = std::exchange(m_error, 0);
        return -1;
    }
    ber_slen_t const more = refill(bytes + taken, length - taken, receive);
    if (more >= 0 || taken == 0) {
        return static_cast<ber_slen_t>(taken) + more;
    }
    m_error = errno == EAGAIN ? 0 : errno; // the system tells it once
    return static_cast<ber_slen_t>(taken);
}

/// Reads into the empty buffer and takes from there; what would not fit goes past it.
ber_slen_t ReadAhead::refill(char* bytes, ber_len_t length, Receive const& receive)
{
    if (length >= bufferSize) {
        return receive(bytes, length);
    }
    ber_slen_t const count = receive(m_buffer.get(), bufferSize);
    if (count <= 0) {
        return count;
    }
    m_begin = 0;
    m_end = static_cast<ber_len_t>(count);
    return static_cast<ber_slen_t>(take(bytes, length));
}

ber_len_t ReadAhead::take(char* bytes, ber_len_t length)
{
    ber_len_t const count = std::min(length, m_end - m_begin);
    std::memcpy(bytes, m_buffer.get() + m_begin, count);
    m_begin += count;
    return count;
}

void ReadAhead::forget()
{
    m_begin = 0;
    m_end = 0;
    m_error = 0;
}

} // namespace Solvane
