// A connected, non-blocking stream socket.
#ifndef SOLVANE_SESSION_SRC_SOCKET_H
#define SOLVANE_SESSION_SRC_SOCKET_H

#include <solvane/session/Verdict.h>

#include "CurrentProcess.h"
#include "Descriptor.h"

#include <cstddef>

#include <sys/types.h>
#include <sys/uio.h>

namespace Solvane::Lookup {

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
