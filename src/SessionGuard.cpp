// The callback and the socket layers of a guarded session.
#include "SessionGuard.h"

#include <cerrno>

#include <poll.h>
#include <sys/socket.h>

namespace Solvane {

namespace {

SessionGuard& guardOf(Sockbuf_IO_Desc* layer)
{
    return *static_cast<SessionGuard*>(layer->sbiod_pvt);
}

int descriptorOf(Sockbuf_IO_Desc* layer)
{
    ber_socket_t descriptor = -1;
    ber_sockbuf_ctrl(layer->sbiod_sb, LBER_SB_OPT_GET_FD, &descriptor);
    return descriptor;
}

bool wouldBlock() { return errno == EAGAIN; } // EWOULDBLOCK is the same number on Linux

/// Waits until the socket can be read or written. False, with errno set, when the time is over.
bool isReadyBy(std::chrono::steady_clock::time_point deadline, int descriptor, short events)
{
    for (;;) {
        auto const left = std::chrono::ceil<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            errno = ETIMEDOUT;
            return false;
        }
        pollfd waited = {descriptor, events, 0};
        int const ready = poll(&waited, 1, static_cast<int>(left.count()));
        if (ready > 0) {
            return true;
        }
        if (ready < 0 && errno != EINTR) {
            return false;
        }
    }
}

} // namespace

Sockbuf_IO SessionGuard::s_socketLayer = {setUp,      nullptr,     control,
                                          readSocket, writeSocket, nullptr};
Sockbuf_IO SessionGuard::s_messageLayer = {setUp,       nullptr,      control,
                                           readMessage, writeMessage, nullptr};

SessionGuard::SessionGuard(unsigned int networkTimeout, unsigned long maximumMessageBytes)
    : m_callback{connected, disconnected, this}, m_networkTimeout(timeoutOf(networkTimeout).tv_sec),
      m_maximumMessageBytes(maximumMessageBytes), m_isForBind(false), m_isBinding(false),
      m_isShakingHands(false)
{
}

int SessionGuard::connected(LDAP*, Sockbuf* socket, LDAPURLDesc*, sockaddr*, ldap_conncb* callback)
{
    SessionGuard& guard = *static_cast<SessionGuard*>(callback->lc_arg);
    if (guard.m_isForBind && !guard.m_isBinding) {
        return -1;
    }
    return guard.install(socket);
}

// OpenLDAP calls it without looking; there is nothing to undo, as the layers go with the socket.
void SessionGuard::disconnected(LDAP*, Sockbuf*, ldap_conncb*) {}

int SessionGuard::install(Sockbuf* socket)
{
    m_isShakingHands = true;
    m_handshakeDeadline = Clock::now() + m_networkTimeout;
    // Just above the socket and below TLS; and above TLS, below what prints LDAP messages.
    bool const installed =
        ber_sockbuf_ctrl(socket, LBER_SB_OPT_SET_MAX_INCOMING, &m_maximumMessageBytes) == 1 &&
        ber_sockbuf_add_io(socket, &s_socketLayer, LBER_SBIOD_LEVEL_PROVIDER + 5, this) == 0 &&
        ber_sockbuf_add_io(socket, &s_messageLayer, LBER_SBIOD_LEVEL_APPLICATION, this) == 0;
    return installed ? 0 : -1;
}

int SessionGuard::setUp(Sockbuf_IO_Desc* layer, void* guard)
{
    layer->sbiod_pvt = guard;
    return 0;
}

int SessionGuard::control(Sockbuf_IO_Desc* layer, int option, void* argument)
{
    return LBER_SBIOD_CTRL_NEXT(layer, option, argument);
}

ber_slen_t SessionGuard::readSocket(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length)
{
    SessionGuard const& guard = guardOf(layer);
    int const descriptor = descriptorOf(layer);
    for (;;) {
        ssize_t const count = recv(descriptor, bytes, length, MSG_DONTWAIT);
        if (count >= 0 || (errno != EINTR && !wouldBlock())) {
            return count;
        }
        if (errno == EINTR) {
            continue;
        }
        if (!guard.m_isShakingHands || !isReadyBy(guard.m_handshakeDeadline, descriptor, POLLIN)) {
            return -1;
        }
    }
}

ber_slen_t SessionGuard::writeSocket(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length)
{
    SessionGuard const& guard = guardOf(layer);
    int const descriptor = descriptorOf(layer);
    Clock::time_point const deadline =
        guard.m_isShakingHands ? guard.m_handshakeDeadline : Clock::now() + guard.m_networkTimeout;
    for (;;) {
        ssize_t const count = send(descriptor, bytes, length, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count >= 0 || (errno != EINTR && !wouldBlock())) {
            return count;
        }
        if (errno == EINTR) {
            continue;
        }
        // Without a network timeout the socket may still be connecting; OpenLDAP sends later.
        bool const isLeftToOpenLDAP =
            guard.m_networkTimeout.count() == 0 && !guard.m_isShakingHands;
        if (isLeftToOpenLDAP || !isReadyBy(deadline, descriptor, POLLOUT)) {
            return -1;
        }
    }
}

ber_slen_t SessionGuard::readMessage(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length)
{
    guardOf(layer).m_isShakingHands = false;
    return LBER_SBIOD_READ_NEXT(layer, bytes, length);
}

ber_slen_t SessionGuard::writeMessage(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length)
{
    guardOf(layer).m_isShakingHands = false;
    return LBER_SBIOD_WRITE_NEXT(layer, bytes, length);
}

} // namespace Solvane
