// The callback and the socket layers of a guarded session.
#include "SessionGuard.h"

#include "Process.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <new>
#include <optional>
#include <utility>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Solvane {

namespace {

constexpr ber_len_t bufferSize = 16384;

SessionGuard& guardOf(Sockbuf_IO_Desc* layer)
{
    return *static_cast<SessionGuard*>(layer->sbiod_pvt);
}

int descriptorOf(Sockbuf* socket)
{
    ber_socket_t descriptor = -1;
    ber_sockbuf_ctrl(socket, LBER_SB_OPT_GET_FD, &descriptor);
    return descriptor;
}

/// Closes a connection that is not to be used. OpenLDAP would close it as well, but keep its number,
/// and then take the session for connected.
void closeConnection(Sockbuf* socket)
{
    close(descriptorOf(socket));
    ber_socket_t none = -1;
    ber_sockbuf_ctrl(socket, LBER_SB_OPT_SET_FD, &none);
}

int rememberLayer(Sockbuf_IO_Desc* layer, void* remembered)
{
    *static_cast<Sockbuf_IO_Desc**>(remembered) = layer;
    return 0;
}

int passOn(Sockbuf_IO_Desc* layer, int option, void* argument)
{
    return LBER_SBIOD_CTRL_NEXT(layer, option, argument);
}

/// Takes the layers of a session's last connection away. OpenLDAP leaves them on the socket of the
/// next one, which would be closed once for each, and whose first bytes would meet a dead TLS layer.
bool removeLayers(Sockbuf* socket)
{
    static Sockbuf_IO top = {rememberLayer, nullptr, passOn, nullptr, nullptr, nullptr};
    Sockbuf_IO_Desc* layer = nullptr;
    if (ber_sockbuf_add_io(socket, &top, INT_MAX, static_cast<void*>(&layer)) != 0) {
        return false;
    }
    while (layer->sbiod_next != nullptr) {
        Sockbuf_IO_Desc const& next = *layer->sbiod_next;
        ber_sockbuf_remove_io(socket, next.sbiod_io, next.sbiod_level);
    }
    ber_sockbuf_remove_io(socket, &top, INT_MAX);
    return true;
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

bool isPlain(LDAPURLDesc const* server)
{
    return server != nullptr && server->lud_scheme != nullptr &&
           std::strcmp(server->lud_scheme, "ldap") == 0;
}

} // namespace

Sockbuf_IO SessionGuard::s_socketLayer = {setUp,      nullptr,     controlSocket,
                                          readSocket, writeSocket, closeSocket};
Sockbuf_IO SessionGuard::s_messageLayer = {setUp,       nullptr,      passOn,
                                           readMessage, writeMessage, nullptr};

SessionGuard::SessionGuard(unsigned int networkTimeout, unsigned long maximumMessageBytes)
    : m_callback{connected, disconnected, this}, m_networkTimeout(timeoutOf(networkTimeout).tv_sec),
      m_maximumMessageBytes(maximumMessageBytes), m_isForBind(false), m_isBinding(false),
      m_process(currentProcess()), m_isShakingHands(false), m_bufferBegin(0), m_bufferEnd(0),
      m_bufferError(0)
{
}

bool SessionGuard::isOfThisProcess() const { return m_process == currentProcess(); }

int SessionGuard::connected(LDAP*, Sockbuf* socket, LDAPURLDesc* server, sockaddr*,
                            ldap_conncb* callback)
{
    SessionGuard& guard = *static_cast<SessionGuard*>(callback->lc_arg);
    bool const mayConnect = !guard.m_isForBind || guard.m_isBinding;
    if (mayConnect && guard.install(socket, isPlain(server))) {
        return 0;
    }
    closeConnection(socket);
    return -1;
}

/// OpenLDAP goes on polling the number of a connection that ended while nothing was outstanding: the
/// session's next one would fail for it, or wait on somebody else's file.
void SessionGuard::disconnected(LDAP* session, Sockbuf* socket, ldap_conncb* callback)
{
    static_cast<SessionGuard*>(callback->lc_arg)->forgetBuffered();
    if (socket != nullptr) { // null when the session goes
        ldap_mark_select_clear(session, socket);
    }
}

bool SessionGuard::install(Sockbuf* socket, bool isPlain)
{
    // Without a network timeout, a handshake could never even begin.
    constexpr std::chrono::seconds shortestHandshake(1);
    m_process = currentProcess();
    m_isShakingHands = !isPlain;
    m_handshakeDeadline = Clock::now() + std::max(m_networkTimeout, shortestHandshake);
    forgetBuffered();
    // Without memory for it, every read goes to the socket.
    m_buffer.reset(isPlain ? new (std::nothrow) char[bufferSize] : nullptr);
    // Just above the socket and below TLS; and above TLS, below what prints LDAP messages.
    return removeLayers(socket) &&
           ber_sockbuf_ctrl(socket, LBER_SB_OPT_SET_MAX_INCOMING, &m_maximumMessageBytes) == 1 &&
           ber_sockbuf_add_io(socket, &s_socketLayer, LBER_SBIOD_LEVEL_PROVIDER + 5, this) == 0 &&
           (isPlain ||
            ber_sockbuf_add_io(socket, &s_messageLayer, LBER_SBIOD_LEVEL_APPLICATION, this) == 0);
}

int SessionGuard::awaitMessage(LDAP* session, int id, timeval timeout, LDAPMessage** message)
{
    int type = ldap_result(session, id, LDAP_MSG_ONE, &timeout, message);
    while (type == 0 && hasBuffered()) {
        timeout = {0, 0};
        type = ldap_result(session, id, LDAP_MSG_ONE, &timeout, message);
    }
    return type;
}

int SessionGuard::setUp(Sockbuf_IO_Desc* layer, void* guard)
{
    layer->sbiod_pvt = guard;
    return 0;
}

int SessionGuard::controlSocket(Sockbuf_IO_Desc* layer, int option, void* argument)
{
    SessionGuard const& guard = guardOf(layer);
    // A read of what is another process's fails at once, so nobody needs to wait for one.
    bool const isReady =
        option == LBER_SB_OPT_DATA_READY && (guard.hasBuffered() || !guard.isOfThisProcess());
    return isReady ? 1 : passOn(layer, option, argument);
}

ber_slen_t SessionGuard::readSocket(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length)
{
    SessionGuard& guard = guardOf(layer);
    if (!guard.isOfThisProcess()) {
        errno = ECONNRESET;
        return -1;
    }
    return guard.m_buffer ? guard.readAhead(layer, static_cast<char*>(bytes), length)
                          : guard.receive(layer, bytes, length);
}

/// All that was asked for as far as it has come: the caller would wait for the rest.
ber_slen_t SessionGuard::readAhead(Sockbuf_IO_Desc* layer, char* bytes, ber_len_t length)
{
    ber_len_t const taken = takeBuffered(bytes, length);
    if (taken == length) {
        return static_cast<ber_slen_t>(taken);
    }
    if (taken == 0 && m_bufferError != 0) {
        errno = std::exchange(m_bufferError, 0);
        return -1;
    }
    ber_slen_t const more = refill(layer, bytes + taken, length - taken);
    if (more >= 0 || taken == 0) {
        return static_cast<ber_slen_t>(taken) + more;
    }
    m_bufferError = wouldBlock() ? 0 : errno; // the system tells it once
    return static_cast<ber_slen_t>(taken);
}

/// Reads into the empty buffer and takes from there; what would not fit goes past it.
ber_slen_t SessionGuard::refill(Sockbuf_IO_Desc* layer, char* bytes, ber_len_t length)
{
    if (length >= bufferSize) {
        return receive(layer, bytes, length);
    }
    ber_slen_t const count = receive(layer, m_buffer.get(), bufferSize);
    if (count <= 0) {
        return count;
    }
    m_bufferBegin = 0;
    m_bufferEnd = static_cast<ber_len_t>(count);
    return static_cast<ber_slen_t>(takeBuffered(bytes, length));
}

void SessionGuard::forgetBuffered()
{
    m_bufferBegin = 0;
    m_bufferEnd = 0;
    m_bufferError = 0;
}

ber_len_t SessionGuard::takeBuffered(char* bytes, ber_len_t length)
{
    ber_len_t const count = std::min(length, m_bufferEnd - m_bufferBegin);
    std::memcpy(bytes, m_buffer.get() + m_bufferBegin, count);
    m_bufferBegin += count;
    return count;
}

ber_slen_t SessionGuard::receive(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length) const
{
    int const descriptor = descriptorOf(layer->sbiod_sb);
    for (;;) {
        ssize_t const count = recv(descriptor, bytes, length, MSG_DONTWAIT);
        if (count >= 0 || (errno != EINTR && !wouldBlock())) {
            return count;
        }
        if (errno == EINTR) {
            continue;
        }
        if (!m_isShakingHands || !isReadyBy(m_handshakeDeadline, descriptor, POLLIN)) {
            return -1;
        }
    }
}

ber_slen_t SessionGuard::writeSocket(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length)
{
    SessionGuard const& guard = guardOf(layer);
    if (!guard.isOfThisProcess()) {
        errno = ECONNRESET;
        return -1;
    }
    int const descriptor = descriptorOf(layer->sbiod_sb);
    std::optional<Clock::time_point> deadline;
    if (guard.m_isShakingHands) {
        deadline = guard.m_handshakeDeadline;
    }
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
        if (isLeftToOpenLDAP) {
            return -1;
        }
        if (!deadline) {
            deadline = Clock::now() + guard.m_networkTimeout;
        }
        if (!isReadyBy(*deadline, descriptor, POLLOUT)) {
            return -1;
        }
    }
}

/// OpenLDAP would shut the socket down before it closes the descriptor, which ends the connection for
/// every process that has one. It leaves alone what has no number any more.
int SessionGuard::closeSocket(Sockbuf_IO_Desc* layer)
{
    if (!guardOf(layer).isOfThisProcess()) {
        closeConnection(layer->sbiod_sb);
    }
    return 0;
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
