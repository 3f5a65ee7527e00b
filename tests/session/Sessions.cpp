// Sessions and their results. A man in the middle is one thread that polls both sides.
#include "Sessions.h"

#include <solvane/session/ResultCodes.h>

#include <gtest/gtest.h>
#include <ldap.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>

using namespace Solvane;
using namespace Solvane::Lookup;
using std::chrono::milliseconds;

namespace SolvaneTest {

std::string const readerPassword = "reader-pw";

Clock::time_point in(milliseconds time) { return Clock::now() + time; }
Clock::time_point soon() { return in(std::chrono::seconds(15)); }

SessionOptions plainOptions(unsigned int port)
{
    SessionOptions options;
    options.host = "127.0.0.1";
    options.port = port;
    return options;
}

SessionOptions boundOptions(unsigned int port)
{
    SessionOptions options = plainOptions(port);
    options.bindDn = readerDn;
    options.password = &readerPassword;
    return options;
}

SessionOptions secureOptions(unsigned int port, TlsPolicy const& policy, std::string const& host)
{
    SessionOptions options = plainOptions(port);
    options.host = host;
    options.addresses = {*Address::parse("127.0.0.1", port)};
    options.secure = true;
    options.tls = std::make_shared<TlsContext>(policy);
    return options;
}

SessionOptions startTlsOptions(unsigned int port, TlsPolicy const& policy, std::string const& host)
{
    SessionOptions options = secureOptions(port, policy, host);
    options.secure = false;
    options.startTls = true;
    return options;
}

TlsPolicy policy(TlsVerify verify, std::string const& caFile)
{
    TlsPolicy policy;
    policy.verify = verify;
    policy.caFile = caFile;
    return policy;
}

std::string ofGnuTls(std::string const& text)
{
    char* package = nullptr;
    ldap_get_option(nullptr, LDAP_OPT_X_TLS_PACKAGE, static_cast<void*>(&package));
    bool const isGnuTls = std::string(package) == "GnuTLS";
    ldap_memfree(package);
    return isGnuTls ? text : std::string();
}

NoDescriptors::NoDescriptors()
{
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &m_before), 0);
    rlimit const none = {0, m_before.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
}

NoDescriptors::~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &m_before); }

SearchRequest peopleSearch()
{
    SearchRequest request;
    request.base = people;
    return request;
}

std::string shown(Verdict const& verdict)
{
    constexpr char const* names[] = {"Found",    "NotFound", "Skipped",      "BadKey",
                                     "TryLater", "Refused",  "Misconfigured"};
    return std::string(names[static_cast<int>(verdict.outcome)]) + ' ' +
           std::to_string(verdict.code) + ' ' + verdict.text;
}

namespace {

/// Calls `receive` until it has something, for ten seconds at most.
template <typename Receive> Session::Received awaited(Session& session, Receive const& receive)
{
    auto const deadline = in(std::chrono::seconds(10));
    Waits waits;
    for (;;) {
        Session::Received const received = receive();
        if (received != Session::Received::nothing || Clock::now() > deadline) {
            return received;
        }
        waits.clear();
        session.waits(waits);
        waits.until(deadline);
        waits.wait();
    }
}

} // namespace

std::unique_ptr<Message> next(Session& session)
{
    auto message = std::make_unique<Message>();
    message->received =
        awaited(session, [&] { return session.receive(message->message, message->id); });
    return message;
}

Session::Received next(Session& session, Session::Message& message)
{
    return awaited(session, [&] { return session.receive(message); });
}

std::vector<int> typesFor(Session& session, int id)
{
    std::vector<int> types;
    while (types.empty() || types.back() == LDAP_RES_SEARCH_ENTRY) {
        auto const message = next(session);
        if (message->received != Session::Received::message || message->id != id) {
            return {};
        }
        types.push_back(ldap_msgtype(message->message.get()));
    }
    return types;
}

namespace {

sockaddr_in loopback(unsigned int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int newSocket() { return checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"); }

std::string readSome(int socket)
{
    std::array<char, 65536> bytes;
    ssize_t const count = recv(socket, bytes.data(), bytes.size(), 0);
    return {bytes.data(), count > 0 ? static_cast<std::size_t>(count) : 0};
}

bool write(int socket, std::string const& bytes)
{
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        ssize_t const count = send(socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(count);
    }
    return true;
}

} // namespace

Relay::Relay(unsigned int serverPort, Change change, bool drips)
    : m_listener(newSocket()), m_stop(checked(eventfd(0, EFD_CLOEXEC), "eventfd")), m_port(0),
      m_serverPort(serverPort), m_change(std::move(change)), m_drips(drips)
{
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    checked(bind(m_listener.number(), any, length), "bind");
    checked(listen(m_listener.number(), 1), "listen");
    checked(getsockname(m_listener.number(), any, &length), "getsockname");
    m_port = ntohs(address.sin_port);
    m_thread = std::thread(&Relay::relay, this);
}

Relay::~Relay()
{
    std::uint64_t const one = 1;
    static_cast<void>(::write(m_stop.number(), &one, sizeof one));
    m_thread.join();
}

bool Relay::toClient(int client, std::string const& bytes) const
{
    if (!m_drips) {
        return write(client, bytes);
    }
    int const atOnce = 1;
    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &atOnce, sizeof atOnce);
    for (char const byte : bytes) {
        if (!write(client, std::string(1, byte))) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

void Relay::relay()
{
    std::array<pollfd, 2> listening = {pollfd{m_listener.number(), POLLIN, 0},
                                       pollfd{m_stop.number(), POLLIN, 0}};
    poll(listening.data(), listening.size(), -1);
    if (listening[0].revents == 0) {
        return;
    }
    Descriptor const client(accept4(m_listener.number(), nullptr, nullptr, SOCK_CLOEXEC));
    Descriptor const server(newSocket());
    sockaddr_in const address = loopback(m_serverPort);
    if (connect(server.number(), reinterpret_cast<sockaddr const*>(&address), sizeof address) !=
        0) {
        return;
    }
    std::array<pollfd, 3> sides = {pollfd{client.number(), POLLIN, 0},
                                   pollfd{server.number(), POLLIN, 0},
                                   pollfd{m_stop.number(), POLLIN, 0}};
    for (int number = 0;;) {
        poll(sides.data(), sides.size(), -1);
        if (sides[2].revents != 0) {
            return;
        }
        if (sides[0].revents != 0) {
            std::string const bytes = readSome(client.number());
            if (bytes.empty() || !write(server.number(), bytes)) {
                return;
            }
        }
        if (sides[1].revents != 0) {
            std::string const bytes = readSome(server.number());
            if (bytes.empty() || !toClient(client.number(), m_change(bytes, ++number))) {
                return;
            }
        }
    }
}

} // namespace SolvaneTest
