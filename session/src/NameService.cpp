// Drives c-ares from the caller's poll loop.
#include "NameService.h"

#include <solvane/session/PlainText.h>

#include "OpenLDAP.h"
#include "Socket.h"

#include <algorithm>
#include <cerrno>
#include <new>

#include <sys/socket.h>

namespace Solvane::Lookup {

namespace {

// Timeout of the first query; it doubles each round. With several servers, a retry goes to the next
// one.
constexpr int firstTimeoutMilliseconds = 2000;
constexpr int rounds = 3;

// At load time: it is not thread-safe, and a child forked meanwhile would wait for it for ever.
int const g_libraryError = ares_library_init(ARES_LIB_INIT_ALL);

} // namespace

NameService::NameService(std::vector<std::string> const& servers)
{
    int error = g_libraryError;
    if (error == ARES_SUCCESS) {
        ares_options options = {};
        options.timeout = firstTimeoutMilliseconds;
        options.tries = rounds;
        options.sock_state_cb = socketChanged;
        options.sock_state_cb_data = this;
        error = ares_init_options(&m_channel, &options,
                                  ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES | ARES_OPT_SOCK_STATE_CB);
    }
    if (error != ARES_SUCCESS) {
        m_channel = nullptr;
        m_fault = std::string("cannot set up the resolver: ") + ares_strerror(error);
    } else if (!servers.empty()) {
        setServers(servers);
    }
}

NameService::~NameService()
{
    if (m_channel != nullptr) {
        ares_destroy(m_channel);
    }
}

void NameService::setServers(std::vector<std::string> const& servers)
{
    std::string list;
    for (std::string const& server : servers) {
        // An IPv6 address without brackets has no port.
        bool const isBareV6 = std::count(server.begin(), server.end(), ':') > 1 &&
                              server.find('[') == std::string::npos;
        list.append(list.empty() ? "" : ",").append(isBareV6 ? '[' + server + ']' : server);
    }
    int const error = ares_set_servers_ports_csv(m_channel, list.c_str());
    if (error != ARES_SUCCESS) {
        m_fault = "invalid name servers '" + oneLine(list) + "': " + ares_strerror(error);
    }
}

Verdict NameService::failure(int status)
{
    if (status == ARES_ETIMEOUT) {
        return {Outcome::TryLater, LDAP_TIMEOUT, "no name server answers"};
    }
    if (status != ARES_ENOTFOUND && status != ARES_ENODATA) {
        Descriptor const trial(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        if (trial.number() == -1 && isLack(errno)) {
            return {Outcome::TryLater, LDAP_LOCAL_ERROR,
                    "this process has no descriptor or memory left to ask name servers"};
        }
    }
    return {Outcome::TryLater, LDAP_SERVER_DOWN, ares_strerror(status)};
}

void NameService::socketChanged(void* service, ares_socket_t socket, int reads, int writes)
{
    auto& self = *static_cast<NameService*>(service);
    std::vector<pollfd>& sockets = self.m_sockets;
    sockets.erase(std::remove_if(sockets.begin(), sockets.end(),
                                 [socket](pollfd const& known) { return known.fd == socket; }),
                  sockets.end());
    auto const events = static_cast<short>((reads != 0 ? POLLIN : 0) | (writes != 0 ? POLLOUT : 0));
    if (events == 0) {
        return;
    }
    try {
        sockets.push_back(pollfd{socket, events, 0});
    } catch (std::bad_alloc const&) { // cannot pass through c-ares
        self.m_lacksMemory = true;
    }
}

void NameService::advance()
{
    if (m_channel == nullptr) {
        return;
    }
    std::vector<pollfd> looked = m_sockets; // processing changes the list
    if (!looked.empty()) {
        poll(looked.data(), looked.size(), 0);
    }
    for (pollfd const& socket : looked) {
        constexpr short ended = POLLERR | POLLHUP;
        if (socket.revents != 0) {
            ares_process_fd(
                m_channel, (socket.revents & (POLLIN | ended)) != 0 ? socket.fd : ARES_SOCKET_BAD,
                (socket.revents & (POLLOUT | ended)) != 0 ? socket.fd : ARES_SOCKET_BAD);
        }
    }
    ares_process_fd(m_channel, ARES_SOCKET_BAD, ARES_SOCKET_BAD); // handles timeouts
}

void NameService::waits(Waits& waits) const
{
    for (pollfd const& socket : m_sockets) {
        waits.add(socket.fd, socket.events);
    }
    timeval space = {};
    timeval const* const left =
        m_channel == nullptr ? nullptr : ares_timeout(m_channel, nullptr, &space);
    if (left != nullptr) {
        waits.until(Clock::now() + std::chrono::seconds(left->tv_sec) +
                    std::chrono::microseconds(left->tv_usec));
    }
}

void NameQuestion::advance()
{
    if (!isSettled && service) {
        service->advance();
    }
    if (!isSettled && service && hasFailed()) {
        verdict =
            Verdict{Outcome::TryLater, LDAP_NO_MEMORY, "no memory is left to ask name servers"};
        isSettled = true;
    }
}

void NameQuestion::waits(Waits& waits) const
{
    if (!isSettled && service) {
        service->waits(waits);
        if (hasFailed()) {
            waits.until(Clock::time_point::min());
        }
    }
}

} // namespace Solvane::Lookup
