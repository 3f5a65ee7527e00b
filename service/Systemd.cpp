// Speaks systemd's protocols.
#include "Systemd.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace Solvane::Service {

namespace {

constexpr int firstDescriptor = 3;

/// A number in the environment; 0 if there is none.
unsigned long numberOf(char const* variable)
{
    char const* const text = std::getenv(variable);
    unsigned long number = 0;
    if (text != nullptr) {
        std::from_chars(text, text + std::strlen(text), number);
    }
    return number;
}

bool isForThisProcess(char const* variable)
{
    return numberOf(variable) == static_cast<unsigned long>(getpid());
}

} // namespace

std::vector<ActivatedSocket> activatedSockets()
{
    std::vector<ActivatedSocket> sockets;
    if (isForThisProcess("LISTEN_PID")) {
        char const* const variable = std::getenv("LISTEN_FDNAMES");
        std::string names = variable == nullptr ? "" : variable;
        int const count = static_cast<int>(std::min(numberOf("LISTEN_FDS"), 1000UL));
        for (int i = 0; i < count; ++i) {
            auto const end = std::min(names.find(':'), names.size());
            int const descriptor = firstDescriptor + i;
            fcntl(descriptor, F_SETFD, FD_CLOEXEC);
            fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) | O_NONBLOCK);
            sockets.push_back({descriptor, names.substr(0, end)});
            names.erase(0, end + 1);
        }
    }
    for (char const* const variable : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"}) {
        unsetenv(variable);
    }
    return sockets;
}

void notifySystemd(std::string const& state)
{
    char const* const path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path == nullptr || (*path != '/' && *path != '@') ||
        std::strlen(path) >= sizeof address.sun_path) {
        return;
    }
    std::memcpy(address.sun_path, path, std::strlen(path));
    auto const size = offsetof(sockaddr_un, sun_path) + std::strlen(path);
    if (*path == '@') {
        address.sun_path[0] = '\0'; // an abstract name
    }
    int const sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sender < 0) {
        return;
    }
    auto const* const any = reinterpret_cast<sockaddr const*>(&address);
    (void)sendto(sender, state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT, any,
                 static_cast<socklen_t>(size));
    close(sender);
}

std::string reloadingState()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    long const microseconds = now.tv_sec * 1000000 + now.tv_nsec / 1000;
    return "RELOADING=1\nMONOTONIC_USEC=" + std::to_string(microseconds);
}

std::optional<std::chrono::microseconds> watchdogTime()
{
    unsigned long const time = numberOf("WATCHDOG_USEC");
    bool const isForOther =
        std::getenv("WATCHDOG_PID") != nullptr && !isForThisProcess("WATCHDOG_PID");
    return time == 0 || isForOther ? std::nullopt : std::optional<std::chrono::microseconds>(time);
}

} // namespace Solvane::Service
