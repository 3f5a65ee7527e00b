// Opens listening sockets and accepts clients.
#include "Listener.h"

#include "Outcome.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace Solvane::Service {

namespace {

using Tool::Failure;
using Tool::Outcome;

constexpr int backlog = 1024;

/// The address of a UNIX socket.
class PathAddress {
public:
    explicit PathAddress(std::string const& path)
    {
        m_address.sun_family = AF_UNIX;
        path.copy(m_address.sun_path, sizeof m_address.sun_path - 1); // its length was checked
    }
    sockaddr const* get() const { return reinterpret_cast<sockaddr const*>(&m_address); }
    static constexpr socklen_t size = sizeof(sockaddr_un);

private:
    sockaddr_un m_address{};
};

/// Owns a descriptor until it is released.
class Socket {
public:
    explicit Socket(int family)
        : m_number(socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
    }
    ~Socket()
    {
        if (m_number >= 0) {
            close(m_number);
        }
    }
    Socket(Socket const&) = delete;
    Socket& operator=(Socket const&) = delete;

    int number() const { return m_number; }
    int release() { return std::exchange(m_number, -1); }

private:
    int m_number;
};

[[noreturn]] void refuse(Endpoint const& endpoint, int error, char const* remedy)
{
    throw Failure(Outcome::configuration,
                  fmt::format("cannot listen on {}: {}", endpoint.text(), strerror(error)), remedy);
}

/// Removes a socket that an earlier process left. One on which somebody listens stays.
void removeStale(Endpoint const& endpoint)
{
    struct stat status = {};
    if (lstat(endpoint.path.c_str(), &status) != 0) {
        return;
    }
    if (!S_ISSOCK(status.st_mode)) {
        throw Failure(
            Outcome::configuration,
            fmt::format("cannot listen on {}: there is a file of another kind", endpoint.text()),
            "choose another path");
    }
    Socket const probe(AF_UNIX);
    PathAddress const address(endpoint.path);
    if (connect(probe.number(), address.get(), PathAddress::size) == 0 || errno != ECONNREFUSED) {
        refuse(endpoint, EADDRINUSE, "stop the program that listens there");
    }
    unlink(endpoint.path.c_str());
}

void bindPath(Socket const& socket, Endpoint const& endpoint, SocketAccess const& access)
{
    removeStale(endpoint);
    PathAddress const address(endpoint.path);
    mode_t const before = umask(0177); // nobody else connects before the mode is set
    int const rc = bind(socket.number(), address.get(), PathAddress::size);
    int const error = errno;
    umask(before);
    if (rc != 0) {
        refuse(endpoint, error,
               "check that the folder exists and that the service may write to it");
    }
    char const* const path = endpoint.path.c_str();
    if ((access.group && chown(path, static_cast<uid_t>(-1), *access.group) != 0) ||
        chmod(path, access.mode) != 0) {
        int const failed = errno;
        unlink(path);
        refuse(endpoint, failed, "the service must be a member of socket_group");
    }
}

void bindAddress(Socket const& socket, Endpoint const& endpoint)
{
    int const on = 1;
    setsockopt(socket.number(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (endpoint.address->family() == AF_INET6) {
        setsockopt(socket.number(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    }
    if (bind(socket.number(), endpoint.address->socketAddress(), endpoint.address->size()) != 0) {
        refuse(endpoint, errno, "choose an address of this host and a free port");
    }
}

} // namespace

int listenOn(Endpoint const& endpoint, SocketAccess const& access)
{
    Socket socket(endpoint.address ? endpoint.address->family() : AF_UNIX);
    if (socket.number() < 0) {
        refuse(endpoint, errno, "raise the limit of open files");
    }
    if (endpoint.address) {
        bindAddress(socket, endpoint);
    } else {
        bindPath(socket, endpoint, access);
    }
    if (listen(socket.number(), backlog) != 0) {
        refuse(endpoint, errno, "choose another socket");
    }
    return socket.release();
}

Listener::Listener(boost::asio::io_context& context, int descriptor, std::string path,
                   Handler handler)
    : m_socket(context, descriptor), m_pause(context), m_path(std::move(path)),
      m_handler(std::move(handler))
{
    await();
}

Listener::~Listener()
{
    *m_isAlive = false;
    if (!m_path.empty()) {
        unlink(m_path.c_str());
    }
}

void Listener::await()
{
    m_socket.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                        [this, isAlive = m_isAlive](boost::system::error_code const& error) {
                            if (*isAlive && !error) {
                                acceptAll();
                            }
                        });
}

void Listener::acceptAll()
{
    constexpr int mostAtATime = 64; // so that a flood of clients does not hold up the others
    for (int i = 0; i < mostAtATime; ++i) {
        int const client =
            accept4(m_socket.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (client >= 0) {
            m_handler(client);
        } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            pause();
            return;
        } else if (errno != EINTR && errno != ECONNABORTED) {
            break; // nobody else is there
        }
    }
    await();
}

/// The process has no descriptor left: clients wait until others are gone.
void Listener::pause()
{
    m_pause.expires_after(std::chrono::milliseconds(100));
    m_pause.async_wait([this, isAlive = m_isAlive](boost::system::error_code const& error) {
        if (*isAlive && !error) {
            await();
        }
    });
}

} // namespace Solvane::Service
