// A connected TCP socket that never blocks.
#ifndef SOLVANE_SESSION_SRC_SOCKET_H
#define SOLVANE_SESSION_SRC_SOCKET_H

#include <solvane/session/Verdict.h>

#include "CurrentProcess.h"
#include "Descriptor.h"

#include <cstddef>

#include <sys/types.h>
#include <sys/uio.h>

namespace Solvane::Lookup {

/// What a read or a write came to.
enum class Flow {
    moved,   ///< some bytes
    blocked, ///< none now
    ended,   ///< the peer closed its side
    failed,  ///< the connection is of no more use
};

/// Belongs to the process that made it: in a child, reads and writes fail and nothing is sent.
class Socket {
public:
    explicit Socket(Descriptor descriptor);

    /// Reads what has come, `room` bytes at most; `count` receives how many.
    Flow receive(char* bytes, std::size_t room, std::size_t& count);
    /// Writes what the kernel takes. A closed peer raises no SIGPIPE.
    Flow send(char const* bytes, std::size_t length, std::size_t& count);
    /// The same for several pieces at once.
    Flow send(iovec const* pieces, std::size_t pieceCount, std::size_t& count);

    int number() const { return m_descriptor.number(); }
    bool isOurs() const { return currentProcess() == m_owner; }
    /// errno of the failure.
    int error() const { return m_error; }
    /// When the last byte came; at first, when it was made.
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
