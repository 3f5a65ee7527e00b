// connect(2) to AF_UNIX.
#include "PathConnector.h"

#include <solvane/session/PlainText.h>

#include "SocketErrors.h"

#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>

namespace Solvane::Lookup {

namespace {

constexpr std::chrono::milliseconds pause(10); ///< before the next attempt while the queue is full

} // namespace

PathConnector::PathConnector(std::string path) : m_path(std::move(path)), m_nextAt(Clock::now()) {}

void PathConnector::advance()
{
    if (isSettled() || Clock::now() < m_nextAt) {
        return;
    }
    if (m_socket.number() == -1) {
        m_socket = Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    }
    if (m_socket.number() == -1) {
        m_error = errno;
        return;
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    m_path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(m_socket.number(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        m_isConnected = true;
    } else if (errno == EAGAIN || errno == EINTR) {
        m_nextAt = Clock::now() + pause;
    } else {
        m_error = errno;
    }
}

std::string PathConnector::failure() const
{
    return oneLine(m_path) + ": " +
           (m_error == 0 ? "the server accepts no connection" : wordsOf(m_error));
}

bool PathConnector::lacksSocket() const { return m_socket.number() == -1 && isLack(m_error); }

} // namespace Solvane::Lookup
