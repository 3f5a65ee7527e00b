// The callback and the two layers of a guarded connection.
#include "SocketGuard.h"

#include "CurrentProcess.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

// Exported by libldap, declared in no installed header.
extern "C" void ldap_mark_select_clear(LDAP* session, Sockbuf* socket);

namespace Solvane {

namespace {

/// Next to the socket, below any layer of a caller's callback. All layers below are OpenLDAP's.
constexpr int socketLevel = LBER_SBIOD_LEVEL_PROVIDER + 1;
/// Above TLS and SASL, below OpenLDAP's debug layer for messages.
constexpr int messageLevel = LBER_SBIOD_LEVEL_APPLICATION + 1;

SocketGuard& guardOf(Sockbuf_IO_Desc* layer)
{
    return *static_cast<SocketGuard*>(layer->sbiod_pvt);
}

int descriptorOf(Sockbuf* socket)
{
    ber_socket_t descriptor = -1;
    ber_sockbuf_ctrl(socket, LBER_SB_OPT_GET_FD, &descriptor);
    return descriptor;
}

enum class Ownership { own, shared };

/// Closes a connection; a shared one stays open in the parent process. Also removes the descriptor
/// from the Sockbuf. Otherwise OpenLDAP would shut it down and close it again, once for each layer
/// left by earlier connections, when the same number may already belong to another file.
void closeConnection(Sockbuf* socket, Ownership ownership)
{
    int const descriptor = descriptorOf(socket);
    if (descriptor < 0) {
        return;
    }
    if (ownership == Ownership::own) {
        shutdown(descriptor, SHUT_RDWR);
    }
    close(descriptor);
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

/// Whether this layer or one below it encrypts.
bool hasTls(Sockbuf_IO_Desc* layer)
{
    void* state = nullptr;
    return layer != nullptr &&
           layer->sbiod_io->sbi_ctrl(layer, LBER_SB_OPT_GET_SSL, static_cast<void*>(&state)) == 1;
}

/// Removes the TLS layer of the previous connection. OpenLDAP leaves it on the Sockbuf, so the
/// first bytes of the new connection would go through a finished TLS session. False: out of memory.
bool removeDeadTls(Sockbuf* socket)
{
    static Sockbuf_IO probe = {rememberLayer, nullptr, passOn, nullptr, nullptr, nullptr};
    Sockbuf_IO_Desc* layer = nullptr;
    if (ber_sockbuf_add_io(socket, &probe, INT_MAX, static_cast<void*>(&layer)) != 0) {
        return false;
    }
    while (hasTls(layer) && hasTls(layer->sbiod_next)) {
        layer = layer->sbiod_next;
    }
    if (hasTls(layer)) {
        ber_sockbuf_remove_io(socket, layer->sbiod_io, layer->sbiod_level);
    }
    ber_sockbuf_remove_io(socket, &probe, INT_MAX);
    return true;
}

bool wouldBlock() { return errno == EAGAIN; } // EWOULDBLOCK is the same number on Linux

/// Waits until the socket is ready for `events`. False, with errno set, on timeout or error.
bool isReadyBy(SocketGuard::Clock::time_point deadline, int descriptor, short events)
{
    for (;;) {
        auto const left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - SocketGuard::Clock::now());
        if (left.count() <= 0) {
            errno = ETIMEDOUT;
            return false;
        }
        pollfd waited = {descriptor, events, 0};
        int const ready =
            poll(&waited, 1, static_cast<int>(std::min<long long>(left.count(), INT_MAX)));
        if (ready > 0) {
            return true;
        }
        if (ready < 0 && errno != EINTR) {
            return false;
        }
    }
}

} // namespace

/// Marks the time in which OpenLDAP reads or writes LDAP. Socket operations outside of it belong to
/// a TLS handshake or to close_notify.
class SocketGuard::MessageScope : public NonCopyable {
public:
    explicit MessageScope(SocketGuard& guard) : m_guard(guard)
    {
        m_guard.m_isInMessage = true;
        m_guard.m_emptyReads = 0;
        m_guard.m_handshakeDeadline.reset();
    }
    ~MessageScope() { m_guard.m_isInMessage = false; }

private:
    SocketGuard& m_guard;
};

Sockbuf_IO SocketGuard::s_socketLayer = {setUp,      removeSocket, controlSocket,
                                         readSocket, writeSocket,  closeSocket};
Sockbuf_IO SocketGuard::s_messageLayer = {setUp,       nullptr,      controlMessage,
                                          readMessage, writeMessage, nullptr};

SocketGuard::SocketGuard(std::chrono::milliseconds networkTimeout,
                         unsigned long maximumMessageBytes)
    : m_callback{connected, disconnected, this}, m_networkTimeout(networkTimeout),
      m_maximumMessageBytes(maximumMessageBytes), m_connectsItself(true), m_isBinding(false),
      m_connectsNoMore(false), m_isSecret(false), m_socket(nullptr), m_process(currentProcess()),
      m_error(0), m_hasSent(false), m_isInMessage(false), m_emptyReads(0), m_unheeded(0)
{
}

// Connections

int SocketGuard::connected(LDAP*, Sockbuf* socket, LDAPURLDesc*, sockaddr*, ldap_conncb* callback)
{
    SocketGuard& guard = *static_cast<SocketGuard*>(callback->lc_arg);
    bool const mayConnect =
        !guard.m_connectsNoMore && (guard.m_connectsItself || guard.m_isBinding);
    if (mayConnect && guard.takeOver(socket)) {
        return 0;
    }
    // OpenLDAP would close it too, but keep its number and treat the session as connected.
    closeConnection(socket, Ownership::own);
    return -1;
}

/// OpenLDAP keeps polling the descriptor of a connection that ended while no request was pending.
/// The next connection of the session would fail because of it, or wait on an unrelated file.
void SocketGuard::disconnected(LDAP* session, Sockbuf* socket, ldap_conncb*)
{
    if (socket != nullptr) { // null when the session is destroyed
        ldap_mark_select_clear(session, socket);
    }
}

bool SocketGuard::takeOver(Sockbuf* socket)
{
    ber_sockbuf_remove_io(socket, &s_messageLayer, messageLevel);
    ber_sockbuf_remove_io(socket, &s_socketLayer, socketLevel);
    m_socket = socket;
    m_process = currentProcess();
    m_error = 0;
    m_hasSent = false;
    m_unheeded = 0;
    m_handshakeDeadline.reset();
    return removeDeadTls(socket) &&
           ber_sockbuf_ctrl(socket, LBER_SB_OPT_SET_MAX_INCOMING, &m_maximumMessageBytes) == 1 &&
           ber_sockbuf_add_io(socket, &s_socketLayer, socketLevel, this) == 0 &&
           ber_sockbuf_add_io(socket, &s_messageLayer, messageLevel, this) == 0;
}

bool SocketGuard::isUsable() const { return m_error == 0 && m_process == currentProcess(); }

void SocketGuard::end() { endWith(ECONNABORTED); }

/// Returns -1, with errno set to the first error that ended the connection.
ber_slen_t SocketGuard::endWith(int error)
{
    if (isUsable()) {
        m_error = error;
        if (m_socket != nullptr) {
            shutdown(descriptorOf(m_socket), SHUT_RDWR);
        }
    }
    errno = m_error;
    return -1;
}

// The layer next to the socket

int SocketGuard::setUp(Sockbuf_IO_Desc* layer, void* guard)
{
    layer->sbiod_pvt = guard;
    return 0;
}

int SocketGuard::removeSocket(Sockbuf_IO_Desc* layer)
{
    guardOf(layer).m_socket = nullptr;
    return 0;
}

int SocketGuard::controlSocket(Sockbuf_IO_Desc* layer, int option, void* argument)
{
    // A read that fails at once needs no waiting for.
    bool const isReady = option == LBER_SB_OPT_DATA_READY && !guardOf(layer).isUsable();
    return isReady ? 1 : passOn(layer, option, argument);
}

ber_slen_t SocketGuard::readSocket(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length)
{
    SocketGuard& guard = guardOf(layer);
    if (!guard.isUsable()) {
        errno = ECONNRESET;
        return -1;
    }
    return guard.receive(static_cast<char*>(bytes), length);
}

ber_slen_t SocketGuard::receive(char* bytes, ber_len_t length)
{
    for (;;) {
        ssize_t const count = recv(descriptorOf(m_socket), bytes, length, MSG_DONTWAIT);
        if (count >= 0 || (errno != EINTR && !wouldBlock())) {
            return count;
        }
        if (wouldBlock() && !mayReadAgain()) {
            return -1;
        }
    }
}

/// Whether to read again after an empty read; may block. OpenLDAP itself waits for messages, so the
/// first empty reads of a message return at once. Handshakes wait here. That includes a
/// renegotiation inside a message: OpenLDAP retries the read at once, in a busy loop if the peer
/// stays silent. Therefore, after 8 empty reads in one message, this waits too, and a timeout ends
/// the connection.
bool SocketGuard::mayReadAgain()
{
    constexpr int enough = 8;
    if (!m_isInMessage) {
        return awaitSocket(POLLIN);
    }
    if (++m_emptyReads <= enough) {
        return false;
    }
    bool const isReady = awaitSocket(POLLIN);
    if (!isReady) {
        endWith(errno);
    }
    return isReady;
}

ber_slen_t SocketGuard::writeSocket(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length)
{
    SocketGuard& guard = guardOf(layer);
    if (!guard.isUsable()) {
        errno = EPIPE;
        return -1;
    }
    return guard.send(static_cast<char const*>(bytes), length);
}

/// Sends everything or ends the connection.
ber_slen_t SocketGuard::send(char const* bytes, ber_len_t length)
{
    ber_len_t sent = 0;
    while (sent < length) {
        ssize_t const count = ::send(descriptorOf(m_socket), bytes + sent, length - sent,
                                     MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count >= 0) {
            sent += static_cast<ber_len_t>(count);
            m_hasSent = true;
        } else if (wouldBlock()) {
            if (m_isInMessage && mayBeConnecting()) {
                return -1; // OpenLDAP sends it once the socket is connected
            }
            if (!awaitSocket(POLLOUT)) {
                return endWith(errno);
            }
        } else if (errno != EINTR) {
            return endWith(errno);
        }
    }
    return static_cast<ber_slen_t>(sent);
}

/// Waits for the socket. A handshake has one deadline for all its reads and writes; each wait of a
/// request has its own.
bool SocketGuard::awaitSocket(short events)
{
    auto const deadline = Clock::now() + patience();
    bool const isRequest = m_isInMessage && events == POLLOUT;
    if (!isRequest && !m_handshakeDeadline) {
        m_handshakeDeadline = deadline;
    }
    return isReadyBy(isRequest ? deadline : *m_handshakeDeadline, descriptorOf(m_socket), events);
}

std::chrono::milliseconds SocketGuard::patience() const
{
    // With 0, no handshake could ever complete.
    return m_networkTimeout.count() == 0 ? std::chrono::seconds(1) : m_networkTimeout;
}

int SocketGuard::closeSocket(Sockbuf_IO_Desc* layer)
{
    bool const isOwn = guardOf(layer).m_process == currentProcess();
    closeConnection(layer->sbiod_sb, isOwn ? Ownership::own : Ownership::shared);
    return 0;
}

// The layer above TLS

/// OpenLDAP asks for buffered input before it polls the socket, a few times per read. After it
/// dropped a connection it keeps asking without reading: a permanent "yes" would make it spin until
/// its timeout, or for ever without one. So after 16 answers without a read, the answer is "no".
int SocketGuard::controlMessage(Sockbuf_IO_Desc* layer, int option, void* argument)
{
    constexpr int enough = 16;
    int const answer = passOn(layer, option, argument);
    if (option != LBER_SB_OPT_DATA_READY || answer <= 0) {
        return answer;
    }
    return ++guardOf(layer).m_unheeded <= enough ? answer : 0;
}

ber_slen_t SocketGuard::readMessage(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length)
{
    SocketGuard& guard = guardOf(layer);
    guard.m_unheeded = 0;
    if (!guard.isUsable()) {
        errno = ECONNRESET; // even if TLS has decrypted input
        return -1;
    }
    MessageScope const scope(guard);
    return LBER_SBIOD_READ_NEXT(layer, bytes, length);
}

/// Ends the connection unless TLS accepted the whole message, whatever error it reports.
ber_slen_t SocketGuard::writeMessage(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length)
{
    SocketGuard& guard = guardOf(layer);
    if (!guard.isUsable()) {
        errno = EPIPE;
        return -1;
    }
    MessageScope const scope(guard);
    ber_slen_t const count = LBER_SBIOD_WRITE_NEXT(layer, bytes, length);
    bool const isForLater = count <= 0 && wouldBlock() && guard.mayBeConnecting();
    if (guard.m_isSecret && !isForLater) {
        explicit_bzero(bytes, count > 0 ? static_cast<std::size_t>(count) : length);
    }
    if (count > 0 || isForLater) {
        return count;
    }
    // OpenLDAP would take these errors as "send the rest later".
    bool const soundsHarmless = errno == 0 || wouldBlock() || errno == ENOTCONN;
    return guard.endWith(soundsHarmless ? ECONNABORTED : errno);
}

} // namespace Solvane
