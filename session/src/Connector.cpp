// Parallel connection attempts by TCP; and connect(2) to AF_UNIX.
#include "Connector.h"

#include <solvane/session/PlainText.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace Solvane::Lookup {

namespace {

constexpr std::chrono::milliseconds headStart(250); // RFC 8305 section 8
/// Before the next attempt at a UNIX socket while the server's queue is full.
constexpr std::chrono::milliseconds pause(10);

/// Alternates the address families, beginning with the first address's; each family keeps its
/// order.
std::vector<Address> interleaved(std::vector<Address> const& addresses)
{
    std::vector<Address> first;
    std::vector<Address> second;
    for (Address const& address : addresses) {
        (address.family() == addresses.front().family() ? first : second).push_back(address);
    }
    std::vector<Address> order;
    for (std::size_t i = 0; i < std::max(first.size(), second.size()); ++i) {
        if (i < first.size()) {
            order.push_back(first[i]);
        }
        if (i < second.size()) {
            order.push_back(second[i]);
        }
    }
    return order;
}

/// The result of a pending connect: 0 or errno.
int errorOf(int socket)
{
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

} // namespace

Connector::Connector(std::vector<Address> const& addresses)
    : m_order(interleaved(addresses)), m_nextMoment(Clock::now())
{
}

void Connector::advance()
{
    look();
    while (!isSettled() && m_next < m_order.size() &&
           (m_attempts.empty() || m_nextMoment <= Clock::now())) {
        startNext();
    }
}

/// Takes the first completed attempt; drops failed ones.
void Connector::look()
{
    std::vector<pollfd> looked;
    for (Attempt const& attempt : m_attempts) {
        looked.push_back(pollfd{attempt.socket.number(), POLLOUT, 0});
    }
    if (looked.empty() || poll(looked.data(), looked.size(), 0) <= 0) {
        return;
    }
    std::vector<Attempt> left;
    for (std::size_t i = 0; i < looked.size() && !m_connected; ++i) {
        if (looked[i].revents == 0) {
            left.push_back(std::move(m_attempts[i]));
        } else if (int const error = errorOf(looked[i].fd); error != 0) {
            failed(m_attempts[i].address, error);
        } else {
            m_connected = m_attempts[i].address;
            m_socket = std::move(m_attempts[i].socket);
            left.clear();
        }
    }
    m_attempts = std::move(left);
}

void Connector::startNext()
{
    Address const address = m_order[m_next++];
    Descriptor socket(
        ::socket(address.family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
    if (socket.number() == -1) {
        int const error = errno;
        m_lacksSocket = m_lacksSocket || isLack(error);
        failed(address, error);
        return;
    }
    int const on = 1; // requests are batched before each write, so Nagle's delay gains nothing
    setsockopt(socket.number(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    int const rc = connect(socket.number(), address.socketAddress(), address.size());
    if (rc == -1 && errno != EINPROGRESS && errno != EINTR) {
        failed(address, errno);
        return;
    }
    // An attempt that completed immediately is found by the next look().
    m_attempts.push_back(Attempt{std::move(socket), address});
    m_nextMoment = Clock::now() + headStart;
}

void Connector::failed(Address const& address, int error)
{
    m_failures.append(m_failures.empty() ? "" : ", ")
        .append(address.text() + ": " + wordsOf(error));
    m_nextMoment = Clock::now();
}

void Connector::waits(Waits& waits) const
{
    if (isSettled()) {
        return;
    }
    for (Attempt const& attempt : m_attempts) {
        waits.add(attempt.socket.number(), POLLOUT);
    }
    if (m_next < m_order.size()) {
        waits.until(m_nextMoment);
    }
}

std::string Connector::failures() const
{
    std::string text = m_failures;
    for (Attempt const& attempt : m_attempts) {
        text.append(text.empty() ? "" : ", ").append(attempt.address.text() + ": no answer");
    }
    return text;
}

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
