// The interface to systemd: sockets that it opened, readiness, watchdog. Its protocols are files and
// variables of the environment (sd_listen_fds(3), sd_notify(3)); without systemd nothing happens.
#ifndef SOLVANE_SERVICE_SYSTEMD_H
#define SOLVANE_SERVICE_SYSTEMD_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace Solvane::Service {

/// A socket that systemd opened for this process.
struct ActivatedSocket {
    int descriptor;
    std::string name; ///< FileDescriptorName= of its unit
};

/// The sockets of socket activation, which do not block; empty without it. Call it once: it removes the variables from
/// the environment. Not thread-safe.
std::vector<ActivatedSocket> activatedSockets();

/// Tells systemd a state, as "READY=1"; several are separated by line ends. Without systemd, or if it
/// does not listen, nothing happens. Thread-safe.
void notifySystemd(std::string const& state);

/// "RELOADING=1", with the time that systemd wants with it.
std::string reloadingState();

/// How often systemd wants to hear "WATCHDOG=1"; empty if it does not watch this process.
std::optional<std::chrono::microseconds> watchdogTime();

} // namespace Solvane::Service

#endif
