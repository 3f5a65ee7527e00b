// The accept loop of a test server.
#ifndef SOLVANE_TESTS_SUPPORT_ACCEPT_LOOP_H
#define SOLVANE_TESTS_SUPPORT_ACCEPT_LOOP_H

#include <array>

#include <poll.h>
#include <sys/socket.h>

namespace SolvaneTest {

/// Passes each accepted, non-blocking socket to `take`, until `stop` is readable.
template <typename Take> void acceptUntil(int stop, int listener, Take const& take)
{
    std::array<pollfd, 2> waited = {pollfd{listener, POLLIN, 0}, pollfd{stop, POLLIN, 0}};
    for (;;) {
        poll(waited.data(), waited.size(), -1);
        if (waited[1].revents != 0) {
            return;
        }
        int const socket = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (socket >= 0) {
            take(socket);
        }
    }
}

} // namespace SolvaneTest

#endif
