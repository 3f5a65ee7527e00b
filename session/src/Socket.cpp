// Non-blocking recv(2) and send(2).
#include "Socket.h"

#include <cerrno>

#include <sys/socket.h>

namespace Solvane::Lookup {

Socket::Socket(Descriptor descriptor)
    : m_descriptor(std::move(descriptor)), m_owner(currentProcess()), m_heardAt(Clock::now())
{
}

Flow Socket::receive(char* bytes, std::size_t room, std::size_t& count)
{
    count = 0;
    if (!isOurs()) {
        return failed(EPERM);
    }
    ssize_t received = -1;
    do {
        received = recv(number(), bytes, room, MSG_DONTWAIT);
    } while (received == -1 && errno == EINTR);
    if (received > 0) {
        m_heardAt = Clock::now();
        count = static_cast<std::size_t>(received);
        return Flow::moved;
    }
    if (received == 0) {
        return Flow::ended;
    }
    return errno == EAGAIN ? Flow::blocked : failed(errno);
}

Flow Socket::send(char const* bytes, std::size_t length, std::size_t& count)
{
    count = 0;
    if (!isOurs()) {
        return failed(EPERM);
    }
    ssize_t sent = -1;
    do {
        sent = ::send(number(), bytes, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent == -1 && errno == EINTR);
    return moved(sent, count);
}

Flow Socket::send(iovec const* pieces, std::size_t pieceCount, std::size_t& count)
{
    count = 0;
    if (!isOurs()) {
        return failed(EPERM);
    }
    msghdr message = {};
    message.msg_iov = const_cast<iovec*>(pieces);
    message.msg_iovlen = pieceCount;
    ssize_t sent = -1;
    do {
        sent = sendmsg(number(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent == -1 && errno == EINTR);
    return moved(sent, count);
}

Flow Socket::moved(ssize_t sent, std::size_t& count)
{
    if (sent >= 0) {
        count = static_cast<std::size_t>(sent);
        return Flow::moved;
    }
    return errno == EAGAIN ? Flow::blocked : failed(errno);
}

Flow Socket::failed(int error)
{
    m_error = error;
    return Flow::failed;
}

} // namespace Solvane::Lookup
