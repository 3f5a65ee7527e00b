// Sockets: what owns their descriptors, errors of their calls, and a connected one.
#ifndef SOLVANE_SESSION_SRC_SOCKET_H
#define SOLVANE_SESSION_SRC_SOCKET_H

#include <solvane/session/Verdict.h>

#include "CurrentProcess.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>
#include <utility>

#include <sys/types.h>
#include <sys/uio.h>
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

/// Whether socket(2) failed because this process or system has run out of something.
inline bool isLack(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS;
}

/// An error in words.
inline std::string wordsOf(int error)
{
    return error == EMFILE ? "too many open files in this process" : std::strerror(error);
}

/// Result of a read or a write.
enum class Flow {
    moved,   ///< some bytes were transferred
    blocked, ///< it would block
    ended,   ///< the peer closed its side
    failed,  ///< the connection is unusable
};

/// Belongs to the process that created it: after a fork, reads and writes in the child fail and
/// nothing is sent. Not thread-safe.
class Socket {
public:
    explicit Socket(Descriptor descriptor);

    /// Reads available input, at most `room` bytes; `count` receives their number.
    Flow receive(char* bytes, std::size_t room, std::size_t& count);
    /// Writes as much as the kernel accepts. A closed peer raises no SIGPIPE.
    Flow send(char const* bytes, std::size_t length, std::size_t& count);
    /// The same for several pieces at once.
    Flow send(iovec const* pieces, std::size_t pieceCount, std::size_t& count);

    int number() const { return m_descriptor.number(); }
    bool isOurs() const { return currentProcess() == m_owner; }
    /// The errno of the last failure.
    int error() const { return m_error; }
    /// When the last byte arrived; initially the time of creation.
    Clock::time_point heardAt() const { return m_heardAt; }

private:
    Flow moved(ssize_t sent, std::size_t& count);
    Flow failed(int error);

    Descriptor m_descriptor;
    unsigned long m_owner; ///< the process that made it
    int m_error = 0;
    Clock::time_point m_heardAt;
};

} // namespace Solvane::Lookup

#endif
