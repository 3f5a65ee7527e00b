// Buffers, framing, and the Sockbuf layer through which OpenLDAP uses them.
#include "Channel.h"

#include <solvane/session/PlainText.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

namespace Solvane::Lookup {

namespace {

constexpr std::size_t firstCapacity = 16384;
constexpr std::size_t keptCapacity = 65536; // a larger buffer is freed once it is empty

} // namespace

Sockbuf_IO Channel::s_layer = {setUp, nullptr, control, readInput, writeOutput, nullptr};

Channel::Channel(Descriptor socket, std::size_t messageBytes, std::chrono::milliseconds patience)
    : m_socket(std::move(socket)), m_messageBytes(messageBytes), m_patience(patience)
{
}

Channel::~Channel()
{
    if (m_holdsSecret) {
        wipe(m_output);
    }
    if (m_tls && isWhole() && !hasOutput()) {
        m_tls->sayGoodbye();
    }
}

bool Channel::installOn(Sockbuf* sockbuf)
{
    return ber_sockbuf_add_io(sockbuf, &s_layer, LBER_SBIOD_LEVEL_PROVIDER, this) == 0;
}

bool Channel::protect(std::unique_ptr<SaslExchange> exchange)
{
    if (hasOutput()) {
        return false;
    }
    m_layer = std::make_unique<SecurityLayer>(
        std::move(exchange), m_socket, std::string_view(m_input.get() + m_begin, m_end - m_begin));
    m_begin = m_end = 0;
    m_front = MessageFrame();
    return true;
}

void Channel::fail(Outcome outcome, int code, std::string const& why)
{
    if (m_fault.isGood()) {
        m_fault = Verdict{outcome, code, why};
    }
}

// Input

Channel::Input Channel::fill()
{
    for (;;) {
        bool const hasMessage = m_fault.isGood() && findFront();
        if (hasMessage || !m_fault.isGood()) {
            return hasMessage ? Input::message : Input::broken;
        }
        Flow const flow = read();
        if (flow == Flow::blocked && m_writeFault.isGood()) {
            return Input::nothing;
        }
        if (flow == Flow::blocked) {
            m_fault = m_writeFault;
        } else if (flow != Flow::moved) {
            failBy(flow);
        }
    }
}

/// Whether a complete message is at the front.
bool Channel::findFront()
{
    if (m_front.state == MessageFrame::whole) {
        return true;
    }
    m_front = frameOf({m_input.get() + m_begin, m_end - m_begin});
    if (m_front.state == MessageFrame::invalid) {
        fail(Outcome::TryLater, LDAP_DECODING_ERROR, "the server sent data that is not LDAP");
    } else if (m_front.length > m_messageBytes) {
        fail(Outcome::TryLater, LDAP_DECODING_ERROR,
             "the server sent a message larger than " + std::to_string(m_messageBytes) + " bytes");
    }
    return m_fault.isGood() && m_front.state == MessageFrame::whole;
}

Flow Channel::read()
{
    makeRoom();
    std::size_t count = 0;
    char* const bytes = m_input.get() + m_end;
    std::size_t const room = m_capacity - m_end;
    Flow const flow = m_tls     ? m_tls->receive(bytes, room, count)
                      : m_layer ? m_layer->receive(bytes, room, count)
                                : m_socket.receive(bytes, room, count);
    m_end += count;
    m_received += count;
    return flow;
}

/// Makes room for input: first moves the partial message to the start of the buffer; if the buffer
/// is still full, doubles it. It grows with the bytes received, never to an announced length:
/// otherwise one forged header would make each connection allocate the maximum.
void Channel::makeRoom()
{
    if (m_begin > 0) {
        std::memmove(m_input.get(), m_input.get() + m_begin, m_end - m_begin);
        m_end -= m_begin;
        m_begin = 0;
    }
    if (m_end < m_capacity) {
        return;
    }
    std::size_t const longest = std::max(m_front.length, keptCapacity);
    std::size_t const capacity =
        m_capacity == 0 ? firstCapacity : std::min(m_capacity * 2, longest);
    void* const grown = std::realloc(m_input.get(), capacity);
    if (grown == nullptr) {
        throw std::bad_alloc();
    }
    static_cast<void>(m_input.release());
    m_input.reset(static_cast<char*>(grown));
    m_capacity = capacity;
}

void Channel::take()
{
    m_begin += m_front.length;
    m_deliverable = 0;
    m_front = MessageFrame();
}

void Channel::drop()
{
    take();
    if (!hasInput()) {
        m_begin = 0;
        m_end = 0;
        if (m_capacity > keptCapacity) {
            m_input.reset();
            m_capacity = 0;
        }
    }
}

/// Whether `fill` has a result without reading the socket. Poll would not report it.
bool Channel::isReady() const
{
    return !m_fault.isGood() || !m_writeFault.isGood() || m_front.state == MessageFrame::whole ||
           (hasInput() &&
            frameOf({m_input.get() + m_begin, m_end - m_begin}).state != MessageFrame::partial) ||
           (m_tls && m_tls->hasPending()) || (m_layer && m_layer->hasPending());
}

bool Channel::isFresh()
{
    if (!isWhole() || hasInput() || hasOutput() || (m_layer && m_layer->hasInput())) {
        return false;
    }
    pollfd looked = {m_socket.number(), POLLIN | POLLRDHUP, 0};
    if (poll(&looked, 1, 0) == 0 && (!m_tls || !m_tls->hasPending())) {
        return true;
    }
    return m_tls && fill() == Input::nothing && !hasInput();
}

// Output

void Channel::flush()
{
    while (isWhole() && hasOutput()) {
        std::size_t count = 0;
        Flow const flow = write(count);
        if (flow == Flow::moved) {
            m_sent += count;
            m_blockedAt.reset();
        } else if (flow == Flow::failed) {
            m_writeFault = faultOf(flow);
        } else if (!m_blockedAt) {
            m_blockedAt = Clock::now();
            return;
        } else if (Clock::now() >= *m_blockedAt + m_patience) {
            fail(Outcome::TryLater, LDAP_TIMEOUT,
                 "the server has read nothing for " + inSeconds(m_patience));
        } else {
            return;
        }
    }
    if (!hasOutput()) {
        if (m_holdsSecret) {
            wipe(m_output);
            m_holdsSecret = false;
        }
        m_output.clear();
        m_sent = 0;
    }
}

Flow Channel::write(std::size_t& count)
{
    char const* const bytes = m_output.data() + m_sent;
    std::size_t const length = m_output.size() - m_sent;
    return m_tls     ? m_tls->send(bytes, length, count)
           : m_layer ? m_layer->send(bytes, length, count)
                     : m_socket.send(bytes, length, count);
}

void Channel::append(char const* bytes, std::size_t length)
{
    // A string that grows leaves what it held in freed memory, which wipe() would not reach any more.
    std::size_t const size = m_output.size() + length;
    if (m_holdsSecret && size > m_output.capacity()) {
        std::string grown;
        grown.reserve(std::max(size, 2 * m_output.capacity()));
        grown.append(m_output);
        wipe(m_output);
        m_output = std::move(grown);
    }
    m_holdsSecret = m_holdsSecret || m_handlesSecret;
    m_output.append(bytes, length);
}

// Both

void Channel::waits(Waits& waits) const
{
    if (isReady()) {
        waits.until(Clock::time_point::min());
        return;
    }
    bool const writes = hasOutput() || (m_tls && m_tls->awaitsWriting());
    waits.add(m_socket.number(), static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN));
    if (m_blockedAt) {
        waits.until(*m_blockedAt + m_patience);
    }
}

