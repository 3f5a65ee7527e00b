// Connect, bind and close.
#include "rows.h"

#include "Descriptor.h"
#include "RawSession.h"

#include <netinet/in.h>
#include <sys/socket.h>

namespace SolvaneBench {

using Solvane::LDAPConnection;

namespace {

void compareBinds(std::string const& row, std::string const& uri,
                  LDAPConnection::RefServer const& server, Rounds const& rounds)
{
    auto const raw = [uri](unsigned long count) {
        for (; count > 0; --count) {
            RawSession(uri, reader());
        }
    };
    rounds.compare(row,
                   {{"raw", raw}, {"raw again", raw}, {"library", [server](unsigned long count) {
                                                           for (; count > 0; --count) {
                                                               openBound(server, reader());
                                                           }
                                                       }}});
}

/// A port on which the kernel accepts connections, but no server answers.
class SilentPort {
public:
    SilentPort() : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        SolvaneTest::checked(bind(m_socket.number(), generic, size), "bind");
        SolvaneTest::checked(listen(m_socket.number(), 1), "listen");
        SolvaneTest::checked(getsockname(m_socket.number(), generic, &size), "getsockname");
        m_number = ntohs(address.sin_port);
    }
    unsigned int number() const { return m_number; }

private:
    SolvaneTest::Descriptor m_socket;
    unsigned int m_number = 0;
};

/// The duration of a TLS bind without an answer.
void measureSilence()
{
    constexpr unsigned int timeout = 1;
    SilentPort const peer;
    LDAPConnection connection(LDAPConnection::RefServer("127.0.0.1", peer.number(),
                                                        LDAPConnection::V3, true, timeout, false,
                                                        false),
                              false);
    double const start = secondsOn(CLOCK_MONOTONIC);
    double const cpuStart = secondsOn(CLOCK_PROCESS_CPUTIME_ID);
    bool hasFailed = false;
    try {
        connection.bind(reader().dn, reader().password, LDAPConnection::Asynchronous);
    } catch (Solvane::LDAPException const&) {
        hasFailed = true;
    }
    require(hasFailed, "bind to a silent peer");
    Rounds::note("silent peer", "library", "beyond the timeout",
                 secondsOn(CLOCK_MONOTONIC) - start - timeout);
    Rounds::note("silent peer", "library", "processor time",
                 secondsOn(CLOCK_PROCESS_CPUTIME_ID) - cpuStart);
}

} // namespace

void binds(Options const& options, Rounds const& rounds)
{
    raw_accept_any_certificate();
    compareBinds("bind", options.uri(), serverAt(options.host, options.port), rounds);
    compareBinds("bind over TLS", options.secureUri(),
                 serverAt(options.host, options.securePort, true), rounds);
    measureSilence();
}

} // namespace SolvaneBench
