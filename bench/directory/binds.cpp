// Connect, bind and close; TLS sessions of the engine: first and resumed, and their memory.
#include "rows.h"

#include "Descriptor.h"
#include "LdapMessages.h"
#include "RawSession.h"
#include "ServerTls.h"

#include <solvane/session/Session.h>

#include <memory>
#include <thread>
#include <utility>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

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

/// A port on which the kernel accepts connections.
class OpenPort {
public:
    OpenPort() : m_socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
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
    int socket() const { return m_socket.number(); }

private:
    SolvaneTest::Descriptor m_socket;
    unsigned int m_number = 0;
};

/// The duration of a TLS bind without an answer.
void measureSilence()
{
    constexpr unsigned int timeout = 1;
    OpenPort const peer; // no server answers
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

/// A TLS server that accepts binds, one connection after the other.
class TlsBindServer {
public:
    /// @param resumes  accepts its own tickets; else it has forgotten their key
    TlsBindServer(SolvaneTest::TlsIdentity identity, std::string priority, bool resumes)
        : m_identity(std::move(identity)), m_priority(std::move(priority)), m_resumes(resumes),
          m_thread([this] { acceptAll(); })
    {
    }
    TlsBindServer(TlsBindServer const&) = delete;
    TlsBindServer& operator=(TlsBindServer const&) = delete;
    ~TlsBindServer()
    {
        shutdown(m_port.socket(), SHUT_RDWR); // ends accept()
        m_thread.join();
    }
    unsigned int port() const { return m_port.number(); }

private:
    void acceptAll()
    {
        auto tls = std::make_unique<SolvaneTest::ServerTls>(m_identity, m_priority);
        for (int client = -1; (client = accept(m_port.socket(), nullptr, nullptr)) != -1;) {
            SolvaneTest::Descriptor const owner(client);
            serve(client, *tls);
            if (!m_resumes) {
                tls = std::make_unique<SolvaneTest::ServerTls>(m_identity, m_priority);
            }
        }
    }
    static void serve(int client, SolvaneTest::ServerTls const& settings)
    {
        SolvaneTest::ServerTlsSession const tls(settings, client);
        int rc = gnutls_handshake(tls.get());
        while (rc < 0 && gnutls_error_is_fatal(rc) == 0) {
            rc = gnutls_handshake(tls.get());
        }
        char request[1024];
        for (ssize_t size = 0; rc == 0;) {
            size = gnutls_record_recv(tls.get(), request, sizeof request);
            if (size <= 0) {
                return;
            }
            std::string const answer = SolvaneTest::bindResponse(
                SolvaneTest::messageIdOf(std::string(request, static_cast<std::size_t>(size))));
            gnutls_record_send(tls.get(), answer.data(), answer.size());
        }
    }

    OpenPort m_port;
    SolvaneTest::TlsIdentity const m_identity;
    std::string const m_priority;
    bool const m_resumes;
    std::thread m_thread;
};

namespace Engine = Solvane::Lookup;

/// A bound TLS session.
std::unique_ptr<Engine::Session> openSession(std::string const& host, unsigned int port,
                                             std::shared_ptr<Engine::TlsContext> tls,
                                             std::string const& password)
{
    Engine::SessionOptions options;
    options.host = host;
    options.port = port;
    options.secure = true;
    options.tls = std::move(tls);
    options.bindDn = reader().dn;
    options.password = &password;
    auto session = std::make_unique<Engine::Session>(std::move(options));
    auto const soon = Engine::Clock::now() + std::chrono::seconds(10);
    require(session->reach(Engine::Step::bind, soon).isGood(), "the engine's TLS bind");
    return session;
}

/// Sessions with full handshakes and with resumed ones, of each version. The server is in the same
/// program, as slapd resumes none: only this thread's processor time counts.
void compareResumed(Options const& options)
{
    Rounds const rounds(options.rounds, options.blockSeconds, Cpu::thread);
    SolvaneTest::Authority authority;
    SolvaneTest::TlsIdentity const identity = authority.issue();
    Engine::TlsPolicy policy;
    policy.caFile = authority.file();
    auto const context = std::make_shared<Engine::TlsContext>(policy);
    for (unsigned long const version : {12UL, 13UL}) {
        std::string const priority = "NORMAL:-VERS-ALL:+VERS-TLS1." + std::to_string(version % 10);
        TlsBindServer const forgetful(identity, priority, false);
        TlsBindServer const resuming(identity, priority, true);
        auto const open = [&](TlsBindServer const& server, bool isResumed) {
            return [&, isResumed](unsigned long count) {
                for (; count > 0; --count) {
                    auto const session =
                        openSession("localhost", server.port(), context, reader().password);
                    require(session->isTlsResumed() == isResumed, "resumption");
                }
            };
        };
        openSession("localhost", resuming.port(), context, reader().password); // the first
        rounds.compare("TLS session",
                       {{"full", open(forgetful, false)},
                        {"full again", open(forgetful, false)},
                        {"resumed", open(resuming, true)}},
                       version);
    }
}

/// The heap that an idle session takes, and what all sessions of an engine share: the system's list
/// of authorities.
void measureIdleSessions(Options const& options)
{
    constexpr unsigned long count = 50;
    Engine::TlsPolicy policy;
    policy.caFile = options.caFile;
    policy.caFolder = "/etc/ssl/certs"; // the system's list of authorities
    policy.verify = Engine::TlsVerify::chain;
    unsigned long const before = heapBytes();
    auto const context = std::make_shared<Engine::TlsContext>(policy);
    require(context->verdict().isGood(), "list of authorities");
    Rounds::note("idle TLS session", "engine", "shared bytes",
                 static_cast<double>(heapBytes() - before));
    std::string const password = reader().password;
    std::vector<std::unique_ptr<Engine::Session>> sessions;
    auto const open = [&] {
        sessions.push_back(openSession(options.host, options.securePort, context, password));
    };
    open(); // GnuTLS allocates some of its own once
    sessions.reserve(count + 1);
    unsigned long const first = heapBytes();
    for (unsigned long i = 0; i < count; ++i) {
        open();
    }
    Rounds::note("idle TLS session", "engine", "bytes",
                 static_cast<double>(heapBytes() - first) / count);
}

} // namespace

void binds(Options const& options, Rounds const& rounds)
{
    raw_accept_any_certificate();
    compareBinds("bind", options.uri(), serverAt(options.host, options.port), rounds);
    compareBinds("bind over TLS", options.secureUri(),
                 serverAt(options.host, options.securePort, true), rounds);
    measureSilence();
    compareResumed(options);
    measureIdleSessions(options);
}

} // namespace SolvaneBench