/// Sets the cause of the end. After a failed write, the server's last message may name a better
/// cause.
void Channel::failBy(Flow flow)
{
    m_fault = faultOf(flow);
    if (!m_writeFault.isGood() && m_fault.outcome == m_writeFault.outcome) {
        m_fault = m_writeFault;
    }
}

Verdict Channel::faultOf(Flow flow) const
{
    if (m_tls && !m_tls->fault().isGood()) {
        return m_tls->fault();
    }
    if (m_layer && !m_layer->fault().isGood()) {
        return m_layer->fault();
    }
    return Verdict{Outcome::TryLater, LDAP_SERVER_DOWN,
                   flow == Flow::ended ? "the server closed the connection"
                   : m_socket.isOurs() ? std::strerror(m_socket.error())
                                       : "the connection belongs to another process"};
}

// OpenLDAP's side

int Channel::setUp(Sockbuf_IO_Desc* layer, void* channel)
{
    layer->sbiod_pvt = channel;
    return 0;
}

int Channel::control(Sockbuf_IO_Desc* layer, int option, void*)
{
    // The only option that OpenLDAP needs from the lowest layer.
    return option == LBER_SB_OPT_DATA_READY &&
                   static_cast<Channel*>(layer->sbiod_pvt)->m_deliverable > 0
               ? 1
               : 0;
}

ber_slen_t Channel::readInput(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length)
{
    Channel& channel = *static_cast<Channel*>(layer->sbiod_pvt);
    std::size_t const count = std::min<std::size_t>(length, channel.m_deliverable);
    if (count == 0) {
        errno = EAGAIN;
        return -1;
    }
    std::size_t const position = channel.m_begin + channel.m_front.length - channel.m_deliverable;
    std::memcpy(bytes, channel.m_input.get() + position, count);
    channel.m_deliverable -= count;
    return static_cast<ber_slen_t>(count);
}

ber_slen_t Channel::writeOutput(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length)
{
    Channel& channel = *static_cast<Channel*>(layer->sbiod_pvt);
    try {
        channel.append(static_cast<char const*>(bytes), length);
    } catch (std::bad_alloc const&) { // must not propagate through C code
        errno = ENOMEM;
        return -1;
    }
    if (channel.m_handlesSecret) {
        explicit_bzero(bytes, length); // OpenLDAP keeps it until the answer arrives, unwiped
    }
    return static_cast<ber_slen_t>(length);
}

} // namespace Solvane::Lookup
