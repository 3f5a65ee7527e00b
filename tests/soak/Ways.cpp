// The engine does everything itself; with the pool, the caller does.
#include "Ways.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <utility>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace SolvaneTest {

using Solvane::LDAPConnection;
using Solvane::LDAPException;
using Solvane::LDAPLookup;
using Solvane::LDAPSearch;

namespace {

constexpr int serverDown = -1;
constexpr int timedOut = -5;

LDAPConnection::RefServer describe(LDAPLookup::Settings const& settings)
{
    LDAPLookup::Server const& server = settings.servers.front();
    return {server.host, server.port, server.version, server.secure, settings.networkTimeout,
            false,       false};
}

LDAPLookup::Answer noAnswer(int code, std::string const& text)
{
    LDAPLookup::Answer answer;
    answer.outcome = LDAPLookup::Outcome::TryLater;
    answer.code = code;
    answer.text = text;
    return answer;
}

/// A connection to the service; the destructor closes it.
class SocketmapConnection {
public:
    SocketmapConnection() = default;
    ~SocketmapConnection() { close(); }
    SocketmapConnection(SocketmapConnection const&) = delete;
    SocketmapConnection& operator=(SocketmapConnection const&) = delete;

    /// Sends a request and returns the reply; empty if either fails.
    std::string exchange(std::string const& path, std::string const& request)
    {
        std::string const sent = std::to_string(request.size()) + ':' + request + ',';
        if (!open(path) || send(m_socket, sent.data(), sent.size(), MSG_NOSIGNAL) !=
                               static_cast<ssize_t>(sent.size())) {
            return close();
        }
        std::string reply;
        while (reply.empty() || reply.back() != ',') { // values of the load end in no comma
            std::array<char, 4096> part{};
            ssize_t const count = recv(m_socket, part.data(), part.size(), 0);
            if (count <= 0) {
                return close();
            }
            reply.append(part.data(), static_cast<std::size_t>(count));
        }
        reply.pop_back();
        return reply.substr(reply.find(':') + 1);
    }

private:
    bool open(std::string const& path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (m_socket < 0) {
            m_socket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            return m_socket >= 0 && connect(m_socket, reinterpret_cast<sockaddr const*>(&address),
                                            sizeof address) == 0;
        }
        return true;
    }

    std::string close()
    {
        if (m_socket >= 0) {
            ::close(std::exchange(m_socket, -1));
        }
        return {};
    }

    int m_socket = -1;
};

} // namespace

EngineWay::EngineWay(LDAPLookup::Settings const& settings) : m_lookup(settings) {}

LDAPLookup::Answer EngineWay::lookUp(std::string const& address) { return m_lookup.find(address); }

std::map<std::string, unsigned long> EngineWay::statistics() const
{
    LDAPLookup::Statistics const counted = m_lookup.statistics();
    return {{"opened", counted.opened},
            {"reused", counted.reused},
            {"stale", counted.stale},
            {"repeated", counted.repeated}};
}

PoolWay::PoolWay(LDAPLookup::Settings const& settings)
    : m_settings(settings), m_server(describe(settings))
{
}

LDAPLookup::Answer PoolWay::lookUp(std::string const& address)
{
    try {
        return lookUpOnce(address);
    } catch (LDAPException const&) {
        // If one connection broke, the idle ones are probably broken too.
        m_pool.clear();
        ++m_repeated;
    }
    try {
        return lookUpOnce(address);
    } catch (LDAPException const& failure) {
        return noAnswer(serverDown, failure.asString());
    }
}

LDAPLookup::Answer PoolWay::lookUpOnce(std::string const& address)
{
    LDAPConnection connection =
        m_pool.getConnection(m_server, m_settings.bindDn, m_settings.password);
    if (connection.isNull()) {
        return noAnswer(0, "the server refused the bind");
    }
    struct Marker {
        LDAPConnection& taken;
        ~Marker() { taken.cacheMarkAsAvailable(); }
    } const marker{connection};
    return search(connection, address);
}

LDAPLookup::Answer PoolWay::search(LDAPConnection& connection, std::string const& address)
{
    LDAPSearch::Parameter parameter(m_settings.base);
    parameter.filter = Solvane::LDAPUtil::instanceFilterTemplate(m_settings.queryTemplate,
                                                                 Solvane::EmailAddress(address));
    for (std::string const& name : m_settings.attributes) {
        parameter.attributes.emplace_back(name);
    }
    LDAPSearch request(connection, parameter);
    request.send();
    if (request.wait(m_settings.networkTimeout)) {
        connection.unbind(); // or a late answer would stay on it
        return noAnswer(timedOut, "no answer in time");
    }
    LDAPLookup::Answer answer;
    answer.code = request.result().resultCode();
    answer.text = request.result().errorMessage();
    answer.entries = request.result().searchResultEntries();
    if (answer.code != 0) {
        answer.outcome = Solvane::Lookup::outcomeOfSearch(answer.code);
    } else {
        answer.outcome =
            answer.entries.empty() ? LDAPLookup::Outcome::NotFound : LDAPLookup::Outcome::Found;
    }
    return answer;
}

std::map<std::string, unsigned long> PoolWay::statistics() const
{
    return {{"reused", m_pool.cacheHits().value()}, {"repeated", m_repeated}};
}

ServiceWay::ServiceWay(std::string socket, std::string base)
    : m_socket(std::move(socket)), m_base(std::move(base))
{
}

std::string ServiceWay::ask(std::string const& address)
{
    thread_local SocketmapConnection connection;
    return connection.exchange(m_socket, "users " + address);
}

LDAPLookup::Answer ServiceWay::lookUp(std::string const& address)
{
    std::string const reply = ask(address);
    LDAPLookup::Answer answer;
    if (reply.rfind("TEMP ", 0) == 0) {
        return noAnswer(0, reply.substr(5));
    }
    if (reply == "NOTFOUND ") {
        answer.outcome = LDAPLookup::Outcome::NotFound;
        return answer;
    }
    if (reply.rfind("OK ", 0) != 0) {
        answer.outcome = LDAPLookup::Outcome::Misconfigured;
        answer.text = "the service replies '" + reply + '\'';
        return answer;
    }
    std::istringstream values(reply.substr(3));
    std::string name;
    std::getline(values, name, ',');
    Solvane::LDAPAttribute mail{Solvane::LDAPAttributeType("mail")};
    for (std::string value; std::getline(values, value, ',');) {
        mail.value(value);
    }
    answer.outcome = LDAPLookup::Outcome::Found;
    answer.entries.emplace_back("uid=" + name + ',' + m_base,
                                std::list<Solvane::LDAPAttribute>{mail});
    return answer;
}

} // namespace SolvaneTest
