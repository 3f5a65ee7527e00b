// The sockets on which clients connect.
#ifndef SOLVANE_SERVICE_LISTENER_H
#define SOLVANE_SERVICE_LISTENER_H

#include "SettingValues.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <sys/types.h>

namespace Solvane::Service {

using Tool::Endpoint;

/// Who may use a UNIX socket.
struct SocketAccess {
    mode_t mode = 0660;
    std::optional<gid_t> group; ///< empty: the process's
};

/// Opens a listening socket, which does not block. Removes a UNIX socket on which nobody listens.
/// @return its descriptor, which the caller owns
/// @throws Failure  "configuration": it cannot be opened, or is in use
int listenOn(Endpoint const& endpoint, SocketAccess const& access);

/// Accepts clients. Not thread-safe.
class Listener {
public:
    /// Receives the socket of a client, which does not block; it owns the descriptor.
    using Handler = std::function<void(int descriptor)>;

    /// @param descriptor  a listening socket, owned from now on
    /// @param path        of a UNIX socket that the destructor removes; empty: none
    Listener(boost::asio::io_context& context, int descriptor, std::string path, Handler handler);
    ~Listener();
    Listener(Listener const&) = delete;
    Listener& operator=(Listener const&) = delete;

private:
    void await();
    void acceptAll();
    void pause();

    boost::asio::posix::stream_descriptor m_socket;
    boost::asio::steady_timer m_pause;
    std::string const m_path;
    Handler const m_handler;
    std::shared_ptr<bool> m_isAlive = std::make_shared<bool>(true); ///< for pending handlers
};

} // namespace Solvane::Service

#endif
